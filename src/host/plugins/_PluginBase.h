// The plug-in object model: how a module announces itself and the base of its data modules.
//
// A module is a shared library that exports InitProc with C linkage. The host calls it once; the
// module stores there a new TClientPluginBase made with its GUID and the list of its data module
// classes, which the module's static initialisation filled with RegisterPluginDataModule:
//
//     TClassList& ModuleClasses() { static TClassList list; return list; }
//     static const bool registered = (RegisterPluginDataModule(&MakeRepository, ModuleClasses()),
//                                     true);
//     extern "C" void InitProc(TClientPluginBase** APlugin) {
//         *APlugin = new TClientPluginBase(MyGUID, 0, &ModuleClasses(), true);
//     }
//
// The host then creates the data modules in registration order (each owned by the plug-in
// object), calls Init on each, AfterStartup on each once every plug-in is up, BeforeUnInit at
// shutdown, and destroys them in reverse order (BeforeDestruction first). All of this runs on the
// host's start-up thread.
//
// A data module that calls SetSelfIsExtFunc(true) and implements IInterface answers the plug-in's
// external-function interfaces (IPluginLoader::GetExtFuncInterface asks it by QueryInterface).
// Such a data module's lifetime is the plug-in's; its references don't count.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "_PluginIntf.h"

namespace docadmin {

class TClientPluginBase;
class TPluginBaseDataModule;

// A data module "class": makes one data module owned by the plug-in object.
using TPluginDataModuleClass = TPluginBaseDataModule* (*)(TClientPluginBase* AOwner);
using TClassList = std::vector<TPluginDataModuleClass>;

void RegisterPluginDataModule(TPluginDataModuleClass AClass, TClassList& AList);

// The object through which a module announces itself. Made by the module's InitProc, freed by
// the host (which also frees the data modules it created, in reverse order).
class TClientPluginBase : public TComponent {
  public:
    // AInstance is the module's instance handle (informational), AClasses the module's data
    // module classes (the list must outlive the object), AFlag is kept and not read by the host.
    TClientPluginBase(std::string APluginGUID, std::intptr_t AInstance, const TClassList* AClasses,
                      bool AFlag);
    ~TClientPluginBase() override;

    const std::string& PluginGUID() const { return FPluginGUID; }
    const TClassList& Classes() const { return *FClasses; }
    // The module's short name (also its settings section); empty until the module sets it.
    const std::string& ShortName() const { return FShortName; }
    void SetShortName(const std::string& AName) { FShortName = AName; }

    // Set by the host before the data modules are made.
    IMainInterface* GetMainInterface() const { return FMainInterface; }
    void SetMainInterface(IMainInterface* AMainInterface) { FMainInterface = AMainInterface; }

    // The data modules made so far, in creation order.
    const std::vector<TPluginBaseDataModule*>& DataModules() const { return FDataModules; }
    // Used by the host's loader: makes the data modules in registration order. A module whose
    // constructor raises is not kept; the exception passes on after the ones made so far have
    // been destroyed again.
    void CreateDataModules();
    // Destroys the data modules in reverse order (BeforeDestruction first on each).
    void DestroyDataModules();

    // Asks the data modules that declared SetSelfIsExtFunc(true), in creation order.
    bool GetExtFuncInterface(const TGUID& AIID, void** AObj);

  private:
    const std::string FPluginGUID;
    const std::intptr_t FInstance;
    const TClassList* FClasses;
    const bool FFlag;
    std::string FShortName;
    IMainInterface* FMainInterface = nullptr;
    std::vector<TPluginBaseDataModule*> FDataModules;  // owned, in creation order
};

// Base of a module's data modules. The hooks run on the host's start-up thread, in this order:
// constructor, Init, AfterStartup, BeforeUnInit, BeforeDestruction, destructor.
class TPluginBaseDataModule : public TPluginBaseComponent {
  public:
    explicit TPluginBaseDataModule(TClientPluginBase* AOwner);
    ~TPluginBaseDataModule() override;

    // All the module's data modules exist and the database is reachable.
    virtual void Init() {}
    // All plug-ins have started.
    virtual void AfterStartup() {}
    // Shutdown begins: stop taking work, end what outlives calls.
    virtual void BeforeUnInit() {}
    virtual void BeforeDestruction() {}
    // The host asks a module to translate one of its texts; the base answers the text itself.
    virtual std::string GetTranslatedText(const std::string& AText) { return AText; }

    TClientPluginBase* Plugin() const { return FPlugin; }
    IDBInterface* GetDBInterface() const;
    IDBFieldSchema* GetDBFieldSchema() const;
    ISettingsStorage* GetGlobalSettings() const;
    IUserAccess* GetUserAccess() const;
    std::string GetPluginGuid() const;
    IPluginLoader* GetPluginLoader() const;
    ICustomApp* GetCustomApp() const;

    void SetSelfIsExtFunc(bool AValue) { FSelfIsExtFunc = AValue; }
    bool SelfIsExtFunc() const { return FSelfIsExtFunc; }

  private:
    TClientPluginBase* const FPlugin;
    bool FSelfIsExtFunc = false;
};

}  // namespace docadmin

// The entry point a module exports: stores a new plug-in object in *APlugin.
extern "C" {
using TPluginInitProc = void (*)(docadmin::TClientPluginBase** APlugin);
}
