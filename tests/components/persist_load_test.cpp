// Loading a tree: record folders by title with the shared cache, top-level folders, documents by
// one in-list query, filters, and a tree that outlives its process.
#include "_DBSchema.h"
#include "_TDBRecordFlagsPlugin.h"
#include "_TUniqueFolderCache.h"
#include "persist_fixtures.h"

namespace docadmin::test {
namespace {

using LoadTest = PersistTest;

const std::string kRecord1 = "{A1B2C3D4-0000-4000-8000-000000000001}";
const std::string kRecord2 = "{A1B2C3D4-0000-4000-8000-000000000002}";
const std::string kRecord3 = "{A1B2C3D4-0000-4000-8000-000000000003}";
const std::string kRecord4 = "{A1B2C3D4-0000-4000-8000-000000000004}";

std::vector<std::string> Titles(TDocDirectory* dir) {
    std::vector<std::string> r;
    for (std::int32_t i = 0; i < dir->ChildDirectoryCount(); ++i)
        r.push_back(dir->GetChildDirectorys(i)->Titel());
    std::sort(r.begin(), r.end());
    return r;
}

std::vector<std::string> DocNames(TDocDirectory* dir) {
    std::vector<std::string> r;
    for (std::int32_t i = 0; i < dir->DocumentCount(); ++i)
        r.push_back(dir->GetDocuments(i)->DocName());
    return r;
}

TEST_P(LoadTest, RecordFoldersCostAtMostTwoQueriesAndOneWithTheCacheWarm) {
    TUniqueFolderCache cache;
    {
        // Cold: the record's title, the record root folder, then creating the record folder.
        auto admin = NewAdmin(kPlugin, RecordPath(kRecord1));
        admin->SetUniqueFolderCache(&cache);
        admin->Directories()->ChildDirectoryCount();
        EXPECT_EQ(admin->Directories()->Titel(), kRecord1);
        EXPECT_GT(admin->Directories()->DirID(), 0);
    }
    // The plug-in's folder, the record root folder and the record's folder.
    ASSERT_EQ(RowCount("docadmindir"), 3);
    {
        // An existing record folder, with a cache that knows nothing: one lookup by title.
        TUniqueFolderCache cold;
        auto admin = NewAdmin(kPlugin, RecordPath(kRecord1));
        admin->SetUniqueFolderCache(&cold);
        const auto before = Statements();
        admin->Directories()->ChildDirectoryCount();
        EXPECT_LE(Statements() - before, 2u);
        EXPECT_EQ(admin->Directories()->Titel(), kRecord1);
    }
    auto newRecord = [&](const std::string& rec, bool isNew) {
        auto admin = NewAdmin(kPlugin, RecordPath(rec));
        admin->SetUniqueFolderCache(&cache);
        admin->Directories()->SetIsNewUniqueFolder(isNew);
        const auto before = Statements();
        admin->Directories()->ChildDirectoryCount();
        EXPECT_EQ(admin->Directories()->Titel(), rec);
        return Statements() - before;
    };
    // A new record: its title, the record root folder (now cached), the insert.
    EXPECT_EQ(newRecord(kRecord2, false), 3u);
    EXPECT_EQ(cache.FolderCount(kPlugin), 1);
    // The next one under the same root folder: one query and the insert.
    EXPECT_EQ(newRecord(kRecord3, false), 2u);
    // A caller that knows the record is new saves even the title lookup.
    EXPECT_EQ(newRecord(kRecord4, true), 1u);
    ASSERT_EQ(RowCount("docadmindir"), 6);
    EXPECT_EQ(RowCount("docadmindir", "title", TVariant("Invoices#Records")), 1);
    auto rec2 = Rows("docadmindir", "title", TVariant(kRecord2));
    auto root = Rows("docadmindir", "title", TVariant("Invoices#Records"));
    EXPECT_EQ(rec2->ValueByName(0, "parentdirid").GetRealValue(), root->GetDBIDByRecNo(0));
}

TEST_P(LoadTest, TwoRecordFoldersOfOneTitleMergeAndTheSecondRowGoes) {
    const std::int64_t root = InsertDir("Invoices#Records", 0);
    const std::int64_t first = InsertDir(kRecord1, root);
    const std::int64_t second = InsertDir(kRecord1, root);
    InsertDoc("one.txt", first);
    const std::int64_t moved = InsertDoc("two.txt", second);
    auto admin = NewAdmin(kPlugin, RecordPath(kRecord1));
    admin->Directories()->ChildDirectoryCount();
    EXPECT_EQ(admin->Directories()->DirID(), first);
    EXPECT_EQ(RowCount("docadmindir", "title", TVariant(kRecord1)), 1);
    EXPECT_EQ(RowCount("docadmindir", "id", TVariant(static_cast<long long>(second))), 0);
    EXPECT_EQ(Row("docadmindocs", moved)->ValueByName(0, "dirid").GetRealValue(), first);
    EXPECT_EQ(DocNames(admin->Directories()), (std::vector<std::string>{"one.txt", "two.txt"}));
}

TEST_P(LoadTest, TopLevelHoldsOrphansAndOnlyThePluginsFolders) {
    const std::int64_t gone = InsertDir("Gone", 0);
    InsertDir("Orphan", gone);
    InsertDir("Top", 0);
    InsertDir("Global", 0, "");
    InsertDir("Other", 0, "{99999999-0000-4000-8000-000000000000}");
    IPtr<IDBSQLStatement> st = DB->CreateStatement("");
    st->SetSchemaItem(GetSchemaByName(DB->GetFieldSchema(), "docadmindir").get());
    st->SetStatementKind(2);
    st->AddFilter("id", TVariant(static_cast<long long>(gone)));
    st->Execute();

    auto admin = NewAdmin();
    EXPECT_EQ(Titles(admin->Directories()), (std::vector<std::string>{"Orphan", "Top"}));
    for (TDocDirectory* d : admin->Directories()->ChildDirectoriesInMemory())
        EXPECT_EQ(d->ChangeState(), chNone);
    auto withGlobal = NewAdmin();
    withGlobal->SetAllwaysLoadGlobal(true);
    EXPECT_EQ(Titles(withGlobal->Directories()),
              (std::vector<std::string>{"Global", "Orphan", "Top"}));
    auto global = NewAdmin(GlobalPluginGUID);
    EXPECT_EQ(Titles(global->Directories()), (std::vector<std::string>{"Global"}));
    auto all = NewAdmin(AllPluginsGUID);
    EXPECT_EQ(Titles(all->Directories()),
              (std::vector<std::string>{"Global", "Orphan", "Other", "Top"}));
}

TEST_P(LoadTest, DocumentsOfManyDirectoriesComeFromOneQuery) {
    const std::int64_t a = InsertDir("A", 0);
    const std::int64_t b = InsertDir("B", 0);
    InsertDir("C", 0);
    InsertDoc("b2.txt", b);
    InsertDoc("a1.txt", a);
    InsertDoc("b1.txt", b);
    auto admin = NewAdmin();
    admin->Directories()->ChildDirectoryCount();
    std::vector<TDocDirectory*> dirs = admin->Directories()->ChildDirectoriesInMemory();
    auto before = Statements();
    admin->LoadFilesForDirectory(dirs);
    EXPECT_EQ(Statements() - before, 1u);
    for (TDocDirectory* d : dirs) {
        EXPECT_TRUE(d->LoadingState().Contains(lsDocumentsLoaded)) << d->Titel();
        const std::vector<std::string> expected =
            d->Titel() == "A"   ? std::vector<std::string>{"a1.txt"}
            : d->Titel() == "B" ? std::vector<std::string>{"b1.txt", "b2.txt"}
                                : std::vector<std::string>{};
        EXPECT_EQ(DocNames(d), expected) << d->Titel();
        for (TDocument* doc : d->DocumentsInMemory())
            EXPECT_EQ(doc->ChangeState(), chNone);
    }
    // Loaded and new directories are left alone: no query at all.
    TDocDirectory* fresh = admin->AddDirectory(nullptr, "New");
    before = Statements();
    admin->LoadFilesForDirectory({dirs[0], fresh});
    admin->LoadFilesForDirectory({});
    EXPECT_EQ(Statements(), before);
    EXPECT_EQ(DocNames(dirs[0]).size() + DocNames(dirs[1]).size(), 3u);
}

TEST_P(LoadTest, DocumentFileInfoQueriesNothingForIdZeroAndNamesOldRows) {
    auto admin = NewAdmin();
    std::string name = "stale";
    TDateTime date = 5;
    const auto before = Statements();
    EXPECT_EQ(admin->GetDocumentFileInfo(0, name, date, true), "");
    EXPECT_EQ(Statements(), before);
    EXPECT_EQ(name, "");
    EXPECT_EQ(date, MinDateTime);

    const std::int64_t old = InsertDoc("old.pdf", 0, "");
    EXPECT_EQ(admin->GetDocumentFileInfo(static_cast<std::int32_t>(old), name, date, false), "");
    const std::string made =
        admin->GetDocumentFileInfo(static_cast<std::int32_t>(old), name, date, true);
    EXPECT_EQ(made.size(), 32u);
    EXPECT_EQ(name, "old.pdf");
    EXPECT_EQ(Row("docadmindocs", old)->ValueByName(0, "fllocname").GetAsString(), made);
    EXPECT_EQ(admin->GetDocumentFileInfo(static_cast<std::int32_t>(old), name, date, true), made);
}

TEST_P(LoadTest, WhereTextFiltersDocumentsOnlyAndTheSetCountsAsComplete) {
    const std::int64_t a = InsertDir("A", 0);
    InsertDir("B", 0);
    InsertDoc("keep.txt", a);
    InsertDoc("drop.pdf", a);
    auto admin = NewAdmin();
    admin->ApplyParams("docname LIKE '%.txt' OR (docname = 'x' AND flsize > 10)");
    EXPECT_EQ(Titles(admin->Directories()), (std::vector<std::string>{"A", "B"}));
    TDocDirectory* dirA = admin->Directories()->GetChildDirectorys(0);
    if (dirA->Titel() != "A") dirA = admin->Directories()->GetChildDirectorys(1);
    EXPECT_EQ(DocNames(dirA), std::vector<std::string>{"keep.txt"});
    EXPECT_TRUE(dirA->LoadingState().Contains(lsDocumentsLoaded));
    // A save sees only the filtered set and leaves the other row alone.
    EXPECT_FALSE(admin->DoSaveChanges());
    EXPECT_EQ(RowCount("docadmindocs"), 2);
}

TEST_P(LoadTest, WhereTextWithAValueOnTheLeftFailsAtTheFirstLoad) {
    InsertDir("A", 0);
    auto admin = NewAdmin();
    admin->ApplyParams("'x' = docname");
    TDocDirectory* a = admin->Directories()->GetChildDirectorys(0);
    EXPECT_EQ(MessageOf<Exception>([&] { a->DocumentCount(); }),
              "Error in DOC:\\\\ WHERE-Filter: Left value \"x\" must be a fieldname and right "
              "value \"docname\" must be a value!");
    EXPECT_FALSE(a->LoadingState().Contains(lsDocumentsLoaded));
}

TEST_P(LoadTest, RecordFlagsRestrictChildFoldersAndDocuments) {
    TDBRecordFlagsPlugin flags(DB.get());
    ASSERT_TRUE(flags.Available());
    const std::int64_t parent = InsertDir("P", 0);
    const std::int64_t red = InsertDir("Red", parent);
    InsertDir("Plain", parent);
    const std::int64_t urgentDoc = InsertDoc("urgent.txt", parent);
    InsertDoc("calm.txt", parent);
    const std::int64_t colour = flags.DefineFlag("docadmindir", "red", 2);
    flags.SetFlag("docadmindir", red, colour);
    const std::int64_t urgent = flags.DefineFlag("docadmindocs", "Urgent", 1);
    flags.SetFlag("docadmindocs", urgentDoc, urgent);

    auto admin = NewAdmin();
    admin->SetRecordFlagsPlugin(&flags);
    admin->SetActiveRecordFlagTypes(1u << 2);
    TDocDirectory* p = admin->Directories()->GetChildDirectorys(0);
    // The top level isn't filtered by flags; the children are.
    EXPECT_EQ(p->Titel(), "P");
    EXPECT_EQ(Titles(p), std::vector<std::string>{"Red"});

    auto byName = NewAdmin();
    byName->SetRecordFlagsPlugin(&flags);
    byName->ApplyParams("recordflags = 'Urgent'");
    EXPECT_EQ(DocNames(byName->Directories()->GetChildDirectorys(0)),
              std::vector<std::string>{"urgent.txt"});
    auto without = NewAdmin();
    without->SetRecordFlagsPlugin(&flags);
    without->ApplyParams("recordflags <> 'Urgent'");
    EXPECT_EQ(DocNames(without->Directories()->GetChildDirectorys(0)),
              std::vector<std::string>{"calm.txt"});
    // Without the service, flag kinds filter nothing.
    auto unfiltered = NewAdmin();
    unfiltered->SetActiveRecordFlagTypes(1u << 2);
    EXPECT_EQ(Titles(unfiltered->Directories()->GetChildDirectorys(0)),
              (std::vector<std::string>{"Plain", "Red"}));
}

TEST_P(LoadTest, ATreeOutlivesItsAdministratorAndDatabaseConnection) {
    const std::string big(200000, 'z');
    {
        auto admin = NewAdmin();
        admin->Directories()->ChildDirectoryCount();
        admin->BeginUpdate();
        TDocDirectory* projects = admin->AddDirectory(nullptr, "Projects");
        TDocDirectory* year = admin->AddDirectory(projects, "2024");
        admin->SaveDoc(nullptr, chAdded, LocalFile("plan.txt", "the plan"), year, "", 0);
        admin->SaveDoc(nullptr, chAdded, LocalFile("big.bin", big), projects, "", 2);
        admin->EndUpdate();
    }
    // Everything goes: administrator, store object, database handle.
    DB.reset();
    DB = OpenDatabase(FParams);
    Main.DB = DB.get();

    auto admin = NewAdmin();
    ASSERT_EQ(Titles(admin->Directories()), std::vector<std::string>{"Projects"});
    TDocDirectory* projects = admin->Directories()->GetChildDirectorys(0);
    ASSERT_EQ(Titles(projects), std::vector<std::string>{"2024"});
    ASSERT_EQ(DocNames(projects), std::vector<std::string>{"big.bin"});
    TDocument* bigDoc = projects->GetDocuments(0);
    EXPECT_EQ(bigDoc->Size(), static_cast<std::int64_t>(big.size()));
    EXPECT_EQ(bigDoc->DocumentTags(), 2);
    TDocDirectory* year = projects->GetChildDirectorys(0);
    ASSERT_EQ(DocNames(year), std::vector<std::string>{"plan.txt"});
    fs::create_directories(Temp / "out");
    admin->DownloadFile(year->GetDocuments(0), Temp / "out/plan.txt", false, nullptr);
    admin->DownloadFile(bigDoc, Temp / "out/big.bin", false, nullptr);
    EXPECT_EQ(ReadFile(Temp / "out/plan.txt"), "the plan");
    EXPECT_EQ(ReadFile(Temp / "out/big.bin"), big);
}

TEST_P(LoadTest, APathWithoutGuidIsWalkedFromTheTopLevelAndLeavesOtherFoldersAlone) {
    InsertDir("Other", 0, "");
    const std::int64_t projects = InsertDir("Projects", 0, "");
    auto admin = NewAdmin(GlobalPluginGUID, "Projects,2024");
    admin->Directories()->ChildDirectoryCount();
    EXPECT_EQ(admin->Directories()->Titel(), "2024");
    EXPECT_EQ(RowCount("docadmindir"), 3);
    EXPECT_EQ(RowCount("docadmindir", "title", TVariant("Other")), 1);
    auto year = Rows("docadmindir", "title", TVariant("2024"));
    ASSERT_EQ(year->GetRecordCount(), 1);
    EXPECT_EQ(year->ValueByName(0, "parentdirid").GetRealValue(), projects);
    EXPECT_EQ(admin->Directories()->DirID(), year->GetDBIDByRecNo(0));
}

TEST_P(LoadTest, AFolderBelowThePluginFolderIsFoundAgainNotMadeTwice) {
    const std::string path = "\"" + kPlugin + "\",Archive#Records,2024";
    std::int64_t first = 0;
    {
        auto admin = NewAdmin(kPlugin, path);
        admin->Directories()->ChildDirectoryCount();
        EXPECT_EQ(admin->Directories()->Titel(), "2024");
        first = admin->Directories()->DirID();
    }
    EXPECT_EQ(RowCount("docadmindir"), 3);
    // The plug-in folder is found by title; the levels below it load lazily while the path is
    // walked, so the existing folders are reused.
    auto admin = NewAdmin(kPlugin, path);
    admin->Directories()->ChildDirectoryCount();
    EXPECT_EQ(admin->Directories()->DirID(), first);
    EXPECT_EQ(RowCount("docadmindir"), 3);
}

DB_INSTANTIATE(LoadTest);

}  // namespace
}  // namespace docadmin::test
