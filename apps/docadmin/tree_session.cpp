#include "tree_session.h"

#include "_DBBackend.h"
#include "_Dialogs.h"
#include "_HostLog.h"
#include "_Tools.h"
#include "user_lookup.h"

namespace docadmin::app {

namespace {

// Runs AWork; what it raises goes on as the host's Exception with the same text (the program's
// own exits as they are), so that no exception object of the module outlives the module.
void PassModuleExceptions(const std::function<void()>& AWork) {
    try {
        AWork();
    } catch (const CLI::Error&) {
        throw;
    } catch (const std::exception& e) {
        throw Exception(e.what());
    }
}

}  // namespace

TModuleSession::TModuleSession(const HostOptions& AOptions, std::uint8_t ARunMode) {
    // A failed upload in a save asks the person at the terminal (Abort, Retry, Ignore); without
    // a terminal the answer is Abort.
    SetMessageDlgAnswerer(&TerminalMessageDlgAnswerer);
    FHost = OpenHost(AOptions, ARunMode);
    // A verb's output is its own: the host's log speaks only of what goes wrong.
    HostLog()->set_level(spdlog::level::warn);
    FHost->LoadPlugins();
    void* p = nullptr;
    if (FHost->Plugins().GetExtFuncInterface(DocAdminPluginGUID, IExtFuncPluginDocAdmin::IID, &p))
        FDocAdmin = IPtr<IExtFuncPluginDocAdmin>::Adopt(static_cast<IExtFuncPluginDocAdmin*>(p));
    if (FDocAdmin && Supports(FDocAdmin.get(), FTools)) return;
    FDocAdmin.reset();
    std::string reasons;
    for (const TPluginInfo& info : FHost->Plugins().Plugins())
        if (!info.Loaded) reasons += (reasons.empty() ? " " : "; ") + info.Path + ": " + info.Error;
    throw Exception("The document module " + DocAdminPluginGUID +
                    " is not loaded from the plug-in folder '" + FHost->Config().PluginDir() +
                    "' ([host] plugin_dir or DOCADMIN_PLUGIN_DIR)" +
                    (reasons.empty() ? std::string() : "; plug-ins that failed:" + reasons));
}

TModuleSession::~TModuleSession() {
    FTools.reset();
    FDocAdmin.reset();
    FHost->UnloadPlugins();
}

void AddTreeOptions(CLI::App* app, TreeOptions& options) {
    AddHostOptions(app, options.Host);
    app->add_option("--plugin", options.Plugin,
                    "plug-in GUID whose tree to use; default " + CommandLineTreeGUID +
                        " (this tool's own tree); " + GlobalPluginGUID + " is the global tree, " +
                        AllPluginsGUID + " all plug-ins")
        ->capture_default_str();
    app->add_option("--path", options.Path,
                    "folder below the plug-in's tree as comma text, e.g. '\"Letters\",\"2024\"'; a "
                    "record's folder is '\"<table>#Records\",\"<record UID>\"'");
    app->add_option("--as", options.AsUser,
                    "act as this user of the user store: new rows go into the user's default ACL "
                    "group and the user's rights apply (default: the local administrator, who "
                    "sees every row and whose new rows go into [host] tool_acl_group)");
}

TTreeSession::TTreeSession(TModuleSession& AModule, const TreeOptions& AOptions)
    : FModule(AModule) {
    if (!AOptions.Plugin.empty() && !IsGuid(AOptions.Plugin))
        throw Exception("--plugin: \"" + AOptions.Plugin + "\" is no GUID in braces");
    try {
        Tools().Do_CheckFolderPath(AOptions.Path);
    } catch (const std::exception& e) {
        throw Exception(std::string("--path: ") + e.what());
    }
    FRoot = AModule.DocAdmin().Get_DirectoryRoot(AOptions.Plugin, AOptions.Path, false, 0, false);
    FAddress = Tools().Do_SetupTree(FRoot.get(), AOptions.ReadOnly, AOptions.Where);
    FStatementsAtOpen = DBStatementCount();
}

TTreeSession::~TTreeSession() {
    try {
        Tools().Do_RollbackTransaction(FRoot.get());
    } catch (...) {  // the process ends anyway; the database drops the transaction
    }
    FRoot.reset();
}

std::uint64_t TTreeSession::StatementCount() const {
    return DBStatementCount() - FStatementsAtOpen;
}

void TTreeSession::ResolveRootForWriting() {
    Tools().Do_ResolveRootForWriting(FRoot.get());
}

void TTreeSession::BeginTransaction() {
    Tools().Do_BeginTransaction(FRoot.get());
}

void TTreeSession::Commit() {
    Tools().Do_CommitTransaction(FRoot.get());
}

void TTreeSession::Rollback() {
    Tools().Do_RollbackTransaction(FRoot.get());
}

void RunWithModule(const HostOptions& AOptions, const std::function<void(TModuleSession&)>& AWork) {
    TModuleSession module(AOptions);
    PassModuleExceptions([&] { AWork(module); });
}

void RunTreeVerb(const TreeOptions& AOptions, const std::function<void(TTreeSession&)>& AVerb) {
    TModuleSession module(AOptions.Host);
    PassModuleExceptions([&] {
        ActAs(module.Host(), AOptions.AsUser, !AOptions.ReadOnly);
        TTreeSession tree(module, AOptions);
        AVerb(tree);
    });
}

}  // namespace docadmin::app
