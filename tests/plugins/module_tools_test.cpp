// The module's interface for the administrator's tools: tree handles that save only when told,
// their transactions, whole-tree loads, batched imports, events and a document's versions.
#include "_DBBackend.h"
#include "_DocAdminToolsIntf.h"
#include "plugin_fixtures.h"

using namespace docadmin;
using namespace docadmin::test;

namespace {

const std::string kPlugin = "{2B7E1F0A-5C3D-4E6F-8A9B-0C1D2E3F4A5B}";

class ModuleTools : public ModuleHostTest {
  protected:
    IPtr<IDocAdminTools> Tools() {
        IPtr<IDocAdminTools> tools;
        EXPECT_TRUE(Supports(FModule->Docs(), tools));
        return tools;
    }
    // A tool's handle on APath of the test's plug-in.
    IPtr<IDirectoryRoot> Tree(const std::string& APath, bool AReadOnly = false,
                              const std::string& AWhere = "") {
        IPtr<IDirectoryRoot> root =
            FModule->Docs()->Get_DirectoryRoot(kPlugin, APath, false, 0, false);
        Tools()->Do_SetupTree(root.get(), AReadOnly, AWhere);
        return root;
    }
    bool Stored(const std::string& ARemote) {
        try {
            Repo().DownloadRemoteDocument(ARemote, (FDir / "probe").string(), false);
            return true;
        } catch (const std::exception&) {
            return false;
        }
    }
};

TEST_P(ModuleTools, ATreeSavesWhenToldAndItsTransactionDecidesRowsAndFiles) {
    MODULE_START_OR_SKIP();
    IPtr<IDocAdminTools> tools = Tools();
    IPtr<IExtFuncPluginDocAdmin> back;
    ASSERT_TRUE(Supports(tools.get(), back));
    EXPECT_EQ(back.get(), FModule->Docs());
    EXPECT_THROW(tools->Do_BeginTransaction(nullptr), EDocAdminException);

    IPtr<IDirectoryRoot> root = Tree("\"Letters\"");
    EXPECT_EQ(tools->Do_SetupTree(root.get(), false, "").RootDirectoryPath,
              "\"" + kPlugin + "\",\"Letters\"");
    tools->Do_ResolveRootForWriting(root.get());
    EXPECT_EQ(RowCount("docadmindir", "title", TVariant("Letters")), 1);
    // Nothing is saved by itself, and a rolled-back save leaves no row.
    tools->Do_BeginTransaction(root.get());
    EXPECT_TRUE(tools->Get_InTransaction(root.get()));
    EXPECT_THROW(tools->Do_BeginTransaction(root.get()), EDocAdminException);
    root->Do_SaveDocument(nullptr, "a.txt", LocalFile("a.txt", "one"), 0);
    EXPECT_EQ(RowCount("docadmindocs"), 0);
    root->Do_SaveChanges();
    tools->Do_RollbackTransaction(root.get());
    EXPECT_FALSE(tools->Get_InTransaction(root.get()));
    EXPECT_EQ(RowCount("docadmindocs"), 0);

    root = Tree("\"Letters\"");
    tools->Do_BeginTransaction(root.get());
    IPtr<IDocument> doc = root->Do_SaveDocument(nullptr, "a.txt", LocalFile("a.txt", "one"), 0);
    root->Do_SaveChanges();
    tools->Do_CommitTransaction(root.get());
    const std::string first = tools->Get_RemoteFileName(doc.get());
    ASSERT_TRUE(Stored(first));

    // A replacement without archive: the old file stays while the row's change is open, for
    // good when it is rolled back, and goes with the commit.
    auto replace = [&](bool ACommit) {
        IPtr<IDirectoryRoot> r = Tree("\"Letters\"");
        tools->Do_BeginTransaction(r.get());
        IPtr<IDocument> d = r->Get_RootDir()->Get_Document(0);
        r->Do_ReplaceFile(d.get(), LocalFile("b.txt", "two"), ramNoArchive);
        r->Do_SaveChanges();
        EXPECT_TRUE(Stored(first));
        if (ACommit)
            tools->Do_CommitTransaction(r.get());
        else
            tools->Do_RollbackTransaction(r.get());
    };
    replace(false);
    EXPECT_TRUE(Stored(first));
    EXPECT_EQ(tools->Get_DocumentVersions(doc->Get_DocID()).Current.RemoteFileName, first);
    replace(true);
    EXPECT_FALSE(Stored(first));
    const TDocAdminVersions v = tools->Get_DocumentVersions(doc->Get_DocID());
    EXPECT_NE(v.Current.RemoteFileName, first);
    EXPECT_TRUE(Stored(v.Current.RemoteFileName));
    EXPECT_TRUE(v.Archived.empty());
}

TEST_P(ModuleTools, AReadingTreeLoadsWholeAtFewQueriesAndCreatesNothing) {
    MODULE_START_OR_SKIP();
    IPtr<IDocAdminTools> tools = Tools();
    EXPECT_FALSE(tools->Do_LoadWholeTree(Tree("\"None\"", true).get(), true));
    EXPECT_THROW(tools->Do_LoadWholeTree(Tree("\"None\"", true).get(), false), EDocAdminException);
    EXPECT_EQ(RowCount("docadmindir"), 0);
    for (const char* bad : {"\"a", "\"a\"b", "\"..\"", "\"a/b\"", "\"\"", ",,"})
        EXPECT_THROW(tools->Do_CheckFolderPath(bad), Exception) << bad;
    EXPECT_NO_THROW(tools->Do_CheckFolderPath("\"a\",\"b, c\""));
    EXPECT_THROW(Tree("", true, "docname = "), Exception);

    {
        IPtr<IDirectoryRoot> w = Tree("");
        tools->Do_ResolveRootForWriting(w.get());
        IPtr<IDirectory> deep = w->Do_CreateFolderStruct(nullptr, "\"a\",\"b\"");
        w->Do_SaveDocument(nullptr, "top.txt", LocalFile("top.txt", "t"), 0);
        w->Do_SaveDocument(deep.get(), "deep.pdf", LocalFile("deep.pdf", "d"), 0);
        w->Do_SaveChanges();
    }
    // The where-text keeps top.txt out; once loaded, walking the tree reads nothing more.
    IPtr<IDirectoryRoot> r = Tree("", true, "docname like '%.pdf'");
    const std::uint64_t start = DBStatementCount();
    ASSERT_TRUE(tools->Do_LoadWholeTree(r.get(), false));
    const std::uint64_t loading = DBStatementCount() - start;
    IPtr<IDirectory> root = r->Get_RootDir();
    EXPECT_EQ(root->Get_DocumentCount(), 0);
    IPtr<IDirectory> b = root->Get_ChildDirectory(0)->Get_ChildDirectory(0);
    EXPECT_EQ(b->Get_Document(0)->Get_DocName(), "deep.pdf");
    EXPECT_EQ(DBStatementCount() - start, loading);

    int downloaded = 0;
    TDocAdminToolEvents events;
    events.OnDocumentDownloaded = [&] { ++downloaded; };
    tools->Do_SetEvents(r.get(), events);
    r->Do_ExportDirectory(nullptr, (FDir / "out").string(), false, "", "");
    tools->Do_SetEvents(r.get(), {});
    EXPECT_EQ(downloaded, 1);
    EXPECT_EQ(ReadText(FDir / "out" / "a" / "b" / "deep.pdf"), "d");
    EXPECT_EQ(RowCount("docadmindir"), 3);  // plug-in folder, a, b
}

TEST_P(ModuleTools, ABatchedImportCommitsItsBatchesAndReportsWhatItStoredAndSkipped) {
    MODULE_START_OR_SKIP();
    IPtr<IDocAdminTools> tools = Tools();
    for (int i = 0; i < 5; ++i)
        WriteText(FDir / "src" / "sub" / ("f" + std::to_string(i) + ".txt"), std::to_string(i));
    fs::create_symlink(FDir / "src" / "sub" / "f0.txt", FDir / "src" / "link.txt");

    IPtr<IDirectoryRoot> root = Tree("\"Import\"");
    tools->Do_ResolveRootForWriting(root.get());
    tools->Do_SetImportOptions(root.get(), false, 2);
    int stored = 0;
    std::vector<std::string> skipped;
    TDocAdminToolEvents events;
    events.OnDocumentStored = [&] { ++stored; };
    events.OnImportSkipped = [&](const std::string& APath, const std::string&) {
        skipped.push_back(APath);
    };
    tools->Do_SetEvents(root.get(), events);
    root->Do_ImportDirectory(nullptr, (FDir / "src").string());
    EXPECT_EQ(stored, 0);  // marked, not stored
    root->Do_SaveChanges();
    tools->Do_SetEvents(root.get(), {});
    EXPECT_EQ(stored, 5);
    EXPECT_EQ(tools->Get_CommittedDocuments(root.get()), 5u);
    EXPECT_EQ(skipped, std::vector<std::string>({(FDir / "src" / "link.txt").string()}));
    EXPECT_FALSE(tools->Get_InTransaction(root.get()));
    EXPECT_EQ(RowCount("docadmindocs"), 5);
}

TEST_P(ModuleTools, VersionsListTheCurrentRowAndTheArchiveOldestFirst) {
    MODULE_START_OR_SKIP();
    IPtr<IDocAdminTools> tools = Tools();
    IPtr<IDirectoryRoot> root = Tree("");
    tools->Do_ResolveRootForWriting(root.get());
    IPtr<IDocument> doc = root->Do_SaveDocument(nullptr, "v.txt", LocalFile("v1", "1"), 0);
    root->Do_SaveChanges();
    const std::int64_t id = doc->Get_DocID();
    ASSERT_TRUE(Repo().UpdateDocumentWithID(id, LocalFile("v2", "22"), false, true));
    ASSERT_TRUE(Repo().UpdateDocumentWithID(id, LocalFile("v3", "333"), false, true));

    const TDocAdminVersions v = tools->Get_DocumentVersions(id);
    EXPECT_EQ(v.Current.DocName, "v.txt");
    EXPECT_EQ(v.Current.Size, 3);
    EXPECT_EQ(v.Current.ArchiveID, 0);
    ASSERT_EQ(v.Archived.size(), 2u);
    EXPECT_EQ(v.Archived[0].Size, 1);
    EXPECT_EQ(v.Archived[1].Size, 2);
    EXPECT_LT(v.Archived[0].ArchiveID, v.Archived[1].ArchiveID);
    EXPECT_NE(v.Archived[0].Version, v.Current.Version);
    EXPECT_GT(v.Archived[1].ArchivedDate, 0);
    try {
        tools->Get_DocumentVersions(id + 1000);
        ADD_FAILURE() << "an unknown id was found";
    } catch (const EDocAdminFileNotFoundInRepository& e) {
        EXPECT_EQ(e.Message(),
                  "File with ID '" + std::to_string(id + 1000) + "' not found in repository!");
    }
}

DB_INSTANTIATE(ModuleTools);

}  // namespace
