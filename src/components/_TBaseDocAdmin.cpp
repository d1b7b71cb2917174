#include "_TBaseDocAdmin.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <set>

namespace docadmin {

namespace fs = std::filesystem;

namespace {

// Frees an item that has left its list; a held one lives on detached.
void DropItem(TCustomStorageItem* AItem) {
    if (AItem->RefCount() > 1)
        AItem->ExtractAsRefCounted();
    else
        TCustomStorageItem::FreeItem(AItem);
}

bool HasChangesBelow(TDocDirectory* ADir) {
    for (TDocDirectory* child : ADir->ChildDirectoriesInMemory())
        if (child->ChangeState() != chNone || HasChangesBelow(child)) return true;
    for (TDocument* doc : ADir->DocumentsInMemory())
        if (doc->ChangeState() != chNone) return true;
    return false;
}

}  // namespace

TBaseDocAdmin::TBaseDocAdmin(TComponent* AOwner) : TComponent(AOwner) {
    FDirectories = new TDocDirectoryRoot(this);
}

TBaseDocAdmin::~TBaseDocAdmin() {
    FChildDirectoryChildCountChangedPendingList.clear();
    if (FDirectories->RefCount() >= 2) {
        FDirectories->ExtractAsRefCounted();
    } else {
        FDirectories->DetachFromDocAdmin();
        TCustomStorageItem::FreeItem(FDirectories);
    }
    FDirectories = nullptr;
    delete FDocFileLoader;
    FActiveRecordFlagIDs.reset();
    FSQLFilters.reset();
}

HRESULT TBaseDocAdmin::QueryInterface(const TGUID& iid, void** obj) {
    if (iid == IInterface::IID || iid == IPluginContextObject::IID) {
        *obj = static_cast<IPluginContextObject*>(this);
        return S_OK;
    }
    *obj = nullptr;
    return E_NOINTERFACE;
}

std::string TBaseDocAdmin::GetDocumentFileInfo(std::int32_t /*ADocumentID*/, std::string& ADocName,
                                               TDateTime& ADate, bool /*AGenerateIfEmpty*/) {
    ADocName.clear();
    ADate = MinDateTime;
    return {};
}

bool TBaseDocAdmin::UpdateDocumentWithID(TComponent* /*AOwner*/, std::int64_t /*ADocumentID*/,
                                         const std::string& /*ASourceFileName*/,
                                         TBaseDocFileLoader* /*ADocFileLoader*/,
                                         bool /*AddToArchive*/, bool /*AChangeFileName*/) {
    throw Exception("Abstract Error");
}

void TBaseDocAdmin::SetDocFileLoader(TBaseDocFileLoader* v) {
    if (v == FDocFileLoader) return;
    delete FDocFileLoader;
    FDocFileLoader = v;
}

// ---- Updates

void TBaseDocAdmin::BeginUpdate() {
    ++FUpdateCount;
    // The root loads before the first change below it.
    if (FUpdateCount == 1 && !FRootDirectoryPath.empty()) FDirectories->ChildDirectoryCount();
}

void TBaseDocAdmin::EndUpdate() {
    --FUpdateCount;
    EndUpdateStep();
}

void TBaseDocAdmin::EndUpdateStep() {
    if (FUpdateCount != 0) return;
    if (FAutoSave) SaveChanges();
    if (OnDirectoryChildCountChanged) {
        // By index: a handler may free a directory, which withdraws it from the list.
        auto& pending = FChildDirectoryChildCountChangedPendingList;
        for (size_t i = 0; i < pending.size(); ++i)
            OnDirectoryChildCountChanged(this, pending[i]);
        pending.clear();
    }
    // Raised around OnChanged, so that a handler's own update doesn't come back here.
    ++FUpdateCount;
    TFinally lower{[this] { --FUpdateCount; }};
    if (OnChanged) OnChanged(this);
}

void TBaseDocAdmin::SaveChanges() {
    ++FUpdateCount;
    ++FSaveUpdateCount;
    TFinally lower{[this] {
        --FSaveUpdateCount;
        --FUpdateCount;
    }};
    if (DoSaveChanges() && OnSaved) OnSaved(this);
}

void TBaseDocAdmin::DirectoryChildCountChanged(TDocDirectory* ADirectory,
                                               TLoadingState ALoadingState) {
    if (!OnDirectoryChildCountChanged || !ADirectory->LoadingState().Contains(ALoadingState))
        return;
    if (FUpdateCount > 0)
        FChildDirectoryChildCountChangedPendingList.push_back(ADirectory);
    else
        OnDirectoryChildCountChanged(this, ADirectory);
}

void TBaseDocAdmin::RemoveFromPendingList(TDocDirectory* ADirectory) {
    auto& pending = FChildDirectoryChildCountChangedPendingList;
    std::erase(pending, ADirectory);
}

void TBaseDocAdmin::NotifyLoadingState(TLoadingStateNotification AState) {
    if (AState == lsRootDirectoriesLoadingFinished) {
        // The table names are crossed on purpose: documents' ACLs steer directories and the
        // other way round, as the stored rights expect.
        FHasACLOnDirectories =
            FUserAccess && FUserAccess->GetACLTableController("docadmindocs") != nullptr;
        FHasACLOnDocuments =
            FUserAccess && FUserAccess->GetACLTableController("docadmindir") != nullptr;
    }
    if (OnLoadingState) OnLoadingState(this, AState);
}

// ---- Access

std::int32_t TBaseDocAdmin::CurrentUserID() {
    if (FUserAccess) return FUserAccess->GetUserID();
    IUserAccess* ua = FMainInterface ? FMainInterface->GetUserAccess() : nullptr;
    return ua ? ua->GetUserID() : 0;
}

std::int64_t TBaseDocAdmin::GetStoragItemACLGroup(TCustomStorageItem* AItem) {
    ICurrentUser* user = FMainInterface ? FMainInterface->GetCurrentUser() : nullptr;
    if (AItem->ACLGroupID() < 0 && user) return user->GetDefaultACLGroup();
    return AItem->ACLGroupID();
}

bool TBaseDocAdmin::GetStoragItemACLWriteable(TCustomStorageItem* AItem) {
    if (!FUserAccess) return true;
    if (!AItem) return !FUserAccess->IsReadOnly();
    auto* dir = dynamic_cast<TDocDirectory*>(AItem);
    auto* doc = dynamic_cast<TDocument*>(AItem);
    if ((FHasACLOnDirectories && dir) || (FHasACLOnDocuments && doc)) {
        if (FUserAccess->IsReadOnly()) return false;
        const std::int32_t mode = FUserAccess->GetGroupAccessMode(GetStoragItemACLGroup(AItem));
        bool result = mode == 0 || mode == 2;
        if (result && FHasACLOnDirectories)
            result = GetStoragItemACLWriteable(
                doc ? static_cast<TCustomStorageItem*>(doc->Directory()) : dir->ParentDir());
        return result;
    }
    return !FUserAccess->IsReadOnly();
}

void TBaseDocAdmin::CheckStoragItemACLWriteable(TCustomStorageItem* AItem) {
    if (!GetStoragItemACLWriteable(AItem))
        throw EDocAdminNoWriteAccessError("No write access to '" +
                                          (AItem ? AItem->DisplayName() : std::string()) + "'!");
}

std::int64_t TBaseDocAdmin::DocumentRecordFlagsMetaID() {
    if (FDocumentRecordFlagsMetaID == -1 && FRecordFlagsPlugin && FRecordFlagsPlugin->Available())
        if (auto p = FRecordFlagsPlugin->GetPlugin("docadmindocs"))
            FDocumentRecordFlagsMetaID = p->Get_MetaID();
    return FDocumentRecordFlagsMetaID;
}

std::int64_t TBaseDocAdmin::DirectoryRecordFlagsMetaID() {
    if (FDirectoryRecordFlagsMetaID == -1 && FRecordFlagsPlugin && FRecordFlagsPlugin->Available())
        if (auto p = FRecordFlagsPlugin->GetPlugin("docadmindir"))
            FDirectoryRecordFlagsMetaID = p->Get_MetaID();
    return FDirectoryRecordFlagsMetaID;
}

void TBaseDocAdmin::SetActiveRecordFlagTypes(TRecordFlagTypes v) {
    if (v == FActiveRecordFlagTypes) return;
    FActiveRecordFlagTypes = v;
    FActiveRecordFlagIDs.reset();
}

TVTLSQLParser* TBaseDocAdmin::SQLFilters() {
    if (!FSQLFilters) FSQLFilters = std::make_unique<TVTLSQLParser>();
    return FSQLFilters.get();
}

IPtr<IRessourceContainer> TBaseDocAdmin::RessourceContainer() {
    if (OnGetRessourceContainer) {
        IPtr<IRessourceContainer> r;
        OnGetRessourceContainer(this, r);
        return r;
    }
    return FRessourceContainer;
}

// ---- Operations

TDocDirectory* TBaseDocAdmin::NewDirectoryIn(TDocDirectory* AParent, const std::string& ATitle) {
    TDocDirectory* d = AParent->AddChildDirectory();
    d->SetChangeState(chAdded);
    d->SetTitel(ATitle);
    d->SetCreaDate(Now());
    d->SetCreaID(CurrentUserID());
    d->SetChangeDate(d->CreaDate());
    d->SetChangeID(d->CreaID());
    return d;
}

TDocument* TBaseDocAdmin::SaveDoc(TDocument* ADocument, TChangeState Mode,
                                  const std::string& LocalFileName, TDocDirectory* DestDir,
                                  const std::string& AFileName, TDocAdminDocTags ADocumentTags) {
    if (Mode != chAdded) CheckStoragItemACLWriteable(ADocument);
    BeginUpdate();
    std::error_code ec;
    if (!fs::exists(LocalFileName, ec))
        throw EFOpenError("File '" + LocalFileName + "' not found!");
    TDocument* doc = ADocument;
    if (Mode == chAdded) {
        doc = FDirectories->AddDocument();
        if (DestDir) doc->SetDirectory(DestDir);
        doc->SetDocName(AFileName.empty() ? LocalFileName : AFileName);
        doc->SetLocalFile(LocalFileName);
        doc->SetDocumentTags(ADocumentTags);
    } else if (!doc) {
        throw Exception("No document to save!");
    }
    if (doc->ChangeState() != chAdded) doc->SetChangeState(Mode);
    TDocument::Calculate(doc, FMainInterface.get());
    // At the depth of this bracket the step does nothing; the one of EndUpdate saves.
    EndUpdateStep();
    EndUpdate();
    return doc;
}

void TBaseDocAdmin::ReplaceFile(TDocument* ADocument, const std::string& LocalSourceFile,
                                bool ChangeFileName, TRessourceArchiveMode AArchiveMode) {
    CheckStoragItemACLWriteable(ADocument);
    BeginUpdate();
    const TChangeState prev = ADocument->ChangeState();
    if (ChangeFileName) ADocument->SetDocName(LocalSourceFile);
    ADocument->SetLocalFile(LocalSourceFile);
    ADocument->SetFileHasChanged(true);
    ADocument->SetArchiveMode(AArchiveMode);
    ADocument->SetDate(GetFileDate(LocalSourceFile));
    ADocument->SetSize(std::max<std::int64_t>(0, GetFileSize(LocalSourceFile)));
    ADocument->SetVersion(ADocument->Version().Increment());
    ADocument->UpdatedChanged();
    if (prev != chAdded) {
        ADocument->SetChangeState(chChanged);
        if (OnChangeDocumentState) OnChangeDocumentState(this, ADocument, prev);
    }
    EndUpdate();
}

void TBaseDocAdmin::ReplaceFile(std::int64_t ADocumentID, const std::string& LocalSourceFile,
                                bool ChangeFileName, TRessourceArchiveMode AArchiveMode) {
    if (!UpdateDocumentWithID(this, ADocumentID, LocalSourceFile, FDocFileLoader,
                              AArchiveMode != ramNoArchive, ChangeFileName))
        throw EDocAdminFileNotFoundInRepository("File with ID '" + std::to_string(ADocumentID) +
                                                "' not found in repository!");
}

void TBaseDocAdmin::DownloadFile(TDocument* ADocument, const std::string& LocalDestFile,
                                 bool ALoadNonBlocking, IRessourceActionCallBack* ACallBack) {
    IRessource* res = static_cast<IRessource*>(ADocument);
    if (ADocument->DocID() < 1) {
        // Not stored yet: the file is still where its name points.
        std::error_code ec;
        fs::copy_file(ADocument->DocName(), LocalDestFile, fs::copy_options::overwrite_existing,
                      ec);
        if (ec) {
            const std::string msg = "Faild to copy file '" + ADocument->DocName() + "' to file '" +
                                    LocalDestFile + "'!";
            if (!ALoadNonBlocking) throw EDocAdminException(msg);
            if (ACallBack) ACallBack->Do_ActionFailed(res, raSaveCopy, LocalDestFile, msg);
        } else if (ALoadNonBlocking && ACallBack) {
            ACallBack->Do_ActionDone(res, raSaveCopy, LocalDestFile);
        }
        return;
    }
    if (ALoadNonBlocking) {
        Assert(FDocFileLoader != nullptr, "TBaseDocAdmin.DownloadFile: no file store");
        ADocument->SetNonBlockingActionCallBack(ACallBack);
        FDocFileLoader->DownloadFileNonBlocked(ADocument->RemoteFileName(), LocalDestFile,
                                               static_cast<IDocAdminDownloderCallBack*>(ADocument));
        return;
    }
    // A loaded size names the stored content unless a replacement waits for the next save.
    const std::int64_t expected =
        ADocument->FileHasChanged() || ADocument->Size() <= 0 ? -1 : ADocument->Size();
    DownloadRemoteFile(ADocument->RemoteFileName(), LocalDestFile, ADocument->CreaDate(), expected);
}

void TBaseDocAdmin::DownloadFile(std::int32_t ADocumentID, const std::string& LocalDestFile,
                                 std::string& FileName) {
    FileName.clear();
    TDateTime date = MinDateTime;
    const std::string remote = GetDocumentFileInfo(ADocumentID, FileName, date, false);
    if (remote.empty()) {
        FileName.clear();
        throw EDocAdminFileNotFoundInRepository("File with ID '" + std::to_string(ADocumentID) +
                                                "' not found in repository!");
    }
    DownloadRemoteFile(remote, LocalDestFile, date, GetDocumentFileSize(ADocumentID));
}

void TBaseDocAdmin::DownloadRemoteFile(const std::string& RemoteFile,
                                       const std::string& LocalDestFile, TDateTime AFileCreaDate,
                                       std::int64_t AExpectedSize) {
    Assert(FDocFileLoader != nullptr, "TBaseDocAdmin.DownloadRemoteFile: no file store");
    if (OnDownloadDocument) OnDownloadDocument(this, LocalDestFile);
    FDocFileLoader->DownloadFileOfSize(RemoteFile, LocalDestFile, AExpectedSize);
    if (AFileCreaDate > MinDateTime)
        SetFileDateTime(LocalDestFile, AFileCreaDate, AFileCreaDate, AFileCreaDate);
    if (OnDownloadDocumentDone) OnDownloadDocumentDone(this);
}

void TBaseDocAdmin::DeleteDocument(TDocument* ADocument) {
    CheckStoragItemACLWriteable(ADocument);
    BeginUpdate();
    const TChangeState prev = ADocument->ChangeState();
    ADocument->SetChangeState(chDeleted);
    if (OnChangeDocumentState) OnChangeDocumentState(this, ADocument, prev);
    EndUpdate();
}

void TBaseDocAdmin::DeleteDocument(std::int32_t ADocumentID) {
    std::string name;
    TDateTime date = MinDateTime;
    const std::string remote = GetDocumentFileInfo(ADocumentID, name, date, false);
    if (remote.empty())
        throw EDocAdminFileNotFoundInRepository("File with ID '" + std::to_string(ADocumentID) +
                                                "' not found in repository!");
    Assert(FDocFileLoader != nullptr, "TBaseDocAdmin.DeleteDocument: no file store");
    // The row goes first, and only while it names the file just read; the file follows once the
    // row's removal is committed, so that a failure leaves a file without a row, never a row
    // without its file.
    if (DeleteDocumentRowOf(ADocumentID, remote) == 0)
        throw ChangedByOtherUser(ADocumentID, name, "nothing was deleted.");
    QueueFileRemoval(ADocumentID, remote, name);
    TDocument* doc = nullptr;
    if (FDirectories->ExtractDocument(ADocumentID, doc, true) && doc) {
        TFinally drop{[doc] { DropItem(doc); }};
        if (OnDeleteDocument) OnDeleteDocument(this, doc);
    }
    if (FDBATransactionID == 0) RemovePendingFiles();
}

EDocAdminChangedByOtherUser TBaseDocAdmin::ChangedByOtherUser(std::int64_t ADocumentID,
                                                              const std::string& AName,
                                                              const std::string& AOutcome) {
    return EDocAdminChangedByOtherUser("Document " + std::to_string(ADocumentID) + " ('" + AName +
                                       "') was changed or removed by another user meanwhile; " +
                                       AOutcome);
}

void TBaseDocAdmin::QueueFileRemoval(std::int32_t ADocumentID, const std::string& ARemoteFile,
                                     const std::string& ADocName) {
    if (!ARemoteFile.empty()) FPendingRemovals.push_back({ADocumentID, ARemoteFile, ADocName});
}

void TBaseDocAdmin::RemovePendingFiles() {
    std::vector<TPendingRemoval> pending;
    pending.swap(FPendingRemovals);
    std::string failures;
    for (const TPendingRemoval& p : pending) {
        try {
            // An archived version, or another row made by a concurrent change, may still name it.
            if (IsRemoteFileReferenced(p.Remote)) continue;
            FDocFileLoader->RemoveFile(p.Remote, p.DocName);
        } catch (const EFileNotFoundInRepositoryException&) {
            // Already gone: what the removal wanted.
        } catch (const std::exception& e) {
            failures += "\n  document " + std::to_string(p.DocID) + " ('" + p.DocName +
                        "'), stored file " + p.Remote + ": " + e.what();
        }
    }
    if (!failures.empty())
        throw EDocAdminException(
            "The database rows are changed, but stored files that they no "
            "longer name could not be removed:" +
            failures);
}

void TBaseDocAdmin::DeleteDirectory(TDocDirectory* ADirectory) {
    CheckStoragItemACLWriteable(ADirectory);
    BeginUpdate();
    for (std::int32_t i = ADirectory->DocumentCount() - 1; i >= 0; --i)
        DeleteDocument(ADirectory->GetDocuments(i));
    for (std::int32_t i = ADirectory->ChildDirectoryCount() - 1; i >= 0; --i)
        DeleteDirectory(ADirectory->GetChildDirectorys(i));
    ADirectory->SetChangeState(chDeleted);
    if (OnChangeDirectoryState) OnChangeDirectoryState(this, ADirectory);
    EndUpdate();
}

TDocDirectory* TBaseDocAdmin::AddDirectory(TDocDirectory* ParentDir, const std::string& DirName) {
    BeginUpdate();
    TDocDirectory* d = NewDirectoryIn(ParentDir ? ParentDir : FDirectories, DirName);
    // Nothing to load for a directory that doesn't exist anywhere else yet.
    d->SetLoadingState(lsDocumentsLoaded);
    d->SetLoadingState(lsChildDirectoriesLoaded);
    EndUpdate();
    return d;
}

void TBaseDocAdmin::SetSubStatesForDir(TDocDirectory* ADirectory, TChangeState AState) {
    ADirectory->SetChangeState(AState);
    if (OnChangeDirectoryState) OnChangeDirectoryState(this, ADirectory);
    const std::int32_t docs = ADirectory->DocumentCount();
    for (std::int32_t i = 0; i < docs; ++i) {
        TDocument* doc = ADirectory->GetDocuments(i);
        const TChangeState prev = doc->ChangeState();
        doc->SetChangeState(AState);
        if (OnChangeDocumentState) OnChangeDocumentState(this, doc, prev);
    }
    const std::int32_t dirs = ADirectory->ChildDirectoryCount();
    for (std::int32_t i = 0; i < dirs; ++i)
        SetSubStatesForDir(ADirectory->GetChildDirectorys(i), AState);
}

bool TBaseDocAdmin::GetIsInTree(TDocDirectory* ADir, TDocDirectory* BaseDirectory) {
    if (!BaseDirectory) return true;
    for (TDocDirectory* d = ADir; d; d = d->ParentDir())
        if (d == BaseDirectory) return true;
    return false;
}

void TBaseDocAdmin::Clear() {
    FDirectories->Clear();
    FHasACLOnDirectories = false;
    FHasACLOnDocuments = false;
    EndUpdateStep();
}

bool TBaseDocAdmin::HasChanges() {
    return HasChangesBelow(FDirectories);
}

// ---- Folders

TDocDirectory* TBaseDocAdmin::CreateFolderStruct(TDocDirectory* BaseDir,
                                                 const std::string& DirPath) {
    TDocDirectory* current = BaseDir ? BaseDir : FDirectories;
    BeginUpdate();
    for (const std::string& title : SplitStrictCommaText(DirPath)) {
        TDocDirectory* next = nullptr;
        const std::int32_t n = current->ChildDirectoryCount();
        for (std::int32_t i = 0; i < n && !next; ++i)
            if (current->GetChildDirectorys(i)->Titel() == title)
                next = current->GetChildDirectorys(i);
        current = next ? next : NewDirectoryIn(current, title);
    }
    EndUpdate();
    return current;
}

std::vector<std::string> TBaseDocAdmin::ParseFolderPath(const std::string& APath) {
    std::vector<std::string> titles = ParseStrictCommaText(APath);
    for (const std::string& t : titles) {
        auto refuse = [&](const std::string& AWhy) {
            throw EDocAdminException("Folder path '" + APath + "': " + AWhy);
        };
        if (t.empty()) refuse("a folder name is empty");
        if (t == "." || t == "..") refuse("'" + t + "' is no folder name");
        if (t.find_first_of("/\\") != std::string::npos)
            refuse("the folder name '" + t + "' holds a path separator");
        if (!IsValidUtf8(t)) refuse("a folder name isn't valid UTF-8");
        for (char c : t)
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
                refuse("a folder name holds a control character");
    }
    return titles;
}

// ---- Import

namespace {

std::string ErrnoText() {
    return std::strerror(errno);
}

// The names in an open folder, sorted, without "." and "..".
std::vector<std::string> FolderNames(const TDirHandle& AFolder, const std::string& APath) {
    TDirHandle own = AFolder.Duplicate();  // closedir closes the descriptor it was given
    DIR* d = ::fdopendir(own.Handle());
    if (!d) throw EInOutError("Cannot read folder '" + APath + "': " + ErrnoText());
    static_cast<void>(own.Release());
    TFinally close{[d] { ::closedir(d); }};
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* e = ::readdir(d)) {
        const std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
        errno = 0;
    }
    if (errno != 0) throw EInOutError("Cannot read folder '" + APath + "': " + ErrnoText());
    std::sort(names.begin(), names.end());
    return names;
}

// The absolute path of what a descriptor is open on; empty where the system doesn't say.
std::string PathOfHandle(int AHandle) {
    std::string buf(65536, '\0');
    const std::string link = "/proc/self/fd/" + std::to_string(AHandle);
    const ssize_t n = ::readlink(link.c_str(), buf.data(), buf.size());
    if (n <= 0 || static_cast<size_t>(n) >= buf.size()) return {};
    buf.resize(static_cast<size_t>(n));
    return buf;
}

std::string KindOfEntry(mode_t AMode) {
    if (S_ISFIFO(AMode)) return "named pipe";
    if (S_ISSOCK(AMode)) return "socket";
    if (S_ISCHR(AMode)) return "character device";
    if (S_ISBLK(AMode)) return "block device";
    return "neither file nor folder";
}

}  // namespace

struct TBaseDocAdmin::TImportWalk {
    std::string RootPath;  // the imported folder's own path, for the links' targets
    std::set<std::pair<dev_t, ino_t>> Folders;  // taken in already
};

void TBaseDocAdmin::ImportDirectory(const std::string& DirName, TDocDirectory* ParentDir) {
    BeginUpdate();
    TDocDirectory* parent = ParentDir ? ParentDir : FDirectories;
    std::error_code ec;
    if (fs::is_directory(DirName, ec)) {
        std::string path = DirName;
        while (path.size() > 1 && path.back() == '/')
            path.pop_back();
        TDirHandle folder = TDirHandle::Open(path);
        TImportWalk walk;
        walk.RootPath = PathOfHandle(folder.Handle());
        ImportFolderAt(folder, path, ExtractDirName(path), parent, walk);
    }
    EndUpdate();
}

void TBaseDocAdmin::ImportFolderAt(const TDirHandle& AFolder, const std::string& APath,
                                   const std::string& ANameBytes, TDocDirectory* AParent,
                                   TImportWalk& AWalk) {
    if (OnDownloadDocument) OnDownloadDocument(this, APath);
    struct stat self {};
    if (::fstat(AFolder.Handle(), &self) == 0) AWalk.Folders.insert({self.st_dev, self.st_ino});
    const std::string title = NameFromFileSystem(ANameBytes);
    TDocDirectory* dir = nullptr;
    const std::int32_t n = AParent->ChildDirectoryCount();
    for (std::int32_t i = 0; i < n && !dir; ++i)
        if (AParent->GetChildDirectorys(i)->Titel() == title) dir = AParent->GetChildDirectorys(i);
    if (!dir) {
        dir = NewDirectoryIn(AParent, title);
        dir->SetLoadingState(lsDocumentsLoaded);
        dir->SetLoadingState(lsChildDirectoriesLoaded);
    }
    auto skip = [this](const std::string& APathOfEntry, const std::string& AReason) {
        if (OnImportSkipped) OnImportSkipped(this, APathOfEntry, AReason);
    };
    const std::string base = IncludeTrailingDirSeparator(APath);
    bool held = false;  // this folder is kept open for files the store reads through it
    for (const std::string& name : FolderNames(AFolder, APath)) {
        const std::string path = base + name;
        struct stat st {};
        if (::fstatat(AFolder.Handle(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            throw EInOutError("Cannot read '" + path + "': " + ErrnoText());
        const bool link = S_ISLNK(st.st_mode);
        if (link) {
            if (!FImportFollowLinks) {
                skip(path, "symbolic link, not followed");
                continue;
            }
            const int target = ::openat(AFolder.Handle(), name.c_str(), O_PATH | O_CLOEXEC);
            if (target < 0) {
                skip(path, "symbolic link to nothing that can be opened (" + ErrnoText() + ")");
                continue;
            }
            const std::string where = PathOfHandle(target);
            const bool statted = ::fstat(target, &st) == 0;
            ::close(target);
            const bool inside = !where.empty() && !AWalk.RootPath.empty() &&
                                (where == AWalk.RootPath ||
                                 where.starts_with(IncludeTrailingDirSeparator(AWalk.RootPath)));
            if (!statted || !inside) {
                skip(path, "symbolic link to '" + where + "' outside the imported folder");
                continue;
            }
        }
        if (S_ISREG(st.st_mode)) {
            std::string local = path;
            if (path.size() >= PATH_MAX) {
                // Too long for the store to open by path: it reads through this folder's
                // descriptor, which stays open as long as the administrator.
                if (!held) {
                    FImportHandles.push_back(AFolder.Duplicate());
                    held = true;
                }
                local = FImportHandles.back().EntryPath(name);
                if (local.empty())
                    throw EInOutError("Cannot import '" + path +
                                      "': the path is longer than the system allows");
            }
            SaveDoc(nullptr, chAdded, local, dir, base + NameFromFileSystem(name), 0);
        } else if (S_ISDIR(st.st_mode)) {
            if (AWalk.Folders.contains({st.st_dev, st.st_ino})) {
                skip(path, "folder taken in already through another path (a link loop?)");
                continue;
            }
            TDirHandle child;
            if (link) {
                const int fd =
                    ::openat(AFolder.Handle(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
                if (fd < 0) throw EInOutError("Cannot open folder '" + path + "': " + ErrnoText());
                child = TDirHandle::Adopt(fd);
            } else {
                child = AFolder.OpenChild(name, false, path);
            }
            ImportFolderAt(child, path, name, dir, AWalk);
        } else {
            skip(path, KindOfEntry(st.st_mode));
        }
    }
    if (OnDownloadDocumentDone) OnDownloadDocumentDone(this);
}

// ---- Export

// A folder on disk that export writes into; it is made and opened with its first file.
struct TBaseDocAdmin::TExportFolder {
    TExportFolder* Parent = nullptr;  // nullptr: Path is the destination itself
    std::string Name;                 // the entry in Parent
    std::string Path;                 // for messages
    TDirHandle Handle;

    const TDirHandle& Open() {
        if (Handle.IsOpen()) return Handle;
        if (!Parent) {
            ForceDirectories(Path);
            Handle = TDirHandle::Open(Path);
        } else {
            Handle = Parent->Open().OpenChild(Name, true, Path);
        }
        return Handle;
    }
};

void TBaseDocAdmin::ExportDirectory(const std::string& DirName, TDocDirectory* ASourceDir,
                                    bool AContinueOnMissingFiles, const std::string& AFilePattern,
                                    const std::string& ADirPattern) {
    TExportFolder destination;
    destination.Path = DirName;
    ExportFolderTo(destination, ASourceDir, false, AContinueOnMissingFiles, AFilePattern,
                   ADirPattern);
}

void TBaseDocAdmin::ExportFolderTo(TExportFolder& AOuter, TDocDirectory* ASourceDir, bool AIsChild,
                                   bool AContinueOnMissingFiles, const std::string& AFilePattern,
                                   const std::string& ADirPattern) {
    TExportFolder own;
    TExportFolder* target = &AOuter;
    // A directory the caller names without a title writes into DirName itself; a child
    // without one gets a folder of its own ("_"), so that it can't merge into its parent.
    if (ASourceDir && (AIsChild || !ASourceDir->Titel().empty())) {
        if (!ADirPattern.empty() && !StrLike(ASourceDir->Titel(), ADirPattern)) return;
        own.Parent = &AOuter;
        own.Name = SafeFileName(ASourceDir->Titel());
        own.Path = IncludeTrailingDirSeparator(AOuter.Path) + own.Name;
        target = &own;
    } else if (!ASourceDir) {
        ASourceDir = FDirectories;
    }
    // The root resolves its folder first; otherwise its documents would be asked for by the
    // id 0 it has before loading.
    if (ASourceDir == FDirectories) FDirectories->ChildDirectoryCount();
    const std::int32_t docs = ASourceDir->DocumentCount();
    for (std::int32_t i = 0; i < docs; ++i) {
        TDocument* doc = ASourceDir->GetDocuments(i);
        if (!AFilePattern.empty() && !StrLike(doc->DocName(), AFilePattern)) continue;
        const TDirHandle& folder = target->Open();
        // The first free name of name, name_2, name_3, ...; a link counts as taken. The name
        // is made at once (O_EXCL), so nothing can put a link there before the download.
        const std::string name = SafeFileName(doc->DocName());
        const std::string ext = ExtractFileExt(name) == name ? std::string() : ExtractFileExt(name);
        const std::string stem = name.substr(0, name.size() - ext.size());
        std::string file = name;
        for (int n = 2;; ++n) {
            const int fd = ::openat(folder.Handle(), file.c_str(),
                                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
            if (fd >= 0) {
                ::close(fd);
                break;
            }
            if (errno != EEXIST)
                throw EInOutError("Cannot create file '" +
                                  IncludeTrailingDirSeparator(target->Path) + file +
                                  "': " + ErrnoText());
            const std::string suffix = "_" + std::to_string(n);
            file = stem.substr(0, std::min(stem.size(), 255 - suffix.size() - ext.size())) +
                   suffix + ext;
        }
        const std::string shown = IncludeTrailingDirSeparator(target->Path) + file;
        std::string dest = folder.EntryPath(file);
        if (dest.empty()) dest = shown;
        try {
            DownloadFile(doc, dest, false, nullptr);
        } catch (Exception& e) {
            ::unlinkat(folder.Handle(), file.c_str(), 0);  // the empty name reserved above
            const bool missing = dynamic_cast<EFileNotFoundInRepositoryException*>(&e) != nullptr;
            if (missing && AContinueOnMissingFiles) continue;
            e.SetMessage("Export of document '" + doc->DocName() + "' (id " +
                         std::to_string(doc->DocID()) + ") to '" + shown +
                         "' failed: " + FastReplace(e.Message(), dest, shown));
            throw;
        }
    }
    const std::int32_t dirs = ASourceDir->ChildDirectoryCount();
    for (std::int32_t i = 0; i < dirs; ++i)
        ExportFolderTo(*target, ASourceDir->GetChildDirectorys(i), true, AContinueOnMissingFiles,
                       AFilePattern, ADirPattern);
}

}  // namespace docadmin
