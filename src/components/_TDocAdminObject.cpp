#include "_TDocAdminObject.h"

#include <algorithm>
#include <limits>

namespace docadmin {

namespace {

constexpr TBackgroundJobGroup LoaderJobGroup = 1;

template <class I, class T>
IPtr<I> AsIntf(T* item) {
    return item ? IPtr<I>(static_cast<I*>(item)) : IPtr<I>();
}

}  // namespace

// ---- TKRDocAdminObjLoaderBackgroundJob

TKRDocAdminObjLoaderBackgroundJob::TKRDocAdminObjLoaderBackgroundJob(TNotifyEvent AFinishedEvent,
                                                                     TNotifyEvent ACancelEvent,
                                                                     bool ASyncEvents,
                                                                     TNotifyEvent AOnFreeJobEvent)
    : TKRCustomBackgroundJob(std::move(AFinishedEvent), std::move(ACancelEvent), ASyncEvents) {
    if (AOnFreeJobEvent) SetOnFreeJob(std::move(AOnFreeJobEvent));
}

TKRDocAdminObjLoaderBackgroundJob::~TKRDocAdminObjLoaderBackgroundJob() {
    SetContainer(nullptr);
}

void TKRDocAdminObjLoaderBackgroundJob::Execute() {
    TKRCustomBackgroundJob::Execute();
    std::lock_guard lock(FContainerLock);
    if (FContainer) FContainer->LoadStep(true, false);
}

TDocAdminObject* TKRDocAdminObjLoaderBackgroundJob::Container() const {
    std::lock_guard lock(FContainerLock);
    return FContainer.get();
}

void TKRDocAdminObjLoaderBackgroundJob::SetContainer(TDocAdminObject* AContainer) {
    IPtr<TDocAdminObject> old;
    {
        std::lock_guard lock(FContainerLock);
        old = std::move(FContainer);
        FContainer = AContainer;
    }
    // The old reference goes outside the lock: it may be the handle's last.
}

// ---- TDocAdminObject

TDocAdminObject::TDocAdminObject(TBaseDocAdmin* ADocAdmin, bool ALoad,
                                 const std::string& AResIdentifier, std::int64_t AResID,
                                 bool AAllowBackgroundLoading, bool AIsNewUniqueFolder)
    : FDocAdmin(ADocAdmin), FResIdentifier(AResIdentifier), FResID(AResID) {
    if (!FDocAdmin) throw EDocAdminException("A document handle needs a document administrator");
    TBaseDocAdmin& admin = *FDocAdmin;
    admin.OnChanged = [this](TObject*) { ContainerNotify(rcnChanged); };
    admin.OnLoadingState = [this](TObject*, TLoadingStateNotification AState) {
        if (AState == lsDocumentLoadingFinished) ContainerNotify(rcnLoaded);
    };
    admin.OnDeleteDocument = [this](TObject*, TDocument* ADocument) {
        RessourceRemoved(static_cast<IRessource*>(ADocument));
    };
    admin.OnDeleteDirectory = [this](TObject*, TDocDirectory* ADirectory) {
        RessourceRemoved(static_cast<IRessource*>(ADirectory));
    };
    admin.OnDirectoryChildCountChanged = [this](TObject*, TDocDirectory* ADirectory) {
        ChildsChanged(ADirectory);
    };
    admin.OnGetRessourceContainer = [this](TObject*, IPtr<IRessourceContainer>& AContainer) {
        AContainer = static_cast<IRessourceContainer*>(this);
    };
    if (!ALoad) return;
    try {
        Load(AAllowBackgroundLoading, AIsNewUniqueFolder);
    } catch (...) {
        // No destructor runs for a constructor that raises; the administrator goes without
        // reaching back into this half-made handle.
        DetachEvents();
        throw;
    }
}

TDocAdminObject::~TDocAdminObject() {
    // A pending job holds a reference, so none can be pending here; should one be, it must not
    // outlive the tree.
    if (FLoaderBackgroundJob) CancelLoaderJob();
    if (OnDestroy) {
        try {
            OnDestroy(this);
        } catch (...) {
            // A destructor has nowhere to report it; the handle goes all the same.
        }
    }
    // Items freed with the administrator may still ask for their container; the handle that
    // would answer is going.
    DetachEvents();
    FDocAdmin.reset();
    FResssourceNotifiers.clear();
}

HRESULT TDocAdminObject::QueryInterface(const TGUID& iid, void** obj) {
    if (QueryOwn<IRessourceContainer, IDirectoryRoot, IOBJAccess>(iid, obj)) return S_OK;
    return TInterfacedObject::QueryInterface(iid, obj);
}

std::int32_t TDocAdminObject::_Release() {
    const std::int32_t r = --FRefCount;
    if (r != 0) return r;
    // A guard reference while the notifiers hear of the end and while the destructor runs:
    // references they take and drop meanwhile can't free the handle a second time.
    FRefCount = 1;
    BeforeDestruction();
    if (FRefCount.load() == 1) {
        delete this;
        return 0;
    }
    // A notifier kept a reference: the handle lives on until that one goes.
    return --FRefCount;
}

void TDocAdminObject::BeforeDestruction() {
    try {
        ContainerNotify(rcnDestroying);
    } catch (...) {
        // Reached from a release, which must not raise.
    }
}

void TDocAdminObject::DetachEvents() {
    TBaseDocAdmin& admin = *FDocAdmin;
    admin.OnChanged = nullptr;
    admin.OnLoadingState = nullptr;
    admin.OnDeleteDocument = nullptr;
    admin.OnDeleteDirectory = nullptr;
    admin.OnDirectoryChildCountChanged = nullptr;
    admin.OnGetRessourceContainer = nullptr;
}

// ---- Loading

void TDocAdminObject::Load(bool AAllowBackgroundLoading, bool AIsNewUniqueFolder) {
    if (FLoaded || FLoaderBackgroundJob) return;
    // A tree in use with changes not yet saved (AutoSave off) keeps them: the load then only
    // reads what isn't in memory yet.
    if (!FDocAdmin->HasChanges()) FDocAdmin->Clear();
    IKRBackgroundJobScheduler* scheduler =
        AAllowBackgroundLoading ? GetBackgroundJobScheduler(FDocAdmin->MainInterface()) : nullptr;
    if (!scheduler) {
        LoadStep(false, AIsNewUniqueFolder);
        return;
    }
    const TNotifyEvent ended = [this](TObject* Sender) { JobEnded(Sender); };
    auto* job = new TKRDocAdminObjLoaderBackgroundJob(ended, ended, true, nullptr);
    FLoaderBackgroundJob = job;
    job->SetContainer(this);
    try {
        scheduler->ScheduleJob(job, LoaderJobGroup, false);
    } catch (...) {
        // The scheduler owns the job all the same and frees it; it no longer counts here.
        FLoaderBackgroundJob = nullptr;
        throw;
    }
}

void TDocAdminObject::LoadStep(bool ADocuments, bool AIsNewUniqueFolder) {
    ++FLoadingCount;
    TFinally lower{[this] { --FLoadingCount; }};
    FLoaded = true;
    TDocDirectoryRoot* root = FDocAdmin->Directories();
    root->SetIsNewUniqueFolder(AIsNewUniqueFolder);
    root->ChildDirectoryCount();
    if (ADocuments) root->DocumentCount();
}

void TDocAdminObject::JobEnded(TObject* Sender) {
    // A job cancelled earlier may still end; only the pending one counts.
    if (!FLoaderBackgroundJob || Sender != static_cast<TObject*>(FLoaderBackgroundJob)) return;
    FLoaderBackgroundJob = nullptr;
    Flush();
}

void TDocAdminObject::CancelLoaderJob() {
    TKRDocAdminObjLoaderBackgroundJob* job = FLoaderBackgroundJob;
    if (!job) return;
    // Waits while the job loads: once it returns, the job leaves the tree alone.
    job->SetContainer(nullptr);
    job->TerminateAndDisconnect();
    FLoaderBackgroundJob = nullptr;
}

TBaseDocAdmin* TDocAdminObject::Tree() {
    if (FLoaderBackgroundJob) {
        CancelLoaderJob();
        // A load that ran to its end held its notices back; the cancelled job won't send them.
        Flush();
    }
    return FDocAdmin.get();
}

// ---- Notices

void TDocAdminObject::ContainerNotify(TRessourceContainerNotifyType AType) {
    if (FLoadingCount > 0) {
        FPendingNotifications |= static_cast<TRessourceContainerNotifyTypes>(1u << AType);
        return;
    }
    for (const auto& n : Notifiers())
        n->Do_ContainerNotify(AType, static_cast<IRessourceContainer*>(this));
}

void TDocAdminObject::RessourceRemoved(IRessource* ARessource) {
    if (FLoadingCount > 0) return;
    for (const auto& n : Notifiers())
        n->Do_RessourceRemoved(ARessource);
}

void TDocAdminObject::ChildsChanged(TDocDirectory* ADirectory) {
    if (FLoadingCount > 0) {
        FPendingDocAdminObjChanges |= static_cast<TDocAdminObjChanges>(1u << dacResourcesChanges);
        return;
    }
    IRessource* r = ADirectory && ADirectory != FDocAdmin->Directories() ? ADirectory : nullptr;
    for (const auto& n : Notifiers())
        n->Do_ChildsChanged(static_cast<IRessourceContainer*>(this), r);
}

void TDocAdminObject::Flush() {
    if (FLoadingCount > 0) return;
    const TRessourceContainerNotifyTypes pending = FPendingNotifications.exchange(0);
    for (auto t : {rcnChanged, rcnDestroying, rcnLoaded})
        if (pending & (1u << t)) ContainerNotify(t);
    if (FPendingDocAdminObjChanges.exchange(0) & (1u << dacResourcesChanges))
        ChildsChanged(nullptr);
}

void TDocAdminObject::Do_RegisterNotifier(IRessourceContainerNotify* ANotifier) {
    if (!ANotifier) return;
    for (const auto& n : FResssourceNotifiers)
        if (n.get() == ANotifier) return;
    FResssourceNotifiers.emplace_back(ANotifier);
}

void TDocAdminObject::Do_UnregisterNotifier(IRessourceContainerNotify* ANotifier) {
    std::erase_if(FResssourceNotifiers, [&](const auto& n) { return n.get() == ANotifier; });
}

// ---- Items of this tree

bool TDocAdminObject::StandsInTree(TDocDirectory* ADir) {
    TDocDirectory* root = FDocAdmin->Directories();
    for (TDocDirectory* d = ADir; d != root;) {
        TDocDirectory* parent = d->ParentDir();
        if (!parent) return false;
        const auto& siblings = parent->ChildDirectoriesInMemory();
        if (std::find(siblings.begin(), siblings.end(), d) == siblings.end()) return false;
        d = parent;
    }
    return true;
}

TDocDirectory* TDocAdminObject::DirectoryOf(IDirectory* ADir) {
    if (!ADir) return nullptr;
    TDocDirectory* dir = IntfToDirectorySafe(ADir);
    if (!dir) throw EDocAdminException("The directory given is not a directory of a document tree");
    if (!StandsInTree(dir))
        throw EDocAdminException("Directory '" + dir->Titel() +
                                 "' is not part of this document tree");
    return dir;
}

TDocDirectory* TDocAdminObject::DirectoryToDelete(IDirectory* ADir) {
    if (!ADir) throw EDocAdminException("No directory to delete!");
    return DirectoryOf(ADir);
}

TDocument* TDocAdminObject::DocumentOf(IDocument* ADoc) {
    if (!ADoc) throw EDocAdminException("No document given!");
    TDocument* doc = IntfToDocumentSafe(ADoc);
    if (!doc) throw EDocAdminException("The document given is not a document of a document tree");
    TDocDirectory* dir = doc->Directory();
    const bool listed =
        dir && std::ranges::find(dir->DocumentsInMemory(), doc) != dir->DocumentsInMemory().end();
    if (!listed || !StandsInTree(dir))
        throw EDocAdminException("Document '" + doc->DocName() +
                                 "' is not part of this document tree");
    return doc;
}

std::int32_t TDocAdminObject::DocumentID(std::int64_t AID) {
    // Cut to 32 bits, such an id would name another document.
    if (AID < std::numeric_limits<std::int32_t>::min() ||
        AID > std::numeric_limits<std::int32_t>::max())
        throw EDocAdminFileNotFoundInRepository("File with ID '" + std::to_string(AID) +
                                                "' not found in repository!");
    return static_cast<std::int32_t>(AID);
}

// ---- IRessourceContainer

std::int32_t TDocAdminObject::Get_Count() {
    Load(false, false);
    // The tree belongs to a pending job until it ends; its notice tells when to ask again.
    if (FLoaderBackgroundJob) return 0;
    return FDocAdmin->Directories()->Get_ChildCount();
}

IPtr<IRessource> TDocAdminObject::Get_Item(std::int32_t AIndex) {
    return Tree()->Directories()->Get_Child(AIndex);
}

void TDocAdminObject::Do_Reload(bool ALoad) {
    CancelLoaderJob();
    FLoaded = false;
    FDocAdmin->Clear();
    if (ALoad && GetBackgroundJobScheduler(FDocAdmin->MainInterface())) Load(true, false);
    ContainerNotify(rcnChanged);
}

bool TDocAdminObject::Do_ExecuteAction(TRessourceAction AAction, IRessource* ARessource,
                                       const std::string& AFileName, const std::string& ACaption,
                                       bool AReadOnly, bool ALoadNonBlocking,
                                       IRessourceActionCallBack* ACallBack,
                                       IVTLEventPool* ARessourceChangeEvent,
                                       TRessourceArchiveMode AArchiveMode) {
    TBaseDocAdmin* admin = Tree();
    if (ARessource)
        return ARessource->Do_ExecuteAction(AAction, AFileName, ACaption, AReadOnly,
                                            ALoadNonBlocking, ACallBack, ARessourceChangeEvent,
                                            AArchiveMode);
    if (!admin->OnExecuteDirectoryAction) return false;
    admin->OnExecuteDirectoryAction(admin, nullptr, AAction, AFileName, ACaption, AReadOnly,
                                    ALoadNonBlocking, ACallBack);
    return true;
}

TRessourceActions TDocAdminObject::Get_SupportedActions(IRessource* ARessource) {
    if (ARessource) {
        Tree();
        return ARessource->Get_SupportedActions();
    }
    return RessourceActionBit(raView) | RessourceActionBit(raAddDirectory) |
           RessourceActionBit(raImportDirectory) | RessourceActionBit(raAddDocument);
}

std::int32_t TDocAdminObject::Get_RessourceFlags(IRessource* ARessource) {
    return ARessource ? ARessource->Get_RessourceFlags() : 1;
}

bool TDocAdminObject::Get_ACLWriteable(IRessource* ARessource) {
    TBaseDocAdmin* admin = Tree();
    if (ARessource) return ARessource->Get_ACLWriteable();
    return admin->GetStoragItemACLWriteable(admin->Directories());
}

IPtr<IRessource> TDocAdminObject::Do_CreateRelFolderStruct(IRessource* ARessource,
                                                           const std::string& APath) {
    TBaseDocAdmin* admin = Tree();
    if (ARessource) return ARessource->Do_CreateFolderStruct(APath);
    return AsIntf<IRessource>(admin->CreateFolderStruct(nullptr, APath));
}

void TDocAdminObject::Do_BeginUpdate() {
    Tree()->BeginUpdate();
}

void TDocAdminObject::Do_EndUpdate() {
    Tree()->EndUpdate();
}

void TDocAdminObject::Do_FillContentRecordFlagsMetaIDs(IIntegerListData* AList) {
    TBaseDocAdmin* admin = Tree();
    if (!AList || !AList->Get_List()) return;
    AList->Get_List()->Add(admin->DirectoryRecordFlagsMetaID());
    AList->Get_List()->Add(admin->DocumentRecordFlagsMetaID());
}

void TDocAdminObject::Do_FillContentRecordDBIDByMetaID(std::int64_t AMetaID,
                                                       IIntegerListData* AList, bool AAll) {
    TBaseDocAdmin* admin = Tree();
    // -1 stands for a meta id nobody knows; it names no table.
    if (!AList || !AList->Get_List() || AMetaID < 0) return;
    if (AMetaID == admin->DirectoryRecordFlagsMetaID())
        admin->Directories()->FillDirectoryIDs(*AList->Get_List(), !AAll);
    else if (AMetaID == admin->DocumentRecordFlagsMetaID())
        admin->Directories()->FillDocumentIDs(*AList->Get_List(), !AAll);
}

bool TDocAdminObject::Do_InvalidateChilds(bool AAllowBackground) {
    Load(AAllowBackground, false);
    return FLoaded;
}

// ---- IDirectoryRoot

std::int32_t TDocAdminObject::Get_RootDirectoryCount() {
    return Tree()->Directories()->ChildDirectoryCount();
}

IPtr<IDirectory> TDocAdminObject::Get_RootDirectory(std::int32_t AIndex) {
    return AsIntf<IDirectory>(Tree()->Directories()->GetChildDirectorys(AIndex));
}

IPtr<IDirectory> TDocAdminObject::Do_GetDirectoryByTitle(IDirectory* ADir,
                                                         const std::string& APath) {
    TBaseDocAdmin* admin = Tree();
    TDocDirectory* dir = DirectoryOf(ADir);
    return AsIntf<IDirectory>(
        (dir ? dir : admin->Directories())->GetChildDirByTitle(APath, nullptr));
}

bool TDocAdminObject::Get_IsInTree(IDirectory* ADir, IDirectory* ABase) {
    Tree();
    return TBaseDocAdmin::GetIsInTree(DirectoryOf(ADir), DirectoryOf(ABase));
}

IPtr<IDirectory> TDocAdminObject::Do_CreateFolderStruct(IDirectory* ABaseDir,
                                                        const std::string& APath) {
    TBaseDocAdmin* admin = Tree();
    return AsIntf<IDirectory>(admin->CreateFolderStruct(DirectoryOf(ABaseDir), APath));
}

IPtr<IDirectory> TDocAdminObject::Do_AddDirectory(IDirectory* AParent, const std::string& AName) {
    TBaseDocAdmin* admin = Tree();
    return AsIntf<IDirectory>(admin->AddDirectory(DirectoryOf(AParent), AName));
}

bool TDocAdminObject::Do_DeleteDirectory(IDirectory* ADir) {
    TBaseDocAdmin* admin = Tree();
    admin->DeleteDirectory(DirectoryToDelete(ADir));
    return true;
}

bool TDocAdminObject::Do_DeleteDocument(IDocument* ADoc) {
    TBaseDocAdmin* admin = Tree();
    admin->DeleteDocument(DocumentOf(ADoc));
    return true;
}

bool TDocAdminObject::Do_DeleteDocumentByID(std::int64_t AID) {
    Tree()->DeleteDocument(DocumentID(AID));
    return true;
}

bool TDocAdminObject::Do_DownloadFile(IDocument* ADoc, const std::string& AFile) {
    TBaseDocAdmin* admin = Tree();
    admin->DownloadFile(DocumentOf(ADoc), AFile, false, nullptr);
    return true;
}

bool TDocAdminObject::Do_DownloadFileByID(std::int64_t AID, const std::string& AFile,
                                          std::string& AName) {
    AName.clear();
    Tree()->DownloadFile(DocumentID(AID), AFile, AName);
    return true;
}

bool TDocAdminObject::Do_ReplaceFile(IDocument* ADoc, const std::string& AFile,
                                     TRessourceArchiveMode AArchiveMode) {
    TBaseDocAdmin* admin = Tree();
    admin->ReplaceFile(DocumentOf(ADoc), AFile, false, AArchiveMode);
    return true;
}

bool TDocAdminObject::Do_ReplaceFileByID(std::int64_t AID, const std::string& AFile,
                                         TRessourceArchiveMode AArchiveMode) {
    Tree()->ReplaceFile(AID, AFile, false, AArchiveMode);
    return true;
}

IPtr<IDocument> TDocAdminObject::Do_SaveDocument(IDirectory* ADir, const std::string& AName,
                                                 const std::string& AFile, std::uint8_t ATags) {
    TBaseDocAdmin* admin = Tree();
    return AsIntf<IDocument>(
        admin->SaveDoc(nullptr, chAdded, AFile, DirectoryOf(ADir), AName, ATags));
}

bool TDocAdminObject::Do_ImportDirectory(IDirectory* ADir, const std::string& APath) {
    TBaseDocAdmin* admin = Tree();
    admin->ImportDirectory(APath, DirectoryOf(ADir));
    return true;
}

bool TDocAdminObject::Do_SaveChanges() {
    Tree()->SaveChanges();
    return true;
}

bool TDocAdminObject::Get_HasChanges() {
    return Tree()->HasChanges();
}

bool TDocAdminObject::Do_ExportDirectory(IDirectory* ADir, const std::string& APath,
                                         bool AContinueOnMissingFiles,
                                         const std::string& AFilePattern,
                                         const std::string& ADirPattern) {
    TBaseDocAdmin* admin = Tree();
    admin->ExportDirectory(APath, DirectoryOf(ADir), AContinueOnMissingFiles, AFilePattern,
                           ADirPattern);
    return true;
}

IPtr<IDirectory> TDocAdminObject::Get_RootDir() {
    return AsIntf<IDirectory>(Tree()->Directories());
}

}  // namespace docadmin
