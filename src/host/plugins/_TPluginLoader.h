// TPluginLoader: finds, loads, starts and unloads the host's plug-ins.
//
// Load(folder) takes every "*.so" of the folder in name order. Each is opened with dlopen
// (RTLD_NOW | RTLD_LOCAL), its InitProc is called, the plug-in object gets the main interface
// and makes its data modules. When every plug-in has its data modules, Init runs on each data
// module of each plug-in (in load order), then AfterStartup on all. A plug-in that fails on the
// way (no file, not a shared library, no InitProc, InitProc or a constructor or Init raising, a
// GUID that is loaded already) is torn down again, reported by name and path with the reason in
// the host log and kept in the list as failed; the others go on. A failing AfterStartup is
// reported but the plug-in stays: the others may already hold its interfaces.
//
// Shutdown is two steps so that the host can end its background jobs between them:
// BeforeUnInit runs the hook on every data module (load order); Unload then destroys the data
// modules of each plug-in newest first, plug-ins in reverse load order, deletes the plug-in
// objects and closes the libraries. Unload runs BeforeUnInit itself when it hasn't run; the
// destructor runs Unload.
//
// RTLD_LOCAL: a plug-in's own symbols stay its own, so two plug-ins that happen to define the
// same names (both link the same static code, say) don't bind to each other's. What host and
// plug-ins share (interfaces, exception classes, the plug-in object model) lives in the host's
// shared libraries, which exist once in the process; RTTI and exceptions across the boundary
// rest on those, and on libstdc++ comparing type names for classes defined in headers.
//
// Load, BeforeUnInit and Unload run on the host's start-up thread. The IPluginLoader operations
// and Plugins() are safe from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "_PluginIntf.h"

namespace docadmin {

class TClientPluginBase;

// One plug-in file as the loader saw it.
struct TPluginInfo {
    std::string Path;
    // The plug-in's short name; the file name while the plug-in hasn't set one.
    std::string Name;
    std::string GUID;  // empty when the plug-in never got as far as its object
    bool Loaded = false;
    std::string Error;    // why it failed (Loaded false)
    std::string Warning;  // a hook that failed after start (AfterStartup)
};

class TPluginLoader : public IPluginLoader {
  public:
    explicit TPluginLoader(IMainInterface* AMainInterface);
    ~TPluginLoader();
    TPluginLoader(const TPluginLoader&) = delete;
    TPluginLoader& operator=(const TPluginLoader&) = delete;

    // Loads and starts the plug-ins of AFolder as described above. A missing folder loads
    // nothing (and says so in the log). Raises EAssertionFailed when called a second time
    // without Unload.
    void Load(const std::string& AFolder);
    // The same for named files, in the order given.
    void LoadFiles(const std::vector<std::string>& AFiles);
    // Runs BeforeUnInit on every loaded plug-in once; failures are logged.
    void BeforeUnInit();
    // Destroys and closes every plug-in (BeforeUnInit first if it hasn't run) and empties the
    // list.
    void Unload();
    bool Active() const;

    // Every plug-in file of the last Load, loaded or failed, in load order.
    std::vector<TPluginInfo> Plugins() const;
    // The plug-in objects of the loaded plug-ins, in load order; valid until Unload.
    std::vector<TClientPluginBase*> PluginObjects() const;

    // IPluginLoader: the loaded plug-ins only.
    std::int32_t PluginCount() override;
    std::string PluginGUID(std::int32_t AIndex) override;
    bool IsPluginLoaded(const std::string& APluginGUID) override;
    bool GetExtFuncInterface(const std::string& APluginGUID, const TGUID& AIID,
                             void** AObj) override;

  private:
    struct TEntry;

    void Fail(TEntry& AEntry, const std::string& AWhat);
    void TearDown(TEntry& AEntry, bool ACallBeforeUnInit);
    std::vector<TEntry*> LoadedEntries() const;

    IMainInterface* const FMainInterface;
    mutable std::recursive_mutex FLock;             // guards the states of FEntries and FActive
    std::vector<std::unique_ptr<TEntry>> FEntries;  // load order; changed on the start-up thread
    bool FActive = false;
    bool FUnInitDone = false;
};

// "<GUID>  <name>  <path>  <state>" lines for people, one per plug-in, control characters
// escaped; "no plug-ins" when there are none.
std::string FormatPluginList(const std::vector<TPluginInfo>& APlugins);

}  // namespace docadmin
