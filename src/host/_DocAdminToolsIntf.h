// What the administrator's tools (the docadmin verbs) need of the document module beyond
// IExtFuncPluginDocAdmin and IDirectoryRoot: a tree handle that saves only when told, the
// transactions around a verb, the database's write lock while the tree's folders are made, the
// whole tree in memory at a few queries, batched imports, progress events, a document's versions
// and the dead-link cleanup with a report. The module's main object answers it by QueryInterface
// on its IExtFuncPluginDocAdmin.
//
//     IPtr<IDirectoryRoot> root = docs->Get_DirectoryRoot(plugin, path, false, 0, false);
//     tools->Do_SetupTree(root.get(), false, "");
//     tools->Do_ResolveRootForWriting(root.get());
//     tools->Do_BeginTransaction(root.get());
//     ... root->Do_CreateFolderStruct(nullptr, "\"a\",\"b\""); root->Do_SaveChanges(); ...
//     tools->Do_CommitTransaction(root.get());
//
// The IDirectoryRoot arguments must be handles that the module's Get_DirectoryRoot made; anything
// else raises EDocAdminException. A handle and its transaction belong to one thread. Strings are
// UTF-8; failures raise the document layer's exceptions.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "_RessourceIntf.h"

namespace docadmin {

// Where a tree handle works: the plug-in value of its administrator and its root folder path.
struct TDocAdminTreeAddress {
    std::string Plugin;
    std::string RootDirectoryPath;
};

// Events of a tree for a tool's progress display and messages. Unassigned ones are not called.
struct TDocAdminToolEvents {
    // One document's file was written to disk (an export).
    std::function<void()> OnDocumentDownloaded;
    // One added document's row was written (a save).
    std::function<void()> OnDocumentStored;
    // An import left an entry out: its path and why.
    std::function<void(const std::string& APath, const std::string& AReason)> OnImportSkipped;
};

// One row of a document's history: its current row, or an archived version.
struct TDocAdminVersion {
    std::int64_t ArchiveID = 0;  // 0 for the current row
    std::string DocName;
    std::string Version;
    std::int64_t Size = 0;
    TDateTime Date = 0;
    std::string RemoteFileName;
    // Archived versions only: when and by whom the version was stored, and when it was archived.
    TDateTime StoredDate = 0;
    std::int64_t StoredBy = 0;
    TDateTime ArchivedDate = 0;
};

struct TDocAdminVersions {
    TDocAdminVersion Current;
    std::vector<TDocAdminVersion> Archived;  // oldest first
};

class IDocAdminTools : public IInterface {
  public:
    DOCADMIN_IID("{0EF235E0-C50A-4051-84D6-B5792358E98D}");

    // Prepares a handle made with ALoad false for a tool: it saves only when told (no AutoSave);
    // with AReadOnly loading creates no missing folder and a missing folder raises; AWhere, when
    // not empty, is a where-text on the documents (raises when it doesn't parse). Answers where
    // the handle works.
    virtual TDocAdminTreeAddress Do_SetupTree(IDirectoryRoot* ARoot, bool AReadOnly,
                                              const std::string& AWhere) = 0;
    // Checks a folder path typed by a user (comma text of titles): malformed text, or a title that
    // is empty, "." or "..", holds a separator, a control character or bytes that aren't UTF-8,
    // raises.
    virtual void Do_CheckFolderPath(const std::string& APath) = 0;
    virtual void Do_SetEvents(IDirectoryRoot* ARoot, const TDocAdminToolEvents& AEvents) = 0;

    // A transaction of the host's database that everything the tree writes joins. Commit removes
    // the stored files that the committed rows no longer name; rollback keeps them.
    virtual void Do_BeginTransaction(IDirectoryRoot* ARoot) = 0;
    virtual void Do_CommitTransaction(IDirectoryRoot* ARoot) = 0;
    virtual void Do_RollbackTransaction(IDirectoryRoot* ARoot) = 0;
    virtual bool Get_InTransaction(IDirectoryRoot* ARoot) = 0;
    // Finds the tree's folder path, creating what is missing, in a transaction of its own that
    // holds the database's write lock, so that processes starting at once make each folder once.
    virtual void Do_ResolveRootForWriting(IDirectoryRoot* ARoot) = 0;

    // Loads every directory and document of the tree: the children of one directory per query,
    // the documents of a whole level in one. A tree whose folder doesn't exist answers false with
    // AMissingIsEmpty, else raises.
    virtual bool Do_LoadWholeTree(IDirectoryRoot* ARoot, bool AMissingIsEmpty) = 0;
    // The store's name of a document's file.
    virtual std::string Get_RemoteFileName(IDocument* ADocument) = 0;

    // Import settings of a handle: whether symbolic links inside the imported folder are
    // followed, and saves in batches of ABatchSize documents (0: one save). A batch's files are
    // stored (and flushed) with no transaction open, then its rows are written in a transaction
    // of their own, so that other writers wait for one batch's rows at most.
    virtual void Do_SetImportOptions(IDirectoryRoot* ARoot, bool AFollowLinks,
                                     std::size_t ABatchSize) = 0;
    // Documents whose rows the batches of the last save committed (also after a failure).
    virtual std::size_t Get_CommittedDocuments(IDirectoryRoot* ARoot) = 0;

    // The current row of a document and its archived versions; raises
    // EDocAdminFileNotFoundInRepository when no row has the id.
    virtual TDocAdminVersions Get_DocumentVersions(std::int64_t ADocumentID) = 0;

    // The dead-link cleanup of IExtFuncPluginDocAdmin, with every plug-in folder or only those of
    // loaded plug-ins; answers the paths of the folders it removed.
    virtual std::vector<std::string> Do_DeleteDeadLinkPluginDocuments(
        bool AProcessExistingPluginsOnly) = 0;
};

}  // namespace docadmin
