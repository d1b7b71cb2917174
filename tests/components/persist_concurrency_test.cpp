// Several writers on the same rows: optimistic checks, rows before files, nested transactions on
// SQLite, batched saving.
#include <atomic>
#include <set>
#include <thread>

#include "persist_fixtures.h"

namespace docadmin::test {
namespace {

using ConcurrencyTest = PersistTest;

// Every row's file is in the store and every file of the store is named by a row.
void ExpectStoreMatchesRows(PersistTest& t) {
    std::set<std::string> named;
    for (const char* schema : {"docadmindocs", "docadmin_docarchive"}) {
        auto rs = t.Rows(schema);
        for (int i = 0; i < rs->GetRecordCount(); ++i)
            named.insert(rs->ValueByName(i, "fllocname").GetAsString());
    }
    std::set<std::string> files;
    for (const auto& e : fs::directory_iterator(t.StoreDir()))
        files.insert(e.path().filename().string());
    EXPECT_EQ(named, files);
}

TDocument* LoadedDocument(TDBDocAdmin& admin) {
    return admin.Directories()->GetChildDirectorys(0)->GetDocuments(0);
}

TEST_P(ConcurrencyTest, AChangeBasedOnAnOutdatedRowFailsAndLeavesNothingBehind) {
    auto first = NewAdmin();
    const std::int32_t id = StoreOne(*first).DocID;
    auto mine = NewAdmin();
    auto theirs = NewAdmin();
    TDocument* myDoc = LoadedDocument(*mine);
    TDocument* theirDoc = LoadedDocument(*theirs);

    mine->ReplaceFile(myDoc, LocalFile("m.txt", "mine"), false, ramDefault);
    const int uploads = Store(*theirs).Uploads;
    EXPECT_THROW(theirs->ReplaceFile(theirDoc, LocalFile("t.txt", "theirs"), false, ramDefault),
                 EDocAdminChangedByOtherUser);
    EXPECT_EQ(Store(*theirs).Uploads, uploads + 1);  // uploaded, then removed again

    // Loaded after that; then changed again without an archived version before it deletes.
    auto late = NewAdmin();
    TDocument* lateDoc = LoadedDocument(*late);
    mine->ReplaceFile(myDoc, LocalFile("m2.txt", "mine again"), false, ramNoArchive);
    EXPECT_THROW(late->DeleteDocument(lateDoc), EDocAdminChangedByOtherUser);

    auto row = Row("docadmindocs", id);
    EXPECT_EQ(row->ValueByName(0, "fllocname").GetAsString(), myDoc->RemoteFileName());
    EXPECT_EQ(Store(*mine).Content(myDoc->RemoteFileName()), "mine again");
    EXPECT_EQ(RowCount("docadmin_docarchive"), 1);
    ExpectStoreMatchesRows(*this);
}

TEST_P(ConcurrencyTest, ConcurrentReplacesByIdLoseNoUpdateAndArchiveEachVersionOnce) {
    std::int32_t id = 0;
    {
        auto admin = NewAdmin();
        id = StoreOne(*admin).DocID;
    }
    constexpr int kThreads = 4, kRounds = 3;
    std::atomic<int> won{0}, lost{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        const std::string file = LocalFile("r" + std::to_string(t), std::string(1000 + t, 'x'));
        threads.emplace_back([&, file] {
            auto admin = NewAdmin();
            for (int r = 0; r < kRounds; ++r) {
                try {
                    admin->ReplaceFile(id, file, false, ramDefault);
                    ++won;
                } catch (const EDocAdminChangedByOtherUser&) {
                    ++lost;
                }
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(won + lost, kThreads * kRounds);
    EXPECT_GE(won, 1);
    // Each successful replace raised the version once and archived the version it replaced.
    auto row = Row("docadmindocs", id);
    EXPECT_EQ(row->ValueByName(0, "flversion").GetAsString(),
              "0.0.0." + std::to_string(won.load()));
    EXPECT_EQ(RowCount("docadmin_docarchive"), won.load());
    auto arch = Rows("docadmin_docarchive");
    std::set<std::string> archived;
    for (int i = 0; i < arch->GetRecordCount(); ++i)
        archived.insert(arch->ValueByName(i, "fllocname").GetAsString());
    EXPECT_EQ(static_cast<int>(archived.size()), won.load()) << "an archive row was written twice";
    ExpectStoreMatchesRows(*this);
}

TEST_P(ConcurrencyTest, DeleteByIdRemovesTheRowFirstAndKeepsFilesThatRowsStillName) {
    auto admin = NewAdmin();
    const std::int32_t id = StoreOne(*admin).DocID;
    admin->ReplaceFile(id, LocalFile("b.txt", "v2"), false, ramDefault);
    const std::string archived =
        Rows("docadmin_docarchive")->ValueByName(0, "fllocname").GetAsString();
    const std::string current = Row("docadmindocs", id)->ValueByName(0, "fllocname").GetAsString();

    // Rows of the store's own making go first; the archived version's file stays.
    std::vector<int> rowsWhenRemoved;
    Store(*admin).OnRemove = [&] { rowsWhenRemoved.push_back(RowCount("docadmindocs")); };
    admin->DeleteDocument(id);
    EXPECT_EQ(rowsWhenRemoved, std::vector<int>{0});
    EXPECT_FALSE(Store(*admin).Has(current));
    EXPECT_TRUE(Store(*admin).Has(archived));
    EXPECT_THROW(admin->DeleteDocument(id), EDocAdminFileNotFoundInRepository);

    // A file that can't be removed: the row's removal stands and the failure names the file.
    const std::int32_t other =
        admin->SaveDoc(nullptr, chAdded, LocalFile("c.txt", "c"), nullptr, "", 0)->DocID();
    const std::string remote =
        Row("docadmindocs", other)->ValueByName(0, "fllocname").GetAsString();
    Store(*admin).FailRemoves = true;
    const std::string msg = MessageOf<EDocAdminException>([&] { admin->DeleteDocument(other); });
    EXPECT_NE(msg.find(remote), std::string::npos) << msg;
    EXPECT_NE(msg.find("c.txt"), std::string::npos) << msg;
    EXPECT_EQ(RowCount("docadmindocs", "id", TVariant(static_cast<long long>(other))), 0);
    EXPECT_TRUE(Store(*admin).Has(remote));
}

TEST_P(ConcurrencyTest, ASaveInsideTheCallersTransactionArchivesWithoutWaiting) {
    auto admin = NewAdmin();
    StoreOne(*admin);
    TDocument* doc = LoadedDocument(*admin);
    const std::string before = doc->RemoteFileName();
    const std::int64_t tx = DB->BeginTransaction();
    admin->SetDBATransactionID(tx);
    const auto start = std::chrono::steady_clock::now();
    admin->ReplaceFile(doc, LocalFile("n.txt", "new"), false, ramDefault);
    // So does a replace by id, which opens a transaction of its own within the caller's.
    admin->ReplaceFile(static_cast<std::int64_t>(doc->DocID()), LocalFile("o.txt", "newer"), false,
                       ramDefault);
    const auto took = std::chrono::steady_clock::now() - start;
    DB->CommitTransaction(tx);
    admin->SetDBATransactionID(0);
    EXPECT_LT(took, std::chrono::seconds(5)) << "waited for the caller's own write lock";
    EXPECT_EQ(RowCount("docadmin_docarchive"), 2);
    EXPECT_EQ(RowCount("docadmin_docarchive", "fllocname", TVariant(before)), 1);
    ExpectStoreMatchesRows(*this);
}

TEST_P(ConcurrencyTest, BatchedSaveCommitsEachBatchAndRollsBackOnlyTheFailedOne) {
    auto admin = NewAdmin();
    admin->Directories()->ChildDirectoryCount();
    admin->SetAutoSave(false);
    std::vector<std::string> calls;
    std::int64_t tx = 0;
    admin->SetSaveBatching(
        2,
        [&] {
            calls.push_back("begin");
            tx = DB->BeginTransaction();
            admin->SetDBATransactionID(tx);
        },
        [&] {
            calls.push_back("commit");
            admin->SetDBATransactionID(0);
            DB->CommitTransaction(tx);
        },
        [&] {
            calls.push_back("rollback");
            admin->SetDBATransactionID(0);
            DB->RollbackTransaction(tx);
        });
    TDocDirectory* a = admin->AddDirectory(nullptr, "A");
    for (int i = 0; i < 5; ++i)
        admin->SaveDoc(nullptr, chAdded, LocalFile("f" + std::to_string(i), "x"), a, "", 0);
    // Uploads of a batch run before its transaction: the third batch's one upload fails.
    Store(*admin).FailUploadsAfter = 4;
    EXPECT_THROW(admin->SaveChanges(), EAbort);
    EXPECT_EQ(calls, (std::vector<std::string>{"begin", "commit", "begin", "commit"}));
    EXPECT_EQ(admin->CommittedDocuments(), 4u);
    EXPECT_EQ(RowCount("docadmindocs"), 4);
    ExpectStoreMatchesRows(*this);

    // A failure after a row of the next batch rolls that batch back and removes the files its
    // rows would have named. Batches: f4 and g2, then g1 and g0.
    calls.clear();
    Store(*admin).FailUploadsAfter = -1;
    TDocDirectory* b = admin->AddDirectory(nullptr, "B");
    for (int i = 0; i < 3; ++i)
        admin->SaveDoc(nullptr, chAdded, LocalFile("g" + std::to_string(i), "y"), b, "", 0);
    int added = 0;
    admin->OnChangeDocumentState = [&](TObject*, TDocument*, TChangeState APrev) {
        if (APrev == chAdded && ++added == 3) throw EInOutError("interrupted");
    };
    EXPECT_THROW(admin->SaveChanges(), EInOutError);
    EXPECT_EQ(calls, (std::vector<std::string>{"begin", "commit", "begin", "rollback"}));
    EXPECT_EQ(RowCount("docadmindocs"), 6);
    ExpectStoreMatchesRows(*this);
}

TEST_P(ConcurrencyTest, AStoredFileShorterThanItsRowFailsTheDownloadAndKeepsTheDestination) {
    auto admin = NewAdmin();
    const std::int32_t id = StoreOne(*admin).DocID;
    const std::string remote = LoadedDocument(*admin)->RemoteFileName();
    fs::resize_file(StoreDir() + "/" + remote, 1);
    const std::string dest = LocalFile("dest.txt", "keep me");
    std::string name;
    EXPECT_ANY_THROW(admin->DownloadFile(id, dest, name));
    EXPECT_ANY_THROW(admin->DownloadFile(LoadedDocument(*admin), dest, false, nullptr));
    EXPECT_EQ(ReadFile(dest), "keep me");
}

DB_INSTANTIATE(ConcurrencyTest);

}  // namespace
}  // namespace docadmin::test
