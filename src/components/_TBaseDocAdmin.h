// The document administrator: the one object through which a tree of storage items is worked
// on. It owns the root directory and the file store, checks access, brackets changes in update
// counts and fires the events that keep displays and resource notifiers current.
//
// It is abstract over persistence: a database-backed descendant fills in the virtual hooks
// (DoSaveChanges, LoadDirectories, GetDocumentFileInfo, UpdateDocumentFileInfo,
// DeleteDocumentRow, LoadFilesForDirectory, UpdateDocumentWithID). Here they do nothing.
//
// Updates. BeginUpdate/EndUpdate nest. When the outermost update ends, the administrator saves
// (with AutoSave), fires the held-back child-count notices and then OnChanged. An operation that
// raises between its brackets leaves the count raised on purpose, so that no half change is
// saved by a later EndUpdate.
//
// Not thread-safe: an administrator belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "_DocAdminIntf.h"
#include "_PluginIntf.h"
#include "_RecordFlagsIntf.h"
#include "_RessourceIntf.h"
#include "_StorageItems.h"
#include "_TBaseDocFileLoader.h"
#include "_TVTLSQLParser.h"
#include "_Tools.h"

namespace docadmin {

class TUniqueFolderCache;

// The plug-in GUIDs with a fixed meaning in an administrator's Plugin (AllPluginsGUID,
// GlobalPluginGUID) come with the module's interfaces (_DocAdminIntf.h).

// What the host asks of an object that works for a plug-in.
class IPluginContextObject : public IInterface {
  public:
    DOCADMIN_IID("{E36481CB-EBEC-4867-B834-77388DED2DA1}");
    virtual std::string Get_ContextName() = 0;
    virtual IMainInterface* Get_MainInterface() = 0;
    virtual std::string Get_PluginGUID() = 0;
};

using TDocumentEvent = std::function<void(TObject* Sender, TDocument* Document)>;
using TDocumentStateEvent =
    std::function<void(TObject* Sender, TDocument* Document, TChangeState APrevState)>;
using TDirectoryEvent = std::function<void(TObject* Sender, TDocDirectory* Directory)>;
using TDownloadDocumentEvent = std::function<void(TObject* Sender, const std::string& FileName)>;
using TDownloadDocumentDoneEvent = std::function<void(TObject* Sender)>;
using TGetDocumentIconHandleEvent = std::function<void(
    TObject* Sender, TDocument* ADocument, std::intptr_t& AIconHandle, std::int32_t& ASourceDPI)>;
using TGetDirectoryIconHandleEvent =
    std::function<void(TObject* Sender, TDocDirectory* ADirectory, std::intptr_t& AIconHandle,
                       std::int32_t& ASourceDPI)>;
using TExecuteDocumentAction =
    std::function<void(TObject* Sender, TDocument* ADocument, TRessourceAction AAction,
                       const std::string& AFileName, const std::string& ACaption, bool AReadOnly,
                       bool ALoadNonBlocking, IRessourceActionCallBack* ACallBack,
                       IVTLEventPool* ARessourceChangeEvent, TRessourceArchiveMode AArchiveMode)>;
using TExecuteDirectoryAction =
    std::function<void(TObject* Sender, TDocDirectory* ADirectory, TRessourceAction AAction,
                       const std::string& AFileName, const std::string& ACaption, bool AReadOnly,
                       bool ALoadNonBlocking, IRessourceActionCallBack* ACallBack)>;
using TLoadingStateEvent =
    std::function<void(TObject* Sender, TLoadingStateNotification ALoadingState)>;
using TGetRessourceContainerEvent =
    std::function<void(TObject* Sender, IPtr<IRessourceContainer>& ARessourceContainer)>;
// An entry of a local folder that ImportDirectory left out, with the reason in words.
using TImportSkippedEvent =
    std::function<void(TObject* Sender, const std::string& APath, const std::string& AReason)>;

// A folder of a path that a reading administrator (ReadOnly) didn't find; nothing was created.
DOCADMIN_DECLARE_EXCEPTION(EDocAdminFolderNotFound, EDocAdminException);

class TBaseDocAdmin : public TComponent, public IPluginContextObject {
  public:
    explicit TBaseDocAdmin(TComponent* AOwner);
    ~TBaseDocAdmin() override;

    // The administrator lives as a component; interface references don't count.
    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override { return -1; }
    std::int32_t _Release() override { return -1; }
    std::string Get_ContextName() override { return {}; }
    IMainInterface* Get_MainInterface() override { return FMainInterface.get(); }
    std::string Get_PluginGUID() override { return FPluginGUID; }

    // ---- Persistence hooks

    // Writes the pending changes; answers whether anything was written.
    virtual bool DoSaveChanges() { return false; }
    // Loads the child directories of a directory; with a name only those of that title.
    virtual void LoadDirectories(TDocDirectory* ADirectory, const std::string& AName) {}
    // The remote file name of a stored document, with its name and file date. Empty when the
    // id is unknown.
    virtual std::string GetDocumentFileInfo(std::int32_t ADocumentID, std::string& ADocName,
                                            TDateTime& ADate, bool AGenerateIfEmpty);
    virtual void UpdateDocumentFileInfo(std::int32_t ADocumentID, const std::string& AFileName,
                                        bool AChangeFileName, TDateTime ADate) {}
    virtual void DeleteDocumentRow(std::int32_t ADocumentID) {}
    // The size a stored document's row gives its content; -1 when unknown or not recorded.
    virtual std::int64_t GetDocumentFileSize(std::int32_t ADocumentID) { return -1; }
    // Deletes the row only while it still names ARemoteFile; answers the rows deleted.
    virtual std::int64_t DeleteDocumentRowOf(std::int32_t ADocumentID,
                                             const std::string& ARemoteFile) {
        DeleteDocumentRow(ADocumentID);
        return 1;
    }
    // True while some row still names the remote file, so that it must stay in the store.
    virtual bool IsRemoteFileReferenced(const std::string& ARemoteFile) { return false; }

    // Files that committed changes no longer need: rows go first, files after the commit.
    // Removes each queued file that no row names; raises EDocAdminException naming every file
    // that could not be removed (the rows' changes stand). Work without DBATransactionID calls
    // it itself; otherwise whoever commits does, and whoever rolls back discards the list.
    void RemovePendingFiles();
    void DiscardPendingFileRemovals() { FPendingRemovals.clear(); }
    bool HasPendingFileRemovals() const { return !FPendingRemovals.empty(); }
    virtual void LoadFilesForDirectory(const std::vector<TDocDirectory*>& ADirs) {}
    // Replaces the stored file of a document by id, outside any tree. It needs nothing of this
    // instance but the arguments (AOwner owns what it creates), so a descendant may call it on
    // any administrator; it is a virtual here so that the database descendant can provide it.
    // Answers false when no document has that id. The base can't do it and raises.
    virtual bool UpdateDocumentWithID(TComponent* AOwner, std::int64_t ADocumentID,
                                      const std::string& ASourceFileName,
                                      TBaseDocFileLoader* ADocFileLoader, bool AddToArchive,
                                      bool AChangeFileName);

    // ---- Operations on the tree

    TDocument* SaveDoc(TDocument* ADocument, TChangeState Mode, const std::string& LocalFileName,
                       TDocDirectory* DestDir, const std::string& AFileName,
                       TDocAdminDocTags ADocumentTags);
    void ReplaceFile(TDocument* ADocument, const std::string& LocalSourceFile, bool ChangeFileName,
                     TRessourceArchiveMode AArchiveMode);
    void ReplaceFile(std::int64_t ADocumentID, const std::string& LocalSourceFile,
                     bool ChangeFileName, TRessourceArchiveMode AArchiveMode);
    void DownloadFile(TDocument* ADocument, const std::string& LocalDestFile, bool ALoadNonBlocking,
                      IRessourceActionCallBack* ACallBack);
    void DownloadFile(std::int32_t ADocumentID, const std::string& LocalDestFile,
                      std::string& FileName);
    // With AExpectedSize at 0 or above, content of another size fails the download and leaves
    // LocalDestFile untouched: a row's size guards against a stored file that lost its end.
    void DownloadRemoteFile(const std::string& RemoteFile, const std::string& LocalDestFile,
                            TDateTime AFileCreaDate, std::int64_t AExpectedSize = -1);
    void DeleteDocument(TDocument* ADocument);
    void DeleteDocument(std::int32_t ADocumentID);
    void DeleteDirectory(TDocDirectory* ADirectory);
    TDocDirectory* AddDirectory(TDocDirectory* ParentDir, const std::string& DirName);
    TDocDirectory* CreateFolderStruct(TDocDirectory* BaseDir, const std::string& DirPath);
    // The titles of a folder path typed by a user (comma text), checked: malformed comma text
    // raises EConvertError, a title that is empty, "." or "..", or holds a path separator, a
    // control character or bytes that aren't UTF-8 raises EDocAdminException. Names that arrive
    // otherwise (rows of other clients) are made safe where they meet the disk (SafeFileName).
    static std::vector<std::string> ParseFolderPath(const std::string& APath);
    // Takes a local folder with all below it into the tree. Entries are read relative to their
    // folder's open descriptor, so depth has no limit; files whose path passes PATH_MAX are
    // handed to the store by a descriptor path, and the folder stays open as long as this
    // administrator lives. Names that aren't UTF-8 are stored in the form of NameFromFileSystem.
    // Symbolic links are skipped unless ImportFollowLinks, and then followed only when their
    // target lies inside the imported folder and isn't a folder taken in already (no loops).
    // Pipes, sockets and devices are skipped. Each skipped entry goes to OnImportSkipped.
    // An entry that can't be read raises, naming it.
    void ImportDirectory(const std::string& DirName, TDocDirectory* ParentDir);
    // Writes a directory with all below it to disk. Every folder is made and opened relative to
    // its parent without following a symbolic link (an existing link where a folder goes is an
    // error, never followed), and a file is only written under a name that didn't exist, made
    // with O_EXCL|O_NOFOLLOW (a link where a file goes counts as taken: the next "_N" name is
    // used). Titles and names go through SafeFileName, so "..", "." or a separator in a title
    // can't leave DirName; a child directory without a title is written as "_". A failure names
    // the document and the file.
    void ExportDirectory(const std::string& DirName, TDocDirectory* ASourceDir,
                         bool AContinueOnMissingFiles, const std::string& AFilePattern,
                         const std::string& ADirPattern);
    void SetSubStatesForDir(TDocDirectory* ADirectory, TChangeState AState);
    // True if BaseDirectory is nullptr or on the parent chain of ADir (ADir included).
    static bool GetIsInTree(TDocDirectory* ADir, TDocDirectory* BaseDirectory);
    void Clear();
    void AbortAllChanges() { Clear(); }
    // Any item in memory below the root with a state other than chNone; never loads.
    bool HasChanges();

    void BeginUpdate();
    void EndUpdate();
    void SaveChanges();
    std::int32_t UpdateCount() const { return FUpdateCount; }
    std::int32_t SaveUpdateCount() const { return FSaveUpdateCount; }

    // ---- Access

    std::int64_t GetStoragItemACLGroup(TCustomStorageItem* AItem);
    bool GetStoragItemACLWriteable(TCustomStorageItem* AItem);
    // Raises EDocAdminNoWriteAccessError "No write access to '<name>'!".
    void CheckStoragItemACLWriteable(TCustomStorageItem* AItem);
    bool HasACLOnDirectories() const { return FHasACLOnDirectories; }
    bool HasACLOnDocuments() const { return FHasACLOnDocuments; }
    // The user id for creation and change marks: of the user access, else of the host's.
    std::int32_t CurrentUserID();

    // ---- Notices from the items

    // A directory's list of children changed. Only directories whose list counts as loaded
    // report; within an update the notice waits for its end.
    void DirectoryChildCountChanged(TDocDirectory* ADirectory, TLoadingState ALoadingState);
    // Forgets a directory that goes away while its notice waits.
    void RemoveFromPendingList(TDocDirectory* ADirectory);
    const std::vector<TDocDirectory*>& PendingChildCountList() const {
        return FChildDirectoryChildCountChangedPendingList;
    }
    // Loading progress; the end of the root load also decides which ACL tables are in force.
    void NotifyLoadingState(TLoadingStateNotification AState);

    // ---- Properties

    TDocDirectoryRoot* Directories() const { return FDirectories; }
    bool AutoSave() const { return FAutoSave; }
    void SetAutoSave(bool v) { FAutoSave = v; }
    IUserAccess* UserAccess() const { return FUserAccess.get(); }
    void SetUserAccess(IUserAccess* v) { FUserAccess = v; }
    IMainInterface* MainInterface() const { return FMainInterface.get(); }
    void SetMainInterface(IMainInterface* v) { FMainInterface = v; }
    TBaseDocFileLoader* DocFileLoader() const { return FDocFileLoader; }
    // Takes ownership; a previous store is freed.
    void SetDocFileLoader(TBaseDocFileLoader* v);
    const std::string& PluginGUID() const { return FPluginGUID; }
    void SetPluginGUID(std::string v) { FPluginGUID = std::move(v); }
    const std::string& Plugin() const { return FPlugin; }
    void SetPlugin(std::string v) { FPlugin = std::move(v); }
    const std::string& RootDirectoryPath() const { return FRootDirectoryPath; }
    void SetRootDirectoryPath(std::string v) { FRootDirectoryPath = std::move(v); }
    const std::string& BaseDirectoryPath() const { return FBaseDirectoryPath; }
    void SetBaseDirectoryPath(std::string v) { FBaseDirectoryPath = std::move(v); }
    bool AllwaysLoadGlobal() const { return FAllwaysLoadGlobal; }
    void SetAllwaysLoadGlobal(bool v) { FAllwaysLoadGlobal = v; }
    std::int64_t DBATransactionID() const { return FDBATransactionID; }
    void SetDBATransactionID(std::int64_t v) { FDBATransactionID = v; }
    // Host service, not owned.
    TRecordFlagsPlugin* RecordFlagsPlugin() const { return FRecordFlagsPlugin; }
    void SetRecordFlagsPlugin(TRecordFlagsPlugin* v) { FRecordFlagsPlugin = v; }
    // Shared among administrators, not owned.
    TUniqueFolderCache* UniqueFolderCache() const { return FUniqueFolderCache; }
    void SetUniqueFolderCache(TUniqueFolderCache* v) { FUniqueFolderCache = v; }
    // The container items answer: OnGetRessourceContainer's answer when assigned.
    IPtr<IRessourceContainer> RessourceContainer();
    void SetRessourceContainer(IRessourceContainer* v) { FRessourceContainer = v; }
    // Meta ids of the two tables in the record flags service; -1 while unknown.
    std::int64_t DocumentRecordFlagsMetaID();
    std::int64_t DirectoryRecordFlagsMetaID();
    TRecordFlagTypes ActiveRecordFlagTypes() const { return FActiveRecordFlagTypes; }
    // A new value drops the cached id list.
    void SetActiveRecordFlagTypes(TRecordFlagTypes v);
    // The id list derived from ActiveRecordFlagTypes; nullptr until someone builds it.
    TSortedIntegerList* ActiveRecordFlagIDs() const { return FActiveRecordFlagIDs.get(); }
    void SetActiveRecordFlagIDs(std::unique_ptr<TSortedIntegerList> v) {
        FActiveRecordFlagIDs = std::move(v);
    }
    // The parsed filter text; made on first read.
    TVTLSQLParser* SQLFilters();
    bool HasSQLFilters() const { return FSQLFilters != nullptr; }
    void ApplyParams(const std::string& AParams) { SQLFilters()->ParseSQL(AParams); }
    // A reading administrator: loading the root creates no missing folder and saves nothing;
    // a missing folder of RootDirectoryPath raises EDocAdminFolderNotFound.
    bool ReadOnly() const { return FReadOnly; }
    void SetReadOnly(bool v) { FReadOnly = v; }
    // Whether ImportDirectory follows symbolic links that stay inside the imported folder.
    bool ImportFollowLinks() const { return FImportFollowLinks; }
    void SetImportFollowLinks(bool v) { FImportFollowLinks = v; }

    // ---- Events

    TLoadingStateEvent OnLoadingState;
    TDownloadDocumentEvent OnDownloadDocument;
    TDownloadDocumentDoneEvent OnDownloadDocumentDone;
    TDocumentStateEvent OnChangeDocumentState;
    TDocumentEvent OnDeleteDocument;
    TDirectoryEvent OnChangeDirectoryState;
    TDirectoryEvent OnDeleteDirectory;
    TDirectoryEvent OnDirectoryChildCountChanged;
    TGetDocumentIconHandleEvent OnGetDocumentIconHandle;
    TGetDirectoryIconHandleEvent OnGetDirectoryIconHandle;
    TExecuteDocumentAction OnExecuteDocumentAction;
    TExecuteDirectoryAction OnExecuteDirectoryAction;
    TNotifyEvent OnChanged;
    TNotifyEvent OnSaved;
    TGetRessourceContainerEvent OnGetRessourceContainer;
    TImportSkippedEvent OnImportSkipped;

  protected:
    // "Document N ('name') was changed or removed by another user ..." followed by AOutcome.
    static EDocAdminChangedByOtherUser ChangedByOtherUser(std::int64_t ADocumentID,
                                                          const std::string& AName,
                                                          const std::string& AOutcome);
    void QueueFileRemoval(std::int32_t ADocumentID, const std::string& ARemoteFile,
                          const std::string& ADocName);
    // Saves (AutoSave), fires held-back child-count notices and OnChanged, at update depth 0.
    void EndUpdateStep();
    TDocDirectory* NewDirectoryIn(TDocDirectory* AParent, const std::string& ATitle);

    struct TImportWalk;
    struct TExportFolder;
    void ImportFolderAt(const TDirHandle& AFolder, const std::string& APath,
                        const std::string& ANameBytes, TDocDirectory* AParent, TImportWalk& AWalk);
    void ExportFolderTo(TExportFolder& AOuter, TDocDirectory* ASourceDir, bool AIsChild,
                        bool AContinueOnMissingFiles, const std::string& AFilePattern,
                        const std::string& ADirPattern);

    TDocDirectoryRoot* FDirectories = nullptr;
    IPtr<IUserAccess> FUserAccess;
    TBaseDocFileLoader* FDocFileLoader = nullptr;
    IPtr<IMainInterface> FMainInterface;
    std::string FPluginGUID;
    bool FAllwaysLoadGlobal = false;
    std::string FPlugin;
    std::string FBaseDirectoryPath;
    std::string FRootDirectoryPath;
    IPtr<IRessourceContainer> FRessourceContainer;
    std::int32_t FUpdateCount = 0;
    bool FAutoSave = true;
    std::int32_t FSaveUpdateCount = 0;
    bool FHasACLOnDocuments = false;
    bool FHasACLOnDirectories = false;
    std::vector<TDocDirectory*> FChildDirectoryChildCountChangedPendingList;  // not owned
    std::int64_t FDBATransactionID = 0;
    TRecordFlagsPlugin* FRecordFlagsPlugin = nullptr;
    std::int64_t FDocumentRecordFlagsMetaID = -1;
    std::int64_t FDirectoryRecordFlagsMetaID = -1;
    TRecordFlagTypes FActiveRecordFlagTypes = 0;
    std::unique_ptr<TSortedIntegerList> FActiveRecordFlagIDs;
    std::unique_ptr<TVTLSQLParser> FSQLFilters;
    TUniqueFolderCache* FUniqueFolderCache = nullptr;

    struct TPendingRemoval {
        std::int32_t DocID;
        std::string Remote;
        std::string DocName;
    };
    std::vector<TPendingRemoval> FPendingRemovals;
    bool FReadOnly = false;
    bool FImportFollowLinks = false;
    // Folders of imported files beyond PATH_MAX, whose files the store reads through them.
    std::vector<TDirHandle> FImportHandles;
};

}  // namespace docadmin
