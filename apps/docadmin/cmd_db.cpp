// docadmin db init: creates or upgrades the tables of the configured database.
#include <filesystem>
#include <iostream>

#include "_DBInterface.h"
#include "_TDocAdminConfig.h"
#include "commands.h"

namespace docadmin::app {
namespace {

struct TDBInitOptions {
    std::string ConfigFile;
    std::string DatabaseName;
    std::string SQLitePath;
    std::string ConnInfo;
};

TDatabaseParams ParamsFor(const TDBInitOptions& o) {
    TDatabaseParams p;
    if (!o.SQLitePath.empty()) {
        p.SQLitePath = o.SQLitePath;
        return p;
    }
    if (!o.ConnInfo.empty()) {
        p.Backend = "postgresql";
        p.ConnInfo = o.ConnInfo;
        return p;
    }
    const TDocAdminConfig config = TDocAdminConfig::Locate(o.ConfigFile);
    const TDatabaseConfig* db = &config.SelectedDatabase();
    if (!o.DatabaseName.empty()) {
        const int i = config.IndexOfDatabase(o.DatabaseName);
        if (i < 0) throw Exception("No database \"" + o.DatabaseName + "\" in the configuration");
        db = &config.Databases()[static_cast<size_t>(i)];
    }
    p.Backend = db->Backend;
    p.SQLitePath = db->Path;
    p.ConnInfo = db->ConnInfo;
    return p;
}

void RunInit(const TDBInitOptions& o) {
    TDatabaseParams p = ParamsFor(o);
    p.UpgradeSchema = false;
    if (p.Backend == "sqlite" && !p.SQLitePath.empty()) {
        const auto dir = std::filesystem::path(p.SQLitePath).parent_path();
        if (!dir.empty()) std::filesystem::create_directories(dir);
    }
    IPtr<IDBInterface> db = OpenDatabase(p);
    const std::vector<std::string> changes = db->UpgradeSchema();
    for (const auto& c : changes)
        std::cout << c << "\n";
    std::cout << (p.Backend == "sqlite" ? p.SQLitePath : std::string("postgresql")) << ": "
              << (changes.empty() ? "tables are up to date"
                                  : std::to_string(changes.size()) + " change(s)")
              << "\n";
}

CommandRegistrar reg([](CLI::App& app) {
    auto* dbCmd = app.add_subcommand("db", "Database administration");
    dbCmd->require_subcommand(1);
    auto opts = std::make_shared<TDBInitOptions>();
    auto* init = dbCmd->add_subcommand(
        "init", "Create missing tables, columns and indexes of the configured database");
    init->add_option("--config", opts->ConfigFile, "Configuration file (TOML)");
    init->add_option("--database", opts->DatabaseName,
                     "Database of the configuration (default: the selected one)");
    auto* sqlite = init->add_option("--sqlite", opts->SQLitePath, "An SQLite database file");
    init->add_option("--pg", opts->ConnInfo, "A PostgreSQL connection string (libpq)")
        ->excludes(sqlite);
    init->callback([opts] { RunInit(*opts); });
});

}  // namespace
}  // namespace docadmin::app
