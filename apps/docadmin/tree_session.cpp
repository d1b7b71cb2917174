#include "tree_session.h"

#include "_DBBackend.h"
#include "_Dialogs.h"
#include "_DocFileLoaderChoice.h"
#include "_Tools.h"

namespace docadmin::app {

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
}

TTreeAddress TreeAddress(const std::string& APlugin, const std::string& ABaseDirectory) {
    if (APlugin.empty()) return {GlobalPluginGUID, ABaseDirectory};
    if (APlugin == AllPluginsGUID || APlugin == GlobalPluginGUID) return {APlugin, ABaseDirectory};
    std::string path = "\"" + APlugin + "\"";
    if (!ABaseDirectory.empty()) path += "," + ABaseDirectory;
    return {APlugin, path};
}

TTreeSession::TTreeSession(const TreeOptions& AOptions) {
    if (!AOptions.Plugin.empty() && !IsGuid(AOptions.Plugin))
        throw Exception("--plugin: \"" + AOptions.Plugin + "\" is no GUID in braces");
    // A failed upload in a save asks the person at the terminal (Abort, Retry, Ignore); without
    // a terminal the answer is Abort.
    SetMessageDlgAnswerer(&TerminalMessageDlgAnswerer);
    FHost = OpenHost(AOptions.Host);
    FStatementsAtOpen = DBStatementCount();

    const TTreeAddress address = TreeAddress(AOptions.Plugin, AOptions.Path);
    FAdmin = std::make_unique<TDBDocAdmin>(nullptr);
    FAdmin->SetDocFileLoader(CreateConfiguredDocFileLoader(FHost.get(), false).release());
    FAdmin->SetPlugin(address.Plugin);
    FAdmin->SetRootDirectoryPath(address.RootDirectoryPath);
    FAdmin->SetAllwaysLoadGlobal(false);
    FAdmin->SetMainInterface(FHost.get());
    FAdmin->SetUserAccess(FHost->GetUserAccess());
    FAdmin->SetPluginGUID(DocAdminModuleGUID);
    FAdmin->SetUniqueFolderCache(&FUniqueFolderCache);
    FAdmin->SetAutoSave(false);
    FAdmin->SetReadOnly(AOptions.ReadOnly);
}

TTreeSession::~TTreeSession() {
    if (FTransaction != 0) {
        try {
            Rollback();
        } catch (...) {  // the process ends anyway; the database drops the transaction
        }
    }
    FAdmin.reset();
}

std::uint64_t TTreeSession::StatementCount() const {
    return DBStatementCount() - FStatementsAtOpen;
}

void TTreeSession::ResolveRootForWriting() {
    // An arbitrary key of this program's own: the advisory lock of folder creation.
    constexpr long long kRootLockKey = 0x446F63526F6F7473;  // "DocRoots"
    BeginTransaction();
    try {
        IDBInterface* db = FHost->GetDBInterface();
        if (db->GetBackendKind() == TDBBackendKind::bkPostgreSQL)
            db->AcquireConnection(FTransaction)
                ->ExecDirect("SELECT pg_advisory_xact_lock(" + std::to_string(kRootLockKey) + ")");
        FAdmin->Directories()->ChildDirectoryCount();
        Commit();
    } catch (...) {
        Rollback();
        throw;
    }
}

void TTreeSession::BeginTransaction() {
    Assert(FTransaction == 0, "TTreeSession: a transaction is already open");
    FTransaction = FHost->GetDBInterface()->BeginTransaction();
    FAdmin->SetDBATransactionID(FTransaction);
}

void TTreeSession::Commit() {
    const std::int64_t id = FTransaction;
    FTransaction = 0;
    FAdmin->SetDBATransactionID(0);
    FHost->GetDBInterface()->CommitTransaction(id);
    // Files that the committed rows no longer name.
    FAdmin->RemovePendingFiles();
}

void TTreeSession::Rollback() {
    const std::int64_t id = FTransaction;
    FTransaction = 0;
    FAdmin->SetDBATransactionID(0);
    FAdmin->DiscardPendingFileRemovals();
    FHost->GetDBInterface()->RollbackTransaction(id);
}

}  // namespace docadmin::app
