#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "_TDocAdminConfig.h"
#include "_TLocalSettingsStorage.h"
#include "_TVantrelDatabaseRepository.h"
#include "host/test_helpers.h"

using namespace docadmin;
using namespace docadmin::test;
namespace fs = std::filesystem;

namespace {

class ConfigTest : public ::testing::Test {
  protected:
    std::string Write(const std::string& name, const std::string& text) {
        WriteFile(FDir / name, text);
        return (FDir / name).string();
    }

    TTempDir FTemp{"config_test"};
    const fs::path FDir = FTemp.Dir();
    const std::string FData = (FDir / "data").string();
    TScopedEnv FNoConfigEnv{"DOCADMIN_CONFIG", nullptr};
};

}  // namespace

TEST_F(ConfigTest, DataFolderComesFromEnvironmentInOrder) {
    TScopedEnv data("DOCADMIN_DATA", FData.c_str());
    TScopedEnv xdg("XDG_DATA_HOME", (FDir / "xdg").c_str());
    TScopedEnv home("HOME", (FDir / "home").c_str());
    EXPECT_EQ(TDocAdminConfig::DefaultDataDir(), FData);
    {
        TScopedEnv noData("DOCADMIN_DATA", nullptr);
        EXPECT_EQ(TDocAdminConfig::DefaultDataDir(), (FDir / "xdg" / "docadmin").string());
        TScopedEnv noXdg("XDG_DATA_HOME", nullptr);
        EXPECT_EQ(TDocAdminConfig::DefaultDataDir(),
                  (FDir / "home" / ".local" / "share" / "docadmin").string());
        // A relative XDG_DATA_HOME is invalid and ignored.
        TScopedEnv relXdg("XDG_DATA_HOME", "relative/xdg");
        EXPECT_EQ(TDocAdminConfig::DefaultDataDir(),
                  (FDir / "home" / ".local" / "share" / "docadmin").string());
    }
}

TEST_F(ConfigTest, DefaultsAreOneSQLiteDatabaseInTheDataFolder) {
    TScopedEnv data("DOCADMIN_DATA", FData.c_str());
    const auto c = TDocAdminConfig::Locate("");
    EXPECT_EQ(c.ConfigFile(), "");
    EXPECT_EQ(c.DataDir(), FData);
    EXPECT_EQ(c.SaveFileName(), FData + "/docadmin.toml");
    ASSERT_EQ(c.Databases().size(), 1u);
    EXPECT_EQ(c.SelectedDatabase().Name, "main");
    EXPECT_EQ(c.SelectedDatabase().Backend, "sqlite");
    EXPECT_EQ(c.SelectedDatabase().Path, FData + "/docadmin.db");
    EXPECT_EQ(c.SelectedDatabaseIndex(), 0);
    EXPECT_EQ(c.OfflineDatabaseIndex(), -1);
    EXPECT_EQ(c.SeedDocRoot(), "");
    EXPECT_TRUE(c.CanCreateContainer());
    EXPECT_EQ(c.MinPasswordLength(), 8);
    EXPECT_TRUE(c.LocalSettings().empty());
    // A single database is selected without a key.
    const auto only = TDocAdminConfig::FromString("[databases.only]\n", "");
    EXPECT_EQ(only.SelectedDatabase().Name, "only");
    EXPECT_EQ(fs::path(only.SelectedDatabase().Path).filename(), "only.db");
}

TEST_F(ConfigTest, LocateTakesArgumentThenEnvironmentThenDataFolderFile) {
    TScopedEnv data("DOCADMIN_DATA", FData.c_str());
    const std::string inData = Write("data/docadmin.toml", "seed_docroot = \"from-data\"\n");
    const std::string inEnv = Write("env.toml", "seed_docroot = \"from-env\"\n");
    const std::string inArg = Write("arg.toml", "seed_docroot = \"from-arg\"\n");

    EXPECT_EQ(TDocAdminConfig::Locate("").ConfigFile(), inData);
    {
        TScopedEnv env("DOCADMIN_CONFIG", inEnv.c_str());
        EXPECT_EQ(TDocAdminConfig::Locate("").ConfigFile(), inEnv);
        EXPECT_EQ(TDocAdminConfig::Locate(inArg).ConfigFile(), inArg);
        EXPECT_EQ(TDocAdminConfig::Locate(inArg).SeedDocRoot(), FData + "/from-arg");
    }
    // A file that is named must exist; the data folder's file may be missing.
    EXPECT_THROW(TDocAdminConfig::Locate((FDir / "missing.toml").string()), EConfigError);
    {
        TScopedEnv env("DOCADMIN_CONFIG", (FDir / "missing.toml").c_str());
        EXPECT_THROW(TDocAdminConfig::Locate(""), EConfigError);
    }
    fs::remove(inData);
    EXPECT_EQ(TDocAdminConfig::Locate("").ConfigFile(), "");
}

TEST_F(ConfigTest, FileWithSeveralDatabasesAndRelativePaths) {
    const std::string file = Write("etc/docadmin.toml", R"(
data_dir = "../var"
selected_database = "pg"
offline_database = "mirror"
seed_docroot = "/srv/seed"
can_create_container = false
min_password_length = 12
[databases.pg]
backend = "postgresql"
conninfo = "host=/tmp dbname=docs"
DocumentsRepType = "azureblobstorage"
AccountName = "acct"
ConnectionKind = 0
[databases.mirror]
path = "mirror/offline.db"
DocumentsPath = "$UserDocuments$offlinedocroot"
NoCompression = true
[databases.abs]
path = "/abs/x.db"
)");
    const auto c = TDocAdminConfig::FromFile(file);
    const std::string dataDir = (FDir / "var").string();
    EXPECT_EQ(c.DataDir(), dataDir);
    EXPECT_EQ(c.SaveFileName(), file);
    ASSERT_EQ(c.Databases().size(), 3u);
    // Ordered by name.
    EXPECT_EQ(c.Databases()[0].Name, "abs");
    EXPECT_EQ(c.Databases()[1].Name, "mirror");
    EXPECT_EQ(c.Databases()[2].Name, "pg");
    EXPECT_EQ(c.SelectedDatabaseIndex(), 2);
    EXPECT_EQ(c.OfflineDatabaseIndex(), 1);
    EXPECT_EQ(c.SelectedDatabase().Backend, "postgresql");
    EXPECT_EQ(c.SelectedDatabase().ConnInfo, "host=/tmp dbname=docs");
    EXPECT_EQ(c.Databases()[0].Path, "/abs/x.db");
    EXPECT_EQ(c.Databases()[1].Path, dataDir + "/mirror/offline.db");
    EXPECT_EQ(c.SeedDocRoot(), "/srv/seed");
    EXPECT_FALSE(c.CanCreateContainer());
    EXPECT_EQ(c.MinPasswordLength(), 12);
    // Settings as text, whatever their TOML type; the location keys aren't settings.
    EXPECT_EQ(c.SelectedDatabase().Settings.at("ConnectionKind"), "0");
    EXPECT_EQ(c.Databases()[1].Settings.at("NoCompression"), "true");
    EXPECT_EQ(c.SelectedDatabase().Settings.count("conninfo"), 0u);
    EXPECT_EQ(c.Databases()[1].Settings.count("path"), 0u);
}

TEST_F(ConfigTest, MistakesAreReportedWithTheFileName) {
    auto expectError = [](const std::string& text, const std::string& part) {
        const std::string msg =
            MessageOf<EConfigError>([&] { TDocAdminConfig::FromString(text, "x.toml"); });
        EXPECT_EQ(msg.rfind("x.toml", 0), 0u) << msg;
        EXPECT_NE(msg.find(part), std::string::npos) << "message: " << msg;
    };
    expectError("selected_databse = \"main\"\n", "unknown key selected_databse");
    expectError("selected_database = \"nope\"\n", "\"nope\"");
    expectError("offline_database = \"nope\"\n", "offline_database");
    expectError("[databases.a]\n[databases.b]\n", "selected_database is required");
    expectError("[databases.main]\nbackend = \"mysql\"\n", "\"mysql\"");
    expectError("[databases.main]\npath = \"\"\n", "must not be empty");
    expectError("[databases.main]\nbackend = 1\n", "databases.main.backend must be a string");
    expectError("[databases.main]\nDocumentsPath = [1, 2]\n", "databases.main.DocumentsPath");
    expectError("[local.DOCSRV]\nFileRoot = { a = 1 }\n", "local.DOCSRV.FileRoot");
    expectError("local = 3\n", "local must be a table");
    expectError("can_create_container = \"yes\"\n", "can_create_container");
    for (const char* bad : {"0", "-3", "1025", "\"8\"", "8.5"})
        expectError(std::string("min_password_length = ") + bad + "\n", "min_password_length");
    expectError("a = \n", "x.toml:1:");  // TOML syntax: line and column
}

TEST_F(ConfigTest, ExampleFileOfTheSourceTreeParses) {
    const auto c = TDocAdminConfig::FromFile(DOCADMIN_SOURCE_DIR "/docadmin.example.toml");
    EXPECT_EQ(c.SelectedDatabase().Name, "main");
    EXPECT_EQ(c.SelectedDatabase().Backend, "sqlite");
    EXPECT_EQ(c.OfflineDatabaseIndex(), -1);
    EXPECT_EQ(c.MinPasswordLength(), 8);
    for (const char* key :
         {"DocumentsRepType", "DocumentsPath", "AccountName", "AccountKey", "AltEndpoint"})
        EXPECT_EQ(c.SelectedDatabase().Settings.count(key), 1u) << key;
    EXPECT_EQ(c.LocalSettings().at("DOCSRV").at("FileRoot").Text, "");
}

TEST_F(ConfigTest, RepositoryReadsSettingsByIndexAndExpandsMacros) {
    const auto c = TDocAdminConfig::FromString("data_dir = \"" + FData + R"("
offline_database = "off"
seed_docroot = "seed"
[databases.main]
DocumentsPath = "$DataDir$docs"
[databases.off]
DocumentsPath = "$UserDocuments$offlinedocroot"
)",
                                               "");
    TVantrelDatabaseRepository r(c);
    const int sel = r.SelectedDatabaseIndex();
    const int off = r.OfflineDatabaseIndex();
    EXPECT_NE(sel, off);
    EXPECT_EQ(r.ReadDatabaseSetting(sel, "DocumentsPath"), "$DataDir$docs");
    EXPECT_EQ(r.ReadDatabaseSetting(sel, "AccountName"), "");
    EXPECT_EQ(r.ReadDatabaseSetting(sel, "documentspath"), "");  // keys are exact
    EXPECT_EQ(r.ReadDatabaseSetting(-1, "DocumentsPath"), "");
    EXPECT_EQ(r.ReadDatabaseSetting(7, "DocumentsPath"), "");

    EXPECT_EQ(r.ExpandPathMacros(r.ReadDatabaseSetting(off, "DocumentsPath")),
              FData + "/userdocs/offlinedocroot");
    EXPECT_EQ(r.ExpandPathMacros("$datadir$a/$USERDOCUMENTS$b"),
              FData + "/a/" + FData + "/userdocs/b");
    EXPECT_EQ(r.ExpandPathMacros("/x/$Other$/$"), "/x/$Other$/$");
    EXPECT_EQ(r.ExpandPathMacros(""), "");
    EXPECT_EQ(r.ExpandPathMacros("documents"), FData + "/documents");
    EXPECT_EQ(r.DefaultDocRootFolder(), FData + "/docroot");
    EXPECT_EQ(r.SeedDocRootFolder(), FData + "/seed");
}

TEST_F(ConfigTest, LocalSettingsReadTypedValuesAndDefaults) {
    const auto c = TDocAdminConfig::FromString(R"(
[local.DOCSRV]
FileRoot = "/srv/docs"
Limit = 42
Flag = true
Word = "yes"
Text = "abc"
Ratio = 0.25
)",
                                               "");
    TLocalSettingsStorage s(c);
    EXPECT_EQ(s.ReadString("DOCSRV", "FileRoot", "d"), "/srv/docs");
    EXPECT_EQ(s.ReadString("DOCSRV", "Missing", "d"), "d");
    EXPECT_EQ(s.ReadString("OTHER", "FileRoot", ""), "");
    EXPECT_EQ(s.ReadString("DOCSRV", "Limit", ""), "42");
    EXPECT_EQ(s.ReadString("DOCSRV", "Ratio", ""), "0.25");
    EXPECT_EQ(s.ReadInt64("DOCSRV", "Limit"), 42);
    EXPECT_EQ(s.ReadInt64("DOCSRV", "Text"), 0);
    EXPECT_EQ(s.ReadInt64("DOCSRV", "Ratio"), 0);
    EXPECT_EQ(s.ReadInt64("DOCSRV", "Missing"), 0);
    EXPECT_TRUE(s.ReadBool("DOCSRV", "Flag", false));
    EXPECT_TRUE(s.ReadBool("DOCSRV", "Word", false));
    EXPECT_TRUE(s.ReadBool("DOCSRV", "Limit", false));
    EXPECT_FALSE(s.ReadBool("DOCSRV", "Text", false));
    EXPECT_TRUE(s.ReadBool("DOCSRV", "Text", true));
    EXPECT_TRUE(s.ReadBool("DocAdmin", "NoCompression", true));
    EXPECT_FALSE(s.Modified());
}

TEST_F(ConfigTest, LocalSettingsAreSavedBackKeepingTheRestOfTheFile) {
    const std::string file = Write("docadmin.toml", R"(# a comment
data_dir = "data"
[databases.main]
DocumentsRepType = "awssimplestorage"
[local.DOCSRV]
FileRoot = "/old"
Keep = 7
)");
    TLocalSettingsStorage s(TDocAdminConfig::FromFile(file));
    s.Save();  // nothing changed: the file stays as it is
    EXPECT_NE(ReadFile(file).find("# a comment"), std::string::npos);

    s.WriteString("DOCSRV", "FileRoot", "/new \"quoted\"");
    s.WriteInt64("DocAdmin", "Counter", -9000000000LL);
    s.WriteBool("DocAdmin", "NoCompression", true);
    EXPECT_TRUE(s.Modified());
    EXPECT_EQ(s.ReadInt64("DocAdmin", "Counter"), -9000000000LL);
    s.Save();
    EXPECT_FALSE(s.Modified());

    const auto again = TDocAdminConfig::FromFile(file);
    EXPECT_EQ(again.DataDir(), (FDir / "data").string());
    EXPECT_EQ(again.SelectedDatabase().Settings.at("DocumentsRepType"), "awssimplestorage");
    TLocalSettingsStorage r(again);
    EXPECT_EQ(r.ReadString("DOCSRV", "FileRoot", ""), "/new \"quoted\"");
    EXPECT_EQ(r.ReadInt64("DOCSRV", "Keep"), 7);
    EXPECT_EQ(r.ReadInt64("DocAdmin", "Counter"), -9000000000LL);
    EXPECT_TRUE(r.ReadBool("DocAdmin", "NoCompression", false));
    // The types survive: the integer is still an integer in the file.
    EXPECT_EQ(again.LocalSettings().at("DOCSRV").at("Keep").Kind,
              TLocalSettingValue::TKind::Integer);
    EXPECT_EQ(again.LocalSettings().at("DocAdmin").at("NoCompression").Kind,
              TLocalSettingValue::TKind::Boolean);
}

TEST_F(ConfigTest, SavingWithoutAFileCreatesOneInTheDataFolder) {
    TScopedEnv data("DOCADMIN_DATA", FData.c_str());
    TLocalSettingsStorage s(TDocAdminConfig::Locate(""));
    s.WriteString("DOCSRV", "FileRoot", "/srv");
    s.Save();
    const auto c = TDocAdminConfig::Locate("");
    EXPECT_EQ(c.ConfigFile(), FData + "/docadmin.toml");
    EXPECT_EQ(c.LocalSettings().at("DOCSRV").at("FileRoot").Text, "/srv");
    // Nothing but the local tables was written: the defaults still hold.
    EXPECT_EQ(c.SelectedDatabase().Path, FData + "/docadmin.db");
}

TEST_F(ConfigTest, LocalSettingsTakeWritesFromManyThreads) {
    TLocalSettingsStorage s({}, (FDir / "t.toml").string());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&s, t] {
            for (int i = 0; i < 200; ++i) {
                s.WriteInt64("S" + std::to_string(t), "K" + std::to_string(i), i * 10 + t);
                (void)s.ReadInt64("S0", "K0");
            }
        });
    for (auto& th : threads)
        th.join();
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 200; ++i)
            ASSERT_EQ(s.ReadInt64("S" + std::to_string(t), "K" + std::to_string(i)), i * 10 + t);
}
