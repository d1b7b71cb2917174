#include "_TVTLFrameworkScriptGlobalFunctions.h"

#include <algorithm>
#include <mutex>

#include "_SysUtils.h"

namespace docadmin {

namespace {

std::mutex& RegistryLock() {
    static std::mutex lock;
    return lock;
}

std::vector<TScriptGlobalVar>& Registry() {  // guarded by RegistryLock()
    static std::vector<TScriptGlobalVar> vars;
    return vars;
}

auto FindByName(std::vector<TScriptGlobalVar>& AVars, const std::string& AName) {
    return std::find_if(AVars.begin(), AVars.end(), [&](const TScriptGlobalVar& v) {
        return LowerCase(v.Name) == LowerCase(AName);
    });
}

}  // namespace

void TVTLFrameworkScriptGlobalFunctions::RegisterGlobalScriptVar(const std::string& AName,
                                                                 const std::string& ATypeName,
                                                                 IInterface* AValue) {
    // A replaced value comes back in var and is released after the lock: its end may call the
    // registry.
    TScriptGlobalVar var{AName, ATypeName, IPtr<IInterface>(AValue)};
    std::lock_guard<std::mutex> hold(RegistryLock());
    auto& vars = Registry();
    if (auto it = FindByName(vars, AName); it != vars.end())
        std::swap(*it, var);
    else
        vars.push_back(std::move(var));
}

void TVTLFrameworkScriptGlobalFunctions::RemoveGlobalScriptVar(const std::string& AName) {
    IPtr<IInterface> released;  // released outside the lock
    std::lock_guard<std::mutex> hold(RegistryLock());
    auto& vars = Registry();
    if (auto it = FindByName(vars, AName); it != vars.end()) {
        released = std::move(it->Value);
        vars.erase(it);
    }
}

bool TVTLFrameworkScriptGlobalFunctions::FindGlobalScriptVar(const std::string& AName,
                                                             TScriptGlobalVar& AVar) {
    std::lock_guard<std::mutex> hold(RegistryLock());
    auto& vars = Registry();
    auto it = FindByName(vars, AName);
    if (it == vars.end()) return false;
    AVar = *it;
    return true;
}

std::vector<TScriptGlobalVar> TVTLFrameworkScriptGlobalFunctions::GlobalScriptVars() {
    std::lock_guard<std::mutex> hold(RegistryLock());
    return Registry();
}

}  // namespace docadmin
