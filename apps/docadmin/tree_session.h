// A document tree for a verb: the host from --config, the configured file store and a
// TDBDocAdmin on the tree that --plugin and --path name.
//
//     TreeOptions opts;
//     AddTreeOptions(cmd, opts);
//     cmd->callback([&opts] {
//         TTreeSession s(opts);
//         s.BeginTransaction();
//         ... s.Admin() ...
//         s.Commit();
//     });
//
// The tree is found as the repository finds it: RootDirectoryPath is the quoted plug-in GUID, a
// comma and --path; for the two selector GUIDs (all plug-ins, global tree) --path alone. The
// administrator doesn't save by itself (AutoSave off); a verb calls SaveChanges.
//
// A transaction begun here is the administrator's DBATransactionID, so that everything the tree
// writes, root folders included, joins it. A session that ends with its transaction still open
// rolls it back. One thread uses a session.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <memory>
#include <string>

#include "_TDBDocAdmin.h"
#include "_THost.h"
#include "_TUniqueFolderCache.h"
#include "host_options.h"

namespace docadmin::app {

// The command-line tool's own tree, the default of --plugin.
inline const std::string CommandLineTreeGUID = "{5E0C7A3D-2B9F-4C61-8D47-A1F3E6B20C95}";
// The document module's plug-in GUID, under which the tree's statements run.
inline const std::string DocAdminModuleGUID = "{DBAE1129-670F-45DA-8489-6D64A3429BBF}";

struct TreeOptions {
    HostOptions Host;
    std::string Plugin = CommandLineTreeGUID;
    std::string Path;
    // A reading verb: loading the tree creates no missing folder (see TBaseDocAdmin::ReadOnly).
    bool ReadOnly = false;
};

void AddTreeOptions(CLI::App* app, TreeOptions& options);

// The RootDirectoryPath of a plug-in's tree below ABaseDirectory, and the plug-in value that the
// administrator gets (an empty plug-in means the global tree).
struct TTreeAddress {
    std::string Plugin;
    std::string RootDirectoryPath;
};
TTreeAddress TreeAddress(const std::string& APlugin, const std::string& ABaseDirectory);

class TTreeSession {
  public:
    // Opens host, store and administrator; the tree itself loads on first use. Raises for a
    // --plugin that isn't a GUID text in braces.
    explicit TTreeSession(const TreeOptions& AOptions);
    ~TTreeSession();
    TTreeSession(const TTreeSession&) = delete;
    TTreeSession& operator=(const TTreeSession&) = delete;

    THost& Host() { return *FHost; }
    TDBDocAdmin& Admin() { return *FAdmin; }
    // Statements run on the database since the session was opened (the opening itself not
    // counted).
    std::uint64_t StatementCount() const;

    // For writing verbs: finds the tree's folder path, creating what is missing, while holding
    // the database's write lock (SQLite) or an advisory lock (PostgreSQL), so that several
    // processes starting at once make each folder once.
    void ResolveRootForWriting();
    void BeginTransaction();
    void Commit();
    void Rollback();
    bool InTransaction() const { return FTransaction != 0; }

  private:
    std::unique_ptr<THost> FHost;
    TUniqueFolderCache FUniqueFolderCache;
    std::unique_ptr<TDBDocAdmin> FAdmin;
    std::int64_t FTransaction = 0;
    std::uint64_t FStatementsAtOpen = 0;
};

}  // namespace docadmin::app
