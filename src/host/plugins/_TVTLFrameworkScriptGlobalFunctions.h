// The globals that plug-ins publish to scripts: a name, the script type of the value and the
// value (an interface). The script engine reads them when it makes a script instance.
//
// Thread-safe. The registry holds a reference to each value until it is removed or replaced.
#pragma once

#include <string>
#include <vector>

#include "_Interfaces.h"

namespace docadmin {

struct TScriptGlobalVar {
    std::string Name;
    std::string TypeName;
    IPtr<IInterface> Value;
};

class TVTLFrameworkScriptGlobalFunctions {
  public:
    // Publishes a global; a global of the same name (compared without case) is replaced.
    static void RegisterGlobalScriptVar(const std::string& AName, const std::string& ATypeName,
                                        IInterface* AValue);
    // Removes the global; a name that isn't registered is ignored.
    static void RemoveGlobalScriptVar(const std::string& AName);
    // The global of that name; false when there is none.
    static bool FindGlobalScriptVar(const std::string& AName, TScriptGlobalVar& AVar);
    // All globals, in registration order.
    static std::vector<TScriptGlobalVar> GlobalScriptVars();
};

}  // namespace docadmin
