// The repository: store choice, administrators, documents outside a tree, dead-link cleanup.
#include <atomic>

#include "_DocAdminStorageUIDs.h"
#include "_DocAdminToolsIntf.h"
#include "_DocFileLoaderChoice.h"
#include "_TDocFileLoaderLocFile.h"
#include "plugin_fixtures.h"

using namespace docadmin;
using namespace docadmin::test;

namespace {

// The kind of store a class makes: "locfile", "locserver", or the kind an unavailable store
// names in its error.
std::string KindOf(TBaseDocFileLoaderClass AClass) {
    std::unique_ptr<TBaseDocFileLoader> store(AClass(nullptr));
    if (dynamic_cast<TDocFileLoaderLocServer*>(store.get())) return "locserver";
    if (dynamic_cast<TDocFileLoaderLocFile*>(store.get())) return "locfile";
    try {
        store->LoadSettings(false);
    } catch (const EDocAdminException& e) {
        const std::string m = e.Message();
        EXPECT_NE(m.find("is not available"), std::string::npos) << m;
        const auto q = m.find('"');
        return m.substr(q + 1, m.find('"', q + 1) - q - 1);
    }
    return "?";
}

TEST(StoreChoice, FollowsRunModeConnectionAndSetting) {
    struct TCase {
        std::uint8_t Mode;
        const char* RepType;
        int Kind;        // connection kind of the selected database
        int Connection;  // -1 no connection object, 0 not connected, 1 connected
        bool OfflineIn;
        const char* Expected;  // store kind
        bool OfflineOut;
    };
    const TCase cases[] = {
        // The server: cloud settings or its own store; "remote" and kind 1 don't matter, and the
        // offline flag is left as it came.
        {3, "azureblobstorage", 0, -1, false, "azureblobstorage", false},
        {3, "awssimplestorage", 1, -1, false, "awssimplestorage", false},
        {3, "remote", 0, 1, false, "locserver", false},
        {3, "", 1, -1, false, "locserver", false},
        {3, "", 0, -1, true, "locserver", true},
        // A client.
        {0, "", 0, -1, false, "locfile", false},
        {0, "azureblobstorage", 0, -1, false, "azureblobstorage", false},
        {0, "AzureBlobStorage", 0, -1, false, "locfile", false},
        {0, "awssimplestorage", 0, 0, false, "awssimplestorage", false},
        {0, "remote", 0, 1, false, "remote", false},
        {0, "remote", 0, 0, false, "locfile", false},
        {0, "remote", 0, -1, false, "locfile", false},
        {0, "remote", 0, 1, true, "locfile", true},
        // Connection kind 1 forces the local file store and tells the caller.
        {0, "azureblobstorage", 1, 1, false, "locfile", true},
        {0, "remote", 1, 1, false, "locfile", true},
    };
    const fs::path dir = FreshTempDir("choice");
    for (const TCase& c : cases) {
        SCOPED_TRACE(std::to_string(c.Mode) + " \"" + c.RepType + "\" kind " +
                     std::to_string(c.Kind) + " connection " + std::to_string(c.Connection) +
                     (c.OfflineIn ? " offline" : ""));
        TChoiceMain main;
        main.StoreDir = dir.string();
        main.Mode = c.Mode;
        main.RepType = c.RepType;
        main.Kind = c.Kind;
        main.HasConnection = c.Connection >= 0;
        main.Connection.IsConnected = c.Connection == 1;
        TModuleRun module(&main);
        bool offline = c.OfflineIn;
        EXPECT_EQ(KindOf(module.Repo().GetDocFileLoaderClass(offline)), c.Expected);
        EXPECT_EQ(offline, c.OfflineOut);
        // Every kind but the two local stores counts as remote; the question never goes offline.
        if (!c.OfflineIn) {
            EXPECT_EQ(module.Docs()->Get_IsRemoteServerStore(),
                      !std::string(c.Expected).starts_with("loc"));
        }
    }
    fs::remove_all(dir);
}

TEST(StorageUIDs, PrefixDecidesAndEveryNameYieldsOne) {
    const std::pair<const char*, const char*> cases[] = {
        {"catalog_items", "{14003704-5069-4B18-AA23-A71F76B231C2}"},
        {"marketplace_x", "{B5266F78-148B-4222-8FE9-E34E64AC0605}"},
        {"view_marketplace", "{B5266F78-148B-4222-8FE9-E34E64AC0605}"},
        {"knowledgebase_a", "{BCC774D5-21B7-4733-B5EA-63311654D9B9}"},
        {"manufacturing_a", "{DA97457A-89E6-4E53-B52D-5FF9095D2A0B}"},
        {"article_a", "{28FFFE04-66C0-4F03-BB58-92B5D6F2D78E}"},
        {"sales_orders", "{C4BE0188-FE3A-47E7-B34D-63569B3CBC95}"},
        {"supplierorder_a", "{BA23226D-4FE1-438A-AD04-869B8A9DECB5}"},
        {"project_a", "{83549848-907D-496E-A077-7983E79ABF61}"},
        {"contacts", "{A48847CA-33D3-4EB0-A586-E316EA2E5322}"},
        {"Catalog_items", "{A48847CA-33D3-4EB0-A586-E316EA2E5322}"},
        {"catalog", "{A48847CA-33D3-4EB0-A586-E316EA2E5322}"},
        {"", "{A48847CA-33D3-4EB0-A586-E316EA2E5322}"},
    };
    for (const auto& [table, uid] : cases)
        EXPECT_EQ(GuessStorageUIDBySQLTableName(table), uid) << table;
}

TEST(CreateDocAdmin, PluginAndPathFromTheArguments) {
    const fs::path dir = FreshTempDir("createadmin");
    TChoiceMain main;
    main.StoreDir = dir.string();
    TModuleRun module(&main);
    const std::string rec = "{6B1F0C1E-2D4A-4E8B-9C3D-5A7E8F9B0C1D}";
    const std::string plugin = "{0C7D51E2-1F0B-4C55-9E7A-3B8F2D6A4C10}";
    struct Case {
        std::string Plugin, Base, AdminPlugin, RootPath;
    };
    const Case cases[] = {
        // The empty GUID with a record path takes the storage of the path's table.
        {EmptyUID, "\"contacts#Records\",\"" + rec + "\"", ContactsStorageUID,
         "\"" + ContactsStorageUID + "\",\"contacts#Records\",\"" + rec + "\""},
        {EmptyUID, "\"catalog_items#Records\"", CatalogStorageUID,
         "\"" + CatalogStorageUID + "\",\"catalog_items#Records\""},
        // Without the marker, or with nothing before it, the empty GUID stays and is quoted in.
        {EmptyUID, "\"Letters\"", EmptyUID, "\"" + EmptyUID + "\",\"Letters\""},
        {EmptyUID, "#Records\",\"x\"", EmptyUID, "\"" + EmptyUID + "\",#Records\",\"x\""},
        {EmptyUID, "", EmptyUID, "\"" + EmptyUID + "\""},
        {"", "\"Letters\"", GlobalPluginGUID, "\"Letters\""},
        {AllPluginsGUID, "\"A\"", AllPluginsGUID, "\"A\""},
        {GlobalPluginGUID, "", GlobalPluginGUID, ""},
        {plugin, "\"A\",\"B\"", plugin, "\"" + plugin + "\",\"A\",\"B\""},
    };
    for (const Case& c : cases) {
        std::unique_ptr<TBaseDocAdmin> admin =
            module.Repo().CreateDocAdmin(c.Plugin, c.Base, false, "");
        EXPECT_EQ(admin->Plugin(), c.AdminPlugin) << c.Plugin << " " << c.Base;
        EXPECT_EQ(admin->RootDirectoryPath(), c.RootPath) << c.Plugin << " " << c.Base;
        ASSERT_NE(admin->DocFileLoader(), nullptr);
        EXPECT_EQ(static_cast<TDocFileLoaderLocFile*>(admin->DocFileLoader())->FilePath(),
                  dir.string());
    }
    // A store that isn't available fails the creation with its kind named.
    main.RepType = "awssimplestorage";
    EXPECT_THROW(module.Repo().CreateDocAdmin(plugin, "", false, ""), EDocAdminException);
    fs::remove_all(dir);
}

// ---- On both databases

std::atomic<int> GDownloads{0};

// The local store, counting downloads.
class TCountingStore : public TDocFileLoaderLocFile {
  public:
    using TDocFileLoaderLocFile::TDocFileLoaderLocFile;
    void DownloadFile(const std::string& RemoteFile, const std::string& DestFileName) override {
        ++GDownloads;
        TDocFileLoaderLocFile::DownloadFile(RemoteFile, DestFileName);
    }
};

class TCountingRepository : public TdmDocAdminRepository {
  public:
    using TdmDocAdminRepository::TdmDocAdminRepository;
    TBaseDocFileLoaderClass GetDocFileLoaderClass(bool&) override {
        return &docadmin::CreateDocFileLoader<TCountingStore>;
    }
};

class Repository : public ModuleHostTest {};

// Without a tree: a download by UID reaches the store only for a known document; an update by
// id archives the old file; a remote name is fetched as it is.
TEST_P(Repository, DownloadAndUpdateWithoutATree) {
    MODULE_START_OR_SKIP();
    IPtr<IDirectoryRoot> root = Repo().GetDocAdminObject(ContactsStorageUID, "\"Letters\"", true,
                                                         "", -1, 0, 0, true, false);
    IPtr<IDocument> doc =
        root->Do_SaveDocument(nullptr, "letter.txt", LocalFile("a.txt", "hello"), 0);
    ASSERT_TRUE(root->Do_SaveChanges());
    const std::int64_t id = doc->Get_DocID();
    const std::string uid = DB()->GetRecordUIDByDBID("docadmindocs", id);
    ASSERT_TRUE(IsGuid(uid)) << uid;

    TClientPluginBase owner(DocAdminPluginGUID, 0, nullptr, true);
    owner.SetMainInterface(FHost.get());
    TCountingRepository counting(&owner);
    GDownloads = 0;
    std::string name = "stale";
    TDateTime created = -1, modified = -1;
    const std::string dest = (FDir / "out.txt").string();
    EXPECT_FALSE(counting.DownloadDocumentWithUID("{00000000-1111-2222-3333-444444444444}", dest,
                                                  name, created, modified, false));
    EXPECT_EQ(GDownloads, 0);
    EXPECT_EQ(name, "");
    EXPECT_EQ(created, -1);
    EXPECT_FALSE(fs::exists(dest));

    EXPECT_TRUE(counting.DownloadDocumentWithUID(uid, dest, name, created, modified, false));
    EXPECT_EQ(GDownloads, 1);
    EXPECT_EQ(name, "letter.txt");
    EXPECT_GT(created, 0);
    EXPECT_GT(modified, 0);
    EXPECT_EQ(ReadText(dest), "hello");

    EXPECT_TRUE(Repo().UpdateDocumentWithID(id, LocalFile("b.txt", "two"), false, true));
    EXPECT_FALSE(Repo().UpdateDocumentWithID(id + 1000, LocalFile("c.txt", "x"), false, true));
    EXPECT_EQ(
        RowCount("docadmin_docarchive", "docadmindocid", TVariant(static_cast<long long>(id))), 1);
    TKRRecordSet rs(nullptr, DB());
    rs.SetSchemaName("docadmindocs");
    rs.GetSelectFields()->Add("fllocname");
    AddFilter(rs.GetFilters(), "id", TVariant(static_cast<long long>(id)));
    rs.Open();
    const std::string remote = (FDir / "remote.txt").string();
    Repo().DownloadRemoteDocument(rs.ValueByName(0, "fllocname").GetAsString(), remote, false);
    EXPECT_EQ(ReadText(remote), "two");
}

TEST_P(Repository, DeadLinkCleanupRemovesFoldersOfVanishedRecordsOnly) {
    MODULE_START_OR_SKIP();
    const std::int64_t kept = Insert("contacts", {{"name", TVariant("kept")}});
    const std::int64_t gone = Insert("contacts", {{"name", TVariant("gone")}});
    const std::string keptUID = DB()->GetRecordUIDByDBID("contacts", kept);
    const std::string goneUID = DB()->GetRecordUIDByDBID("contacts", gone);
    const std::string otherPlugin = "{0C7D51E2-1F0B-4C55-9E7A-3B8F2D6A4C10}";
    auto folder = [&](const std::string& APlugin, const std::string& APath, const char* ADoc) {
        IPtr<IDirectoryRoot> root =
            Repo().GetDocAdminObject(APlugin, APath, true, "", -1, 0, 0, true, false);
        if (ADoc) root->Do_SaveDocument(nullptr, ADoc, LocalFile(ADoc, ADoc), 0);
        ASSERT_TRUE(root->Do_SaveChanges() || !ADoc);
    };
    folder(ContactsStorageUID, "\"contacts#Records\",\"" + keptUID + "\"", "kept.txt");
    // A record UID in other case is still the record's.
    folder(ContactsStorageUID, "\"contacts#Records\",\"" + LowerCase(keptUID) + "\"", nullptr);
    folder(ContactsStorageUID, "\"contacts#Records\",\"" + goneUID + "\"", "gone.txt");
    folder(ContactsStorageUID, "\"contacts#Records\",\"stray\"", "stray.txt");
    // Record folders are found by their UID in any table: the unknown table's record has its own.
    const std::string unknownUID = "{5D0C7E11-8A2B-4C3D-9E4F-0A1B2C3D4E5F}";
    folder(ContactsStorageUID, "\"nosuchtable#Records\",\"" + unknownUID + "\"", "unknown.txt");
    folder(otherPlugin, "\"contacts#Records\",\"" + goneUID + "\"", "other.txt");
    DeleteRow(DB(), "contacts", gone);
    auto titles = [&](const std::string& APlugin, const std::string& ARecords) {
        std::set<std::string> r;
        std::unique_ptr<TBaseDocAdmin> a =
            Repo().CreateDocAdmin(APlugin, "\"" + ARecords + "\"", false, "");
        for (int i = 0; i < a->Directories()->ChildDirectoryCount(); ++i)
            r.insert(a->Directories()->GetChildDirectorys(i)->Titel());
        return r;
    };
    using S = std::set<std::string>;

    // Only loaded plug-ins: the contacts storage is, the other plug-in isn't.
    FHost->Loader.Loaded = {ContactsStorageUID};
    FModule->Docs()->Do_DeleteDeadLinkPluginDocuments();
    EXPECT_EQ(titles(ContactsStorageUID, "contacts#Records"), S({keptUID, LowerCase(keptUID)}));
    EXPECT_EQ(titles(ContactsStorageUID, "nosuchtable#Records"), S({unknownUID}));
    EXPECT_EQ(titles(otherPlugin, "contacts#Records"), S({goneUID}));
    EXPECT_EQ(RowCount("docadmindocs"), 3);
    for (const char* name : {"gone.txt", "stray.txt"})
        EXPECT_EQ(RowCount("docadmindocs", "docname", TVariant(name)), 0) << name;

    // Every plug-in folder, through the tools' cleanup, which tells what it removed.
    IPtr<IDocAdminTools> tools;
    ASSERT_TRUE(Supports(FModule->Docs(), tools));
    EXPECT_EQ(tools->Do_DeleteDeadLinkPluginDocuments(false),
              std::vector<std::string>(
                  {"\"" + otherPlugin + "\",\"contacts#Records\",\"" + goneUID + "\""}));
    EXPECT_EQ(tools->Do_DeleteDeadLinkPluginDocuments(false), std::vector<std::string>());
    EXPECT_EQ(titles(otherPlugin, "contacts#Records"), S());
    EXPECT_EQ(RowCount("docadmindocs"), 2);
    EXPECT_EQ(RowCount("docadmindocs", "docname", TVariant("kept.txt")), 1);
}

TEST_P(Repository, TemporaryFilesGoAtShutdownAndWhatStaysIsKept) {
    MODULE_START_OR_SKIP();
    const fs::path a = FDir / "t1.tmp", b = FDir / "t2.tmp", busy = FDir / "busy";
    WriteText(a, "1");
    WriteText(busy / "inner", "x");  // a folder with content can't be deleted as a file
    Repo().AddTempFileToDelete(a.string());
    Repo().AddTempFileToDelete(busy.string());
    Repo().AddTempFileToDelete(b.string());  // never made
    Repo().BeforeUnInit();
    EXPECT_FALSE(fs::exists(a));
    EXPECT_EQ(Repo().TempFilesToDelete(), std::vector<std::string>({busy.string()}));
}

DB_INSTANTIATE(Repository);

}  // namespace
