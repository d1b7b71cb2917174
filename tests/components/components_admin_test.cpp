// The document administrator: updates, events, documents, access checks and root loading.
#include "components_fixtures.h"

namespace docadmin::test {
namespace {

using AdminTest = TreeTest;

TEST_F(AdminTest, AutoSaveWritesAtTheEndOfTheOutermostUpdateOnly) {
    TTestDocAdmin admin;
    int saved = 0;
    admin.OnSaved = [&](TObject*) { ++saved; };
    admin.AddDirectory(nullptr, "a");
    EXPECT_EQ(admin.SaveCalls, 1);
    EXPECT_EQ(saved, 1);
    EXPECT_FALSE(admin.HasChanges());

    admin.BeginUpdate();
    admin.AddDirectory(nullptr, "b");
    admin.AddDirectory(nullptr, "c");
    EXPECT_EQ(admin.SaveCalls, 1);
    EXPECT_TRUE(admin.HasChanges());
    admin.EndUpdate();
    EXPECT_EQ(admin.SaveCalls, 2);
    EXPECT_FALSE(admin.HasChanges());

    admin.SetAutoSave(false);
    admin.AddDirectory(nullptr, "d");
    EXPECT_EQ(admin.SaveCalls, 2);
    EXPECT_TRUE(admin.HasChanges());
    admin.SaveChanges();
    EXPECT_EQ(admin.SaveCalls, 3);
    EXPECT_EQ(saved, 3);
    // A save that writes nothing raises no OnSaved.
    admin.SaveChanges();
    EXPECT_EQ(saved, 3);
}

TEST_F(AdminTest, OnChangedFiresOnceAndIsNotReenteredByItsOwnUpdate) {
    TTestDocAdmin admin;
    admin.SetAutoSave(false);
    int changed = 0;
    admin.OnChanged = [&](TObject*) {
        ++changed;
        admin.BeginUpdate();
        admin.AddDirectory(nullptr, "from handler");
        admin.EndUpdate();
    };
    admin.BeginUpdate();
    admin.AddDirectory(nullptr, "a");
    admin.EndUpdate();
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(admin.UpdateCount(), 0);
    EXPECT_EQ(admin.Directories()->ChildDirectoriesInMemory().size(), 2u);
}

TEST_F(AdminTest, ChildCountNoticesWaitForTheUpdateAndSkipUnloadedLists) {
    TTestDocAdmin admin;
    admin.SetAutoSave(false);
    TDocDirectory* a = admin.AddDirectory(nullptr, "a");
    TDocDirectory* unloaded = admin.Directories()->AddChildDirectory();
    std::vector<TDocDirectory*> seen;
    admin.OnDirectoryChildCountChanged = [&](TObject*, TDocDirectory* d) { seen.push_back(d); };

    a->AddDocument();  // outside an update: at once
    EXPECT_EQ(seen, (std::vector<TDocDirectory*>{a}));
    seen.clear();
    unloaded->AddChildDirectory();  // list not loaded: no news
    EXPECT_TRUE(seen.empty());

    admin.BeginUpdate();
    a->AddDocument();
    TDocDirectory* b = admin.AddDirectory(a, "b");
    b->AddDocument();
    EXPECT_TRUE(seen.empty());
    admin.EndUpdate();
    // Arrival order, duplicates included.
    EXPECT_EQ(seen, (std::vector<TDocDirectory*>{a, a, b}));

    // A directory that goes away while its notice waits is withdrawn.
    seen.clear();
    admin.BeginUpdate();
    b->AddDocument();
    a->DeleteDirectory(0);
    admin.EndUpdate();
    EXPECT_TRUE(std::find(seen.begin(), seen.end(), b) == seen.end());
}

TEST_F(AdminTest, SaveDocChecksItsInputFirst) {
    TTestDocAdmin admin;
    admin.SetAutoSave(false);
    EXPECT_EQ(MessageOf<EFOpenError>(
                  [&] { admin.SaveDoc(nullptr, chAdded, Temp / "missing.txt", nullptr, "", 0); }),
              "File '" + (Temp / "missing.txt") + "' not found!");
    EXPECT_EQ(admin.UpdateCount(), 1);  // left raised, so no half change is saved later
    admin.EndUpdate();
    const std::string file = LocalFile("a.txt", "hello");
    EXPECT_EQ(
        MessageOf<Exception>([&] { admin.SaveDoc(nullptr, chChanged, file, nullptr, "", 0); }),
        "No document to save!");
    admin.EndUpdate();

    TDocDirectory* dir = admin.AddDirectory(nullptr, "d");
    TDocument* doc = admin.SaveDoc(nullptr, chAdded, file, dir, "", dtReadOnly);
    EXPECT_EQ(doc->Directory(), dir);
    EXPECT_EQ(doc->DocName(), file);
    EXPECT_EQ(doc->ChangeState(), chAdded);
    EXPECT_EQ(doc->Size(), 5);
    EXPECT_EQ(doc->CreaID(), 0);
    EXPECT_EQ(doc->DocumentTags(), dtReadOnly);
    EXPECT_TRUE(admin.Directories()->DocumentsInMemory().empty());
}

TEST_F(AdminTest, ReplaceFileKeepsAddedStateAndTheFirstPrevValues) {
    TTestDocAdmin admin;
    admin.SetAutoSave(false);
    std::vector<TChangeState> events;
    admin.OnChangeDocumentState = [&](TObject*, TDocument*, TChangeState prev) {
        events.push_back(prev);
    };
    TDocument* added = admin.SaveDoc(nullptr, chAdded, LocalFile("a.txt"), nullptr, "a.txt", 0);
    admin.ReplaceFile(added, LocalFile("b.txt", "bb"), false, ramDefault);
    EXPECT_EQ(added->ChangeState(), chAdded);
    EXPECT_TRUE(events.empty());

    TDocument* stored = admin.Directories()->AddDocument();
    stored->BeginLoad();
    stored->SetDocName("s.txt");
    stored->SetSize(3);
    stored->SetVersion({2, 0, 0, 0});
    stored->SetDocID(11);
    stored->EndLoad();
    admin.ReplaceFile(stored, LocalFile("c.txt", "cccc"), true, ramNoArchive);
    admin.ReplaceFile(stored, LocalFile("d.txt", "dddddd"), false, ramDefault);
    EXPECT_EQ(stored->ChangeState(), chChanged);
    EXPECT_EQ(events, (std::vector<TChangeState>{chNone, chChanged}));
    EXPECT_EQ(stored->PrevSize(), 3);
    EXPECT_EQ(stored->PrevVersion(), (TFileVersion{2, 0, 0, 0}));
    EXPECT_EQ(stored->Version(), (TFileVersion{2, 0, 0, 2}));
    EXPECT_EQ(stored->Size(), 6);
    EXPECT_EQ(stored->DocName(), Temp / "c.txt");
    EXPECT_EQ(stored->LocalFile(), Temp / "d.txt");
    EXPECT_TRUE(stored->FileHasChanged());
}

TEST_F(AdminTest, DownloadByIdRaisesForUnknownIdsAndClearsTheName) {
    TTestDocAdmin admin;
    auto* store = new TTestStore(Temp / "store");
    admin.SetDocFileLoader(store);
    const std::string remote = store->UploadFile(LocalFile("a.txt", "content"), "", upmNew);
    admin.Rows[5] = {"a.txt", remote};
    std::string name = "stale";
    EXPECT_EQ(MessageOf<EDocAdminFileNotFoundInRepository>(
                  [&] { admin.DownloadFile(6, Temp / "out", name); }),
              "File with ID '6' not found in repository!");
    EXPECT_EQ(name, "");
    std::vector<std::string> events;
    admin.OnDownloadDocument = [&](TObject*, const std::string& f) { events.push_back(f); };
    admin.OnDownloadDocumentDone = [&](TObject*) { events.push_back("done"); };
    admin.DownloadFile(5, Temp / "out", name);
    EXPECT_EQ(name, "a.txt");
    EXPECT_EQ(ReadFile(Temp / "out"), "content");
    EXPECT_EQ(events, (std::vector<std::string>{Temp / "out", "done"}));
    // The base class can't replace by id.
    EXPECT_THROW(admin.ReplaceFile(std::int64_t{5}, Temp / "out", false, ramDefault), Exception);
}

TEST_F(AdminTest, UnsavedDocumentDownloadCopiesFromItsName) {
    TTestDocAdmin admin;
    admin.SetAutoSave(false);
    TDocument* doc = admin.SaveDoc(nullptr, chAdded, LocalFile("a.txt", "v1"), nullptr, "", 0);
    admin.DownloadFile(doc, Temp / "copy", false, nullptr);
    EXPECT_EQ(ReadFile(Temp / "copy"), "v1");
    doc->SetDocName(Temp / "nowhere.txt");
    EXPECT_EQ(
        MessageOf<EDocAdminException>(
            [&] { admin.DownloadFile(doc, Temp / "copy", false, nullptr); }),
        "Faild to copy file '" + (Temp / "nowhere.txt") + "' to file '" + (Temp / "copy") + "'!");
}

TEST_F(AdminTest, DeleteDocumentByIdRemovesTheRowFirstAndReportsAFileThatStays) {
    TTestDocAdmin admin;
    auto* store = new TTestStore(Temp / "store");
    admin.SetDocFileLoader(store);
    TDocument* doc = admin.SaveDoc(nullptr, chAdded, LocalFile("a.txt"), nullptr, "a.txt", 0);
    const std::int32_t id = doc->DocID();
    const std::string remote = doc->RemoteFileName();
    ASSERT_TRUE(store->Has(remote));
    admin.Directories()->SetLoadingState(lsDocumentsLoaded);

    // The row goes first; a file that can't be removed afterwards is reported with its names,
    // and the row's removal stands.
    store->RemoveFailure = "disk on fire";
    int deleted = 0;
    admin.OnDeleteDocument = [&](TObject*, TDocument* d) {
        ++deleted;
        EXPECT_EQ(d->DocID(), id);
    };
    const std::string msg = MessageOf<EDocAdminException>([&] { admin.DeleteDocument(id); });
    EXPECT_NE(msg.find(remote), std::string::npos) << msg;
    EXPECT_NE(msg.find("disk on fire"), std::string::npos) << msg;
    EXPECT_EQ(admin.Rows.count(id), 0u);
    EXPECT_EQ(deleted, 1);
    EXPECT_TRUE(store->Has(remote));
    // The document is freed (the fixture counts items), and the id is unknown now.
    EXPECT_TRUE(admin.Directories()->DocumentsInMemory().empty());
    EXPECT_THROW(admin.DeleteDocument(id), EDocAdminFileNotFoundInRepository);
}

// The ACL tables are known when the root has loaded; documents' rights follow the "docadmindir"
// controller and directories' the "docadmindocs" one.
TEST_F(AdminTest, AccessChecksUseTheCrossedTableNames) {
    TTestDocAdmin admin;
    admin.SetAutoSave(false);
    // Without user access everything is allowed.
    TDocDirectory* open = admin.AddDirectory(nullptr, "open");
    open->SetACLGroupID(99);
    EXPECT_TRUE(admin.GetStoragItemACLWriteable(open));
    EXPECT_TRUE(admin.GetStoragItemACLWriteable(nullptr));
    EXPECT_NO_THROW(admin.DeleteDirectory(open));
    EXPECT_EQ(open->ChangeState(), chDeleted);

    IPtr<TTestUserAccess> ua(new TTestUserAccess);
    ua->ACLTables = {"docadmindir"};
    ua->Modes[1] = 1;  // group 1 may not write
    admin.SetUserAccess(ua.get());
    admin.Directories()->ChildDirectoryCount();  // loads the root
    EXPECT_TRUE(admin.HasACLOnDocuments());
    EXPECT_FALSE(admin.HasACLOnDirectories());

    TDocDirectory* dir = admin.AddDirectory(nullptr, "dir");
    dir->SetACLGroupID(1);
    TDocument* ok = dir->AddDocument();
    ok->SetDocName("ok.txt");
    TDocument* locked = dir->AddDocument();
    locked->SetDocName("locked.txt");
    locked->SetACLGroupID(1);
    TDocument* last = dir->AddDocument();
    last->SetDocName("last.txt");
    EXPECT_TRUE(admin.GetStoragItemACLWriteable(dir));  // directories unchecked
    EXPECT_FALSE(admin.GetStoragItemACLWriteable(locked));

    // Documents are deleted from the last; the refusal names the locked one and leaves the
    // marks made so far.
    EXPECT_EQ(MessageOf<EDocAdminNoWriteAccessError>([&] { admin.DeleteDirectory(dir); }),
              "No write access to 'locked.txt'!");
    EXPECT_EQ(last->ChangeState(), chDeleted);
    EXPECT_NE(locked->ChangeState(), chDeleted);
    EXPECT_NE(ok->ChangeState(), chDeleted);
    EXPECT_NE(dir->ChangeState(), chDeleted);

    // With the other table registered, directories are checked and a document's right also
    // needs its directory's.
    TTestDocAdmin other;
    ua->ACLTables = {"docadmindocs", "docadmindir"};
    other.SetUserAccess(ua.get());
    other.Directories()->ChildDirectoryCount();
    EXPECT_TRUE(other.HasACLOnDirectories());
    TDocDirectory* closed = other.AddDirectory(nullptr, "closed");
    closed->SetACLGroupID(1);
    TDocument* inside = closed->AddDocument();
    inside->SetACLGroupID(2);
    EXPECT_FALSE(other.GetStoragItemACLWriteable(closed));
    EXPECT_FALSE(other.GetStoragItemACLWriteable(inside));
    closed->SetACLGroupID(2);
    EXPECT_TRUE(other.GetStoragItemACLWriteable(inside));
    ua->ReadOnly = true;
    EXPECT_FALSE(other.GetStoragItemACLWriteable(inside));
    EXPECT_FALSE(other.GetStoragItemACLWriteable(nullptr));
    other.Clear();
    EXPECT_FALSE(other.HasACLOnDirectories());
}

TEST_F(AdminTest, RecordFlagsMetaIdsAreAskedOnceWhenAvailable) {
    struct TTable : TInterfacedImpl<IKRRecordFlagsTable> {
        explicit TTable(std::int64_t id) : Id(id) {}
        std::int64_t Get_MetaID() override { return Id; }
        std::int64_t Id;
    };
    struct TFlags : TRecordFlagsPlugin {
        bool Available() override { return IsAvailable; }
        IPtr<IKRRecordFlagsTable> GetPlugin(const std::string& t) override {
            Asked.push_back(t);
            return IPtr<IKRRecordFlagsTable>(new TTable(t == "docadmindocs" ? 41 : 42));
        }
        bool IsAvailable = false;
        std::vector<std::string> Asked;
    } flags;
    TTestDocAdmin admin;
    EXPECT_EQ(admin.DocumentRecordFlagsMetaID(), -1);
    admin.SetRecordFlagsPlugin(&flags);
    EXPECT_EQ(admin.DocumentRecordFlagsMetaID(), -1);  // not available
    flags.IsAvailable = true;
    EXPECT_EQ(admin.DocumentRecordFlagsMetaID(), 41);
    EXPECT_EQ(admin.DirectoryRecordFlagsMetaID(), 42);
    EXPECT_EQ(admin.DocumentRecordFlagsMetaID(), 41);
    EXPECT_EQ(flags.Asked, (std::vector<std::string>{"docadmindocs", "docadmindir"}));
    TDocument* doc = admin.Directories()->AddDocument();
    EXPECT_EQ(doc->Get_RecordFlagsMetaID(), 41);
    EXPECT_EQ(doc->Get_SupportedActions() & 256u, 256u);
}

TEST_F(AdminTest, SubStatesAndHasChangesCoverTheTreeInMemoryOnly) {
    TTestDocAdmin admin;
    admin.SetAutoSave(false);
    TDocDirectory* a = admin.AddDirectory(nullptr, "a");
    TDocDirectory* b = admin.AddDirectory(a, "b");
    TDocument* doc = b->AddDocument();
    admin.SaveChanges();
    EXPECT_FALSE(admin.HasChanges());
    admin.Directories()->SetChangeState(chChanged);  // the root's own state doesn't count
    EXPECT_FALSE(admin.HasChanges());

    int dirEvents = 0, docEvents = 0;
    admin.OnChangeDirectoryState = [&](TObject*, TDocDirectory*) { ++dirEvents; };
    admin.OnChangeDocumentState = [&](TObject*, TDocument*, TChangeState) { ++docEvents; };
    admin.SetSubStatesForDir(a, chChanged);
    EXPECT_EQ(b->ChangeState(), chChanged);
    EXPECT_EQ(doc->ChangeState(), chChanged);
    EXPECT_EQ(dirEvents, 2);
    EXPECT_EQ(docEvents, 1);
    EXPECT_TRUE(admin.HasChanges());

    // An unloaded directory isn't loaded to answer.
    TDocDirectory* stored = admin.Directories()->AddChildDirectory();
    (void)stored;
    const size_t loads = admin.LoadDirectoriesCalls.size();
    admin.HasChanges();
    EXPECT_EQ(admin.LoadDirectoriesCalls.size(), loads);
}

TEST_F(AdminTest, SqlFiltersAreMadeOnFirstRead) {
    TTestDocAdmin admin;
    EXPECT_FALSE(admin.HasSQLFilters());
    admin.ApplyParams("docname = 'a'");
    EXPECT_TRUE(admin.HasSQLFilters());
    EXPECT_EQ(admin.SQLFilters()->SQLText(), "docname = 'a'");
}

// Root loading: the path names a folder; the root becomes that folder.
TEST_F(AdminTest, RootPathWithoutGuidCreatesAllSegments) {
    TTestDocAdmin admin;
    admin.SetRootDirectoryPath("\"Docs\",\"Sub, one\"");
    std::vector<TLoadingStateNotification> states;
    admin.OnLoadingState = [&](TObject*, TLoadingStateNotification s) { states.push_back(s); };
    EXPECT_EQ(admin.Directories()->ChildDirectoryCount(), 0);
    EXPECT_EQ(admin.LoadDirectoriesCalls.front(), "");
    EXPECT_EQ(admin.Directories()->Titel(), "Sub, one");
    EXPECT_GT(admin.Directories()->DirID(), 0);  // saved while loading
    EXPECT_TRUE(admin.Directories()->LoadingState().Contains(lsRootDirectoryLoaded));
    EXPECT_EQ(states, (std::vector<TLoadingStateNotification>{lsRootDirectoriesLoadingStarted,
                                                              lsRootDirectoriesLoadingFinished}));
    // The folder's children load once, before the first change below it.
    admin.AddDirectory(nullptr, "x");
    const size_t loads = admin.LoadDirectoriesCalls.size();
    admin.AddDirectory(nullptr, "y");
    EXPECT_EQ(admin.LoadDirectoriesCalls.size(), loads);
    EXPECT_EQ(admin.Directories()->ChildDirectoriesInMemory().size(), 2u);
}

TEST_F(AdminTest, TwoRootFoldersOfOneNameAreMergedIntoTheFirst) {
    TTestDocAdmin admin;
    const std::string uid = "{11111111-2222-3333-4444-555555555555}";
    admin.SetRootDirectoryPath("\"" + uid + "\"");
    std::vector<TDocDirectory*> made;
    admin.OnLoadDirectories = [&](TDocDirectory* dir, const std::string& name) {
        if (name != uid) return;
        for (int i = 0; i < 2; ++i) {
            TDocDirectory* d = dir->AddChildDirectory();
            d->SetDirID(10 + i);
            d->SetTitel(uid);
            d->SetLoadingState(lsDocumentsLoaded);
            d->SetLoadingState(lsChildDirectoriesLoaded);
            d->SetChangeState(chNone);
            TDocument* doc = d->AddDocument();
            doc->SetDocID(20 + i);
            doc->SetChangeState(chNone);
            made.push_back(d);
        }
    };
    // The save after the merge sees the second folder deleted and its document moved.
    std::vector<TChangeState> atSave;
    admin.OnSave = [&] {
        atSave = {made.at(1)->ChangeState(), made.at(0)->DocumentsInMemory().at(1)->ChangeState()};
    };
    admin.SetAutoSave(false);
    admin.Directories()->ChildDirectoryCount();
    EXPECT_EQ(admin.SaveCalls, 1);
    EXPECT_EQ(atSave, (std::vector<TChangeState>{chDeleted, chChanged}));
    // The root took the first folder's identity and holds both documents.
    EXPECT_EQ(admin.Directories()->DirID(), 10);
    EXPECT_EQ(admin.Directories()->DocumentsInMemory().size(), 2u);
    EXPECT_TRUE(admin.Directories()->ChildDirectoriesInMemory().empty());
}

TEST_F(AdminTest, RecordFolderIsCreatedBelowTheRecordRootFolder) {
    TTestDocAdmin admin;
    const std::string uid = "{AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE}";
    admin.SetRootDirectoryPath("\"contacts#Records\",\"" + uid + "\"");
    admin.OnLoadDirectories = [&](TDocDirectory* dir, const std::string& name) {
        if (name != "contacts#Records") return;
        TDocDirectory* d = dir->AddChildDirectory();
        d->SetDirID(3);
        d->SetTitel(name);
        d->SetChangeState(chNone);
    };
    admin.Directories()->ChildDirectoryCount();
    EXPECT_EQ(admin.LoadDirectoriesCalls, (std::vector<std::string>{uid, "contacts#Records"}));
    EXPECT_EQ(admin.Directories()->Titel(), uid);
    EXPECT_GT(admin.Directories()->DirID(), 3);  // new and saved

    // A folder known to be new isn't searched for.
    TTestDocAdmin fresh;
    fresh.SetRootDirectoryPath("\"contacts#Records\",\"" + uid + "\"");
    fresh.Directories()->SetIsNewUniqueFolder(true);
    fresh.Directories()->ChildDirectoryCount();
    ASSERT_FALSE(fresh.LoadDirectoriesCalls.empty());
    EXPECT_EQ(fresh.LoadDirectoriesCalls.front(), "contacts#Records");
}

}  // namespace
}  // namespace docadmin::test
