// THost: the host object that a plug-in meets as IMainInterface.
//
// A host is made from a configuration: it opens the selected database (creating and upgrading its
// tables), and offers the schema catalogue, the database, the database repository, the user,
// global and local settings, the application object, the current user and the run mode.
//
// The host lives as long as its owner (a std::unique_ptr); interface references to it don't
// count, as with a component. Everything the accessors answer lives as long as the host.
//
// The current user belongs to the calling thread: SetCurrentUser on a thread makes that user the
// one that GetUserAccess, GetCurrentUser, the user settings and the data layer's row rights see on
// that thread (the data layer's per-thread user is the single record of it). 0 is nobody: no
// user access object, all is allowed, and no current user object unless the host acts as the
// local administrator (ActAsLocalAdministrator).
//
// The host offers a background job scheduler (IKRBackgroundJobScheduler by QueryInterface), made
// on first use; the host shuts it down before its database goes, so no job outlives it.
//
// Plug-ins: LoadPlugins loads and starts those of the configured plug-in folder (see
// TPluginLoader); UnloadPlugins runs their BeforeUnInit, shuts the job scheduler down (so that no
// job runs plug-in code any more), runs what is left in the main-thread queue when called on the
// main thread, and then destroys and closes them. The destructor unloads them if that hasn't
// happened, before the database goes. A host loads its plug-ins once: after UnloadPlugins its
// scheduler takes no more jobs.
//
// Services for plug-ins: the plug-in registry, the list of resource sources, a progress bar on
// a terminal (quiet elsewhere) and the language of [host] language.
//
// All accessors are safe to call from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "_DBInterface.h"
#include "_KRBackgroundJobs.h"
#include "_PluginIntf.h"
#include "_TDBSettingsStorage.h"
#include "_TDBUserAccess.h"
#include "_TDocAdminConfig.h"
#include "_TLocalSettingsStorage.h"
#include "_TPluginLoader.h"
#include "_TRessourceSourceList.h"
#include "_TTerminalProgress.h"
#include "_TUserStore.h"
#include "_TVantrelDatabaseRepository.h"

namespace docadmin {

// Run modes of the host process.
inline constexpr std::uint8_t rmTool = 0;    // an administrator's command
inline constexpr std::uint8_t rmServer = 3;  // the multi-user server

class THost : public TObject, public IMainInterface, public ICustomApp {
  public:
    // Opens the selected database of the configuration. Raises EConfigError or EDBException.
    explicit THost(TDocAdminConfig AConfig, std::uint8_t ARunMode = rmTool,
                   int APasswordIterations = DefaultPasswordIterations);
    // Unloads the plug-ins if they are loaded, shuts the job scheduler down, then writes changed
    // local settings back; failures there are swallowed (see SaveLocalSettings).
    ~THost() override;

    // IInterface: references don't count.
    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override { return -1; }
    std::int32_t _Release() override { return -1; }

    // IMainInterface
    IDBFieldSchema* GetDBFieldSchema() override;
    IDBInterface* GetDBInterface() override { return FDatabase.get(); }
    IVantrelDatabaseRepository* GetDatabaseRepository() override { return &FRepository; }
    ISettingsStorage* GetUserSettings() override { return &FUserSettings; }
    ISettingsStorage* GetGlobalSettings() override { return &FGlobalSettings; }
    ISettingsStorage* GetLocalSettings() override { return &FLocalSettings; }
    ICustomApp* GetCustomApp() override { return this; }
    IUserAccess* GetUserAccess() override;
    ICurrentUser* GetCurrentUser() override;
    std::uint8_t RunMode() override { return FRunMode; }
    IProgress* GetProgress() override { return &FProgress; }
    IPluginLoader* GetPluginLoader() override { return FPlugins.get(); }
    IRessourceSourceList* GetRessourceSources() override { return &FRessourceSources; }
    std::int32_t LanguageIndex() override { return FConfig.LanguageIndex(); }

    // ICustomApp
    std::string DataDirectory() override { return FConfig.DataDir(); }
    bool IsServer() override { return FRunMode == rmServer; }
    bool CanCreateContainer() override { return FConfig.CanCreateContainer(); }

    const TDocAdminConfig& Config() const { return FConfig; }
    TUserStore& Users() { return FUsers; }
    TLocalSettingsStorage& LocalSettings() { return FLocalSettings; }
    TGlobalSettingsStorage& GlobalSettings() { return FGlobalSettings; }
    TUserSettingsStorage& UserSettings() { return FUserSettings; }

    // The current user of the calling thread; 0 for nobody.
    void SetCurrentUser(std::int64_t AUserID);
    std::int64_t CurrentUserID() const;
    // Checks name and password and makes the user current on this thread; false (and nobody
    // current) when they don't match.
    bool Login(const std::string& AUserName, const std::string& APassword);
    // From now on nobody current on a thread means the local administrator of a command-line
    // tool: still no user access object (every row visible, all allowed), but GetCurrentUser
    // answers an object whose default ACL group is AACLGroup, so that the rows the document tree
    // makes go into that group instead of into none (-1), which no user of the server can read.
    void ActAsLocalAdministrator(std::int32_t AACLGroup);
    // The rights object of a user (made on first use, kept for the host's life); null for 0.
    TDBUserAccess* UserAccessFor(std::int64_t AUserID);

    // Loads and starts the plug-ins of the configured folder; a plug-in that fails is logged and
    // listed as failed. Raises EAssertionFailed when they are loaded already.
    void LoadPlugins();
    // See above; nothing happens when no plug-ins are loaded.
    void UnloadPlugins();
    TPluginLoader& Plugins() { return *FPlugins; }
    TRessourceSourceList& RessourceSources() { return FRessourceSources; }

    // Writes changed local settings into the configuration file.
    void SaveLocalSettings() { FLocalSettings.Save(); }

    // The host's job scheduler, made on first use (a pool sized from the cores).
    TBackgroundJobScheduler& JobScheduler();
    // Shuts the scheduler down if it was made (see TBackgroundJobScheduler::Shutdown); on the main
    // thread the ends of the jobs are delivered before it returns. Jobs scheduled later end as
    // cancelled at once.
    void ShutdownJobs();

  private:
    const TDocAdminConfig FConfig;
    const std::uint8_t FRunMode;
    TVantrelDatabaseRepository FRepository;
    TLocalSettingsStorage FLocalSettings;
    IPtr<IDBInterface> FDatabase;
    TGlobalSettingsStorage FGlobalSettings;
    TUserSettingsStorage FUserSettings;
    TUserStore FUsers;

    // The current user object of nobody once ActAsLocalAdministrator was called.
    class TLocalAdministrator : public ICurrentUser {
      public:
        std::int32_t GetDefaultACLGroup() override { return Group; }
        std::atomic<std::int32_t> Group{0};
        std::atomic<bool> Active{false};
    };
    TLocalAdministrator FLocalAdministrator;

    std::mutex FAccessLock;
    std::map<std::int64_t, IPtr<TDBUserAccess>> FAccess;  // guarded by FAccessLock

    std::once_flag FJobsMade;
    std::unique_ptr<TBackgroundJobScheduler> FJobs;  // set once through FJobsMade

    THostProgress FProgress;
    TRessourceSourceList FRessourceSources;
    std::unique_ptr<TPluginLoader> FPlugins;  // made with the host; unloaded before the rest goes
};

// Opens a host from a configuration file ("" looks for one; see TDocAdminConfig::Locate).
std::unique_ptr<THost> OpenHost(const std::string& AConfigFile, std::uint8_t ARunMode = rmTool);

}  // namespace docadmin
