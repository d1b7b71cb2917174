// The document module for a verb, and a document tree through it.
//
// TModuleSession opens the host from --config, loads the plug-ins of the configured folder
// ([host] plugin_dir, DOCADMIN_PLUGIN_DIR, else the module that the build made) and finds the
// document module among them: its IExtFuncPluginDocAdmin and IDocAdminTools. The program links no
// tree, store or container code for this: everything goes through the module's interfaces.
//
// TTreeSession is a tree handle of the module (IDirectoryRoot) on the tree that --plugin and
// --path name, set up for a tool: it saves only when the verb says so. A transaction begun here
// is the tree's, so that everything the tree writes, root folders included, joins it; a session
// that ends with its transaction still open rolls it back.
//
//     TreeOptions opts;
//     AddTreeOptions(cmd, opts);
//     cmd->callback([&opts] {
//         RunTreeVerb(opts, [&](TTreeSession& s) {
//             s.BeginTransaction();
//             ... s.Root() ...
//             s.Commit();
//         });
//     });
//
// Exceptions that the module raises are objects of its code, which goes when the plug-ins are
// unloaded: RunTreeVerb and RunWithModule pass them on as the host's Exception with the same text
// before the session ends. One thread uses a session.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "_DocAdminIntf.h"
#include "_DocAdminToolsIntf.h"
#include "_THost.h"
#include "host_options.h"

namespace docadmin::app {

// The command-line tool's own tree, the default of --plugin.
inline const std::string CommandLineTreeGUID = "{5E0C7A3D-2B9F-4C61-8D47-A1F3E6B20C95}";

class TModuleSession {
  public:
    // Raises, naming the plug-in folder, when the module isn't among the loaded plug-ins.
    explicit TModuleSession(const HostOptions& AOptions, std::uint8_t ARunMode = rmTool);
    // Drops the module's interfaces, then unloads the plug-ins.
    ~TModuleSession();
    TModuleSession(const TModuleSession&) = delete;
    TModuleSession& operator=(const TModuleSession&) = delete;

    THost& Host() { return *FHost; }
    IExtFuncPluginDocAdmin& DocAdmin() { return *FDocAdmin; }
    IDocAdminTools& Tools() { return *FTools; }

  private:
    std::unique_ptr<THost> FHost;
    IPtr<IExtFuncPluginDocAdmin> FDocAdmin;
    IPtr<IDocAdminTools> FTools;
};

struct TreeOptions {
    HostOptions Host;
    std::string Plugin = CommandLineTreeGUID;
    std::string Path;
    // A reading verb: loading the tree creates no missing folder.
    bool ReadOnly = false;
    // A where-text on the documents; empty for all.
    std::string Where;
    // --as: the user the verb acts as; empty for the local administrator (see ActAs).
    std::string AsUser;
};

void AddTreeOptions(CLI::App* app, TreeOptions& options);

class TTreeSession {
  public:
    // Checks --plugin and --path and makes the tree handle; the tree loads on first use.
    TTreeSession(TModuleSession& AModule, const TreeOptions& AOptions);
    ~TTreeSession();
    TTreeSession(const TTreeSession&) = delete;
    TTreeSession& operator=(const TTreeSession&) = delete;

    IDirectoryRoot& Root() { return *FRoot; }
    IDocAdminTools& Tools() { return FModule.Tools(); }
    // The plug-in value and the root folder path that the module made of --plugin and --path.
    const TDocAdminTreeAddress& Address() const { return FAddress; }
    // Statements run on the database since the tree was set up.
    std::uint64_t StatementCount() const;

    // For writing verbs: finds the tree's folder path, creating what is missing, under the
    // database's write lock (see IDocAdminTools::Do_ResolveRootForWriting).
    void ResolveRootForWriting();
    void BeginTransaction();
    void Commit();
    void Rollback();

  private:
    TModuleSession& FModule;
    IPtr<IDirectoryRoot> FRoot;
    TDocAdminTreeAddress FAddress;
    std::uint64_t FStatementsAtOpen = 0;
};

// Runs AWork with the module loaded; see the file comment for what it raises.
void RunWithModule(const HostOptions& AOptions, const std::function<void(TModuleSession&)>& AWork);
// Runs AVerb on a tree session of AOptions, acting as AOptions.AsUser (see ActAs in
// user_lookup.h); see the file comment for what it raises.
void RunTreeVerb(const TreeOptions& AOptions, const std::function<void(TTreeSession&)>& AVerb);

}  // namespace docadmin::app
