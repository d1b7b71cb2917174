// Password hashes and the host object (on SQLite, from a configuration file).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "_THost.h"
#include "_TPasswordHash.h"

using namespace docadmin;
namespace fs = std::filesystem;

TEST(RuntimePassword, HashVerifiesOnlyItsPassword) {
    const std::string h = HashPassword("correct horse", 1000);
    EXPECT_TRUE(VerifyPassword("correct horse", h));
    EXPECT_FALSE(VerifyPassword("correct hors", h));
    EXPECT_FALSE(VerifyPassword("", h));
    EXPECT_NE(HashPassword("correct horse", 1000), h);  // a new salt each time
    // The count travels with the hash.
    EXPECT_TRUE(VerifyPassword("x", HashPassword("x", 1)));
    EXPECT_EQ(h.rfind("pbkdf2-sha256$1000$", 0), 0u);
    EXPECT_THROW(HashPassword("x", 0), EArgumentException);
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
        FDir = fs::temp_directory_path() /
               ("runtime_host_" + std::to_string(getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(FDir);
        fs::create_directories(FDir);
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
    void TearDown() override { fs::remove_all(FDir); }

    std::unique_ptr<THost> Open(std::uint8_t mode = rmTool) {
        return std::make_unique<THost>(TDocAdminConfig::FromFile(FConfigFile), mode, 1000);
    }

    fs::path FDir;
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
    const std::int64_t kim = host->Users().AddUser(u, "pw");

    EXPECT_EQ(host->GetUserAccess(), nullptr);
    EXPECT_EQ(host->GetCurrentUser(), nullptr);
    EXPECT_FALSE(host->Login("kim", "wrong"));
    EXPECT_EQ(host->CurrentUserID(), 0);
    ASSERT_TRUE(host->Login("kim", "pw"));
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
