// The host's configuration: one optional TOML file.
//
// Where it is found (Locate): the file named on the command line, else the file named by the
// environment variable DOCADMIN_CONFIG, else "docadmin.toml" in the data folder if it exists,
// else built-in defaults. A file named explicitly must exist.
//
// The data folder: the key data_dir (relative to the file's folder), else DOCADMIN_DATA, else
// $XDG_DATA_HOME/docadmin, else ~/.local/share/docadmin.
//
// The layout is documented in docadmin.example.toml at the root of the source tree:
// top-level keys, one table per database under [databases.<name>], the machine's local string
// settings under [local.<section>] and the host's own settings under [host]. Without a file there
// is one SQLite database "main" in <data folder>/docadmin.db. Unknown top-level keys are errors, so
// that a typo doesn't pass silently; a database table takes any further key as a per-database
// setting.
//
// A configuration is a value: it is read once and not changed afterwards, except for the local
// settings, which TLocalSettingsStorage copies and writes back.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "_SysUtils.h"

namespace docadmin {

// The fewest characters of a user's password when the configuration doesn't say.
inline constexpr int DefaultMinPasswordLength = 8;

// A configuration that cannot be read or doesn't make sense; the message names the file.
DOCADMIN_DECLARE_EXCEPTION(EConfigError, Exception);

struct TDatabaseConfig {
    std::string Name;
    // "sqlite" or "postgresql".
    std::string Backend = "sqlite";
    // SQLite: the database file, absolute (a relative path in the file is taken from the data
    // folder).
    std::string Path;
    // PostgreSQL: the libpq connection string; empty means libpq's defaults.
    std::string ConnInfo;
    // How the database is reached (key connection_kind, 0 to 255): 1 is a local offline copy.
    int ConnectionKind = 0;
    // Every further key of the table as text ("DocumentsRepType", "DocumentsPath", ...).
    std::map<std::string, std::string> Settings;
};

// A local setting with the type it has in the file, so that it is written back as it was read.
struct TLocalSettingValue {
    enum class TKind : std::uint8_t { String, Integer, Boolean, Float };
    TKind Kind = TKind::String;
    std::string Text;  // the value as text: integers in decimal, booleans "true"/"false"
};

// Languages of the user interface, by the index plug-ins read (IMainInterface::LanguageIndex).
inline constexpr int LanguageGerman = 0;
inline constexpr int LanguageEnglish = 1;
inline constexpr int LanguageFrench = 2;
inline constexpr int LanguageItalian = 3;

// section -> key -> value
using TLocalSettings = std::map<std::string, std::map<std::string, TLocalSettingValue>>;

class TDocAdminConfig {
  public:
    // Finds and reads the configuration as described above; AConfigFile may be empty.
    static TDocAdminConfig Locate(const std::string& AConfigFile);
    static TDocAdminConfig FromFile(const std::string& AFileName);
    // Parses a configuration text. ASourceFile is the file it came from, for messages and
    // relative paths; empty for none (relative paths then start at the current folder).
    static TDocAdminConfig FromString(const std::string& AText, const std::string& ASourceFile);
    // The built-in defaults in the default data folder.
    static TDocAdminConfig Defaults();
    // The data folder without the data_dir key: DOCADMIN_DATA, XDG_DATA_HOME, HOME.
    static std::string DefaultDataDir();
    // The plug-in folder without [host] plugin_dir: DOCADMIN_PLUGIN_DIR, else the folder where
    // the build puts the document module.
    static std::string DefaultPluginDir();

    // The file that was read; empty when the defaults are in use.
    const std::string& ConfigFile() const { return FConfigFile; }
    // Where settings are written back: the file that was read, else <data folder>/docadmin.toml.
    std::string SaveFileName() const;
    // Absolute, without a trailing separator.
    const std::string& DataDir() const { return FDataDir; }

    const std::vector<TDatabaseConfig>& Databases() const { return FDatabases; }
    // Index by name, -1 when there is none.
    int IndexOfDatabase(const std::string& AName) const;
    int SelectedDatabaseIndex() const { return FSelectedIndex; }
    // -1 when there is no offline database.
    int OfflineDatabaseIndex() const { return FOfflineIndex; }
    const TDatabaseConfig& SelectedDatabase() const;

    // The folder from which a new store is seeded once; empty for none.
    const std::string& SeedDocRoot() const { return FSeedDocRoot; }
    // Whether cloud stores may create their container when it is missing.
    bool CanCreateContainer() const { return FCanCreateContainer; }
    // The fewest characters a user's password may have.
    int MinPasswordLength() const { return FMinPasswordLength; }

    // [host] plugin_dir: where the host loads plug-ins from (every *.so there); absolute.
    const std::string& PluginDir() const { return FPluginDir; }
    // [host] language: "de", "en" (the default), "fr" or "it" as a LanguageXxx index.
    int LanguageIndex() const { return FLanguageIndex; }
    // [host] tool_acl_group: the ACL group of the rows that the command-line tools write when
    // they act as the local administrator (no user named); default 0, the group of new users.
    std::int64_t ToolACLGroup() const { return FToolACLGroup; }

    const TLocalSettings& LocalSettings() const { return FLocalSettings; }
    // The keys of the [server] table as text; the server checks names and values.
    const std::map<std::string, TLocalSettingValue>& ServerSettings() const {
        return FServerSettings;
    }

  private:
    TDocAdminConfig() = default;

    std::string FConfigFile;
    std::string FDataDir;
    std::vector<TDatabaseConfig> FDatabases;  // ordered by name
    int FSelectedIndex = 0;
    int FOfflineIndex = -1;
    std::string FSeedDocRoot;
    bool FCanCreateContainer = true;
    int FMinPasswordLength = DefaultMinPasswordLength;
    std::string FPluginDir;
    int FLanguageIndex = LanguageEnglish;
    std::int64_t FToolACLGroup = 0;
    TLocalSettings FLocalSettings;
    std::map<std::string, TLocalSettingValue> FServerSettings;
};

// Writes local settings into the configuration file AFileName: the file's other content is kept
// (its comments are not), the [local] tables are replaced. The file is created when missing and
// replaced atomically.
void SaveLocalSettingsToFile(const std::string& AFileName, const TLocalSettings& ASettings);

}  // namespace docadmin
