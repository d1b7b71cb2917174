#include "_PluginBase.h"

#include <utility>

namespace docadmin {

void RegisterPluginDataModule(TPluginDataModuleClass AClass, TClassList& AList) {
    AList.push_back(AClass);
}

TClientPluginBase::TClientPluginBase(std::string APluginGUID, std::intptr_t AInstance,
                                     const TClassList* AClasses, bool AFlag)
    : TComponent(nullptr),
      FPluginGUID(std::move(APluginGUID)),
      FInstance(AInstance),
      FClasses(AClasses),
      FFlag(AFlag) {
    static const TClassList none;
    if (!FClasses) FClasses = &none;
}

TClientPluginBase::~TClientPluginBase() {
    DestroyDataModules();
}

void TClientPluginBase::CreateDataModules() {
    try {
        for (TPluginDataModuleClass make : *FClasses) {
            TPluginBaseDataModule* m = make(this);
            if (m) FDataModules.push_back(m);
        }
    } catch (...) {
        DestroyDataModules();
        throw;
    }
}

void TClientPluginBase::DestroyDataModules() {
    // The data modules are components owned by this object; free them here, newest first, so
    // that the one made first (which the later ones lean on) goes last.
    while (!FDataModules.empty()) {
        TPluginBaseDataModule* m = FDataModules.back();
        FDataModules.pop_back();
        try {
            m->BeforeDestruction();
        } catch (...) {
            // A failing hook must not keep the others from going.
        }
        delete m;
    }
}

bool TClientPluginBase::GetExtFuncInterface(const TGUID& AIID, void** AObj) {
    *AObj = nullptr;
    for (TPluginBaseDataModule* m : FDataModules) {
        if (!m->SelfIsExtFunc()) continue;
        auto* intf = dynamic_cast<IInterface*>(m);
        if (intf && intf->QueryInterface(AIID, AObj) == S_OK && *AObj) return true;
    }
    return false;
}

TPluginBaseDataModule::TPluginBaseDataModule(TClientPluginBase* AOwner)
    : TPluginBaseComponent(nullptr), FPlugin(AOwner) {
    if (AOwner) SetMainInterface(AOwner->GetMainInterface());
}

TPluginBaseDataModule::~TPluginBaseDataModule() = default;

IDBInterface* TPluginBaseDataModule::GetDBInterface() const {
    IMainInterface* mi = GetMainInterface();
    return mi ? mi->GetDBInterface() : nullptr;
}

IDBFieldSchema* TPluginBaseDataModule::GetDBFieldSchema() const {
    IMainInterface* mi = GetMainInterface();
    return mi ? mi->GetDBFieldSchema() : nullptr;
}

ISettingsStorage* TPluginBaseDataModule::GetGlobalSettings() const {
    IMainInterface* mi = GetMainInterface();
    return mi ? mi->GetGlobalSettings() : nullptr;
}

IUserAccess* TPluginBaseDataModule::GetUserAccess() const {
    IMainInterface* mi = GetMainInterface();
    return mi ? mi->GetUserAccess() : nullptr;
}

std::string TPluginBaseDataModule::GetPluginGuid() const {
    return FPlugin ? FPlugin->PluginGUID() : std::string();
}

IPluginLoader* TPluginBaseDataModule::GetPluginLoader() const {
    IMainInterface* mi = GetMainInterface();
    return mi ? mi->GetPluginLoader() : nullptr;
}

ICustomApp* TPluginBaseDataModule::GetCustomApp() const {
    IMainInterface* mi = GetMainInterface();
    return mi ? mi->GetCustomApp() : nullptr;
}

}  // namespace docadmin
