// The host as a test sees it: a main interface that answers every service with null and counts
// no references (it lives on the test's stack). Fakes derive from it and override what they offer.
#pragma once

#include "_PluginIntf.h"

namespace docadmin::test {

class TTestMainInterface : public IMainInterface {
  public:
    HRESULT QueryInterface(const TGUID& iid, void** obj) override {
        if (iid == IMainInterface::IID || iid == IInterface::IID) {
            *obj = static_cast<IMainInterface*>(this);
            return S_OK;
        }
        *obj = nullptr;
        return E_NOINTERFACE;
    }
    std::int32_t _AddRef() override { return -1; }
    std::int32_t _Release() override { return -1; }
    IDBFieldSchema* GetDBFieldSchema() override { return nullptr; }
    IDBInterface* GetDBInterface() override { return nullptr; }
    IVantrelDatabaseRepository* GetDatabaseRepository() override { return nullptr; }
    ISettingsStorage* GetUserSettings() override { return nullptr; }
    ISettingsStorage* GetGlobalSettings() override { return nullptr; }
    ISettingsStorage* GetLocalSettings() override { return nullptr; }
    ICustomApp* GetCustomApp() override { return nullptr; }
    IUserAccess* GetUserAccess() override { return nullptr; }
    ICurrentUser* GetCurrentUser() override { return nullptr; }
    std::uint8_t RunMode() override { return 0; }
};

}  // namespace docadmin::test
