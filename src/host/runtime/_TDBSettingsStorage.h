// Settings kept in the database: the global settings (table globalsettings) and the settings of
// the current user (table usersettings), both addressed by section and key.
//
// Values are stored as text: numbers in decimal, booleans as "true"/"false". A key that was never
// written reads as 0, as the given default, or as an empty string. Every call reaches the
// database, so a value written by another process is seen at once.
//
// Safe to call from any thread; writes of one store object are serialised by its lock, and a
// write that loses an insert race with another process becomes an update.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "_DBInterface.h"
#include "_PluginIntf.h"

namespace docadmin {

class TDBSettingsStorage : public TObject, public ISettingsStorage {
  public:
    std::int64_t ReadInt64(const std::string& ASection, const std::string& AKey) override;
    void WriteInt64(const std::string& ASection, const std::string& AKey,
                    std::int64_t AValue) override;
    // true/false, yes/no, on/off or a number (non-zero is true); ADefault when missing or else.
    bool ReadBool(const std::string& ASection, const std::string& AKey, bool ADefault) override;
    std::string ReadString(const std::string& ASection, const std::string& AKey,
                           const std::string& ADefault) override;
    void WriteString(const std::string& ASection, const std::string& AKey,
                     const std::string& AValue);
    void WriteBool(const std::string& ASection, const std::string& AKey, bool AValue);
    // Removes a key; reading it then gives the default again.
    void DeleteKey(const std::string& ASection, const std::string& AKey);

  protected:
    // AUserID: the user whose settings these are, called for each access; empty for the global
    // table.
    TDBSettingsStorage(IDBInterface* ADatabase, std::string ASchemaName,
                       std::function<std::int64_t()> AUserID);

  private:
    std::optional<std::string> Read(const std::string& ASection, const std::string& AKey);
    // The key's row id, 0 when there is none.
    std::int64_t FindRow(const std::string& ASection, const std::string& AKey, std::int64_t AUserID,
                         std::string* AValue);

    IDBInterface* const FDatabase;
    const std::string FSchemaName;
    const std::function<std::int64_t()> FUserID;
    std::mutex FWriteLock;
};

// The 64-bit integer store of the whole installation (migration marks and the like).
class TGlobalSettingsStorage : public TDBSettingsStorage {
  public:
    explicit TGlobalSettingsStorage(IDBInterface* ADatabase);
};

// The settings of one user. The user is asked for at each access, so one object serves the
// current user of whichever thread calls it.
class TUserSettingsStorage : public TDBSettingsStorage {
  public:
    TUserSettingsStorage(IDBInterface* ADatabase, std::function<std::int64_t()> AUserID);
};

}  // namespace docadmin
