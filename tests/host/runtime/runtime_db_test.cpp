// Settings, users and rights on both databases.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "_TDBSettingsStorage.h"
#include "_TDBUserAccess.h"
#include "_TUserStore.h"
#include "_Tools.h"
#include "host/db/db_test_support.h"

using namespace docadmin;
using docadmin::testing::DBTest;

namespace {

constexpr int kFastIterations = 1000;
constexpr const char* kPw = "password1";

class RuntimeSettings : public DBTest {};
class RuntimeUsers : public DBTest {
  protected:
    std::int64_t AddUser(const std::string& name, std::optional<std::string> password = kPw,
                         bool readOnly = false, bool admin = false, std::int64_t group = 0) {
        TUserInfo u;
        u.UserName = name;
        u.ReadOnly = readOnly;
        u.Admin = admin;
        u.DefaultACLGroup = group;
        return Users().AddUser(u, password);
    }
    TUserStore& Users() {
        if (!FUsers) FUsers = std::make_unique<TUserStore>(DB.get(), kFastIterations);
        return *FUsers;
    }
    std::string StoredHash(std::int64_t id) {
        auto rs = Set("users");
        rs->GetSelectFields()->Add("passwordhash");
        rs->GetFilters()->AddFilter("id", static_cast<long long>(id));
        rs->Open();
        return rs->ValueByName(0, "passwordhash").GetAsString();
    }
    // A row as an older version or another client may have written it, past the store's checks.
    std::int64_t InsertRawUser(const std::string& name, const std::string& hash) {
        TClientSQL ins(nullptr, DB.get());
        ins.SetStatementKind(skInsert);
        ins.SetSchemaName("users");
        ins.GetFields()->AddField("username", name);
        ins.GetFields()->AddField("passwordhash", hash);
        std::int64_t id = 0;
        ins.ExecuteSQL(id);
        return id;
    }

  private:
    std::unique_ptr<TUserStore> FUsers;
};

}  // namespace

TEST_P(RuntimeSettings, GlobalValuesReadAsDefaultsUntilWrittenOnceAndReplaced) {
    TGlobalSettingsStorage g(DB.get());
    EXPECT_EQ(g.ReadInt64("DocAdmin", "STOREUPD"), 0);
    EXPECT_TRUE(g.ReadBool("DocAdmin", "NoCompression", true));
    EXPECT_FALSE(g.ReadBool("DocAdmin", "NoCompression", false));
    EXPECT_EQ(g.ReadString("DocAdmin", "X", "dflt"), "dflt");
    g.WriteInt64("DocAdmin", "STOREUPD", 1);
    g.WriteInt64("DocAdmin", "STOREUPD", INT64_MIN);
    g.WriteInt64("DocAdmin", "ARCHIVEFLAGUPD", INT64_MAX);
    g.WriteBool("DocAdmin", "NoCompression", true);
    g.WriteString("Other", "STOREUPD", "not a number");

    EXPECT_EQ(g.ReadInt64("DocAdmin", "STOREUPD"), INT64_MIN);
    EXPECT_EQ(g.ReadInt64("DocAdmin", "ARCHIVEFLAGUPD"), INT64_MAX);
    EXPECT_TRUE(g.ReadBool("DocAdmin", "NoCompression", false));
    // Sections and keys are distinct and exact.
    EXPECT_EQ(g.ReadInt64("Other", "STOREUPD"), 0);
    EXPECT_EQ(g.ReadString("Other", "STOREUPD", ""), "not a number");
    EXPECT_EQ(g.ReadInt64("docadmin", "STOREUPD"), 0);
    EXPECT_EQ(g.ReadInt64("DocAdmin", "storeupd"), 0);

    // One row per key, whatever the number of writes; a second store object sees the values.
    auto rs = Set("globalsettings");
    rs->SetSelectAll(true);
    rs->Open();
    EXPECT_EQ(rs->GetRecordCount(), 4);
    TGlobalSettingsStorage again(DB.get());
    EXPECT_EQ(again.ReadInt64("DocAdmin", "STOREUPD"), INT64_MIN);

    g.DeleteKey("DocAdmin", "STOREUPD");
    EXPECT_EQ(again.ReadInt64("DocAdmin", "STOREUPD"), 0);
    g.DeleteKey("DocAdmin", "STOREUPD");  // a missing key is no error
}

TEST_P(RuntimeSettings, UserSettingsBelongToTheCurrentUser) {
    std::int64_t current = 7;
    TUserSettingsStorage u(DB.get(), [&current] { return current; });
    TGlobalSettingsStorage g(DB.get());
    u.WriteBool("DocAdmin", "NoCompression", true);
    u.WriteInt64("DocAdmin", "Count", 5);
    EXPECT_TRUE(u.ReadBool("DocAdmin", "NoCompression", false));
    EXPECT_EQ(g.ReadInt64("DocAdmin", "Count"), 0);  // not a global setting

    current = 8;
    EXPECT_FALSE(u.ReadBool("DocAdmin", "NoCompression", false));
    EXPECT_EQ(u.ReadInt64("DocAdmin", "Count"), 0);
    u.WriteInt64("DocAdmin", "Count", 9);

    current = 7;
    EXPECT_EQ(u.ReadInt64("DocAdmin", "Count"), 5);
    current = 8;
    EXPECT_EQ(u.ReadInt64("DocAdmin", "Count"), 9);
}

TEST_P(RuntimeSettings, ConcurrentWritersLeaveOneRowPerKey) {
    TGlobalSettingsStorage a(DB.get());
    TGlobalSettingsStorage b(DB.get());
    std::thread t1([&] {
        for (int i = 0; i < 20; ++i)
            a.WriteInt64("S", "K" + std::to_string(i % 5), i);
    });
    std::thread t2([&] {
        for (int i = 0; i < 20; ++i)
            b.WriteInt64("S", "K" + std::to_string(i % 5), 100 + i);
    });
    t1.join();
    t2.join();
    auto rs = Set("globalsettings");
    rs->SetSelectAll(true);
    rs->Open();
    EXPECT_EQ(rs->GetRecordCount(), 5);
    for (int k = 0; k < 5; ++k) {
        const std::int64_t v = a.ReadInt64("S", "K" + std::to_string(k));
        EXPECT_TRUE(v == 15 + k || v == 115 + k) << v;
    }
}

TEST_P(RuntimeUsers, AddFindListAndRejectDuplicates) {
    const std::int64_t g = Users().AddACLGroup("sales", "Sales people");
    const std::int64_t bob = AddUser("bob", kPw, true, false, g);
    const std::int64_t alice = AddUser("alice", std::nullopt);
    EXPECT_NE(bob, alice);

    const auto b = Users().FindUser("bob");
    ASSERT_TRUE(b);
    EXPECT_EQ(b->ID, bob);
    EXPECT_TRUE(b->ReadOnly);
    EXPECT_FALSE(b->Admin);
    EXPECT_EQ(b->DefaultACLGroup, g);
    EXPECT_TRUE(b->HasPassword);
    EXPECT_FALSE(Users().GetUser(alice)->HasPassword);
    EXPECT_FALSE(Users().GetUser(999999));

    const auto all = Users().ListUsers();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].UserName, "alice");
    EXPECT_EQ(all[1].UserName, "bob");

    EXPECT_THROW(AddUser("bob"), EUserStoreError);
    EXPECT_THROW(AddUser(""), EUserStoreError);
    EXPECT_THROW(AddUser("carol", kPw, false, false, 424242), EUserStoreError);
    EXPECT_THROW(Users().AddACLGroup("sales", ""), EUserStoreError);
    EXPECT_THROW(Users().SetPassword("nobody", kPw), EUserStoreError);
    EXPECT_EQ(Users().ListUsers().size(), 2u);
}

TEST_P(RuntimeUsers, PasswordsAreSaltedHashesAndLoginChecksThem) {
    const std::int64_t a = AddUser("ann", "secret pw");
    const std::int64_t b = AddUser("ben", "secret pw");
    const std::string ha = StoredHash(a), hb = StoredHash(b);
    EXPECT_EQ(ha.find("secret"), std::string::npos);
    EXPECT_NE(ha, hb);  // same password, different salt
    EXPECT_EQ(ha.rfind("pbkdf2-sha256$1000$", 0), 0u) << ha;

    EXPECT_EQ(Users().Login("ann", "secret pw"), a);
    EXPECT_EQ(Users().Login("ann", "Secret pw"), 0);
    EXPECT_EQ(Users().Login("ann", ""), 0);
    EXPECT_EQ(Users().Login("nobody", "secret pw"), 0);

    Users().SetPassword("ann", "new one!");
    EXPECT_EQ(Users().Login("ann", "secret pw"), 0);
    EXPECT_EQ(Users().Login("ann", "new one!"), a);

    // Without a password nobody logs in, not even with an empty one.
    AddUser("nopw", std::nullopt);
    EXPECT_FALSE(Users().FindUser("nopw")->HasPassword);
    EXPECT_EQ(Users().Login("nopw", ""), 0);
}

TEST_P(RuntimeUsers, PasswordsTooShortOrBlankAreRefusedAndChangeNothing) {
    const std::int64_t a = AddUser("ann", "12345678");
    const std::string before = StoredHash(a);
    // Characters count, not bytes: five two-byte letters are five.
    for (const std::string pw : {"", "a", "   ", "1234567", "        ", "\t\t\t\t\t\t\t\t",
                                 "\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4"}) {
        EXPECT_THROW(AddUser("new", pw), EUserStoreError) << "[" << pw << "]";
        EXPECT_THROW(Users().SetPassword("ann", pw), EUserStoreError) << "[" << pw << "]";
    }
    EXPECT_FALSE(Users().FindUser("new"));
    EXPECT_EQ(StoredHash(a), before);
    EXPECT_EQ(Users().Login("ann", "12345678"), a);
    EXPECT_NO_THROW(AddUser("u8", "\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4 \xc3\xa4\xc3\xa4\xc3\xa4"));

    // The least length is the store's setting.
    TUserStore lax(DB.get(), kFastIterations, 3);
    TUserInfo u;
    u.UserName = "short";
    EXPECT_NO_THROW(lax.AddUser(u, std::string("abc")));
    EXPECT_THROW(lax.SetPassword("short", "ab"), EUserStoreError);
}

TEST_P(RuntimeUsers, NamesCompareTrimmedAndWithoutCase) {
    const std::int64_t alice = AddUser("  Alice\t");
    EXPECT_EQ(Users().GetUser(alice)->UserName, "Alice");
    for (const char* same : {"alice", "ALICE", "alice ", " aLiCe", "\nalice\r\n"}) {
        EXPECT_THROW(AddUser(same), EUserStoreError) << same;
        ASSERT_TRUE(Users().FindUser(same)) << same;
        EXPECT_EQ(Users().FindUser(same)->ID, alice) << same;
        EXPECT_EQ(Users().Login(same, kPw), alice) << same;
    }
    // Letters beyond A-Z compare exactly.
    EXPECT_FALSE(Users().FindUser("\xc3\xa4lice"));
    EXPECT_EQ(Users().ListUsers().size(), 1u);

    const std::int64_t bob = AddUser("bob");
    Users().RenameUser("BOB ", "Bobby");
    EXPECT_EQ(Users().FindUser("bobby")->ID, bob);
    Users().RenameUser("bobby", "BOBBY");  // another spelling of the own name
    EXPECT_EQ(Users().GetUser(bob)->UserName, "BOBBY");
    EXPECT_THROW(Users().RenameUser("bobby", " alice"), EUserStoreError);
    EXPECT_THROW(Users().RenameUser("nobody", "x"), EUserStoreError);
}

TEST_P(RuntimeUsers, SpellingsOfOneNameAddedAtOnceGiveOneUser) {
    const char* spellings[] = {"carol", "Carol", "CAROL", "carol "};
    for (int round = 0; round < 3; ++round) {
        std::atomic<int> added{0};
        std::vector<std::thread> threads;
        for (const char* name : spellings)
            threads.emplace_back([&, name] {
                TUserStore store(DB.get(), kFastIterations);
                TUserInfo u;
                u.UserName = name;
                try {
                    store.AddUser(u, std::string(kPw));
                    ++added;
                } catch (const EUserStoreError&) {
                }
            });
        for (auto& t : threads)
            t.join();
        EXPECT_EQ(added.load(), 1);
        ASSERT_EQ(Users().ListUsers().size(), static_cast<size_t>(round + 1));
        Users().RenameUser("carol", "done" + std::to_string(round));
    }
}

TEST_P(RuntimeUsers, NamesThatAreNotPrintableUTF8AreRefused) {
    const std::string hundred = [] {
        std::string s;
        for (int i = 0; i < 100; ++i)
            s += "\xc3\xa4";
        return s;
    }();
    for (const std::string& bad :
         {std::string(), std::string("   "), std::string("a\x01b"), std::string("a\tb"),
          std::string("a\x7f"), std::string("a\xc2\x85"), std::string("\x1b[31mred"),
          std::string("a\xff"), std::string("\xc0\xaf"), std::string("\xed\xa0\x80"),
          hundred + "x"})
        EXPECT_THROW(AddUser(bad), EUserStoreError) << PrintableText(bad);
    EXPECT_TRUE(Users().ListUsers().empty());
    EXPECT_NO_THROW(AddUser(hundred));
    const std::int64_t bob = AddUser("bob");
    EXPECT_THROW(Users().RenameUser("bob", "b\nob"), EUserStoreError);
    EXPECT_EQ(Users().GetUser(bob)->UserName, "bob");
}

TEST_P(RuntimeUsers, NamesOfAnOlderDatabaseThatNowCompareEqualAreReported) {
    const std::string hash = HashPassword(kPw, 10);
    const std::int64_t lower = InsertRawUser("alice", hash);
    const std::int64_t upper = InsertRawUser("ALICE", hash);
    const std::int64_t spaced = InsertRawUser("alice ", hash);
    InsertRawUser("bob", hash);

    EXPECT_EQ(Users().ListUsers().size(), 4u);
    const auto dups = Users().DuplicateUserNames();
    ASSERT_EQ(dups.size(), 1u);
    ASSERT_EQ(dups[0].size(), 3u);
    EXPECT_EQ(dups[0][0].ID, lower);
    EXPECT_EQ(dups[0][2].ID, spaced);

    // The exact spelling still names its row; another one is ambiguous and logs nobody in.
    EXPECT_EQ(Users().FindUser("ALICE")->ID, upper);
    EXPECT_EQ(Users().Login("alice ", kPw), spaced);
    const std::string msg = test::MessageOf<EUserStoreError>([&] { Users().FindUser("Alice"); });
    EXPECT_NE(msg.find("(id " + std::to_string(upper) + ")"), std::string::npos) << msg;
    EXPECT_EQ(Users().Login("Alice", kPw), 0);
    EXPECT_THROW(AddUser("Alice"), EUserStoreError);

    // Renamed apart, they are single again.
    Users().RenameUser("ALICE", "alice2");
    Users().RenameUser("alice ", "alice3");
    EXPECT_TRUE(Users().DuplicateUserNames().empty());
    EXPECT_EQ(Users().Login("Alice", kPw), lower);
}

TEST_P(RuntimeUsers, AWeakerHashIsRenewedAtTheNextLogin) {
    const std::int64_t id = InsertRawUser("old", HashPassword(kPw, 10));
    const std::string weak = StoredHash(id);
    EXPECT_EQ(Users().Login("old", "wrong password"), 0);
    EXPECT_EQ(StoredHash(id), weak);  // only a correct password renews

    EXPECT_EQ(Users().Login("old", kPw), id);
    const std::string renewed = StoredHash(id);
    EXPECT_EQ(renewed.rfind("pbkdf2-sha256$1000$", 0), 0u) << renewed;
    EXPECT_EQ(Users().Login("old", kPw), id);
    EXPECT_EQ(StoredHash(id), renewed);  // as strong as a new one: left alone

    // A stronger hash than the store makes is not weakened.
    const std::int64_t strong = InsertRawUser("strong", HashPassword(kPw, 2000));
    const std::string strongHash = StoredHash(strong);
    EXPECT_EQ(Users().Login("strong", kPw), strong);
    EXPECT_EQ(StoredHash(strong), strongHash);
}

TEST_P(RuntimeUsers, ModesPerGroupAreSetReplacedAndRemoved) {
    const std::int64_t u = AddUser("u", kPw);
    const std::int64_t g1 = Users().AddACLGroup("g1", "");
    const std::int64_t g2 = Users().AddACLGroup("g2", "");
    EXPECT_FALSE(Users().GetUserACLMode(u, g1));
    Users().SetUserACLMode(u, g1, uamReadOnly);
    Users().SetUserACLMode(u, g1, uamReadWrite);
    Users().SetUserACLMode(u, g2, uamDenied);
    EXPECT_EQ(Users().GetUserACLMode(u, g1), uamReadWrite);
    EXPECT_EQ(Users().GetUserACLMode(u, g2), uamDenied);
    Users().RemoveUserACLMode(u, g2);
    EXPECT_FALSE(Users().GetUserACLMode(u, g2));
    EXPECT_THROW(Users().SetUserACLMode(u, 999999, uamFull), EUserStoreError);
    EXPECT_THROW(Users().SetUserACLMode(999999, g1, uamFull), EUserStoreError);

    const auto groups = Users().ListACLGroups();
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(groups[0].Name, "g1");
    EXPECT_EQ(Users().FindACLGroup("g2")->ID, g2);
}

TEST_P(RuntimeUsers, UserAccessAnswersTheRightsChecks) {
    const std::int64_t g1 = Users().AddACLGroup("g1", "");
    const std::int64_t g2 = Users().AddACLGroup("g2", "");
    const std::int64_t g3 = Users().AddACLGroup("g3", "");
    const std::int64_t u = AddUser("u", kPw, false, false, g2);
    Users().SetUserACLMode(u, g1, uamFull);
    Users().SetUserACLMode(u, g2, uamReadOnly);
    const std::int64_t admin = AddUser("root", kPw, false, true);
    const std::int64_t ro = AddUser("ro", kPw, true);

    IPtr<TDBUserAccess> access(new TDBUserAccess(DB.get(), u));
    EXPECT_EQ(access->GetUserID(), u);
    EXPECT_FALSE(access->IsReadOnly());
    EXPECT_EQ(access->GetDefaultACLGroup(), g2);
    EXPECT_EQ(access->GetGroupAccessMode(g1), uamFull);
    EXPECT_EQ(access->GetGroupAccessMode(g2), uamReadOnly);
    EXPECT_EQ(access->GetGroupAccessMode(g3), uamDenied);  // no row
    EXPECT_EQ(access->GetGroupAccessMode(0), uamFull);     // no group

    IPtr<TDBUserAccess> root(new TDBUserAccess(DB.get(), admin));
    EXPECT_EQ(root->GetGroupAccessMode(g3), uamFull);
    IPtr<TDBUserAccess> readOnly(new TDBUserAccess(DB.get(), ro));
    EXPECT_TRUE(readOnly->IsReadOnly());
    IPtr<TDBUserAccess> gone(new TDBUserAccess(DB.get(), 999999));
    EXPECT_TRUE(gone->IsReadOnly());
    EXPECT_EQ(gone->GetGroupAccessMode(0), uamDenied);

    // Reached as the interfaces the document layer holds.
    IPtr<IUserAccess> asInterface;
    ASSERT_TRUE(Supports(static_cast<IUserAccess*>(access.get()), asInterface));
    EXPECT_EQ(asInterface->GetGroupAccessMode(g1), uamFull);
    ICurrentUser* current = access.get();
    EXPECT_EQ(current->GetDefaultACLGroup(), g2);

    // The ACL table controller is found by its table's name while it lives.
    EXPECT_EQ(access->GetACLTableController("runtime_acl_test_table"), nullptr);
    {
        TKRACLDataTableController controller(nullptr);
        controller.AddTable("runtime_acl_test_table", TACLTableType::atDefault, "", "Test");
        EXPECT_EQ(access->GetACLTableController("runtime_acl_test_table"), &controller);
    }
    EXPECT_EQ(access->GetACLTableController("runtime_acl_test_table"), nullptr);
}

TEST_P(RuntimeUsers, UserAccessSeesChangesAfterItsCacheTime) {
    const std::int64_t g = Users().AddACLGroup("g", "");
    const std::int64_t u = AddUser("u", kPw);
    IPtr<TDBUserAccess> cached(new TDBUserAccess(DB.get(), u, std::chrono::hours(1)));
    IPtr<TDBUserAccess> live(new TDBUserAccess(DB.get(), u, std::chrono::milliseconds(0)));
    EXPECT_EQ(cached->GetGroupAccessMode(g), uamDenied);
    EXPECT_FALSE(cached->IsReadOnly());

    Users().SetUserACLMode(u, g, uamReadWrite);
    Users().SetReadOnly("u", true);
    EXPECT_EQ(cached->GetGroupAccessMode(g), uamDenied);
    EXPECT_FALSE(cached->IsReadOnly());
    EXPECT_EQ(live->GetGroupAccessMode(g), uamReadWrite);
    EXPECT_TRUE(live->IsReadOnly());

    cached->Invalidate();
    EXPECT_EQ(cached->GetGroupAccessMode(g), uamReadWrite);
    EXPECT_TRUE(cached->IsReadOnly());
}

DB_INSTANTIATE(RuntimeSettings);
DB_INSTANTIATE(RuntimeUsers);
