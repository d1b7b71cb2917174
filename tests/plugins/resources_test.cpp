// Record resources of the module: the doc:// grammar, reuse of containers, the linked documents
// of a record and the actions on them and on a document tree, on SQLite and PostgreSQL.
#include <thread>

#include "_DocAdminRessources.h"
#include "_TClientSQL.h"
#include "_TKRRecordSet.h"
#include "plugin_fixtures.h"

using namespace docadmin;
using namespace docadmin::test;

namespace {

const std::string kGUID = "{DBAE1129-670F-45DA-8489-6D64A3429BBF}";

TEST(ResourceAddress, Grammar) {
    struct TCase {
        std::string Text;
        bool IsAddress;
        std::string Plugin, Base, Params;
    };
    const TCase cases[] = {
        {"doc://", true, "", "", ""},
        {"doc:/", false, "", "", ""},
        {"abcde", false, "", "", ""},
        {"Doc://a", false, "", "", ""},  // the scheme is case-sensitive
        {"xdoc://a", false, "", "", ""},
        {"doc://@" + kGUID + "|a?b", true, kGUID, "a", "b"},
        {"doc://@" + kGUID + "?a?b", true, kGUID, "a", "b"},  // the skipped one isn't looked at
        {"doc://@{short}", true, "{short}", "", ""},
        {"doc://\"A\",\"B\"?docname like 'x%'?y", true, "", "\"A\",\"B\"", "docname like 'x%'?y"},
        {"doc://%41", true, "", "%41", ""},  // no unescaping
    };
    for (const TCase& c : cases) {
        SCOPED_TRACE(c.Text);
        TDocAdminAddress a{"unchanged", "", ""};
        ASSERT_EQ(ParseDocAdminAddress(c.Text, a), c.IsAddress);
        if (!c.IsAddress) {
            EXPECT_EQ(a.Plugin, "unchanged");
            continue;
        }
        EXPECT_EQ(a.Plugin, c.Plugin);
        EXPECT_EQ(a.BaseDirectory, c.Base);
        EXPECT_EQ(a.Params, c.Params);
    }
}

class TCallBack : public TInterfacedObject, public IRessourceActionCallBack {
  public:
    HRESULT QueryInterface(const TGUID& iid, void** obj) override {
        if (QueryOwn<IRessourceActionCallBack>(iid, obj)) return S_OK;
        return TInterfacedObject::QueryInterface(iid, obj);
    }
    std::int32_t _AddRef() override { return TInterfacedObject::_AddRef(); }
    std::int32_t _Release() override { return TInterfacedObject::_Release(); }
    void Do_ActionDone(IRessource*, TRessourceAction, const std::string& AFile) override {
        Done.push_back(AFile);
    }
    void Do_ActionFailed(IRessource*, TRessourceAction, const std::string&,
                         const std::string& AMessage) override {
        Failed.push_back(AMessage);
    }
    void Do_RessourceDestroying(IRessource*) override {}
    std::vector<std::string> Done, Failed;
};

class Resources : public ModuleHostTest {
  protected:
    IPtr<IRessourceContainer> Container(const std::string& AIdentifier, std::int64_t AID) {
        return FModule->Main().GetRessourceContainer(AIdentifier, AID);
    }
    // A document in the global folder "Files"; answers its id.
    std::int64_t Store(const std::string& AName, const std::string& AContent,
                       TDocAdminDocTags ATags = 0) {
        std::unique_ptr<TBaseDocAdmin> admin = Repo().CreateDocAdmin("", "\"Files\"", false, "");
        admin->Directories()->ChildDirectoryCount();  // finds or makes the folder
        TDocument* doc = admin->SaveDoc(nullptr, chAdded, LocalFile(AName, AContent),
                                        admin->Directories(), AName, ATags);
        return doc->DocID();
    }
    bool Act(IRessourceContainer* AContainer, TRessourceAction AAction, IRessource* ARessource,
             const std::string& AFile = "", const std::string& ACaption = "",
             IRessourceActionCallBack* ACallBack = nullptr) {
        return AContainer->Do_ExecuteAction(AAction, ARessource, AFile, ACaption, false,
                                            ACallBack != nullptr, ACallBack, nullptr, ramDefault);
    }
    std::string Copy(IRessourceContainer* AContainer, IRessource* ARessource) {
        const std::string dest = (FDir / ("copy" + std::to_string(++FCopies))).string();
        EXPECT_TRUE(Act(AContainer, raSaveCopy, ARessource, dest));
        return ReadText(dest);
    }
    // Removes every stored file: each download fails from here on.
    void EmptyStore() {
        for (const auto& e : fs::recursive_directory_iterator(FDir / "store"))
            if (e.is_regular_file()) fs::remove(e.path());
    }
    // View, monitored edit, copy and replace of the document AResource (holding ABefore); then
    // copies of the new content and, once the stored file is gone, failed copies: reported when
    // not blocking, raised when blocking.
    void ExpectDocumentActions(IRessourceContainer* AContainer, IRessource* AResource,
                               const std::string& ABefore) {
        EXPECT_TRUE(Act(AContainer, raView, AResource));
        EXPECT_TRUE(Act(AContainer, raEditMonitored, AResource));
        EXPECT_EQ(Copy(AContainer, AResource), ABefore);
        EXPECT_TRUE(Act(AContainer, raReplace, AResource, LocalFile("new.txt", "replaced")));
        EXPECT_EQ(Copy(AContainer, AResource), "replaced");  // not the file first listed
        IPtr<TCallBack> cb(new TCallBack);
        const std::string dest = (FDir / "nb").string();
        EXPECT_TRUE(Act(AContainer, raSaveCopy, AResource, dest, "", cb.get()));
        EXPECT_EQ(cb->Done, std::vector<std::string>{dest});
        EXPECT_EQ(ReadText(dest), "replaced");
        EmptyStore();
        EXPECT_TRUE(Act(AContainer, raSaveCopy, AResource, dest, "", cb.get()));
        ASSERT_EQ(cb->Failed.size(), 1u);
        EXPECT_FALSE(cb->Failed[0].empty());
        EXPECT_ANY_THROW(Act(AContainer, raSaveCopy, AResource, dest));
    }
    int Links(std::int64_t ADocumentID) {
        return RowCount("docadminressources", "documentid",
                        TVariant(static_cast<long long>(ADocumentID)));
    }
    int FCopies = 0;
};

TEST_P(Resources, OneContainerPerRecordAndScreenOnTheMainThreadOnly) {
    MODULE_START_OR_SKIP();
    TDocAdminRessourceProvider& provider = FModule->Main().Ressources();
    for (const std::string id : {"CONTACTS", "doc://\"Files\""}) {
        SCOPED_TRACE(id);
        IPtr<IRessourceContainer> a = Container(id, 7);
        EXPECT_EQ(Container(id, 7), a);
        EXPECT_NE(Container(id, 8), a);
        EXPECT_NE(Container(id == "CONTACTS" ? "OTHER" : "doc://", 7), a);
        IPtr<IRessourceContainer> off1, off2;
        std::thread([&] {
            off1 = Container(id, 7);
            off2 = Container(id, 7);
        }).join();
        EXPECT_NE(off1, a);
        EXPECT_NE(off1, off2);
        EXPECT_EQ(off1->Get_ResIdentifier(), id);
        EXPECT_EQ(off1->Get_ResID(), 7);
        EXPECT_EQ(provider.LoadedCount(), 1u);  // the others went with their last reference
        IPtr<IRessourceContainerEx> ex;
        EXPECT_EQ(Supports(a.get(), ex), id == "CONTACTS");
        if (ex) {
            EXPECT_EQ(ex->Get_Caption(), "Linked Documents");
        }
        a.reset();
        ex.reset();
        EXPECT_EQ(provider.LoadedCount(), 0u);
    }
}

TEST_P(Resources, LinkedDocumentsOfARecord) {
    MODULE_START_OR_SKIP();
    const std::int64_t text = Store("offer.txt", "offer");
    const std::int64_t locked = Store("contract.pdf", "%PDF", dtReadOnly);
    IExtFuncPluginDocAdmin* docs = FModule->Docs();
    docs->Do_AddRessourceLink("CONTACTS", 5, text);
    docs->Do_AddRessourceLink("CONTACTS", 5, locked);
    docs->Do_AddRessourceLink("CONTACTS", 0, text);  // a record id of 0 lists nothing
    docs->Do_AddRessourceLink("OTHER", 5, text);

    EXPECT_EQ(Container("CONTACTS", 0)->Get_Count(), 0);
    IPtr<IRessourceContainer> c = Container("CONTACTS", 5);
    ASSERT_EQ(c->Get_Count(), 2);
    struct TExpect {
        std::int64_t ID;
        const char *Caption, *Ext;
        TRessourceActions Actions;
        std::int64_t Size;
    };
    const TExpect expected[] = {{text, "offer", ".txt", 527, 5},
                                {locked, "contract", ".pdf", 11, 4}};
    for (int i = 0; i < 2; ++i) {
        IPtr<IRessource> r = c->Get_Item(i);
        EXPECT_EQ(r->Get_ID(), expected[i].ID);
        EXPECT_EQ(r->Get_Caption(), expected[i].Caption);
        EXPECT_EQ(r->Get_Extension(), expected[i].Ext);
        EXPECT_EQ(r->Get_SupportedActions(), expected[i].Actions);
        EXPECT_EQ(c->Get_SupportedActions(r.get()), expected[i].Actions);
        EXPECT_EQ(r->Get_Size(), expected[i].Size);
        EXPECT_EQ(r->Get_RessourceFlags(), 10);
        EXPECT_GT(r->Get_Date(), 0);
        EXPECT_EQ(r->Get_Container(), c);
    }

    // AddLink: a loaded container lists the link at once, an unloaded one on its load; both
    // write the row.
    const std::int64_t third = Store("memo.txt", "memo");
    IPtr<IDocAdminRessourceContainer> links;
    ASSERT_TRUE(Supports(c.get(), links));
    EXPECT_TRUE(links->AddLink(third, "memo.txt"));
    ASSERT_EQ(c->Get_Count(), 3);
    IPtr<IRessource> added = c->Get_Item(2);
    EXPECT_EQ(added->Get_Caption(), "memo");
    EXPECT_EQ(added->Get_SupportedActions(), 527u);
    EXPECT_EQ(Copy(c.get(), added.get()), "memo");  // by document id: the link has no stored name
    IPtr<IRessourceContainer> unloaded = Container("CONTACTS", 6);
    ASSERT_TRUE(Supports(unloaded.get(), links));
    EXPECT_TRUE(links->AddLink(third, "memo.txt"));
    EXPECT_EQ(Links(third), 2);
    EXPECT_EQ(unloaded->Get_Count(), 1);
    EXPECT_THROW(links->AddLink(999999, "none.txt"), EDocAdminFileNotFoundInRepository);
    EXPECT_EQ(unloaded->Get_Count(), 1);
}

TEST_P(Resources, ActionsOnALinkedDocument) {
    MODULE_START_OR_SKIP();
    const std::int64_t id = Store("offer.txt", "first");
    FModule->Docs()->Do_AddRessourceLink("CONTACTS", 5, id);
    FModule->Docs()->Do_AddRessourceLink("CONTACTS", 9, id);
    IPtr<IRessourceContainer> c = Container("CONTACTS", 5);
    ASSERT_EQ(c->Get_Count(), 1);
    IPtr<IRessource> r = c->Get_Item(0);

    ExpectDocumentActions(c.get(), r.get(), "first");
    EXPECT_EQ(r->Get_Size(), 8);

    // The document goes, and with it every link to it, also another record's.
    EXPECT_TRUE(Act(c.get(), raDelete, r.get()));
    EXPECT_EQ(c->Get_Count(), 0);
    EXPECT_EQ(RowCount("docadmindocs", "id", TVariant(static_cast<long long>(id))), 0);
    EXPECT_EQ(Links(id), 0);
    EXPECT_FALSE(r->Do_ExecuteAction(raView, "", "", false, false, nullptr, nullptr, ramDefault));
}

TEST_P(Resources, ActionsOnATreeDocumentAndDirectory) {
    MODULE_START_OR_SKIP();
    IPtr<IRessourceContainer> c = Container("doc://\"Tree\"", 0);
    EXPECT_EQ(c->Get_Count(), 0);
    EXPECT_EQ(c->Get_SupportedActions(nullptr), 113u);
    EXPECT_TRUE(Act(c.get(), raAddDirectory, nullptr, "Sub"));
    EXPECT_TRUE(Act(c.get(), raAddDocument, nullptr, LocalFile("a.txt", "top"), "top.txt"));
    ASSERT_EQ(c->Get_Count(), 2);
    IPtr<IRessource> sub = c->Get_Item(0);
    IPtr<IRessource> top = c->Get_Item(1);
    EXPECT_EQ(sub->Get_Caption(), "Sub");
    EXPECT_EQ(top->Get_Caption(), "top");
    EXPECT_TRUE(Act(c.get(), raAddDocument, sub.get(), LocalFile("b.txt", "inner"), "in.txt"));
    ASSERT_EQ(sub->Get_ChildCount(), 1);
    IPtr<IRessource> inner = sub->Get_Child(0);

    // What was written is in the database: a fresh container over the same folder sees it.
    IPtr<IRessourceContainer> again = Container("doc://\"Tree\"", 1);
    ASSERT_EQ(again->Get_Count(), 2);
    EXPECT_EQ(again->Get_Item(0)->Get_ChildCount(), 1);

    EXPECT_EQ(Copy(c.get(), inner.get()), "inner");
    ExpectDocumentActions(c.get(), top.get(), "top");

    const int docs = RowCount("docadmindocs");
    EXPECT_TRUE(Act(c.get(), raDelete, top.get()));
    EXPECT_EQ(RowCount("docadmindocs"), docs - 1);
    EXPECT_TRUE(Act(c.get(), raDelete, sub.get()));
    EXPECT_EQ(RowCount("docadmindocs"), docs - 2);
    EXPECT_EQ(c->Get_Count(), 0);
    again->Do_Reload(false);
    EXPECT_EQ(again->Get_Count(), 0);
}

DB_INSTANTIATE(Resources);

}  // namespace
