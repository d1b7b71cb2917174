// A small in-memory host for the store tests: a main interface with a database repository,
// user, global and local settings, and nothing else.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "_PluginIntf.h"
#include "_TBaseDocFileLoader.h"
#include "host/runtime/test_main_interface.h"

namespace docadmin::test {

class FakeSettings : public ISettingsStorage {
  public:
    std::int64_t ReadInt64(const std::string& s, const std::string& k) override {
        auto it = ints.find({s, k});
        return it == ints.end() ? 0 : it->second;
    }
    void WriteInt64(const std::string& s, const std::string& k, std::int64_t v) override {
        ints[{s, k}] = v;
    }
    bool ReadBool(const std::string& s, const std::string& k, bool def) override {
        auto it = bools.find({s, k});
        return it == bools.end() ? def : it->second;
    }
    std::string ReadString(const std::string& s, const std::string& k,
                           const std::string& def) override {
        auto it = strings.find({s, k});
        return it == strings.end() ? def : it->second;
    }

    std::map<std::pair<std::string, std::string>, std::int64_t> ints;
    std::map<std::pair<std::string, std::string>, bool> bools;
    std::map<std::pair<std::string, std::string>, std::string> strings;
};

// Databases are numbered 0 (selected) and 1 (offline, when hasOffline).
class FakeHost : public TTestMainInterface, public IVantrelDatabaseRepository {
  public:
    IVantrelDatabaseRepository* GetDatabaseRepository() override { return this; }
    ISettingsStorage* GetUserSettings() override { return &user; }
    ISettingsStorage* GetGlobalSettings() override { return &global; }
    ISettingsStorage* GetLocalSettings() override { return &local; }
    std::uint8_t RunMode() override { return 3; }

    int SelectedDatabaseIndex() override { return 0; }
    int OfflineDatabaseIndex() override { return hasOffline ? 1 : -1; }
    std::string ReadDatabaseSetting(int index, const std::string& key) override {
        auto it = dbSettings.find({index, key});
        return it == dbSettings.end() ? std::string() : it->second;
    }
    std::string ExpandPathMacros(const std::string& path) override {
        const std::string macro = "$UserDocuments$";
        std::string r = path;
        if (auto p = r.find(macro); p != std::string::npos)
            r.replace(p, macro.size(), userDocuments + "/");
        return r;
    }
    std::string DefaultDocRootFolder() override { return defaultDocRoot; }
    std::string SeedDocRootFolder() override { return seedDocRoot; }

    FakeSettings user, global, local;
    std::map<std::pair<int, std::string>, std::string> dbSettings;
    bool hasOffline = false;
    std::string userDocuments, defaultDocRoot, seedDocRoot;
};

// Records what a store reports to a non-blocking download's callback: "done DEST" or
// "failed DEST: MESSAGE". With failInDone, DownloadDone itself fails after recording.
class RecordingCallBack : public TInterfacedObject, public IDocAdminDownloderCallBack {
  public:
    HRESULT QueryInterface(const TGUID& iid, void** obj) override {
        if (iid == IDocAdminDownloderCallBack::IID) {
            *obj = static_cast<IDocAdminDownloderCallBack*>(this);
            _AddRef();
            return S_OK;
        }
        return TInterfacedObject::QueryInterface(iid, obj);
    }
    std::int32_t _AddRef() override { return TInterfacedObject::_AddRef(); }
    std::int32_t _Release() override { return TInterfacedObject::_Release(); }
    void DownloadDone(const std::string& DestFileName) override {
        log.push_back("done " + DestFileName);
        if (failInDone) throw EInOutError("disk full");
    }
    void DownloadFailed(const std::string& DestFileName, const std::string& Msg) override {
        log.push_back("failed " + DestFileName + ": " + Msg);
    }
    std::vector<std::string> log;
    bool failInDone = false;
};

}  // namespace docadmin::test
