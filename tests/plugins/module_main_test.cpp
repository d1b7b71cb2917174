// The module's start-up and its external interfaces.
#include <spdlog/sinks/ostream_sink.h>

#include <sstream>

#include "_DocAdminStorageUIDs.h"
#include "_HostLog.h"
#include "_TVTLFrameworkScriptGlobalFunctions.h"
#include "_VTLDocumentsRestService.h"
#include "plugin_fixtures.h"

using namespace docadmin;
using namespace docadmin::test;

namespace {

class TSourceNotify : public TInterfacedObject, public IRessourceSourceNotify {
  public:
    HRESULT QueryInterface(const TGUID& iid, void** obj) override {
        if (QueryOwn<IRessourceSourceNotify>(iid, obj)) return S_OK;
        return TInterfacedObject::QueryInterface(iid, obj);
    }
    std::int32_t _AddRef() override { return TInterfacedObject::_AddRef(); }
    std::int32_t _Release() override { return TInterfacedObject::_Release(); }
    void Do_SourceNotify(IRessourceSource* ASource, std::int32_t AValue) override {
        Told.emplace_back(ASource, AValue);
    }
    std::vector<std::pair<IRessourceSource*, std::int32_t>> Told;
};

class ModuleMain : public ModuleHostTest {};

TEST_P(ModuleMain, ServerAndToolStartAlikeAndTheEndUndoesTheRegistrations) {
    FExtraConfig = "[local.DocAdmin]\nIconExt = \".mine\"\n";
    for (std::uint8_t mode : {rmTool, rmServer}) {
        SCOPED_TRACE(static_cast<int>(mode));
        if (!Restart(mode)) GTEST_SKIP() << "no PostgreSQL server";
        TdmDocAdminMain& main = FModule->Main();
        IRessourceSource* source = main.RessourceSource();

        // Only the server migrates the store (and records it); everything else is alike.
        const bool server = mode == rmServer;
        EXPECT_EQ(FHost->GlobalSettings().ReadInt64("DocAdmin", "STOREUPD"), server ? 2 : 0);
        EXPECT_EQ(FHost->GlobalSettings().ReadInt64("DocAdmin", "ARCHIVEFLAGUPD"), server ? 1 : 0);
        EXPECT_EQ(Repo().DocAdminInt(), FModule->Docs());
        ASSERT_EQ(FHost->RessourceSources().Count(), 1);
        EXPECT_EQ(FHost->RessourceSources().Identifier(0), DocAdminPluginGUID);
        EXPECT_EQ(FHost->RessourceSources().Item(0), source);
        TScriptGlobalVar global;
        ASSERT_TRUE(
            TVTLFrameworkScriptGlobalFunctions::FindGlobalScriptVar("DocAdminModule", global));
        EXPECT_EQ(global.TypeName, "DIExtFuncPluginDocAdmin");
        EXPECT_TRUE(Supports<IExtFuncPluginDocAdmin>(global.Value.get()));

        // Row rights of the three tables.
        TKRACLDataTable t;
        ASSERT_TRUE(TKRACLDataTableController::FindTable("docadmindir", t));
        EXPECT_EQ(t.ACLFields, "");
        ASSERT_TRUE(TKRACLDataTableController::FindTable("docadmindocs", t));
        EXPECT_EQ(t.ACLFields, "dirid");
        ASSERT_TRUE(TKRACLDataTableController::FindTable("docadminressources", t));
        EXPECT_EQ(t.TableType, TACLTableType::atFields);
        EXPECT_EQ(t.ACLFields, "documentid");

        const auto handlers = TKRFilterHandlerClient::HandlersForSchema("contacts");
        ASSERT_EQ(handlers.size(), 1u);
        EXPECT_EQ(handlers[0].Identifier, "{5FF8DCE5-1C50-42AF-BFB0-EE551AA541D0}");

        ASSERT_EQ(main.VTLBIAPIClient()->Items().size(), 1u);
        const TVTLBIAPIItem& api = main.VTLBIAPIClient()->Items()[0];
        EXPECT_EQ(api.APIRoot, "services");
        // Item 0 is the documents service; any other index gets nothing.
        TRestServiceClass cls;
        TInterfaceTypeList list = {nullptr};
        main.VTLBIAPIClient()->OnGetAPIService(main.VTLBIAPIClient(), api, cls, list);
        ASSERT_EQ(list.size(), 1u);
        EXPECT_EQ(list[0]->Name, "IDocumentStore");
        ASSERT_TRUE(cls);
        EXPECT_NE(dynamic_cast<IDocumentStore*>(cls().get()), nullptr);
        TVTLBIAPIItem other = api;
        other.Index = 1;
        list = {nullptr};
        main.VTLBIAPIClient()->OnGetAPIService(main.VTLBIAPIClient(), other, cls, list);
        EXPECT_TRUE(list.empty());

        EXPECT_EQ(DocumentsServiceRepository(), &ModuleDocumentsServiceRepository());

        // Icon settings: defaults where nothing stood.
        EXPECT_EQ(FHost->LocalSettings().ReadString("DocAdmin", "IconPath", ""),
                  ".\\custom\\plugin\\images");
        EXPECT_EQ(FHost->LocalSettings().ReadString("DocAdmin", "IconExt", ""), ".mine");

        global = {};
        IPtr<TSourceNotify> notify(new TSourceNotify);
        source->Do_AddNotifier(notify.get());
        FModule->Stop();
        EXPECT_EQ(notify->Told, (decltype(notify->Told){{source, 0}}));
        EXPECT_EQ(FHost->RessourceSources().Count(), 0);
        EXPECT_FALSE(
            TVTLFrameworkScriptGlobalFunctions::FindGlobalScriptVar("DocAdminModule", global));
        EXPECT_FALSE(TKRACLDataTableController::FindTable("docadmindocs", t));
        EXPECT_EQ(TdmDocAdminMain::Instance(), nullptr);
        EXPECT_EQ(TdmDocAdminRepository::Instance(), nullptr);
        EXPECT_EQ(DocumentsServiceRepository(), nullptr);
    }
}

TEST_P(ModuleMain, InterfaceSlots) {
    MODULE_START_OR_SKIP();
    TdmDocAdminMain& main = FModule->Main();
    IExtFuncPluginDocAdmin* docs = FModule->Docs();

    // One table answers the interface and its ancestors with one pointer.
    for (const TGUID& iid : {IInterface::IID, IExtFuncPlugin::IID, IExtFuncPluginMenu::IID,
                             IExtFuncPluginUniversal::IID, IExtFuncPluginDocAdmin::IID}) {
        void* p = nullptr;
        EXPECT_EQ(main.QueryInterface(iid, &p), S_OK);
        EXPECT_EQ(p, static_cast<void*>(docs));
    }
    void* p = &main;
    EXPECT_EQ(main.QueryInterface(IDirectoryRoot::IID, &p), E_NOINTERFACE);
    EXPECT_EQ(p, nullptr);
    // The resource source is a part of the same object: each answers the other.
    IPtr<IRessourceSource> source;
    ASSERT_TRUE(Supports(docs, source));
    EXPECT_EQ(source.get(), main.RessourceSource());
    IPtr<IExtFuncPluginDocAdmin> back;
    ASSERT_TRUE(Supports(source.get(), back));
    EXPECT_EQ(back.get(), docs);
    // The host finds the module's external interface through the plug-in object.
    EXPECT_TRUE(FModule->Plugin()->GetExtFuncInterface(IExtFuncPluginDocAdmin::IID, &p));
    EXPECT_EQ(p, static_cast<void*>(docs));

    EXPECT_EQ(docs->Get_ExtFuncCount(), 2);
    const std::tuple<std::int32_t, std::string, std::string, std::string> texts[] = {
        {0, "Dokumente Datensatz", "Documents record", "Documents for the current record."},
        {1, "Dokumente ganze Tabelle", "Documents entire table", "Documents for this table."},
    };
    for (const auto& [index, german, english, description] : texts) {
        FHost->Language = 0;
        EXPECT_EQ(docs->Get_ExtFuncTitle(index), german);
        FHost->Language = 1;
        EXPECT_EQ(docs->Get_ExtFuncTitle(index), english);
        EXPECT_EQ(docs->Get_ExtFuncDescription(index), description);
    }
    // A wrong index is the caller's fault and raises instead of ending the process.
    for (std::int32_t wrong : {-1, 2}) {
        EXPECT_THROW(docs->Get_ExtFuncTitle(wrong), EAssertionFailed);
        EXPECT_THROW(docs->Get_ExtFuncDescription(wrong), EAssertionFailed);
    }
    EXPECT_THROW(docs->Do_ExecuteRecordFunc(1, "p", "contacts", 1), EAssertionFailed);
    EXPECT_THROW(docs->Do_ExecuteTableFunc(0, "p", "contacts"), EAssertionFailed);
    EXPECT_THROW(docs->Do_Reserved(), EAssertionFailed);
    // With an empty plug-in text slots 6 and 7 don't even look at the schema.
    EXPECT_NO_THROW(docs->Do_ExecuteRecordFunc(0, "", "nosuchschema", 1));
    EXPECT_NO_THROW(docs->Do_ExecuteTableFunc(1, "", "nosuchschema"));
    EXPECT_THROW(docs->Do_ExecuteRecordFunc(0, ContactsStorageUID, "nosuchschema", 1),
                 EDBUnknownSchema);
    EXPECT_THROW(docs->Do_ExecuteTableFunc(1, ContactsStorageUID, "nosuchschema"),
                 EDBUnknownSchema);
    for (int context : {0, 1, 2, 3})
        for (int index : {0, 1, 2})
            EXPECT_EQ(docs->Get_ExtFuncValid(context, index),
                      (context == 1 && index == 0) || (context == 2 && index == 1));
    // The dialog slots answer false and leave their outputs alone.
    std::string name = "keep";
    std::int32_t id = 7;
    EXPECT_FALSE(docs->Do_SaveDialog("p", "b", name, id));
    EXPECT_FALSE(docs->Do_SaveDialogEx1("p", "b", "f", "l", id));
    EXPECT_FALSE(docs->Do_OpenDialog("p", "b", id));
    EXPECT_FALSE(docs->Do_OpenDialogEx1("p", "b", "l", name));
    EXPECT_EQ(name, "keep");
    EXPECT_EQ(id, 7);

    // IRessourceSource.
    IPtr<IInterface> out(docs);
    EXPECT_EQ(main.Get_ContainerInfo(0, out), 0);
    EXPECT_FALSE(out);
    EXPECT_EQ(main.Get_Caption(), "Stored Documents");
    FHost->Language = 0;
    EXPECT_EQ(main.Get_Caption(), "Abgelegte Dokumente");
    FHost->Language = 2;  // French has no texts of its own: the base language stands in
    EXPECT_EQ(Repo().GetTranslatedText(IDS_DOCUPDCAP), "Dokument archiviert");
    EXPECT_EQ(Repo().GetTranslatedText("not a key"), "not a key");
    IPtr<TSourceNotify> n(new TSourceNotify);
    main.Do_AddNotifier(n.get());
    main.Do_AddNotifier(n.get());
    main.Do_RemoveNotifier(n.get());
    EXPECT_EQ(main.NotifierCount(), 1u);
    main.Do_RemoveNotifier(n.get());
    main.Do_RemoveNotifier(n.get());
    EXPECT_EQ(main.NotifierCount(), 0u);
}

TEST_P(ModuleMain, AddDocumentNeverFailsAndLinksGoWithTheirDocument) {
    MODULE_START_OR_SKIP();
    IExtFuncPluginDocAdmin* docs = FModule->Docs();
    std::ostringstream log;
    auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(log);
    HostLog()->sinks().push_back(sink);
    TFinally unhook{[&] {
        auto& sinks = HostLog()->sinks();
        sinks.erase(std::find(sinks.begin(), sinks.end(), sink));
    }};
    docs->Do_AddDocument(ContactsStorageUID, "\"Inbox\"", "a.txt", LocalFile("a", "A"), true);
    docs->Do_AddDocument(ContactsStorageUID, "\"Inbox\"", "b.txt", LocalFile("b", "B"), false);
    EXPECT_EQ(log.str(), "");
    docs->Do_AddDocument(ContactsStorageUID, "\"Inbox\"", "c.txt", (FDir / "missing").string(),
                         false);
    EXPECT_NE(log.str().find("c.txt failed"), std::string::npos) << log.str();
    EXPECT_NE(log.str().find("missing"), std::string::npos) << log.str();
    // Both documents stand in the one folder that the operation looks up.
    std::unique_ptr<TBaseDocAdmin> admin =
        Repo().CreateDocAdmin(ContactsStorageUID, "\"Inbox\"", false, "");
    TDocDirectory* inbox = admin->Directories()->GetChildDirByTitle("\"Inbox\"", nullptr);
    ASSERT_NE(inbox, nullptr);
    ASSERT_EQ(inbox->DocumentCount(), 2);
    EXPECT_EQ(RowCount("docadmindocs"), 2);

    const std::int64_t first = inbox->GetDocuments(0)->DocID();
    const std::int64_t second = inbox->GetDocuments(1)->DocID();
    EXPECT_TRUE(docs->Do_AddRessourceLink("CRMAI", 5, first));
    EXPECT_TRUE(docs->Do_AddRessourceLink("CRMAI", 6, second));
    EXPECT_TRUE(docs->Do_AddRessourceLink("OTHER", 5, 999999));  // no check that it exists
    EXPECT_EQ(RowCount("docadminressources"), 3);
    DeleteRow(DB(), "contacts", Insert("contacts", {{"name", TVariant("x")}}));
    EXPECT_EQ(RowCount("docadminressources"), 3);
    DeleteRow(DB(), "docadmindocs", first);
    EXPECT_EQ(RowCount("docadminressources", "documentid", TVariant(static_cast<long long>(first))),
              0);
    EXPECT_EQ(RowCount("docadminressources"), 2);
}

DB_INSTANTIATE(ModuleMain);

}  // namespace
