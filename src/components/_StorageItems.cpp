#include "_StorageItems.h"

#include <algorithm>
#include <cassert>
#include <cctype>

#include "_TBaseDocAdmin.h"

namespace docadmin {

namespace {

template <class T>
bool ExtractFrom(std::vector<T*>& list, T* item) {
    auto it = std::find(list.begin(), list.end(), item);
    if (it == list.end()) return false;
    list.erase(it);
    return true;
}

template <class I, class T>
IPtr<I> AsIntf(T* item) {
    return item ? IPtr<I>(static_cast<I*>(item)) : IPtr<I>();
}

}  // namespace

// ---- TCustomStorageItem

TCustomStorageItem::~TCustomStorageItem() {
    assert(FRefCount.load() <= 1);
    --FInstanceCount;
}

HRESULT TCustomStorageItem::QueryInterface(const TGUID& iid, void** obj) {
    if (iid == IInterface::IID || iid == IOBJAccess::IID) {
        *obj = static_cast<IOBJAccess*>(this);
        _AddRef();
        return S_OK;
    }
    *obj = nullptr;
    return E_NOINTERFACE;
}

std::int32_t TCustomStorageItem::_AddRef() {
    return ++FRefCount;
}

std::int32_t TCustomStorageItem::_Release() {
    const std::int32_t r = --FRefCount;
    if (r == 0) delete this;
    return r;
}

void TCustomStorageItem::ExtractAsRefCounted() {
    _Release();
}

void TCustomStorageItem::FreeItem(TCustomStorageItem* AItem) {
    delete AItem;
}

void TCustomStorageItem::SetChangeState(TChangeState S) {
    if (S == chStateBeforeDelete) {
        FChangeState = FFChangeStateBeforeDeleted;
        FFChangeStateBeforeDeleted = chNone;
        return;
    }
    if (S == chDeleted && FChangeState != chDeleted) FFChangeStateBeforeDeleted = FChangeState;
    FChangeState = S;
}

void TCustomStorageItem::SetCreaID(std::int32_t v) {
    FCreaID = v;
    FChachedCreaName.clear();
    FChachedCreaNameValid = false;
}

void TCustomStorageItem::SetChangeID(std::int32_t v) {
    FChangeID = v;
    FChachedChangeName.clear();
    FChachedChangeNameValid = false;
}

void TCustomStorageItem::SetACLGroupID(std::int64_t v) {
    FACLGroupID = v;
    if (FChangeState != chAdded) SetChangeState(chChanged);
}

std::string TCustomStorageItem::GetCreaName(IExtFuncPluginContacts* AdrPlugin) {
    if (!FChachedCreaNameValid && AdrPlugin) {
        FChachedCreaName = AdrPlugin->GetUserName(FCreaID, 2);
        FChachedCreaNameValid = true;
    }
    return FChachedCreaName;
}

std::string TCustomStorageItem::GetChangeName(IExtFuncPluginContacts* AdrPlugin) {
    if (!FChachedChangeNameValid && AdrPlugin) {
        FChachedChangeName = AdrPlugin->GetUserName(FChangeID, 2);
        FChachedChangeNameValid = true;
    }
    return FChachedChangeName;
}

// ---- Interface to item

TDocDirectory* IntfToDirectory(IInterface* AIntf) {
    if (!AIntf) return nullptr;
    IPtr<IOBJAccess> access;
    if (!Supports(AIntf, access)) throw EConvertError("Invalid class typecast");
    auto* dir = dynamic_cast<TDocDirectory*>(access->GetObject());
    if (!dir) throw EConvertError("Invalid class typecast");
    return dir;
}

TDocDirectory* IntfToDirectorySafe(IInterface* AIntf) {
    IPtr<IOBJAccess> access;
    if (!Supports(AIntf, access)) return nullptr;
    return dynamic_cast<TDocDirectory*>(access->GetObject());
}

TDocument* IntfToDocument(IInterface* AIntf) {
    if (!AIntf) return nullptr;
    IPtr<IOBJAccess> access;
    if (!Supports(AIntf, access)) throw EConvertError("Invalid class typecast");
    auto* doc = dynamic_cast<TDocument*>(access->GetObject());
    if (!doc) throw EConvertError("Invalid class typecast");
    return doc;
}

TDocument* IntfToDocumentSafe(IInterface* AIntf) {
    IPtr<IOBJAccess> access;
    if (!Supports(AIntf, access)) return nullptr;
    return dynamic_cast<TDocument*>(access->GetObject());
}

// ---- TDocDirectory

TDocDirectory::TDocDirectory(TDocDirectory* AParent) : FParentDir(AParent) {}

TDocDirectory::~TDocDirectory() {
    if (TBaseDocAdmin* admin = DocAdmin()) admin->RemoveFromPendingList(this);
    SetParentDir(nullptr);
    // Held directories deleted from this list still point here; they outlive us detached.
    for (TDocDirectory* child : FDetachedChildren)
        child->FParentDir = nullptr;
    FDetachedChildren.clear();
    DetachAndFreeChildren();
}

HRESULT TDocDirectory::QueryInterface(const TGUID& iid, void** obj) {
    if (iid == IRessource::IID) {
        *obj = static_cast<IRessource*>(this);
    } else if (iid == IDirectory::IID) {
        *obj = static_cast<IDirectory*>(this);
    } else {
        return TCustomStorageItem::QueryInterface(iid, obj);
    }
    _AddRef();
    return S_OK;
}

void TDocDirectory::ExtractAsRefCounted() {
    FParentDir = nullptr;
    TCustomStorageItem::ExtractAsRefCounted();
}

void TDocDirectory::DetachAndFreeChildren() {
    // The lists are taken over first, so that items leaving them find nothing to extract from.
    std::vector<TDocDirectory*> dirs;
    std::vector<TDocument*> docs;
    dirs.swap(FChildDirectories);
    docs.swap(FDocuments);
    for (auto it = dirs.rbegin(); it != dirs.rend(); ++it) {
        // A freed child keeps its parent link until its destructor, which reaches the
        // administrator through it to withdraw a waiting child-count notice.
        if ((*it)->RefCount() > 1)
            (*it)->ExtractAsRefCounted();
        else
            FreeItem(*it);
    }
    for (auto it = docs.rbegin(); it != docs.rend(); ++it) {
        if ((*it)->RefCount() > 1) {
            (*it)->ExtractAsRefCounted();
        } else {
            (*it)->FDirectory = nullptr;
            FreeItem(*it);
        }
    }
}

void TDocDirectory::Clear() {
    DetachAndFreeChildren();
    FLoadingState = {};
}

TBaseDocAdmin* TDocDirectory::DocAdmin() {
    TDocDirectoryRoot* root = RootDir();
    return root ? root->GetRootDocAdmin() : nullptr;
}

TDocDirectoryRoot* TDocDirectory::RootDir() {
    TDocDirectory* d = this;
    while (d->FParentDir)
        d = d->FParentDir;
    return dynamic_cast<TDocDirectoryRoot*>(d);
}

void TDocDirectory::LoadChildDirectories() {
    if (TBaseDocAdmin* admin = DocAdmin()) admin->LoadDirectories(this, std::string());
}

void TDocDirectory::CheckChildDirectoriesLoaded() {
    if (FLoadingState.Contains(lsChildDirectoriesLoaded) || FChangeState == chAdded) return;
    TBaseDocAdmin* admin = DocAdmin();
    if (admin && admin->SaveUpdateCount() != 0) return;
    LoadChildDirectories();
}

void TDocDirectory::CheckDocumentsLoaded() {
    if (FLoadingState.Contains(lsDocumentsLoaded) || FChangeState == chAdded) return;
    TBaseDocAdmin* admin = DocAdmin();
    if (!admin || admin->SaveUpdateCount() != 0) return;
    admin->LoadFilesForDirectory({this});
}

std::int32_t TDocDirectory::ChildDirectoryCount() {
    CheckChildDirectoriesLoaded();
    return static_cast<std::int32_t>(FChildDirectories.size());
}

std::int32_t TDocDirectory::DocumentCount() {
    CheckDocumentsLoaded();
    return static_cast<std::int32_t>(FDocuments.size());
}

TDocDirectory* TDocDirectory::GetChildDirectorys(std::int32_t AIndex) {
    CheckChildDirectoriesLoaded();
    if (AIndex < 0 || static_cast<size_t>(AIndex) >= FChildDirectories.size())
        throw EListError("List index out of bounds (" + std::to_string(AIndex) + ")");
    return FChildDirectories[static_cast<size_t>(AIndex)];
}

TDocument* TDocDirectory::GetDocuments(std::int32_t AIndex) {
    CheckDocumentsLoaded();
    if (AIndex < 0 || static_cast<size_t>(AIndex) >= FDocuments.size())
        throw EListError("List index out of bounds (" + std::to_string(AIndex) + ")");
    return FDocuments[static_cast<size_t>(AIndex)];
}

void TDocDirectory::NotifyChildCountChanged(TLoadingState AState) {
    if (TBaseDocAdmin* admin = DocAdmin()) admin->DirectoryChildCountChanged(this, AState);
}

void TDocDirectory::SetTitel(const std::string& ATitle) {
    FTitle = ATitle;
    if (FChangeState != chAdded) SetChangeState(chChanged);
}

std::string TDocDirectory::Plugin() const {
    if (FPlugin.empty() && FParentDir) return FParentDir->Plugin();
    return FPlugin;
}

std::string TDocDirectory::Path() const {
    std::string path;
    for (const TDocDirectory* d = this; d && d->FParentDir; d = d->FParentDir)
        path = "\"" + d->FTitle + "\"" + (path.empty() ? "" : "," + path);
    return path;
}

void TDocDirectory::SetParentDir(TDocDirectory* AParent) {
    if (FParentDir) ExtractFrom(FParentDir->FDetachedChildren, this);
    if (FParentDir && ExtractFrom(FParentDir->FChildDirectories, this))
        FParentDir->NotifyChildCountChanged(lsChildDirectoriesLoaded);
    FParentDir = AParent;
    if (AParent) {
        AParent->FChildDirectories.push_back(this);
        AParent->NotifyChildCountChanged(lsChildDirectoriesLoaded);
    }
}

void TDocDirectory::ResetLoadingState(TLoadingState ALoadingState) {
    FLoadingState.Exclude(ALoadingState);
    for (TDocDirectory* child : FChildDirectories)
        child->ResetLoadingState(ALoadingState);
}

TDocDirectory* TDocDirectory::AddChildDirectory() {
    auto* dir = new TDocDirectory(nullptr);
    dir->SetParentDir(this);
    return dir;
}

TDocument* TDocDirectory::AddDocument() {
    auto* doc = new TDocument();
    doc->SetDirectory(this);
    return doc;
}

TDocDirectory* TDocDirectory::GetDirectoryByID(std::int64_t ADirID) {
    const std::int32_t n = ChildDirectoryCount();
    for (std::int32_t i = n - 1; i >= 0; --i)
        if (FChildDirectories[static_cast<size_t>(i)]->FDirID == ADirID)
            return FChildDirectories[static_cast<size_t>(i)];
    return nullptr;
}

TDocDirectory* TDocDirectory::GetChildDirByTitle(const std::string& DirPath,
                                                 TSortedIntegerList* ASkipList,
                                                 TStringList* ADirList) {
    TStringList own;
    TStringList* segments = ADirList;
    if (!segments) {
        own.StrictDelimiter = true;
        own.SetCommaText(DirPath);
        segments = &own;
    }
    if (segments->Count() == 0) return nullptr;
    const std::string& title = (*segments)[0];
    TDocDirectory* match = nullptr;
    const std::int32_t n = ChildDirectoryCount();
    for (std::int32_t i = 0; i < n && !match; ++i) {
        TDocDirectory* child = FChildDirectories[static_cast<size_t>(i)];
        if (child->FTitle != title) continue;
        if (ASkipList && ASkipList->IndexOf(child->FDirID) >= 0) continue;
        match = child;
    }
    if (!match) return nullptr;
    if (ASkipList) ASkipList->Add(match->FDirID);
    if (segments->Count() < 2) return match;
    segments->Delete(0);
    return match->GetChildDirByTitle(DirPath, ASkipList, segments);
}

void TDocDirectory::CalcSizeAndCount(std::int32_t& DirCount, std::int32_t& FileCount,
                                     std::int32_t& Size, bool IsStartNode,
                                     const TCalcCallBackEvent& CalcCallBack) {
    if (IsStartNode) DirCount = FileCount = Size = 0;
    // Unsigned arithmetic: the counters wrap at 32 bits instead of overflowing.
    auto add = [](std::int32_t& acc, std::uint32_t v) {
        acc = static_cast<std::int32_t>(static_cast<std::uint32_t>(acc) + v);
    };
    const std::int32_t docs = DocumentCount();
    add(FileCount, static_cast<std::uint32_t>(docs));
    for (TDocument* d : FDocuments)
        add(Size, static_cast<std::uint32_t>(d->FSize & 0xFFFFFFFF));
    const std::int32_t dirs = ChildDirectoryCount();
    add(DirCount, static_cast<std::uint32_t>(dirs));
    for (std::int32_t i = 0; i < dirs; ++i)
        FChildDirectories[static_cast<size_t>(i)]->CalcSizeAndCount(DirCount, FileCount, Size,
                                                                    false, CalcCallBack);
    if (CalcCallBack) CalcCallBack(this, DirCount, FileCount, Size);
}

void TDocDirectory::MoveContentTo(TDocDirectory* ADestDir, bool ARespectLoadingState,
                                  bool AMakePersistenChanged) {
    TBaseDocAdmin* own = DocAdmin();
    TBaseDocAdmin* dest = ADestDir->DocAdmin();
    const bool otherAdmin = AMakePersistenChanged && dest && dest != own;
    if (otherAdmin) dest->BeginUpdate();
    if (AMakePersistenChanged && own) own->BeginUpdate();
    if (!ARespectLoadingState) {
        // All content moves, also what hasn't been read yet: stored items left behind would
        // point at a directory that is about to go.
        CheckDocumentsLoaded();
        CheckChildDirectoriesLoaded();
    }
    if (!ARespectLoadingState || FLoadingState.Contains(lsDocumentsLoaded)) {
        for (size_t i = FDocuments.size(); i-- > 0;) {
            TDocument* d = FDocuments[i];
            if (AMakePersistenChanged && d->FChangeState == chNone) d->SetChangeState(chChanged);
            d->SetDirectory(ADestDir);
        }
    }
    if (!ARespectLoadingState || FLoadingState.Contains(lsChildDirectoriesLoaded)) {
        for (size_t i = FChildDirectories.size(); i-- > 0;) {
            TDocDirectory* c = FChildDirectories[i];
            if (AMakePersistenChanged && c->FChangeState == chNone) c->SetChangeState(chChanged);
            c->SetParentDir(ADestDir);
        }
    }
    if (AMakePersistenChanged && own) own->EndUpdate();
    if (otherAdmin) dest->EndUpdate();
}

void TDocDirectory::DeleteDirectory(std::int32_t ADirectoryIndex) {
    TDocDirectory* d = FChildDirectories.at(static_cast<size_t>(ADirectoryIndex));
    FChildDirectories.erase(FChildDirectories.begin() + ADirectoryIndex);
    // A held directory keeps its parent link, so that it can still tell where it was; the
    // parent remembers it, to cut that link should the parent go first.
    if (d->RefCount() >= 2) {
        FDetachedChildren.push_back(d);
        d->_Release();
    } else
        FreeItem(d);
}

void TDocDirectory::DeleteDocument(std::int32_t DocumentIndex) {
    TDocument* d = FDocuments.at(static_cast<size_t>(DocumentIndex));
    FDocuments.erase(FDocuments.begin() + DocumentIndex);
    d->FDirectory = nullptr;
    if (d->RefCount() >= 2)
        d->_Release();
    else
        FreeItem(d);
}

void TDocDirectory::DeleteChildFileObjects(TLoadingStateSet ARemoveSet) {
    if (ARemoveSet.Contains(lsDocumentsLoaded)) {
        for (size_t i = FDocuments.size(); i-- > 0;)
            if (FDocuments[i]->FChangeState != chAdded)
                DeleteDocument(static_cast<std::int32_t>(i));
    }
    if (ARemoveSet.Contains(lsChildDirectoriesLoaded)) {
        for (size_t i = FChildDirectories.size(); i-- > 0;)
            if (FChildDirectories[i]->FChangeState != chAdded)
                DeleteDirectory(static_cast<std::int32_t>(i));
    }
}

bool TDocDirectory::ExtractDocument(std::int32_t ADocumentID, TDocument*& ADocument,
                                    bool AProcessOnlyLoaded) {
    ADocument = nullptr;
    if (!AProcessOnlyLoaded || FLoadingState.Contains(lsDocumentsLoaded)) {
        const std::int32_t n =
            AProcessOnlyLoaded ? static_cast<std::int32_t>(FDocuments.size()) : DocumentCount();
        for (std::int32_t i = 0; i < n; ++i) {
            TDocument* d = FDocuments[static_cast<size_t>(i)];
            if (d->FDocID != ADocumentID) continue;
            FDocuments.erase(FDocuments.begin() + i);
            ADocument = d;
            return true;
        }
    }
    if (!AProcessOnlyLoaded || FLoadingState.Contains(lsChildDirectoriesLoaded)) {
        const std::int32_t n = AProcessOnlyLoaded
                                   ? static_cast<std::int32_t>(FChildDirectories.size())
                                   : ChildDirectoryCount();
        for (std::int32_t i = 0; i < n; ++i)
            if (FChildDirectories[static_cast<size_t>(i)]->ExtractDocument(ADocumentID, ADocument,
                                                                           AProcessOnlyLoaded))
                return true;
    }
    return false;
}

void TDocDirectory::FillDirectoryIDs(TSortedIntegerList& ADest, bool ARespectLoadingState) {
    if (FDirID > 0) ADest.Add(FDirID);
    if (ARespectLoadingState && !FLoadingState.Contains(lsChildDirectoriesLoaded)) return;
    const std::int32_t n = ChildDirectoryCount();
    for (std::int32_t i = 0; i < n; ++i)
        FChildDirectories[static_cast<size_t>(i)]->FillDirectoryIDs(ADest, true);
}

void TDocDirectory::FillDocumentIDs(TSortedIntegerList& ADest, bool ARespectLoadingState) {
    if (!ARespectLoadingState || FLoadingState.Contains(lsDocumentsLoaded)) {
        const std::int32_t n = DocumentCount();
        for (std::int32_t i = 0; i < n; ++i)
            if (FDocuments[static_cast<size_t>(i)]->FDocID > 0)
                ADest.Add(FDocuments[static_cast<size_t>(i)]->FDocID);
    }
    if (ARespectLoadingState && !FLoadingState.Contains(lsChildDirectoriesLoaded)) return;
    const std::int32_t n = ChildDirectoryCount();
    for (std::int32_t i = 0; i < n; ++i)
        FChildDirectories[static_cast<size_t>(i)]->FillDocumentIDs(ADest, true);
}

// IRessource of a directory

std::intptr_t TDocDirectory::Get_Icon(std::int32_t& ASourceDPI) {
    std::intptr_t handle = 0;
    ASourceDPI = 0;
    TBaseDocAdmin* admin = DocAdmin();
    if (admin && admin->OnGetDirectoryIconHandle)
        admin->OnGetDirectoryIconHandle(admin, this, handle, ASourceDPI);
    return handle;
}

TRessourceActions TDocDirectory::Get_SupportedActions() {
    // Writeable: positions 3 to 8; otherwise only 7 and 8.
    return Get_ACLWriteable() ? 504u : 384u;
}

std::int32_t TDocDirectory::Get_ChildCount() {
    return ChildDirectoryCount() + DocumentCount();
}

IPtr<IRessource> TDocDirectory::Get_Child(std::int32_t AIndex) {
    const std::int32_t dirs = ChildDirectoryCount();
    if (AIndex < dirs) return AsIntf<IRessource>(GetChildDirectorys(AIndex));
    return AsIntf<IRessource>(GetDocuments(AIndex - dirs));
}

bool TDocDirectory::Do_ExecuteAction(TRessourceAction AAction, const std::string& AFileName,
                                     const std::string& ACaption, bool AReadOnly,
                                     bool ALoadNonBlocking, IRessourceActionCallBack* ACallBack,
                                     IVTLEventPool* /*ARessourceChangeEvent*/,
                                     TRessourceArchiveMode /*AArchiveMode*/) {
    TBaseDocAdmin* admin = DocAdmin();
    if (!admin || !admin->OnExecuteDirectoryAction) return false;
    admin->OnExecuteDirectoryAction(admin, this, AAction, AFileName, ACaption, AReadOnly,
                                    ALoadNonBlocking, ACallBack);
    return true;
}

IPtr<IRessourceContainer> TDocDirectory::Get_Container() {
    TBaseDocAdmin* admin = DocAdmin();
    return admin ? admin->RessourceContainer() : IPtr<IRessourceContainer>();
}

bool TDocDirectory::Get_ACLWriteable() {
    TBaseDocAdmin* admin = DocAdmin();
    return admin ? admin->GetStoragItemACLWriteable(this) : true;
}

bool TDocDirectory::Do_Move(IRessource* ADest) {
    TDocDirectory* dest = IntfToDirectorySafe(ADest);
    if (!dest || TBaseDocAdmin::GetIsInTree(dest, this)) return false;
    TBaseDocAdmin* admin = DocAdmin();
    if (admin) admin->BeginUpdate();
    SetParentDir(dest);
    SetChangeState(chChanged);
    if (admin) admin->EndUpdate();
    return true;
}

IPtr<IRessource> TDocDirectory::Do_CreateFolderStruct(const std::string& APath) {
    TBaseDocAdmin* admin = DocAdmin();
    if (!admin) return nullptr;
    return AsIntf<IRessource>(admin->CreateFolderStruct(this, APath));
}

std::int64_t TDocDirectory::Get_RecordFlagsMetaID() {
    TBaseDocAdmin* admin = DocAdmin();
    return admin ? admin->DirectoryRecordFlagsMetaID() : -1;
}

// IDirectory

IPtr<IDirectory> TDocDirectory::Get_ParentDir() {
    return AsIntf<IDirectory>(FParentDir);
}

void TDocDirectory::Set_ParentDir(IDirectory* AParent) {
    SetParentDir(IntfToDirectory(AParent));
    if (FChangeState != chAdded) SetChangeState(chChanged);
}

IPtr<IDirectory> TDocDirectory::Get_ChildDirectory(std::int32_t AIndex) {
    return AsIntf<IDirectory>(GetChildDirectorys(AIndex));
}

IPtr<IDocument> TDocDirectory::Get_Document(std::int32_t AIndex) {
    return AsIntf<IDocument>(GetDocuments(AIndex));
}

bool TDocDirectory::Do_Import(const std::string& APath) {
    if (TBaseDocAdmin* admin = DocAdmin()) admin->ImportDirectory(APath, this);
    return true;
}

void TDocDirectory::Do_MoveContentTo(IDirectory* ADest) {
    if (TDocDirectory* dest = IntfToDirectory(ADest)) MoveContentTo(dest, false, true);
}

// ---- TDocDirectoryRoot

TDocDirectoryRoot::TDocDirectoryRoot(TBaseDocAdmin* ADocAdmin)
    : TDocDirectory(nullptr), FDocAdmin(ADocAdmin) {}

void TDocDirectoryRoot::ExtractAsRefCounted() {
    FDocAdmin = nullptr;
    TDocDirectory::ExtractAsRefCounted();
}

void TDocDirectoryRoot::LoadChildDirectories() {
    if (!FDocAdmin || FLoadingRoot) return;
    if (FLoadingState.Contains(lsRootDirectoryLoaded)) {
        if (!FLoadingState.Contains(lsChildDirectoriesLoaded))
            TDocDirectory::LoadChildDirectories();
        return;
    }
    FLoadingRoot = true;
    try {
        LoadRoot();
    } catch (...) {
        FLoadingRoot = false;
        throw;
    }
    FLoadingRoot = false;
    // The folder the path named became the root with the loading state it had; when its
    // children weren't read on the way, read them now, so that the first count is the right one.
    if (!FLoadingState.Contains(lsChildDirectoriesLoaded)) TDocDirectory::LoadChildDirectories();
}

void TDocDirectoryRoot::LoadRoot() {
    TBaseDocAdmin* admin = FDocAdmin;
    admin->NotifyLoadingState(lsRootDirectoriesLoadingStarted);

    FPlugin = admin->Plugin() == GlobalPluginGUID ? std::string() : admin->Plugin();
    FDirID = 0;
    FTitle.clear();
    FLoadingState = {};

    const std::vector<std::string> path = SplitStrictCommaText(admin->RootDirectoryPath());
    int uniqueIndex = -1;
    for (int i = static_cast<int>(path.size()) - 1; i >= 0; --i) {
        const std::string& e = path[static_cast<size_t>(i)];
        if (e.size() == 38 && e.front() == '{' && e.back() == '}') {
            uniqueIndex = i;
            break;
        }
    }
    const std::string uniqueName = uniqueIndex >= 0 ? path[static_cast<size_t>(uniqueIndex)] : "";

    if (!FIsNewUniqueFolder || uniqueIndex < 0)
        admin->LoadDirectories(this, uniqueName);
    else
        SetLoadingState(lsChildDirectoriesLoaded);

    auto newChild = [&](TDocDirectory* parent, const std::string& title) {
        TDocDirectory* d = parent->AddChildDirectory();
        d->SetChangeState(chAdded);
        d->SetTitel(title);
        d->SetCreaDate(Now());
        d->SetCreaID(admin->CurrentUserID());
        d->SetChangeDate(d->CreaDate());
        d->SetChangeID(d->CreaID());
        // Nothing to read for a folder made here.
        d->SetLoadingState(lsDocumentsLoaded);
        d->SetLoadingState(lsChildDirectoriesLoaded);
        return d;
    };

    // A reading administrator creates nothing: a missing level ends the load.
    const bool readOnly = admin->ReadOnly();
    auto notFound = [&](const std::string& ATitle) {
        return EDocAdminFolderNotFound("Folder '" + ATitle + "' not found (path " +
                                       admin->RootDirectoryPath() + ")");
    };

    TDocDirectory* found = nullptr;
    bool added = false;
    if (uniqueIndex > 0 && FChildDirectories.empty()) {
        const std::string& recordRoot = path[static_cast<size_t>(uniqueIndex) - 1];
        if (recordRoot.find("#Records", 1) != std::string::npos) {
            admin->LoadDirectories(this, recordRoot);
            if (!FChildDirectories.empty()) {
                if (readOnly) throw notFound(uniqueName);
                found = newChild(FChildDirectories.front(), uniqueName);
                added = true;
            }
        }
    }

    if (!path.empty()) {
        if (FChildDirectories.empty() && readOnly)
            throw notFound(uniqueIndex >= 0 ? uniqueName : path.front());
        if (FChildDirectories.empty()) {
            admin->LoadDirectories(this, std::string());
            found = admin->CreateFolderStruct(this, admin->RootDirectoryPath());
            admin->SaveChanges();
        } else {
            // Several children are one title found twice, when a unique folder was looked up.
            // Without one the children are the top-level folders, all different: the path is
            // then walked from the root itself. A reader merges them in memory only.
            if (uniqueIndex >= 0 && FChildDirectories.size() >= 2) {
                if (!readOnly) admin->BeginUpdate();
                TDocDirectory* first = FChildDirectories.front();
                for (size_t i = FChildDirectories.size() - 1; i >= 1; --i) {
                    TDocDirectory* other = FChildDirectories[i];
                    other->MoveContentTo(first, false, true);
                    other->SetChangeState(chDeleted);
                }
                if (!readOnly) {
                    admin->EndUpdate();
                    if (!admin->AutoSave()) admin->SaveChanges();
                }
            }
            if (!found) found = uniqueIndex >= 0 ? FChildDirectories.front() : this;
            for (size_t i = static_cast<size_t>(uniqueIndex + 1); i < path.size(); ++i) {
                // Through the lazy accessors: a folder found by title has not read its children.
                TDocDirectory* next = nullptr;
                for (std::int32_t c = 0, n = found->ChildDirectoryCount(); c < n; ++c)
                    if (found->GetChildDirectorys(c)->FTitle == path[i]) {
                        next = found->GetChildDirectorys(c);
                        break;
                    }
                if (!next) {
                    if (readOnly) throw notFound(path[i]);
                    next = newChild(found, path[i]);
                    added = true;
                }
                found = next;
            }
            if (added) admin->SaveChanges();
        }
        if (found && found != this) {
            // The folder found becomes the root: its identity and content move up, the
            // directories between are dropped from memory.
            ExtractFrom(found->FParentDir->FChildDirectories, found);
            found->FParentDir = this;
            Clear();
            FLoadingState = found->FLoadingState;
            FDirID = found->FDirID;
            FTitle = found->FTitle;
            found->MoveContentTo(this, true, false);
            if (found->RefCount() > 1)
                found->ExtractAsRefCounted();
            else
                FreeItem(found);
        }
    }

    SetLoadingState(lsRootDirectoryLoaded);
    admin->NotifyLoadingState(lsRootDirectoriesLoadingFinished);
}

// ---- TDocument

TDocument::~TDocument() {
    if (FNonBlockingActionCallBack) {
        IPtr<IRessourceActionCallBack> cb = std::move(FNonBlockingActionCallBack);
        // A guard reference: a callback that adds and releases one mustn't free us twice.
        ++FRefCount;
        cb->Do_RessourceDestroying(static_cast<IRessource*>(this));
        --FRefCount;
    }
    if (FDirectory) ExtractFrom(FDirectory->FDocuments, this);
}

HRESULT TDocument::QueryInterface(const TGUID& iid, void** obj) {
    if (iid == IDocAdminDownloderCallBack::IID) {
        *obj = static_cast<IDocAdminDownloderCallBack*>(this);
    } else if (iid == IRessource::IID) {
        *obj = static_cast<IRessource*>(this);
    } else if (iid == IDocument::IID) {
        *obj = static_cast<IDocument*>(this);
    } else {
        return TCustomStorageItem::QueryInterface(iid, obj);
    }
    _AddRef();
    return S_OK;
}

void TDocument::ExtractAsRefCounted() {
    TDocDirectory* dir = FDirectory;
    TCustomStorageItem::ExtractAsRefCounted();
    if (dir) ExtractFrom(dir->FDocuments, this);
    FDirectory = nullptr;
}

TBaseDocAdmin* TDocument::DocAdmin() const {
    return FDirectory ? FDirectory->DocAdmin() : nullptr;
}

void TDocument::SetDirectory(TDocDirectory* ADirectory) {
    if (!ADirectory) return;
    if (FDirectory && ExtractFrom(FDirectory->FDocuments, this))
        FDirectory->NotifyChildCountChanged(lsDocumentsLoaded);
    FDirectory = ADirectory;
    ADirectory->FDocuments.push_back(this);
    ADirectory->NotifyChildCountChanged(lsDocumentsLoaded);
}

void TDocument::UpdatedChanged() {
    FChangeDate = Now();
    TBaseDocAdmin* admin = DocAdmin();
    SetChangeID(admin ? admin->CurrentUserID() : 0);
}

void TDocument::SetDocName(const std::string& AName) {
    if (AName == FDocName) return;
    FDocName = AName;
    if (!IsLoading()) UpdatedChanged();
}

void TDocument::SetVersion(const TFileVersion& AVersion) {
    if (IsSameFileVersion(AVersion, FVersion)) return;
    FVersion = AVersion;
    if (IsLoading()) return;
    if (FChangeState != chAdded) SetChangeState(chChanged);
    UpdatedChanged();
}

void TDocument::SetFileHasChanged(bool AValue) {
    if (!FFileHasChanged) {
        FPrevDate = FDate;
        FPrevSize = FSize;
        FPrevVersion = FVersion;
        FPrevChangeDate = FChangeDate;
        FPrevChangeID = FChangeID;
    }
    FFileHasChanged = AValue;
}

void TDocument::Calculate(TDocument* Item, IMainInterface* AMainInterface) {
    // The size is the low 32 bits of the file size, as a 32-bit file API reports it.
    const std::int64_t size = GetFileSize(Item->FLocalFile);
    Item->FSize = size < 0 ? 0 : static_cast<std::int64_t>(static_cast<std::uint32_t>(size));
    if (CompareFileVersion(Item->FVersion, verNULL) != 0) {
        TFileVersion v = GetFileVersion(Item->FLocalFile);
        if (IsSameFileVersion(v, verNULL)) v = verFIRST;
        Item->SetVersion(v);
    }
    if (Item->FChangeState == chAdded) {
        Item->FCreaDate = Now();
        IUserAccess* ua = AMainInterface ? AMainInterface->GetUserAccess() : nullptr;
        Item->SetCreaID(ua ? ua->GetUserID() : 0);
        Item->FChangeDate = Item->FCreaDate;
        Item->SetChangeID(Item->FCreaID);
    }
    Item->FDate = GetFileDate(Item->FLocalFile);
}

void TDocument::DownloadDone(const std::string& DestFileName) {
    if (!FNonBlockingActionCallBack) return;
    IPtr<IRessourceActionCallBack> cb = std::move(FNonBlockingActionCallBack);
    cb->Do_ActionDone(static_cast<IRessource*>(this), raSaveCopy, DestFileName);
}

void TDocument::DownloadFailed(const std::string& DestFileName, const std::string& ErrorMessage) {
    if (!FNonBlockingActionCallBack) return;
    IPtr<IRessourceActionCallBack> cb = std::move(FNonBlockingActionCallBack);
    cb->Do_ActionFailed(static_cast<IRessource*>(this), raSaveCopy, DestFileName, ErrorMessage);
}

std::string TDocument::Get_Caption() {
    const std::string ext = ExtractFileExt(FDocName);
    return FDocName.substr(0, FDocName.size() - ext.size());
}

std::intptr_t TDocument::Get_Icon(std::int32_t& ASourceDPI) {
    std::intptr_t handle = 0;
    ASourceDPI = 0;
    TBaseDocAdmin* admin = DocAdmin();
    if (admin && admin->OnGetDocumentIconHandle)
        admin->OnGetDocumentIconHandle(admin, this, handle, ASourceDPI);
    return handle;
}

TRessourceActions TDocument::Get_SupportedActions() {
    TRessourceActions r = 131u | 112u;  // positions 0, 1, 7 and 4, 5, 6
    if (Get_ACLWriteable()) {
        r |= 8u;                                       // position 3
        if (!(FDocumentTags & dtReadOnly)) r |= 516u;  // positions 2 and 9
    }
    TBaseDocAdmin* admin = DocAdmin();
    if (admin && admin->RecordFlagsPlugin()) r |= 256u;  // position 8
    return r;
}

IPtr<IRessource> TDocument::Get_Child(std::int32_t /*AIndex*/) {
    Assert(false, "TDocument has no children");
    return nullptr;
}

bool TDocument::Do_ExecuteAction(TRessourceAction AAction, const std::string& AFileName,
                                 const std::string& ACaption, bool AReadOnly, bool ALoadNonBlocking,
                                 IRessourceActionCallBack* ACallBack,
                                 IVTLEventPool* ARessourceChangeEvent,
                                 TRessourceArchiveMode AArchiveMode) {
    if (AAction == raAddDirectory || AAction == raImportDirectory || AAction == raAddDocument)
        return FDirectory && FDirectory->Do_ExecuteAction(AAction, AFileName, ACaption, AReadOnly,
                                                          ALoadNonBlocking, ACallBack,
                                                          ARessourceChangeEvent, AArchiveMode);
    TBaseDocAdmin* admin = DocAdmin();
    if (!admin || !admin->OnExecuteDocumentAction) return false;
    admin->OnExecuteDocumentAction(admin, this, AAction, AFileName, ACaption, AReadOnly,
                                   ALoadNonBlocking, ACallBack, ARessourceChangeEvent,
                                   AArchiveMode);
    return true;
}

IPtr<IRessourceContainer> TDocument::Get_Container() {
    TBaseDocAdmin* admin = DocAdmin();
    return admin ? admin->RessourceContainer() : IPtr<IRessourceContainer>();
}

bool TDocument::Get_ACLWriteable() {
    TBaseDocAdmin* admin = DocAdmin();
    return admin ? admin->GetStoragItemACLWriteable(this) : true;
}

bool TDocument::Do_Move(IRessource* ADest) {
    TDocDirectory* dest = IntfToDirectorySafe(ADest);
    TBaseDocAdmin* admin = DocAdmin();
    if (!dest && admin) dest = admin->Directories();
    if (!dest) return false;
    if (admin) admin->BeginUpdate();
    SetDirectory(dest);
    SetChangeState(chChanged);
    if (admin) admin->EndUpdate();
    return true;
}

void TDocument::Do_CancelAction(bool ACancel) {
    if (ACancel) FNonBlockingActionCallBack.reset();
}

std::int64_t TDocument::Get_RecordFlagsMetaID() {
    TBaseDocAdmin* admin = DocAdmin();
    return admin ? admin->DocumentRecordFlagsMetaID() : -1;
}

TRessourceAction TDocument::Get_DefaultAction() {
    if (!Get_ACLWriteable() || (FDocumentTags & dtReadOnly)) return raView;
    std::string ext = ExtractFileExt(FDocName);
    for (char& c : ext)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    static const char* const viewOnly[] = {".PDF",   ".JPG",  ".JPEG", ".PNG", ".BMP",
                                           ".KRMSG", ".TIFF", ".MSG",  ".EML"};
    for (const char* v : viewOnly)
        if (ext == v) return raView;
    return raEditMonitored;
}

IPtr<IDirectory> TDocument::Get_Directory() {
    return AsIntf<IDirectory>(FDirectory);
}

void TDocument::Set_Directory(IDirectory* ADirectory) {
    SetDirectory(IntfToDirectory(ADirectory));
    if (FChangeState != chAdded) SetChangeState(chChanged);
}

void TDocument::Set_Version(const std::string& AVersion) {
    SetVersion(StrToFileVersion(AVersion, 4));
}

bool TDocument::Do_Download(const std::string& ADestFile) {
    TBaseDocAdmin* admin = DocAdmin();
    if (!admin) throw EDocAdminException("Document '" + FDocName + "' has no administrator");
    admin->DownloadFile(this, ADestFile, false, nullptr);
    return true;
}

void TDocument::Do_Replace(const std::string& AFileName, bool AChangeFileName) {
    const TChangeState prev = FChangeState;
    if (AChangeFileName) SetDocName(AFileName);
    FLocalFile = AFileName;
    SetFileHasChanged(true);
    FDate = GetFileDate(AFileName);
    FSize = std::max<std::int64_t>(0, GetFileSize(AFileName));
    SetVersion(FVersion.Increment());
    UpdatedChanged();
    if (prev != chAdded) {
        SetChangeState(chChanged);
        TBaseDocAdmin* admin = DocAdmin();
        if (admin && admin->OnChangeDocumentState) admin->OnChangeDocumentState(admin, this, prev);
    }
}

}  // namespace docadmin
