// The store migration on both databases: a hand-made table set of the older layout is brought to
// the current one, the version keys are written only after success, and a run with both keys
// stored changes nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "_DocAdminStoreUpdate.h"
#include "_TDBSettingsStorage.h"
#include "host/db/db_test_support.h"
#include "host/runtime/test_main_interface.h"

namespace docadmin {
namespace {

const std::string kContacts = "{A48847CA-33D3-4EB0-A586-E316EA2E5322}";
const std::string kCatalog = "{14003704-5069-4B18-AA23-A71F76B231C2}";
const std::string kOther = "{5D2C7A10-8E3B-4F61-9A0C-2B7E4D1F6C35}";

// Documents of the archive-only kinds get the read-only tag (2) from tags 0 and 1; any other
// document or tag stays as it is.
const std::tuple<const char*, int, int> kTagCases[] = {
    {"a.msg", 0, 2}, {"b.eml", 1, 3},   {"c.rtf", 3, 3},  {"d.txt", 0, 0},
    {"e.fp3", 0, 2}, {"f.krmsg", 1, 3}, {"g.dmfd", 0, 2}, {"h.msg.txt", 0, 0},
    {"i.rtf", 2, 2}, {"j.eml", 4, 4},   {"k.xmsg", 1, 1}};

// The host as the migration sees it: the database, its real global settings and a progress
// display, the last two recording what they are asked into one log.
class TMigrateHost : public test::TTestMainInterface, public ISettingsStorage, public IProgress {
  public:
    explicit TMigrateHost(IDBInterface* ADB) : DB(ADB), Settings(ADB) {}
    IDBFieldSchema* GetDBFieldSchema() override {
        return const_cast<IDBFieldSchema*>(DB->GetFieldSchema());
    }
    IDBInterface* GetDBInterface() override { return DB; }
    ISettingsStorage* GetGlobalSettings() override { return this; }
    std::uint8_t RunMode() override { return 3; }
    IProgress* GetProgress() override { return WithProgress ? this : nullptr; }

    std::int64_t ReadInt64(const std::string& s, const std::string& k) override {
        return Settings.ReadInt64(s, k);
    }
    void WriteInt64(const std::string& s, const std::string& k, std::int64_t v) override {
        Log.push_back("write " + s + "." + k + "=" + std::to_string(v));
        Settings.WriteInt64(s, k, v);
    }
    bool ReadBool(const std::string& s, const std::string& k, bool d) override {
        return Settings.ReadBool(s, k, d);
    }
    std::string ReadString(const std::string& s, const std::string& k,
                           const std::string& d) override {
        return Settings.ReadString(s, k, d);
    }

    void Begin(const std::string& ATitle, bool AShowCancel) override {
        Log.push_back("begin " + ATitle + (AShowCancel ? " +" : " -"));
    }
    void Step(std::int64_t, std::int64_t, const std::string& AText, bool&) override {
        Log.push_back("step " + AText);
        if (AText == FailAtStep && FailAfter-- == 0) throw Exception("display gone");
    }
    void End() override { Log.push_back("end"); }

    IDBInterface* DB;
    TGlobalSettingsStorage Settings;
    bool WithProgress = true;
    std::vector<std::string> Log;
    std::string FailAtStep;  // a step with this text throws, after FailAfter such steps
    int FailAfter = 0;
};

class StoreUpdateTest : public testing::DBTest {
  protected:
    void SetUp() override {
        DBTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        Host = std::make_unique<TMigrateHost>(DB.get());
    }
    void TearDown() override {
        Host.reset();
        DBTest::TearDown();
    }

    std::int64_t NewDir(const std::string& title, const std::string& plugin, std::int64_t parent) {
        return Insert("docadmindir", {{"title", TVariant(title)},
                                      {"pluginguid", TVariant(plugin)},
                                      {"parentdirid", TVariant(static_cast<long long>(parent))}});
    }
    std::int64_t NewDoc(const std::string& name, std::int64_t dir, int tags = 0) {
        return Insert("docadmindocs", {{"docname", TVariant(name)},
                                       {"dirid", TVariant(static_cast<long long>(dir))},
                                       {"doctags", TVariant(tags)}});
    }
    // A record of a host table and its UID.
    std::pair<std::int64_t, std::string> NewRecord(const std::string& schema, const char* field) {
        const std::int64_t id = Insert(schema, {{field, TVariant("x")}});
        return {id, DB->GetRecordUIDByDBID(schema, id)};
    }

    // A folder as "title|plugin|parent", or "" when its row is gone.
    std::string Dir(std::int64_t id) {
        auto rs = Rows("docadmindir", "id", TVariant(static_cast<long long>(id)));
        if (rs->GetRecordCount() == 0) return "";
        return rs->ValueByName(0, "title").GetAsString() + "|" +
               rs->ValueByName(0, "pluginguid").GetAsString() + "|" +
               std::to_string(rs->ValueByName(0, "parentdirid").GetRealValue());
    }
    std::pair<std::int64_t, int> Doc(std::int64_t id) {
        auto rs = Rows("docadmindocs", "id", id);
        EXPECT_EQ(rs->GetRecordCount(), 1);
        return {rs->ValueByName(0, "dirid").GetRealValue(),
                static_cast<int>(rs->ValueByName(0, "doctags").GetAsInteger())};
    }
    // Every row of both tree tables as text, by id.
    std::vector<std::string> Snapshot() {
        std::vector<std::string> r;
        for (const char* schema : {"docadmindir", "docadmindocs"}) {
            auto rs = Rows(schema, "", 0);
            for (int i = 0; i < rs->GetRecordCount(); ++i) {
                std::string line = schema;
                for (int c = 0; c < rs->GetFieldCount(); ++c)
                    line += "|" + rs->ValueByIndex(i, c).GetAsString();
                r.push_back(line);
            }
        }
        return r;
    }
    std::unique_ptr<TKRRecordSet> Rows(const std::string& schema, const std::string& field,
                                       const TVariant& value) {
        auto rs = Set(schema);
        rs->SetSelectAll(true);
        for (const char* f : {"parentdirid", "dirid", "globalaclgrp"})
            rs->GetSelectFieldOptions(f).DisableLookupValueLoading = true;
        if (!field.empty()) AddFilter(rs->GetFilters(), field, value);
        rs->GetOrderFields()->SetOrder("id");
        rs->Open();
        return rs;
    }
    std::int64_t Key(const char* key) { return Host->Settings.ReadInt64("DocAdmin", key); }

    // The older layout: what Build() made and what the migration must turn it into.
    struct TLayout {
        std::string Uid1, Uid2, UidItem;
        std::int64_t Gone;
        std::int64_t Records1, Records1b, Rec1, Rec2, Lost, LostDoc, Main1;
        std::int64_t CatExisting, CatRecords, CatRec, CatMisc, CatOwnDoc;
        std::int64_t OtherRecords, OtherChild, OtherMain;
        std::vector<std::pair<std::int64_t, int>> Tagged;  // document and its expected tags
    };
    TLayout Build() {
        TLayout l;
        // Records of the detail schemas; the contacts plug-in looks up contact_details.
        std::int64_t d1, d2, item;
        std::tie(d1, l.Uid1) = NewRecord("contact_details", "kind");
        std::tie(d2, l.Uid2) = NewRecord("contact_details", "kind");
        std::tie(item, l.UidItem) = NewRecord("catalog_items", "name");
        l.Gone = NewRecord("contact_details", "kind").first;
        auto gone = Rows("contact_details", "id", TVariant(static_cast<long long>(l.Gone)));
        gone->DeleteRecord(0);

        // Contacts: two "Records" folders (they merge) with numbered children, one of them of a
        // record that no longer exists, and a "Main" folder.
        l.Records1 = NewDir("Records", kContacts, 0);
        l.Rec1 = NewDir(std::to_string(d1), kContacts, l.Records1);
        NewDoc("contract.pdf", l.Rec1);
        l.Lost = NewDir(std::to_string(l.Gone), kContacts, l.Records1);
        l.LostDoc = NewDoc("letter.pdf", l.Lost);
        l.Records1b = NewDir("Records", kContacts, 0);
        l.Rec2 = NewDir(std::to_string(d2), kContacts, l.Records1b);
        l.Main1 = NewDir("Main", kContacts, 0);

        // Catalog: the current root folder exists already; the old one has a record folder, a
        // folder that isn't a record's and a document of its own.
        l.CatExisting = NewDir("catalog_items#Records", kCatalog, 0);
        l.CatRecords = NewDir("Records", kCatalog, 0);
        l.CatRec = NewDir(std::to_string(item), kCatalog, l.CatRecords);
        l.CatMisc = NewDir("misc", kCatalog, l.CatRecords);
        l.CatOwnDoc = NewDoc("overview.pdf", l.CatRecords);

        // A plug-in that had no records of its own.
        l.OtherRecords = NewDir("Records", kOther, 0);
        l.OtherChild = NewDir("5", kOther, l.OtherRecords);
        l.OtherMain = NewDir("Main", kOther, 0);

        const std::int64_t docs = NewDir("docs", "", 0);
        for (const auto& [name, before, after] : kTagCases)
            l.Tagged.emplace_back(NewDoc(name, docs, before), after);
        return l;
    }

    void ExpectMigrated(const TLayout& l) {
        // Contacts: the two old folders are one now, holding both record folders.
        auto roots = Rows("docadmindir", "title", TVariant("contacts#Records"));
        ASSERT_EQ(roots->GetRecordCount(), 1);
        const std::int64_t root = roots->GetDBIDByRecNo(0),
                           merged = root == l.Records1 ? l.Records1b : l.Records1;
        ASSERT_TRUE(root == l.Records1 || root == l.Records1b);
        auto in = [](const std::string& plugin, std::int64_t parent) {
            return "|" + plugin + "|" + std::to_string(parent);
        };
        const std::vector<std::pair<std::int64_t, std::string>> dirs = {
            {merged, ""},
            {l.Rec1, l.Uid1 + in(kContacts, root)},
            {l.Rec2, l.Uid2 + in(kContacts, root)},
            // A vanished record's folder is kept where anyone may find it.
            {l.Lost, "Lost&Found " + std::to_string(l.Gone) + " (Contact details)" + in("", 0)},
            {l.Main1, "contacts#Main" + in(kContacts, 0)},
            // Catalog: merged into the existing folder; nothing points at the deleted row.
            {l.CatRecords, ""},
            {l.CatRec, l.UidItem + in(kCatalog, l.CatExisting)},
            {l.CatMisc, "misc" + in(kCatalog, 0)},
            // The other plug-in: titles without a word, children untouched.
            {l.OtherRecords, "#Records" + in(kOther, 0)},
            {l.OtherChild, "5" + in(kOther, l.OtherRecords)},
            {l.OtherMain, "#Main" + in(kOther, 0)},
        };
        for (const auto& [id, want] : dirs)
            EXPECT_EQ(Dir(id), want) << "folder " << id;
        EXPECT_EQ(Doc(l.LostDoc).first, l.Lost);
        EXPECT_EQ(Doc(l.CatOwnDoc).first, l.CatExisting);
        for (const auto& [doc, tags] : l.Tagged)
            EXPECT_EQ(Doc(doc).second, tags) << "document " << doc;
        EXPECT_EQ(Key("STOREUPD"), 2);
        EXPECT_EQ(Key("ARCHIVEFLAGUPD"), 1);
    }

    std::unique_ptr<TMigrateHost> Host;
};

TEST_P(StoreUpdateTest, MigratesTheOldLayoutOnceAndReportsProgress) {
    const TLayout l = Build();
    DoDocAdminStoreMigrations(Host.get());
    ExpectMigrated(l);

    const auto& log = Host->Log;
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.front(), "begin Document Administration Database-Update +");
    EXPECT_EQ(std::count(log.begin(), log.end(), "step Updating Document-Stores"), 6);
    EXPECT_EQ(std::count(log.begin(), log.end(), "begin Updating folders for " + kContacts + " +"),
              2);
    EXPECT_EQ(std::count(log.begin(), log.end(), "step Updating FolderID-misc"), 1);
    EXPECT_EQ(std::count(log.begin(), log.end(), "begin Updating folders for " + kOther + " +"), 0);
    EXPECT_EQ(std::count_if(log.begin(), log.end(), [](auto& s) { return s.starts_with("begin"); }),
              std::count(log.begin(), log.end(), "end"));
    // Each key follows the end of its routine; the archive update has no display.
    const std::vector<std::string> tail(log.end() - 3, log.end());
    EXPECT_EQ(tail, (std::vector<std::string>{"end", "write DocAdmin.STOREUPD=2",
                                              "write DocAdmin.ARCHIVEFLAGUPD=1"}));

    // With both keys stored nothing runs, even where there would be work.
    NewDir("Records", kContacts, 0);
    const std::int64_t fresh = NewDoc("z.msg", 0, 0);
    const auto before = Snapshot();
    Host->Log.clear();
    DoDocAdminStoreMigrations(Host.get());
    EXPECT_EQ(Snapshot(), before);
    EXPECT_TRUE(Host->Log.empty());
    EXPECT_EQ(Doc(fresh).second, 0);
}

TEST_P(StoreUpdateTest, AFailedRoutineLeavesItsKeyAndRunsAgain) {
    const TLayout l = Build();
    // The store update breaks after its first folder: no key, the archive update didn't run.
    Host->FailAtStep = "Updating Document-Stores";
    Host->FailAfter = 1;
    EXPECT_THROW(DoDocAdminStoreMigrations(Host.get()), Exception);
    EXPECT_EQ(Host->Log.back(), "end");
    EXPECT_EQ(Key("STOREUPD"), 0);
    EXPECT_EQ(Key("ARCHIVEFLAGUPD"), 0);
    EXPECT_EQ(Doc(l.Tagged[0].first).second, 0);

    // The archive update fails on a broken column: its key stays unwritten, the other is set.
    Host->FailAtStep.clear();
    Host->WithProgress = false;
    auto sql = [&](const std::string& text) { DB->AcquireConnection(0, true)->ExecDirect(text); };
    sql("ALTER TABLE docadmindocs RENAME COLUMN doctags TO doctags_away");
    EXPECT_THROW(DoDocAdminStoreMigrations(Host.get()), Exception);
    EXPECT_EQ(Key("STOREUPD"), 2);
    EXPECT_EQ(Key("ARCHIVEFLAGUPD"), 0);

    // Once the column is back the next start finishes the work as a clean run would have.
    sql("ALTER TABLE docadmindocs RENAME COLUMN doctags_away TO doctags");
    DoDocAdminStoreMigrations(Host.get());
    ExpectMigrated(l);
}

DB_INSTANTIATE(StoreUpdateTest);

}  // namespace
}  // namespace docadmin
