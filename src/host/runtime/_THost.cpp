#include "_THost.h"

#include <filesystem>

#include "_Dialogs.h"
#include "_HostLog.h"
#include "_MainThreadQueue.h"

namespace docadmin {

namespace {

TDatabaseParams DatabaseParams(const TDocAdminConfig& AConfig) {
    const TDatabaseConfig& db = AConfig.SelectedDatabase();
    TDatabaseParams p;
    p.Backend = db.Backend;
    p.SQLitePath = db.Path;
    p.ConnInfo = db.ConnInfo;
    p.UpgradeSchema = true;
    if (db.Backend == "sqlite") {
        std::error_code ec;
        std::filesystem::create_directories(std::filesystem::path(db.Path).parent_path(), ec);
        if (ec)
            throw EConfigError("cannot create the folder of database " + db.Name + " (" + db.Path +
                               "): " + ec.message());
    }
    return p;
}

}  // namespace

THost::THost(TDocAdminConfig AConfig, std::uint8_t ARunMode, int APasswordIterations)
    : FConfig(std::move(AConfig)),
      FRunMode(ARunMode),
      FRepository(FConfig),
      FLocalSettings(FConfig),
      FDatabase(OpenDatabase(DatabaseParams(FConfig))),
      FGlobalSettings(FDatabase.get()),
      FUserSettings(FDatabase.get(), [] { return GetDBCurrentUserID(); }),
      FUsers(FDatabase.get(), APasswordIterations, FConfig.MinPasswordLength()),
      FPlugins(std::make_unique<TPluginLoader>(this)) {}

THost::~THost() {
    // Plug-ins and jobs may use the database: they end before any member goes.
    UnloadPlugins();
    ShutdownJobs();
    try {
        FLocalSettings.Save();
    } catch (const std::exception&) {
        // A destructor can't report; callers that care call SaveLocalSettings first.
    }
}

HRESULT THost::QueryInterface(const TGUID& iid, void** obj) {
    if (iid == IMainInterface::IID || iid == IInterface::IID) {
        *obj = static_cast<IMainInterface*>(this);
        return S_OK;
    }
    if (iid == IKRBackgroundJobScheduler::IID) {
        *obj = static_cast<IKRBackgroundJobScheduler*>(&JobScheduler());
        return S_OK;
    }
    *obj = nullptr;
    return E_NOINTERFACE;
}

TBackgroundJobScheduler& THost::JobScheduler() {
    std::call_once(FJobsMade, [this] { FJobs = std::make_unique<TBackgroundJobScheduler>(); });
    return *FJobs;
}

void THost::ShutdownJobs() {
    // Marks the scheduler as made without making one, so that none comes after the shutdown.
    std::call_once(FJobsMade, [] {});
    if (FJobs) FJobs->Shutdown();
}

void THost::LoadPlugins() {
    FPlugins->Load(FConfig.PluginDir());
}

void THost::UnloadPlugins() {
    if (!FPlugins->Active()) return;
    FPlugins->BeforeUnInit();
    // No job may run plug-in code once the plug-ins go, and calls they queued for the main
    // thread must have run by then.
    ShutdownJobs();
    if (IsMainThread()) {
        for (int round = 0; round < 100; ++round) {
            try {
                if (!CheckSynchronize(0)) break;
            } catch (const std::exception& e) {
                HostLog()->error("a call on the main thread failed while plug-ins unload: {}",
                                 e.what());
            }
        }
    }
    FPlugins->Unload();
    // A source that a plug-in left behind may have its code in the closed library: releasing it
    // could crash, so it is reported and left alone.
    if (const std::int32_t n = FRessourceSources.Count(); n > 0) {
        for (std::int32_t i = 0; i < n; ++i)
            HostLog()->error("resource source {} was not removed by its plug-in",
                             FRessourceSources.Identifier(i));
        FRessourceSources.Abandon();
    }
}

IDBFieldSchema* THost::GetDBFieldSchema() {
    // The catalogue is immutable; the interface hands it out without const as plug-ins expect.
    return const_cast<IDBFieldSchema*>(FDatabase->GetFieldSchema());
}

void THost::SetCurrentUser(std::int64_t AUserID) {
    SetDBCurrentUserID(AUserID);
}

std::int64_t THost::CurrentUserID() const {
    return GetDBCurrentUserID();
}

bool THost::Login(const std::string& AUserName, const std::string& APassword) {
    const std::int64_t id = FUsers.Login(AUserName, APassword);
    SetCurrentUser(id);
    return id != 0;
}

TDBUserAccess* THost::UserAccessFor(std::int64_t AUserID) {
    if (AUserID == 0) return nullptr;
    std::lock_guard lock(FAccessLock);
    IPtr<TDBUserAccess>& slot = FAccess[AUserID];
    if (!slot) slot = IPtr<TDBUserAccess>(new TDBUserAccess(FDatabase.get(), AUserID));
    return slot.get();
}

IUserAccess* THost::GetUserAccess() {
    return UserAccessFor(CurrentUserID());
}

ICurrentUser* THost::GetCurrentUser() {
    const std::int64_t id = CurrentUserID();
    if (id == 0 && FLocalAdministrator.Active) return &FLocalAdministrator;
    return UserAccessFor(id);
}

void THost::ActAsLocalAdministrator(std::int32_t AACLGroup) {
    FLocalAdministrator.Group = AACLGroup;
    FLocalAdministrator.Active = true;
}

std::unique_ptr<THost> OpenHost(const std::string& AConfigFile, std::uint8_t ARunMode) {
    return std::make_unique<THost>(TDocAdminConfig::Locate(AConfigFile), ARunMode);
}

}  // namespace docadmin
