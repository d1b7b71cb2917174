// TDocAdminObject: the reference-counted handle through which other plug-ins hold a document
// tree. It owns one administrator and shows it as IRessourceContainer (a container of resources
// with notifiers) and as IDirectoryRoot (the document view); IOBJAccess gives the handle itself.
//
// The handle is the single listener of six of its administrator's events (OnChanged,
// OnDeleteDocument, OnDeleteDirectory, OnDirectoryChildCountChanged, OnLoadingState,
// OnGetRessourceContainer) and turns them into notices to the registered notifiers. While a load
// runs, notices are held back: each kind once in a pending set, sent after a background load ends.
//
// Loading. Load either loads the tree in the call (directories only) or, when allowed and the
// host offers a scheduler, hands it to a TKRDocAdminObjLoaderBackgroundJob in group 1, which loads
// directories and documents on a pool thread and ends on the main thread. While that job is
// pending the tree belongs to it: Get_Count answers 0 without touching the tree, and every other
// operation that works on the tree first takes it back (cancels the job, waiting for a load that
// is running, and sends what the load held back). So the owner never works on the tree at the
// same time as the job.
//
// Interfaces into items. Directories and documents passed to IDirectoryRoot must be items that
// stand in this tree (in their parent's list, up to this root); anything else, also an item of
// another tree or one that left its tree, raises EDocAdminException. A nil directory means the
// root where the operation allows one; a nil document, or a nil directory to delete, raises.
//
// Threads. A handle belongs to the host's main thread when it loads in the background (the job's
// events come there); otherwise to one thread at a time. The job's counted reference keeps the
// handle alive while the job holds it; callers hold a reference of their own while they call.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "_KRBackgroundJobs.h"
#include "_RessourceIntf.h"
#include "_TBaseDocAdmin.h"

namespace docadmin {

class TDocAdminObject;

// Changes a handle holds back beside the notice types while a load runs.
enum TDocAdminObjChange : std::uint8_t { dacResourcesChanges };
// A set of TDocAdminObjChange: bit (1 << element).
using TDocAdminObjChanges = std::uint8_t;

// Loads a handle's tree on a pool thread: directories and documents, always searching for the
// record's folder (a background load doesn't trust the new-folder hint).
class TKRDocAdminObjLoaderBackgroundJob : public TKRCustomBackgroundJob {
  public:
    TKRDocAdminObjLoaderBackgroundJob(TNotifyEvent AFinishedEvent, TNotifyEvent ACancelEvent,
                                      bool ASyncEvents, TNotifyEvent AOnFreeJobEvent);
    // Drops the container reference.
    ~TKRDocAdminObjLoaderBackgroundJob() override;

    void Execute() override;

    // The handle to load, held by a counted reference. Setting it waits while a load runs, so
    // that after SetContainer(nullptr) the job no longer touches the old handle's tree.
    TDocAdminObject* Container() const;
    void SetContainer(TDocAdminObject* AContainer);

  private:
    mutable std::mutex FContainerLock;  // guards FContainer; held by Execute across the load
    IPtr<TDocAdminObject> FContainer;
};

class TDocAdminObject : public TInterfacedObject,
                        public IRessourceContainer,
                        public IDirectoryRoot,
                        public IOBJAccess {
  public:
    // Takes ownership of ADocAdmin (also when this raises) and its six events; with ALoad it
    // loads at once (see Load).
    TDocAdminObject(TBaseDocAdmin* ADocAdmin, bool ALoad, const std::string& AResIdentifier,
                    std::int64_t AResID, bool AAllowBackgroundLoading, bool AIsNewUniqueFolder);
    // Fires OnDestroy, then frees the administrator and the notifier list.
    ~TDocAdminObject() override;

    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override { return TInterfacedObject::_AddRef(); }
    // The last release first sends notice 1 (container going away), then frees the handle.
    std::int32_t _Release() override;

    // Loads the tree unless it is loaded or a job is pending: clears the administrator (unless
    // its tree holds unsaved changes), then hands the load to a background job when allowed and
    // the host has a scheduler, else loads the directories in the call.
    void Load(bool AAllowBackgroundLoading, bool AIsNewUniqueFolder);
    // A load has been started in the call or by a job, or is done.
    bool Loaded() const { return FLoaded.load(); }
    // The pending background job, or nullptr.
    TKRDocAdminObjLoaderBackgroundJob* LoaderBackgroundJob() const { return FLoaderBackgroundJob; }

    TBaseDocAdmin* DocAdmin() const { return FDocAdmin.get(); }
    TNotifyEvent OnDestroy;
    // Events of the administrator, read and written through the handle.
    const TGetDocumentIconHandleEvent& OnGetDocumentIconHandle() const {
        return FDocAdmin->OnGetDocumentIconHandle;
    }
    void SetOnGetDocumentIconHandle(TGetDocumentIconHandleEvent v) {
        FDocAdmin->OnGetDocumentIconHandle = std::move(v);
    }
    const TGetDirectoryIconHandleEvent& OnGetDirectoryIconHandle() const {
        return FDocAdmin->OnGetDirectoryIconHandle;
    }
    void SetOnGetDirectoryIconHandle(TGetDirectoryIconHandleEvent v) {
        FDocAdmin->OnGetDirectoryIconHandle = std::move(v);
    }
    const TExecuteDocumentAction& OnExecuteDocumentAction() const {
        return FDocAdmin->OnExecuteDocumentAction;
    }
    void SetOnExecuteDocumentAction(TExecuteDocumentAction v) {
        FDocAdmin->OnExecuteDocumentAction = std::move(v);
    }
    const TExecuteDirectoryAction& OnExecuteDirectoryAction() const {
        return FDocAdmin->OnExecuteDirectoryAction;
    }
    void SetOnExecuteDirectoryAction(TExecuteDirectoryAction v) {
        FDocAdmin->OnExecuteDirectoryAction = std::move(v);
    }

    // IOBJAccess
    TObject* GetObject() override { return this; }

    // IRessourceContainer; a nil resource means the root.
    std::int32_t Get_Count() override;
    IPtr<IRessource> Get_Item(std::int32_t AIndex) override;
    void Do_Reload(bool ALoad) override;
    void Do_RegisterNotifier(IRessourceContainerNotify* ANotifier) override;
    void Do_UnregisterNotifier(IRessourceContainerNotify* ANotifier) override;
    std::string Get_ResIdentifier() override { return FResIdentifier; }
    std::int64_t Get_ResID() override { return FResID; }
    bool Do_ExecuteAction(TRessourceAction AAction, IRessource* ARessource,
                          const std::string& AFileName, const std::string& ACaption, bool AReadOnly,
                          bool ALoadNonBlocking, IRessourceActionCallBack* ACallBack,
                          IVTLEventPool* ARessourceChangeEvent,
                          TRessourceArchiveMode AArchiveMode) override;
    TRessourceActions Get_SupportedActions(IRessource* ARessource) override;
    std::int32_t Get_RessourceFlags(IRessource* ARessource) override;
    bool Get_ACLWriteable(IRessource* ARessource) override;
    IPtr<IRessource> Do_CreateRelFolderStruct(IRessource* ARessource,
                                              const std::string& APath) override;
    void Do_BeginUpdate() override;
    void Do_EndUpdate() override;
    void Do_FillContentRecordFlagsMetaIDs(IIntegerListData* AList) override;
    void Do_FillContentRecordDBIDByMetaID(std::int64_t AMetaID, IIntegerListData* AList,
                                          bool AAll) override;
    bool Do_InvalidateChilds(bool AAllowBackground) override;

    // IDirectoryRoot
    std::int32_t Get_RootDirectoryCount() override;
    IPtr<IDirectory> Get_RootDirectory(std::int32_t AIndex) override;
    IPtr<IDirectory> Do_GetDirectoryByTitle(IDirectory* ADir, const std::string& APath) override;
    bool Get_IsInTree(IDirectory* ADir, IDirectory* ABase) override;
    IPtr<IDirectory> Do_CreateFolderStruct(IDirectory* ABaseDir, const std::string& APath) override;
    IPtr<IDirectory> Do_AddDirectory(IDirectory* AParent, const std::string& AName) override;
    bool Do_DeleteDirectory(IDirectory* ADir) override;
    bool Do_DeleteDocument(IDocument* ADoc) override;
    bool Do_DeleteDocumentByID(std::int64_t AID) override;
    bool Do_DownloadFile(IDocument* ADoc, const std::string& AFile) override;
    bool Do_DownloadFileByID(std::int64_t AID, const std::string& AFile,
                             std::string& AName) override;
    bool Do_ReplaceFile(IDocument* ADoc, const std::string& AFile,
                        TRessourceArchiveMode AArchiveMode) override;
    bool Do_ReplaceFileByID(std::int64_t AID, const std::string& AFile,
                            TRessourceArchiveMode AArchiveMode) override;
    IPtr<IDocument> Do_SaveDocument(IDirectory* ADir, const std::string& AName,
                                    const std::string& AFile, std::uint8_t ATags) override;
    bool Do_ImportDirectory(IDirectory* ADir, const std::string& APath) override;
    bool Do_SaveChanges() override;
    bool Get_HasChanges() override;
    bool Do_ExportDirectory(IDirectory* ADir, const std::string& APath,
                            bool AContinueOnMissingFiles, const std::string& AFilePattern,
                            const std::string& ADirPattern) override;
    IPtr<IDirectory> Get_RootDir() override;

  private:
    friend class TKRDocAdminObjLoaderBackgroundJob;

    // Raises FLoadingCount around the root's lazy directory load and, with ADocuments, its
    // document load.
    void LoadStep(bool ADocuments, bool AIsNewUniqueFolder);
    // The end (finished or cancelled) of a job; only the pending job counts.
    void JobEnded(TObject* Sender);
    // Detaches the pending job; when it returns, the job no longer touches the tree.
    void CancelLoaderJob();
    // The administrator, after taking the tree back from a pending job.
    TBaseDocAdmin* Tree();
    // Sends what a load held back, unless a load runs.
    void Flush();
    void BeforeDestruction();
    void DetachEvents();

    // Notices to the notifiers, or into the pending sets while a load runs.
    void ContainerNotify(TRessourceContainerNotifyType AType);
    void RessourceRemoved(IRessource* ARessource);
    void ChildsChanged(TDocDirectory* ADirectory);
    std::vector<IPtr<IRessourceContainerNotify>> Notifiers() const { return FResssourceNotifiers; }

    // Interface to item of this tree; raises EDocAdminException for anything else.
    TDocDirectory* DirectoryOf(IDirectory* ADir);
    TDocDirectory* DirectoryToDelete(IDirectory* ADir);
    TDocument* DocumentOf(IDocument* ADoc);
    bool StandsInTree(TDocDirectory* ADir);
    // A document id as the administrator takes it; an id beyond its range is not found.
    static std::int32_t DocumentID(std::int64_t AID);

    std::unique_ptr<TBaseDocAdmin> FDocAdmin;
    std::vector<IPtr<IRessourceContainerNotify>> FResssourceNotifiers;
    // Written by a job's load on a pool thread, read by the owner: atomic.
    std::atomic<bool> FLoaded{false};
    std::string FResIdentifier;
    std::int64_t FResID;
    std::atomic<std::int32_t> FLoadingCount{0};
    std::atomic<TRessourceContainerNotifyTypes> FPendingNotifications{0};
    std::atomic<TDocAdminObjChanges> FPendingDocAdminObjChanges{0};
    // Owner's thread only. The scheduler frees the job; this pointer is cleared at its end.
    TKRDocAdminObjLoaderBackgroundJob* FLoaderBackgroundJob = nullptr;
};

}  // namespace docadmin
