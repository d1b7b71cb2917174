// The local settings of this machine: the [local.<section>] tables of the configuration file as
// an ISettingsStorage. Reads see the values of the file and what was written since; writes stay
// in memory until Save, which writes the [local] tables back into the file (see
// SaveLocalSettingsToFile).
//
// Safe to call from any thread: one mutex guards the values.
#pragma once

#include <mutex>
#include <string>

#include "_PluginIntf.h"
#include "_TDocAdminConfig.h"

namespace docadmin {

class TLocalSettingsStorage : public TObject, public ISettingsStorage {
  public:
    // Starts with the configuration's local settings; Save writes to AFileName.
    TLocalSettingsStorage(const TDocAdminConfig& AConfig);
    TLocalSettingsStorage(TLocalSettings ASettings, std::string AFileName);

    // A number; 0 when the key is missing or its value isn't an integer.
    std::int64_t ReadInt64(const std::string& ASection, const std::string& AKey) override;
    void WriteInt64(const std::string& ASection, const std::string& AKey,
                    std::int64_t AValue) override;
    // true/false, yes/no, on/off or a number (non-zero is true); ADefault when missing or else.
    bool ReadBool(const std::string& ASection, const std::string& AKey, bool ADefault) override;
    // The value as text; ADefault when the key is missing.
    std::string ReadString(const std::string& ASection, const std::string& AKey,
                           const std::string& ADefault) override;
    void WriteString(const std::string& ASection, const std::string& AKey,
                     const std::string& AValue);
    void WriteBool(const std::string& ASection, const std::string& AKey, bool AValue);

    // True when something was written since the last Save.
    bool Modified() const;
    // Writes the values back into the file; does nothing when nothing changed.
    void Save();
    const std::string& FileName() const { return FFileName; }

  private:
    void Write(const std::string& ASection, const std::string& AKey, TLocalSettingValue AValue);
    const TLocalSettingValue* Find(const std::string& ASection, const std::string& AKey) const;

    mutable std::mutex FLock;
    TLocalSettings FValues;  // guarded by FLock
    bool FModified = false;  // guarded by FLock
    const std::string FFileName;
};

}  // namespace docadmin
