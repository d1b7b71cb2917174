#include "_PluginIntf.h"

namespace docadmin {

IMainInterface* TPluginBaseComponent::GetMainInterface() const {
    for (const TComponent* c = this; c; c = c->Owner()) {
        if (auto* p = dynamic_cast<const TPluginBaseComponent*>(c); p && p->FMainInterface)
            return p->FMainInterface.get();
    }
    return nullptr;
}

ISettingsStorage* TPluginBaseComponent::GetSaveSettings() const {
    IMainInterface* mi = GetMainInterface();
    return mi ? mi->GetLocalSettings() : nullptr;
}

}  // namespace docadmin
