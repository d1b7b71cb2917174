// Password hashes and the host object (on SQLite, from a configuration file).
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "_THost.h"
#include "_TKRRecordSet.h"
#include "_TPasswordHash.h"
#include "_TUserStore.h"
#include "host/test_helpers.h"

using namespace docadmin;
using docadmin::test::TTempDir;
namespace fs = std::filesystem;

TEST(RuntimePassword, HashVerifiesOnlyItsPasswordAndSaysWhenItNeedsAnUpgrade) {
    const std::string h = HashPassword("correct horse", 1000);
    EXPECT_TRUE(VerifyPassword("correct horse", h));
    EXPECT_FALSE(VerifyPassword("correct hors", h));
    EXPECT_FALSE(VerifyPassword("", h));
    EXPECT_NE(HashPassword("correct horse", 1000), h);  // a new salt each time
    // The count travels with the hash.
    EXPECT_TRUE(VerifyPassword("x", HashPassword("x", 1)));
    EXPECT_EQ(h.rfind("pbkdf2-sha256$1000$", 0), 0u);
    EXPECT_THROW(HashPassword("x", 0), EArgumentException);
    // An upgrade is needed for fewer iterations or another format.
    EXPECT_FALSE(PasswordHashNeedsUpgrade(h, 1000));
    EXPECT_FALSE(PasswordHashNeedsUpgrade(h, 999));
    EXPECT_TRUE(PasswordHashNeedsUpgrade(h, 1001));
    EXPECT_TRUE(PasswordHashNeedsUpgrade("md5$100$00$00", 1));
    EXPECT_TRUE(PasswordHashNeedsUpgrade("", 1));
}

TEST(RuntimePassword, MalformedStoredHashesNeverMatch) {
    const std::string h = HashPassword("pw", 10);
    const std::string salt = h.substr(h.find('$', 14) + 1, 32);
    const std::string key = h.substr(h.rfind('$') + 1);
    for (const std::string& bad :
         {std::string(), std::string("pw"), "md5$10$" + salt + "$" + key,
          "pbkdf2-sha256$$" + salt + "$" + key, "pbkdf2-sha256$0$" + salt + "$" + key,
          "pbkdf2-sha256$99999999999$" + salt + "$" + key,
          "pbkdf2-sha256$10$zz" + salt.substr(2) + "$" + key,
          "pbkdf2-sha256$10$" + salt + "$" + key.substr(1), "pbkdf2-sha256$10$" + salt + "$",
          "pbkdf2-sha256$10$" + salt + "$" + key + "$"})
        EXPECT_FALSE(VerifyPassword("pw", bad)) << bad;
    EXPECT_TRUE(VerifyPassword("pw", "pbkdf2-sha256$10$" + salt + "$" + key));
    // A changed key byte fails.
    std::string flipped = h;
    flipped.back() = flipped.back() == '0' ? '1' : '0';
    EXPECT_FALSE(VerifyPassword("pw", flipped));
}

namespace {

class RuntimeHost : public ::testing::Test {
  protected:
    void SetUp() override {
        FConfigFile = (FDir / "docadmin.toml").string();
        std::ofstream(FConfigFile) << R"(data_dir = "data"
can_create_container = false
[databases.main]
path = "db/main.db"
DocumentsPath = "$DataDir$store"
[local.DOCSRV]
FileRoot = "/srv/files"
)";
    }
    std::unique_ptr<THost> Open(std::uint8_t mode = rmTool) {
        return std::make_unique<THost>(TDocAdminConfig::FromFile(FConfigFile), mode, 1000);
    }

    TTempDir FTemp{"runtime_host"};
    const fs::path FDir = FTemp.Dir();
    std::string FConfigFile;
};

}  // namespace

TEST_F(RuntimeHost, OpensTheSelectedDatabaseAndAnswersTheAccessors) {
    auto host = Open();
    EXPECT_TRUE(fs::exists(FDir / "data" / "db" / "main.db"));
    ASSERT_NE(host->GetDBInterface(), nullptr);
    ASSERT_NE(host->GetDBFieldSchema(), nullptr);
    for (const char* table : {"users", "globalsettings", "usersettings", "docadmindocs"})
        EXPECT_NE(host->GetDBFieldSchema()->FindTable(table), nullptr) << table;

    IVantrelDatabaseRepository* repo = host->GetDatabaseRepository();
    EXPECT_EQ(repo->ExpandPathMacros(
                  repo->ReadDatabaseSetting(repo->SelectedDatabaseIndex(), "DocumentsPath")),
              (FDir / "data" / "store").string());
    EXPECT_EQ(host->GetLocalSettings()->ReadString("DOCSRV", "FileRoot", ""), "/srv/files");

    ICustomApp* app = host->GetCustomApp();
    EXPECT_EQ(app->DataDirectory(), (FDir / "data").string());
    EXPECT_FALSE(app->IsServer());
    EXPECT_FALSE(app->CanCreateContainer());
    EXPECT_EQ(host->RunMode(), rmTool);
    EXPECT_TRUE(Open(rmServer)->GetCustomApp()->IsServer());

    // Reached as IMainInterface through a component's owner chain.
    IPtr<IMainInterface> mi;
    ASSERT_TRUE(Supports(static_cast<IMainInterface*>(host.get()), mi));
    TPluginBaseComponent owner(nullptr);
    owner.SetMainInterface(host.get());
    TPluginBaseComponent child(&owner);
    EXPECT_EQ(child.GetMainInterface(), host.get());
    EXPECT_EQ(child.GetSaveSettings(), host->GetLocalSettings());
}

TEST_F(RuntimeHost, CurrentUserBelongsToTheThread) {
    auto host = Open();
    const std::int64_t g = host->Users().AddACLGroup("team", "");
    TUserInfo u;
    u.UserName = "kim";
    u.DefaultACLGroup = g;
    const std::int64_t kim = host->Users().AddUser(u, std::string("kim's pw"));

    EXPECT_EQ(host->GetUserAccess(), nullptr);
    EXPECT_EQ(host->GetCurrentUser(), nullptr);
    EXPECT_FALSE(host->Login("kim", "wrong"));
    EXPECT_EQ(host->CurrentUserID(), 0);
    ASSERT_TRUE(host->Login("kim", "kim's pw"));
    ASSERT_NE(host->GetUserAccess(), nullptr);
    EXPECT_EQ(host->GetUserAccess()->GetUserID(), kim);
    EXPECT_EQ(host->GetCurrentUser()->GetDefaultACLGroup(), g);
    EXPECT_EQ(host->GetUserAccess(), host->GetUserAccess());  // one object per user

    // Another thread has nobody, and user settings follow the thread's user.
    host->GetUserSettings()->WriteInt64("DocAdmin", "Mine", 1);
    std::thread([&] {
        EXPECT_EQ(host->GetUserAccess(), nullptr);
        EXPECT_EQ(host->GetUserSettings()->ReadInt64("DocAdmin", "Mine"), 0);
        host->SetCurrentUser(kim);
        EXPECT_EQ(host->GetUserSettings()->ReadInt64("DocAdmin", "Mine"), 1);
    }).join();
    EXPECT_EQ(host->CurrentUserID(), kim);
    host->SetCurrentUser(0);
}

// The real cost, once: hashes are made with the default count, and a hash of the former default
// count still logs in and is renewed.
TEST_F(RuntimeHost, DefaultHashIsStrongAndAnOldHashIsRenewedAtLogin) {
    auto host = std::make_unique<THost>(TDocAdminConfig::FromFile(FConfigFile));
    TUserInfo u;
    u.UserName = "kim";
    const std::int64_t kim = host->Users().AddUser(u, std::string("kim's pw"));
    auto storedHash = [&] {
        TKRRecordSet rs(nullptr, host->GetDBInterface());
        rs.SetSchemaName("users");
        rs.GetSelectFields()->Add("passwordhash");
        rs.GetFilters()->AddFilter("id", static_cast<long long>(kim));
        rs.Open();
        return rs.ValueByName(0, "passwordhash").GetAsString();
    };
    EXPECT_EQ(storedHash().rfind("pbkdf2-sha256$600000$", 0), 0u) << storedHash();

    TClientSQL upd(nullptr, host->GetDBInterface());
    upd.SetStatementKind(skUpdate);
    upd.SetSchemaName("users");
    upd.GetFields()->AddField("passwordhash", HashPassword("kim's pw", 100000));
    upd.GetFilters()->AddFilter("id", static_cast<long long>(kim));
    upd.ExecuteSQL();
    EXPECT_EQ(storedHash().rfind("pbkdf2-sha256$100000$", 0), 0u);
    EXPECT_TRUE(host->Login("kim", "kim's pw"));
    EXPECT_EQ(storedHash().rfind("pbkdf2-sha256$600000$", 0), 0u) << storedHash();
    host->SetCurrentUser(0);
}

TEST_F(RuntimeHost, NewDatabaseFilesAreReadableByTheirOwnerOnly) {
    const mode_t old = ::umask(022);  // as most shells set it
    TFinally restore{[old] { ::umask(old); }};
    auto host = Open();
    host->GetGlobalSettings()->WriteInt64("DocAdmin", "STOREUPD", 1);  // the WAL is in use
    const fs::path db = FDir / "data" / "db" / "main.db";
    for (const fs::path& f : {db, fs::path(db.string() + "-wal"), fs::path(db.string() + "-shm")}) {
        ASSERT_TRUE(fs::exists(f)) << f;
        EXPECT_EQ(fs::status(f).permissions() & fs::perms::all,
                  fs::perms::owner_read | fs::perms::owner_write)
            << f;
    }
    host.reset();
    // A file that exists keeps its mode: its owner may have widened it on purpose.
    fs::permissions(db, fs::perms::group_read, fs::perm_options::add);
    Open();
    EXPECT_TRUE((fs::status(db).permissions() & fs::perms::group_read) != fs::perms::none);
}

TEST_F(RuntimeHost, SettingsSurviveAReopen) {
    {
        auto host = Open();
        host->GetGlobalSettings()->WriteInt64("DocAdmin", "STOREUPD", 3);
        host->LocalSettings().WriteString("DOCSRV", "FileRoot", "/elsewhere");
    }  // the host writes the changed local settings back when it closes
    auto host = Open();
    EXPECT_EQ(host->GetGlobalSettings()->ReadInt64("DocAdmin", "STOREUPD"), 3);
    EXPECT_EQ(host->GetLocalSettings()->ReadString("DOCSRV", "FileRoot", ""), "/elsewhere");
    EXPECT_EQ(host->GetDatabaseRepository()->ReadDatabaseSetting(0, "DocumentsPath"),
              "$DataDir$store");
}

TEST_F(RuntimeHost, UnusableDatabaseFailsTheOpen) {
    std::ofstream(FConfigFile) << "[databases.main]\nbackend = \"postgresql\"\n"
                                  "conninfo = \"host=/nonexistent-socket-dir dbname=x\"\n";
    EXPECT_THROW(Open(), EDBException);
}

TEST_F(RuntimeHost, OffersItsJobSchedulerAndEndsItsJobsBeforeItGoes) {
    auto host = Open();
    ASSERT_EQ(GetBackgroundJobScheduler(host.get()),
              static_cast<IKRBackgroundJobScheduler*>(&host->JobScheduler()));
    std::atomic<int> finished{0}, cancelled{0};
    const auto schedule = [&](std::int64_t ADelay) {
        auto* job = new TCustomPluginComponentBackgroundJob(
            "job", [&](TObject*) { ++finished; }, [&](TObject*) { ++cancelled; });
        job->SetMainInterface(host.get());
        job->SetStartDelay(ADelay);
        job->Schedule(7);
    };
    schedule(0);
    EXPECT_TRUE(host->JobScheduler().WaitForGroup(7, 10000));
    EXPECT_EQ(finished, 1);
    // A job still waiting when the host goes ends as cancelled, before the database closes.
    schedule(60000);
    EXPECT_EQ(host->JobScheduler().JobCount(7), 1);
    host.reset();
    EXPECT_EQ(finished, 1);
    EXPECT_EQ(cancelled, 1);
}
