// Fixtures of the document module's tests: the module started as the host starts it (InitProc,
// data modules in order, Init), on a host of our own making.
//
// TChoiceMain is a host without a database whose answers to the store choice (run mode,
// connection kind, DocumentsRepType, server connection) a test sets freely. ModuleHostTest runs
// the module on a real host (THost) over SQLite or a private PostgreSQL schema, with the plug-in
// services the module asks for (resource source list, plug-in loader, language index).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>

#include <unistd.h>

#include "_PluginBase.h"
#include "_TClientSQL.h"
#include "_THost.h"
#include "_dmDocAdminMain.h"
#include "_dmDocAdminRepository.h"
#include "host/db/db_test_support.h"
#include "host/rest/rest_test_support.h"
#include "host/runtime/test_main_interface.h"

extern "C" void InitProc(docadmin::TClientPluginBase** APlugin);

namespace docadmin::test {

namespace fs = std::filesystem;

inline fs::path FreshTempDir(const std::string& ATag) {
    std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::replace(name.begin(), name.end(), '/', '_');
    const fs::path dir =
        fs::temp_directory_path() / (ATag + "_" + std::to_string(::getpid()) + "_" + name);
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

inline void WriteText(const fs::path& AFile, const std::string& AText) {
    fs::create_directories(AFile.parent_path());
    std::ofstream(AFile, std::ios::binary) << AText;
}

inline std::string ReadText(const fs::path& AFile) {
    std::ifstream in(AFile, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

using TRowFields = std::initializer_list<std::pair<const char*, TVariant>>;

// Inserts a row as a client does and answers its key.
inline std::int64_t InsertRow(IDBInterface* ADB, const std::string& ASchema, TRowFields AFields) {
    TClientSQL insert(nullptr, ADB);
    insert.SetStatementKind(skInsert);
    insert.SetSchemaName(ASchema);
    for (const auto& [name, value] : AFields)
        insert.GetFields()->AddField(name, value);
    std::int64_t id = 0;
    insert.ExecuteSQL(id);
    return id;
}

inline void DeleteRow(IDBInterface* ADB, const std::string& ASchema, std::int64_t AID) {
    TClientSQL del(nullptr, ADB);
    del.SetStatementKind(skDelete);
    del.SetSchemaName(ASchema);
    AddFilter(del.GetFilters(), "id", TVariant(static_cast<long long>(AID)));
    del.ExecuteSQL();
}

// Plug-ins that count as loaded, by GUID, for the cleanup that skips plug-ins that aren't; the
// external interfaces come from the plug-in objects registered with it.
class TLoaderStub : public IPluginLoader {
  public:
    std::int32_t PluginCount() override { return static_cast<std::int32_t>(Loaded.size()); }
    std::string PluginGUID(std::int32_t AIndex) override {
        return *std::next(Loaded.begin(), AIndex);
    }
    bool IsPluginLoaded(const std::string& APluginGUID) override {
        return Loaded.count(APluginGUID) != 0;
    }
    bool GetExtFuncInterface(const std::string& APluginGUID, const TGUID& AIID,
                             void** AObj) override {
        *AObj = nullptr;
        for (TClientPluginBase* p : Plugins)
            if (p->PluginGUID() == APluginGUID) return p->GetExtFuncInterface(AIID, AObj);
        return false;
    }
    std::set<std::string> Loaded;
    std::vector<TClientPluginBase*> Plugins;
};

class TConnectionStub : public IServerConnection {
  public:
    bool Connected() override { return IsConnected; }
    bool IsConnected = false;
};

// Makes, starts and ends the module as the host does.
class TModuleRun {
  public:
    explicit TModuleRun(IMainInterface* AMain) {
        TClientPluginBase* plugin = nullptr;
        InitProc(&plugin);
        FPlugin.reset(plugin);
        FPlugin->SetMainInterface(AMain);
        FPlugin->CreateDataModules();
        for (TPluginBaseDataModule* m : FPlugin->DataModules())
            m->Init();
    }
    ~TModuleRun() {
        if (FPlugin) Stop();
    }
    void Stop() {
        for (TPluginBaseDataModule* m : FPlugin->DataModules())
            m->BeforeUnInit();
        FPlugin.reset();
    }
    TClientPluginBase* Plugin() const { return FPlugin.get(); }
    TdmDocAdminRepository& Repo() const { return *TdmDocAdminRepository::Instance(); }
    TdmDocAdminMain& Main() const { return *TdmDocAdminMain::Instance(); }
    IExtFuncPluginDocAdmin* Docs() const { return &Main(); }

  private:
    std::unique_ptr<TClientPluginBase> FPlugin;
};

// A host without a database: the answers of the store choice, and a local store folder.
class TChoiceMain : public TTestMainInterface, public IVantrelDatabaseRepository {
  public:
    IVantrelDatabaseRepository* GetDatabaseRepository() override { return this; }
    std::uint8_t RunMode() override { return Mode; }
    IServerConnection* GetServerConnection() override {
        return HasConnection ? &Connection : nullptr;
    }
    std::int32_t LanguageIndex() override { return Language; }

    int SelectedDatabaseIndex() override { return 0; }
    int OfflineDatabaseIndex() override { return -1; }
    std::string ReadDatabaseSetting(int, const std::string& AKey) override {
        if (AKey == "DocumentsRepType") return RepType;
        if (AKey == "DocumentsPath") return StoreDir;
        return {};
    }
    std::string ExpandPathMacros(const std::string& APath) override { return APath; }
    std::string DefaultDocRootFolder() override { return StoreDir; }
    std::string SeedDocRootFolder() override { return {}; }
    int ConnectionKind(int) override { return Kind; }

    std::uint8_t Mode = 0;
    std::string RepType;
    int Kind = 0;
    bool HasConnection = false;
    TConnectionStub Connection;
    std::int32_t Language = 0;
    std::string StoreDir;
};

// A real host whose language a test switches, and whose plug-in registry may be a stub.
class TTestHost : public THost {
  public:
    using THost::THost;
    IPluginLoader* GetPluginLoader() override {
        return UseLoaderStub ? static_cast<IPluginLoader*>(&Loader) : THost::GetPluginLoader();
    }
    std::int32_t LanguageIndex() override { return Language; }

    bool UseLoaderStub = true;
    TLoaderStub Loader;
    std::int32_t Language = 1;
};

// The module on a fresh host over the backend of the test parameter; the local store lives in
// the test's temporary folder.
class ModuleHostTest : public ::testing::TestWithParam<std::string> {
  protected:
    void SetUp() override { FDir = FreshTempDir("module"); }
    void TearDown() override {
        FModule.reset();
        FHost.reset();
        FPG.reset();
        fs::remove_all(FDir);
    }
    // Starts host and module (the module directly, not through the host's loader); false (and
    // the test skipped) without a PostgreSQL server.
    bool Start(std::uint8_t ARunMode = rmTool, bool AStartModule = true) {
        std::string config = "data_dir = \"" + FDir.string() + "\"\n[databases.main]\n";
        if (GetParam() == "postgresql") {
            const std::string conninfo = docadmin::testing::PGConnInfo();
            if (conninfo.empty()) {
                if (docadmin::testing::RunningInCI()) ADD_FAILURE() << "no PostgreSQL server";
                return false;
            }
            FPG = std::make_unique<docadmin::testing::TPGTestSchema>(conninfo);
            config += "backend = \"postgresql\"\nconninfo = \"" + FPG->ConnInfo() + "\"\n";
        }
        config += "DocumentsPath = \"" + (FDir / "store").string() + "\"\n" + FExtraConfig;
        FHost =
            std::make_unique<TTestHost>(TDocAdminConfig::FromString(config, ""), ARunMode, 1000);
        if (AStartModule) FModule = std::make_unique<TModuleRun>(FHost.get());
        return true;
    }
    TdmDocAdminRepository& Repo() { return *TdmDocAdminRepository::Instance(); }
    IDBInterface* DB() { return FHost->GetDBInterface(); }

    std::int64_t Insert(const std::string& ASchema, TRowFields AFields) {
        return InsertRow(DB(), ASchema, AFields);
    }
    int RowCount(const std::string& ASchema, const std::string& AField = "",
                 const TVariant& AValue = TVariant()) {
        TKRRecordSet rs(nullptr, DB());
        rs.SetSchemaName(ASchema);
        if (!AField.empty()) AddFilter(rs.GetFilters(), AField, AValue);
        rs.Open();
        return rs.GetRecordCount();
    }
    std::string LocalFile(const std::string& AName, const std::string& AContent) {
        const fs::path p = FDir / "in" / AName;
        WriteText(p, AContent);
        return p.string();
    }

    // Restarts on a fresh database.
    bool Restart(std::uint8_t ARunMode) {
        FModule.reset();
        FHost.reset();
        FPG.reset();
        return Start(ARunMode);
    }

    fs::path FDir;
    std::string FExtraConfig;  // TOML behind the database table
    std::unique_ptr<docadmin::testing::TPGTestSchema> FPG;
    std::unique_ptr<TTestHost> FHost;
    std::unique_ptr<TModuleRun> FModule;
};

// The module on a host that serves HTTP, over the backend of the test parameter. A test's SetUp
// starts the module (FModule) and the server once its data is in place.
class ModuleRestTest : public TRestServerFixture,
                       public ::testing::WithParamInterface<std::string> {
  protected:
    std::string Backend() const override { return GetParam(); }
    void TearDown() override {
        FServer.reset();
        FModule.reset();
        TRestServerFixture::TearDown();
    }
    std::unique_ptr<TModuleRun> FModule;
};

#define MODULE_START_OR_SKIP(...) \
    if (!Start(__VA_ARGS__)) GTEST_SKIP() << "no PostgreSQL server"

}  // namespace docadmin::test
