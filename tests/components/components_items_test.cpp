// Storage items: lifetime, change states, paths, actions and lazy loading.
#include "components_fixtures.h"

namespace docadmin::test {
namespace {

using ItemsTest = TreeTest;

TEST_F(ItemsTest, DocumentHeldThroughInterfaceOutlivesClearedDirectory) {
    TTestDocAdmin admin;
    TDocDirectory* dir = admin.AddDirectory(nullptr, "d");
    TDocument* doc = dir->AddDocument();
    doc->SetDocName("a.txt");
    IPtr<IDocument> held(static_cast<IDocument*>(doc));
    EXPECT_EQ(doc->RefCount(), 2);
    const int alive = TCustomStorageItem::InstanceCount();

    dir->Clear();
    EXPECT_EQ(dir->DocumentsInMemory().size(), 0u);
    EXPECT_EQ(TCustomStorageItem::InstanceCount(), alive);  // still alive
    EXPECT_EQ(held->Get_DocName(), "a.txt");
    EXPECT_EQ(held->Get_Directory(), nullptr);
    EXPECT_EQ(doc->RefCount(), 1);
    held.reset();  // the last release frees it
    EXPECT_EQ(TCustomStorageItem::InstanceCount(), alive - 1);
}

TEST_F(ItemsTest, ItemsHeldWhileAdministratorIsDestroyedLiveOnDetached) {
    IPtr<IDirectory> dir, root;
    IPtr<IDocument> doc;
    {
        TTestDocAdmin admin;
        TDocDirectory* d = admin.AddDirectory(nullptr, "d");
        TDocDirectory* sub = admin.AddDirectory(d, "sub");
        TDocument* x = sub->AddDocument();
        x->SetDocName("x.pdf");
        admin.AddDirectory(nullptr, "dropped");
        dir = IPtr<IDirectory>(static_cast<IDirectory*>(d));
        doc = IPtr<IDocument>(static_cast<IDocument*>(x));
    }
    // The held directory is cut from its tree and keeps its own content; the rest is gone.
    EXPECT_EQ(dir->Get_ParentDir(), nullptr);
    EXPECT_EQ(dir->Get_ChildDirectoryCount(), 1);
    IPtr<IDirectory> sub = dir->Get_ChildDirectory(0);
    EXPECT_EQ(sub->Get_Document(0), doc);
    IPtr<IRessource> res;
    ASSERT_TRUE(Supports(doc.get(), res));
    EXPECT_EQ(res->Get_Container(), nullptr);
    EXPECT_TRUE(res->Get_ACLWriteable());
    EXPECT_EQ(IntfToDocument(doc.get())->DocAdmin(), nullptr);
    EXPECT_EQ(TCustomStorageItem::InstanceCount(), ItemsBefore() + 3);
    // Releasing in any order frees everything (checked by the fixture).
    dir.reset();
    sub.reset();
    res.reset();
    EXPECT_EQ(doc->Get_DocName(), "x.pdf");  // held by its own reference
    doc.reset();

    // A held root keeps its whole tree but loses the administrator.
    {
        TTestDocAdmin admin;
        admin.AddDirectory(admin.AddDirectory(nullptr, "a"), "b");
        root = IPtr<IDirectory>(static_cast<IDirectory*>(admin.Directories()));
    }
    EXPECT_EQ(IntfToDirectory(root.get())->DocAdmin(), nullptr);
    ASSERT_EQ(root->Get_ChildDirectoryCount(), 1);
    EXPECT_EQ(root->Get_ChildDirectory(0)->Get_ChildDirectory(0)->Get_Title(), "b");
    EXPECT_EQ(TCustomStorageItem::InstanceCount(), ItemsBefore() + 3);
    root.reset();
}

TEST_F(ItemsTest, InterfacesAndCastsResolveToTheSameItem) {
    TTestDocAdmin admin;
    TDocDirectory* d = admin.AddDirectory(nullptr, "d");
    TDocument* doc = d->AddDocument();
    IPtr<IRessource> r(static_cast<IRessource*>(doc));
    IPtr<IDocument> asDoc;
    IPtr<IDocAdminDownloderCallBack> cb;
    IPtr<IDirectory> asDir;
    EXPECT_TRUE(Supports(r.get(), asDoc));
    EXPECT_TRUE(Supports(r.get(), cb));
    EXPECT_FALSE(Supports(r.get(), asDir));
    EXPECT_EQ(doc->RefCount(), 4);
    EXPECT_EQ(IntfToDocument(asDoc.get()), doc);
    EXPECT_THROW(IntfToDirectory(asDoc.get()), EConvertError);
    EXPECT_EQ(IntfToDirectorySafe(asDoc.get()), nullptr);
    EXPECT_EQ(IntfToDirectory(nullptr), nullptr);
    // An interface of an object that isn't an item gives nil by the safe form.
    auto* foreign = new TTestUserAccess;
    IPtr<IUserAccess> ua(foreign);
    EXPECT_EQ(IntfToDirectorySafe(ua.get()), nullptr);
    r = r;  // self-assignment keeps the reference
    r.reset();
    asDoc.reset();
    cb.reset();
    EXPECT_EQ(doc->RefCount(), 1);
}

TEST_F(ItemsTest, DeletingHeldChildrenFromTheListKeepsThemAlive) {
    IPtr<IDirectory> heldDir;
    IPtr<IDocument> heldDoc;
    {
        TTestDocAdmin admin;
        TDocDirectory* d = admin.AddDirectory(nullptr, "d");
        TDocDirectory* sub = admin.AddDirectory(d, "sub");
        heldDir = IPtr<IDirectory>(static_cast<IDirectory*>(sub));
        heldDoc = IPtr<IDocument>(static_cast<IDocument*>(d->AddDocument()));
        d->DeleteDirectory(0);
        d->DeleteDocument(0);
        EXPECT_EQ(d->ChildDirectoriesInMemory().size(), 0u);
        EXPECT_EQ(d->DocumentsInMemory().size(), 0u);
        EXPECT_EQ(heldDoc->Get_Directory(), nullptr);
        EXPECT_EQ(heldDir->Get_ParentDir().get(), static_cast<IDirectory*>(d));  // kept link
        EXPECT_EQ(sub->RefCount(), 1);
    }
    // The parent and its tree are gone; the held directory must not reach them.
    EXPECT_EQ(heldDir->Get_ParentDir(), nullptr);
    EXPECT_EQ(heldDir->Get_Title(), "sub");
    EXPECT_EQ(IntfToDirectory(heldDir.get())->Plugin(), "");
    heldDir.reset();
    heldDoc.reset();
}

TEST_F(ItemsTest, ChangeStateSetterRemembersTheStateBeforeDelete) {
    TTestDocAdmin admin;
    admin.SetAutoSave(false);
    TDocDirectory* d = admin.AddDirectory(nullptr, "d");
    EXPECT_EQ(d->ChangeState(), chAdded);
    d->SetChangeState(chDeleted);
    d->SetChangeState(chDeleted);  // a second delete keeps the first memory
    EXPECT_EQ(d->ChangeStateBeforeDeleted(), chAdded);
    d->SetChangeState(chStateBeforeDelete);
    EXPECT_EQ(d->ChangeState(), chAdded);
    EXPECT_EQ(d->ChangeStateBeforeDeleted(), chNone);

    // Titel and ACL group mark changed unless added; a deleted item becomes changed as well.
    d->SetTitel("t");
    d->SetACLGroupID(3);
    EXPECT_EQ(d->ChangeState(), chAdded);
    d->SetChangeState(chNone);
    d->SetTitel("u");
    EXPECT_EQ(d->ChangeState(), chChanged);
    d->SetChangeState(chDeleted);
    d->SetACLGroupID(4);
    EXPECT_EQ(d->ChangeState(), chChanged);
}

TEST_F(ItemsTest, DocumentSettersMarkChangesOnlyOutsideLoads) {
    TTestDocAdmin admin;
    auto ua = IPtr<IUserAccess>(new TTestUserAccess);
    admin.SetUserAccess(ua.get());
    TDocument* doc = admin.Directories()->AddDocument();
    doc->BeginLoad();
    doc->SetDocName("a.txt");
    doc->SetVersion({1, 2, 0, 0});
    doc->EndLoad();
    EXPECT_EQ(doc->ChangeState(), chNone);
    EXPECT_EQ(doc->ChangeID(), 0);

    doc->SetDocName("b.txt");  // no state change by itself
    EXPECT_EQ(doc->ChangeState(), chNone);
    EXPECT_EQ(doc->ChangeID(), 7);
    doc->SetVersion({1, 2, 0, 0});  // same version: nothing
    EXPECT_EQ(doc->ChangeState(), chNone);
    doc->Set_Version("1.3");
    EXPECT_EQ(doc->ChangeState(), chChanged);
    EXPECT_EQ(doc->Get_Version(), "1.3.0.0");

    TDocument* added = admin.Directories()->AddDocument();
    added->SetChangeState(chAdded);
    added->SetVersion(verFIRST);
    EXPECT_EQ(added->ChangeState(), chAdded);
}

TEST_F(ItemsTest, MovesFollowTheirOwnStateRules) {
    TTestDocAdmin admin;
    admin.SetAutoSave(false);
    TDocDirectory* a = admin.AddDirectory(nullptr, "a");
    TDocDirectory* b = admin.AddDirectory(nullptr, "b");
    TDocDirectory* inner = admin.AddDirectory(a, "inner");
    TDocument* kept = a->AddDocument();
    TDocument* fresh = a->AddDocument();
    fresh->SetChangeState(chAdded);
    inner->SetChangeState(chNone);
    a->SetChangeState(chNone);

    // Moving content marks only unchanged children.
    a->MoveContentTo(b, false, true);
    EXPECT_EQ(kept->ChangeState(), chChanged);
    EXPECT_EQ(fresh->ChangeState(), chAdded);
    EXPECT_EQ(inner->ChangeState(), chChanged);
    EXPECT_EQ(kept->Directory(), b);
    EXPECT_EQ(inner->ParentDir(), b);

    // Do_Move marks even an added item; a directory can't go into its own subtree.
    IPtr<IRessource> aRes(static_cast<IRessource*>(a));
    IPtr<IRessource> bRes(static_cast<IRessource*>(b));
    IPtr<IRessource> innerRes(static_cast<IRessource*>(inner));
    EXPECT_FALSE(bRes->Do_Move(innerRes.get()));
    EXPECT_EQ(b->ParentDir(), admin.Directories());
    EXPECT_TRUE(IPtr<IRessource>(static_cast<IRessource*>(fresh))->Do_Move(aRes.get()));
    EXPECT_EQ(fresh->ChangeState(), chChanged);
    EXPECT_EQ(fresh->Directory(), a);
    // A document moved to something that is no directory lands in the root.
    EXPECT_TRUE(IPtr<IRessource>(static_cast<IRessource*>(fresh))->Do_Move(nullptr));
    EXPECT_EQ(fresh->Directory(), admin.Directories());

    // Set_ParentDir marks changed unless added.
    TDocDirectory* added = admin.AddDirectory(nullptr, "new");
    IPtr<IDirectory>(static_cast<IDirectory*>(added))->Set_ParentDir(b);
    EXPECT_EQ(added->ChangeState(), chAdded);
    EXPECT_EQ(added->ParentDir(), b);
}

TEST_F(ItemsTest, PathQuotesTitlesAndGetChildDirByTitleFollowsItAndItsSkipList) {
    TTestDocAdmin admin;
    TDocDirectory* a = admin.AddDirectory(nullptr, "a,b");
    TDocDirectory* q = admin.AddDirectory(a, "say \"hi\"");
    TDocDirectory* c = admin.AddDirectory(a, "c");
    EXPECT_EQ(admin.Directories()->Path(), "");
    EXPECT_EQ(a->Path(), "\"a,b\"");
    EXPECT_EQ(q->Path(), "\"a,b\",\"say \"hi\"\"");  // quotes inside are not escaped
    EXPECT_EQ(c->Path(), "\"a,b\",\"c\"");
    EXPECT_EQ(admin.Directories()->GetChildDirByTitle(c->Path(), nullptr), c);
    EXPECT_EQ(admin.Directories()->GetChildDirByTitle("\"a,b\",\"say \"\"hi\"\"\"", nullptr), q);
    EXPECT_EQ(admin.Directories()->GetChildDirByTitle("", nullptr), nullptr);
    EXPECT_EQ(admin.Directories()->GetChildDirByTitle("\"a,b\",\"C\"", nullptr), nullptr);

    // A skip list walks same-titled siblings in turn.
    TDocDirectory* first = admin.AddDirectory(nullptr, "x");
    TDocDirectory* second = admin.AddDirectory(nullptr, "x");
    first->SetDirID(1);
    second->SetDirID(2);
    TSortedIntegerList skip;
    EXPECT_EQ(admin.Directories()->GetChildDirByTitle("x", &skip), first);
    EXPECT_EQ(admin.Directories()->GetChildDirByTitle("x", &skip), second);
    EXPECT_EQ(admin.Directories()->GetChildDirByTitle("x", &skip), nullptr);
    EXPECT_EQ(skip.GetAsCommaText(), "1,2");
}

TEST_F(ItemsTest, DefaultActionAndSupportedActions) {
    TTestDocAdmin admin;
    TDocument* doc = admin.Directories()->AddDocument();
    doc->SetDocName("scan.PdF");
    EXPECT_EQ(doc->Get_DefaultAction(), raView);
    doc->SetDocName("letter.docx");
    EXPECT_EQ(doc->Get_DefaultAction(), raEditMonitored);
    EXPECT_EQ(doc->Get_SupportedActions(), 131u | 112u | 8u | 516u);
    EXPECT_EQ(doc->Get_Caption(), "letter");
    EXPECT_EQ(doc->Get_Extension(), ".docx");
    doc->SetDocumentTags(dtReadOnly);
    EXPECT_EQ(doc->Get_DefaultAction(), raView);
    EXPECT_EQ(doc->Get_SupportedActions(), 131u | 112u | 8u);

    // A read-only user: nothing writeable, directories only offer 7 and 8.
    IPtr<TTestUserAccess> ua(new TTestUserAccess);
    ua->ReadOnly = true;
    admin.SetUserAccess(ua.get());
    doc->SetDocumentTags(0);
    EXPECT_EQ(doc->Get_DefaultAction(), raView);
    EXPECT_EQ(doc->Get_SupportedActions(), 131u | 112u);
    EXPECT_EQ(admin.Directories()->Get_SupportedActions(), 384u);
    ua->ReadOnly = false;
    EXPECT_EQ(admin.Directories()->Get_SupportedActions(), 504u);
}

TEST_F(ItemsTest, ResourceChildrenListDirectoriesFirst) {
    TTestDocAdmin admin;
    TDocDirectory* d = admin.AddDirectory(nullptr, "d");
    TDocument* doc = d->AddDocument();
    doc->SetDocName("z.txt");
    TDocDirectory* sub = admin.AddDirectory(d, "sub");
    EXPECT_EQ(d->Get_ChildCount(), 2);
    EXPECT_EQ(d->Get_Child(0)->Get_Caption(), "sub");
    EXPECT_EQ(d->Get_Child(1)->Get_Caption(), "z");
    EXPECT_EQ(sub->Get_RessourceFlags(), 5);
    EXPECT_EQ(doc->Get_RessourceFlags(), 10);
    EXPECT_THROW(doc->Get_Child(0), EAssertionFailed);
}

TEST_F(ItemsTest, LoadsLazilyButNeverNewDirectoriesNorWhileSaving) {
    TTestDocAdmin admin;
    TDocDirectory* added = admin.AddDirectory(nullptr, "new");
    const size_t before = admin.LoadDirectoriesCalls.size();
    EXPECT_EQ(added->ChildDirectoryCount(), 0);
    EXPECT_EQ(added->DocumentCount(), 0);
    EXPECT_EQ(admin.LoadDirectoriesCalls.size(), before);
    EXPECT_EQ(admin.LoadFilesCalls, 0);

    // A stored directory loads once; a directory added by a loader has no state.
    TDocDirectory* stored = admin.Directories()->AddChildDirectory();
    stored->SetDirID(5);
    EXPECT_EQ(stored->ChildDirectoryCount(), 0);
    EXPECT_EQ(stored->ChildDirectoryCount(), 0);
    EXPECT_EQ(admin.LoadDirectoriesCalls.size(), before + 1);
    EXPECT_EQ(stored->DocumentCount(), 0);
    EXPECT_EQ(admin.LoadFilesCalls, 1);

    // While saving nothing loads: probe from inside DoSaveChanges.
    int loadsDuringSave = -1;
    {
        class TProbeAdmin : public TTestDocAdmin {
          public:
            std::function<void()> Probe;
            bool DoSaveChanges() override {
                if (Probe) Probe();
                return false;
            }
        } probeAdmin;
        TDocDirectory* o = probeAdmin.Directories()->AddChildDirectory();
        probeAdmin.Probe = [&] {
            const size_t calls = probeAdmin.LoadDirectoriesCalls.size();
            o->ChildDirectoryCount();
            loadsDuringSave = static_cast<int>(probeAdmin.LoadDirectoriesCalls.size() - calls);
        };
        probeAdmin.SaveChanges();
    }
    EXPECT_EQ(loadsDuringSave, 0);
}

TEST_F(ItemsTest, NonBlockingDownloadReportsOnceAndAVanishingDocumentTellsItsCaller) {
    struct TCallBack : TInterfacedImpl<IRessourceActionCallBack> {
        void Do_ActionDone(IRessource* r, TRessourceAction a, const std::string& f) override {
            Log += "done:" + std::to_string(a) + ":" + r->Get_Caption() + ":" + ExtractFileName(f);
        }
        void Do_ActionFailed(IRessource*, TRessourceAction, const std::string&,
                             const std::string& m) override {
            Log += "failed:" + m;
        }
        void Do_RessourceDestroying(IRessource* r) override {
            IPtr<IRessource> hold(r);  // a callback that touches the count must not double-free
            Log += "gone";
        }
        std::string Log;
    };
    TTestDocAdmin admin;
    admin.SetDocFileLoader(new TTestStore(Temp / "store"));
    TDocument* doc =
        admin.SaveDoc(nullptr, chAdded, LocalFile("r.txt", "abc"), nullptr, "r.txt", 0);
    ASSERT_GT(doc->DocID(), 0);  // AutoSave stored it
    IPtr<TCallBack> cb(new TCallBack);
    admin.DownloadFile(doc, Temp / "out.txt", true, cb.get());
    EXPECT_EQ(cb->Log, "done:1:r:out.txt");
    EXPECT_EQ(ReadFile(Temp / "out.txt"), "abc");
    EXPECT_EQ(doc->NonBlockingActionCallBack(), nullptr);

    // A waiting caller hears of the document's end.
    cb->Log.clear();
    doc->SetNonBlockingActionCallBack(cb.get());
    admin.Clear();
    EXPECT_EQ(cb->Log, "gone");
}

TEST_F(ItemsTest, CalcSizeAndCountSumsBelowAndReportsChildrenFirst) {
    TTestDocAdmin admin;
    TDocDirectory* a = admin.AddDirectory(nullptr, "a");
    TDocDirectory* b = admin.AddDirectory(a, "b");
    a->AddDocument()->SetSize(10);
    b->AddDocument()->SetSize(0x100000005LL);  // only the low 32 bits count
    b->AddDocument()->SetSize(1);
    std::vector<std::string> order;
    std::int32_t dirs = 99, files = 99, size = 99;
    a->CalcSizeAndCount(dirs, files, size, true,
                        [&](TDocDirectory* d, std::int32_t, std::int32_t, std::int32_t) {
                            order.push_back(d->Titel());
                        });
    EXPECT_EQ(dirs, 1);
    EXPECT_EQ(files, 3);
    EXPECT_EQ(size, 16);
    EXPECT_EQ(order, (std::vector<std::string>{"b", "a"}));
}

}  // namespace
}  // namespace docadmin::test
