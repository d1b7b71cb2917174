// The in-memory document tree: TDocDirectoryRoot at the top, TDocDirectory nodes beneath it and
// TDocument leaves inside the directories.
//
// Lifetime. An item lives in two worlds at once: it belongs to its parent's list (or, for the
// root, to the administrator), and any other plug-in may hold it through an interface at the same
// time. Every item therefore counts its references by hand. A new item starts at 1, the owner's
// reference; interface holders add to it. Before an owning list frees its items it walks them
// from the last to the first and hands every item with a count above 1 to ExtractAsRefCounted,
// which detaches it and drops the owner's reference. Such an item survives its tree and frees
// itself on the last release. A detached item can't reach an administrator any more: it loads
// nothing and fires no events.
//
// Changes. Every edit only marks the item's ChangeState; nothing leaves memory before the
// administrator saves.
//
// Loading. Children load lazily: the first read of a directory's child directories or documents
// asks the administrator for them, unless the directory is new (chAdded), already loaded, or the
// administrator is saving.
//
// Threads. Reference counts change atomically, since interfaces may be released on any thread.
// Everything else belongs to the one thread that holds the tree's administrator.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "_Classes.h"
#include "_RessourceIntf.h"
#include "_TBaseDocFileLoader.h"
#include "_Tools.h"

namespace docadmin {

class TBaseDocAdmin;
class TDocDirectory;
class TDocDirectoryRoot;
class TDocument;

enum TChangeState : std::uint8_t {
    chNone,
    chAdded,
    chDeleted,
    chChanged,
    // Never stored: as a value for the ChangeState setter it undoes a delete mark.
    chStateBeforeDelete,
};

enum TLoadingState : std::uint8_t {
    lsDocumentsLoaded,
    lsChildDirectoriesLoaded,
    lsRootDirectoryLoaded,
};

// A set of TLoadingState in one byte.
class TLoadingStateSet {
  public:
    constexpr TLoadingStateSet() = default;
    constexpr TLoadingStateSet(std::initializer_list<TLoadingState> states) {
        for (TLoadingState s : states)
            FBits = static_cast<std::uint8_t>(FBits | Bit(s));
    }
    constexpr bool Contains(TLoadingState s) const { return (FBits & Bit(s)) != 0; }
    constexpr void Include(TLoadingState s) { FBits = static_cast<std::uint8_t>(FBits | Bit(s)); }
    constexpr void Exclude(TLoadingState s) { FBits = static_cast<std::uint8_t>(FBits & ~Bit(s)); }
    constexpr bool Empty() const { return FBits == 0; }
    friend constexpr bool operator==(TLoadingStateSet, TLoadingStateSet) = default;

  private:
    static constexpr std::uint8_t Bit(TLoadingState s) {
        return static_cast<std::uint8_t>(1u << s);
    }
    std::uint8_t FBits = 0;
};

enum TLoadingStateNotification : std::uint8_t {
    lsDocumentLoadingStarted,
    lsDocumentLoadingFinished,
    lsRootDirectoriesLoadingStarted,
    lsRootDirectoriesLoadingFinished,
};

// Tags of a document (column doctags); dtReadOnly forbids writing.
using TDocAdminDocTags = std::uint8_t;
inline constexpr TDocAdminDocTags dtReadOnly = 2;

// The contacts plug-in: display names of users.
class IExtFuncPluginContacts : public IInterface {
  public:
    DOCADMIN_IID("{5F3A8C21-7B4D-4E69-A0C2-3D8E1F6B9A47}");
    // The name of a user in a display format (2 is the one the tree uses).
    virtual std::string GetUserName(std::int32_t AUserID, std::int32_t AFormat) = 0;
};

// Called once per directory by CalcSizeAndCount, with the running totals.
using TCalcCallBackEvent = std::function<void(TDocDirectory* ADirectory, std::int32_t DirCount,
                                              std::int32_t FileCount, std::int32_t Size)>;

class TCustomStorageItem : public TObject, public IOBJAccess {
  public:
    TCustomStorageItem() { ++FInstanceCount; }
    ~TCustomStorageItem() override;

    // Items alive in the process; lets tests prove that every item was freed.
    static std::int32_t InstanceCount() { return FInstanceCount.load(); }

    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override;
    // The release that reaches 0 frees the item.
    std::int32_t _Release() override;
    TObject* GetObject() override { return this; }

    // Detaches the item from its owner, which drops it while someone else still holds it, and
    // drops the owner's reference.
    virtual void ExtractAsRefCounted();
    virtual std::string DisplayName() { return {}; }

    TChangeState ChangeState() const { return FChangeState; }
    void SetChangeState(TChangeState S);
    TChangeState ChangeStateBeforeDeleted() const { return FFChangeStateBeforeDeleted; }
    std::int32_t RefCount() const { return FRefCount.load(); }
    TDateTime CreaDate() const { return FCreaDate; }
    void SetCreaDate(TDateTime v) { FCreaDate = v; }
    std::int32_t CreaID() const { return FCreaID; }
    void SetCreaID(std::int32_t v);
    TDateTime ChangeDate() const { return FChangeDate; }
    void SetChangeDate(TDateTime v) { FChangeDate = v; }
    std::int32_t ChangeID() const { return FChangeID; }
    void SetChangeID(std::int32_t v);
    // -1 means the item has no access group of its own.
    std::int64_t ACLGroupID() const { return FACLGroupID; }
    void SetACLGroupID(std::int64_t v);
    const std::string& GlobalRecUID() const { return FGlobalRecUID; }
    void SetGlobalRecUID(std::string v) { FGlobalRecUID = std::move(v); }

    // Display names of creator and last changer, asked of the contacts plug-in once and cached.
    std::string GetCreaName(IExtFuncPluginContacts* AdrPlugin);
    std::string GetChangeName(IExtFuncPluginContacts* AdrPlugin);

    // Frees an item that its owner drops (count 1 or less).
    static void FreeItem(TCustomStorageItem* AItem);

  protected:
    static inline std::atomic<std::int32_t> FInstanceCount{0};
    std::atomic<std::int32_t> FRefCount{1};
    TChangeState FChangeState = chNone;
    TChangeState FFChangeStateBeforeDeleted = chNone;
    std::int32_t FCreaID = 0;
    TDateTime FCreaDate = 0;
    std::string FChachedCreaName;
    bool FChachedCreaNameValid = false;
    std::string FChachedChangeName;
    bool FChachedChangeNameValid = false;
    std::int64_t FACLGroupID = -1;
    std::string FGlobalRecUID;
    TDateTime FChangeDate = 0;
    std::int32_t FChangeID = 0;
};

class TDocDirectory : public TCustomStorageItem, public IRessource, public IDirectory {
  public:
    // Sets the parent link without entering the parent's list.
    explicit TDocDirectory(TDocDirectory* AParent);
    ~TDocDirectory() override;

    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override { return TCustomStorageItem::_AddRef(); }
    std::int32_t _Release() override { return TCustomStorageItem::_Release(); }

    void ExtractAsRefCounted() override;
    std::string DisplayName() override { return FTitle; }
    // Asks the administrator for this directory's children.
    virtual void LoadChildDirectories();

    std::int64_t DirID() const { return FDirID; }
    void SetDirID(std::int64_t v) { FDirID = v; }
    const std::string& Titel() const { return FTitle; }
    void SetTitel(const std::string& ATitle);
    // Own plug-in, or the parent's when empty.
    std::string Plugin() const;
    void SetPlugin(std::string v) { FPlugin = std::move(v); }
    // "a","b","c" from below the root down to this directory; empty for the root.
    std::string Path() const;
    TDocDirectory* ParentDir() const { return FParentDir; }
    // Moves the directory into another parent's list (nullptr: detaches it).
    void SetParentDir(TDocDirectory* AParent);
    TLoadingStateSet LoadingState() const { return FLoadingState; }
    void SetLoadingState(TLoadingState ALoadingState) { FLoadingState.Include(ALoadingState); }
    // Removes the element here and in all directories below.
    void ResetLoadingState(TLoadingState ALoadingState);

    // Reads that load lazily.
    std::int32_t ChildDirectoryCount();
    std::int32_t DocumentCount();
    TDocDirectory* GetChildDirectorys(std::int32_t AIndex);
    TDocument* GetDocuments(std::int32_t AIndex);
    // What is in memory, without loading.
    const std::vector<TDocDirectory*>& ChildDirectoriesInMemory() const {
        return FChildDirectories;
    }
    const std::vector<TDocument*>& DocumentsInMemory() const { return FDocuments; }

    TDocDirectory* AddChildDirectory();
    TDocument* AddDocument();
    // Among the direct children only, last to first; nullptr if none.
    TDocDirectory* GetDirectoryByID(std::int64_t ADirID);
    // Follows a path of titles (comma text, strict delimiter) down from here. Children whose id
    // stands in ASkipList are passed over; a match's id is added to it. With ADirList the
    // segments are taken from there instead of DirPath. nullptr when a level has no match.
    TDocDirectory* GetChildDirByTitle(const std::string& DirPath, TSortedIntegerList* ASkipList,
                                      TStringList* ADirList = nullptr);
    // The top of the parent chain as a root; nullptr for a detached directory.
    TDocDirectoryRoot* RootDir();
    // The administrator of the tree, or nullptr when detached.
    TBaseDocAdmin* DocAdmin();
    // Directory count, document count and the sum of the documents' low 32 size bits below here;
    // the 32-bit sums wrap.
    void CalcSizeAndCount(std::int32_t& DirCount, std::int32_t& FileCount, std::int32_t& Size,
                          bool IsStartNode, const TCalcCallBackEvent& CalcCallBack);
    void MoveContentTo(TDocDirectory* ADestDir, bool ARespectLoadingState,
                       bool AMakePersistenChanged);
    // Detaches shared children, frees the rest, forgets the loading state.
    void Clear();
    void DeleteDirectory(std::int32_t ADirectoryIndex);
    void DeleteDocument(std::int32_t DocumentIndex);
    // Drops the documents (lsDocumentsLoaded) and/or child directories (lsChildDirectoriesLoaded)
    // from the lists, except those in state chAdded.
    void DeleteChildFileObjects(TLoadingStateSet ARemoveSet);
    // Depth-first search for a document id; takes it out of its list without freeing it.
    bool ExtractDocument(std::int32_t ADocumentID, TDocument*& ADocument, bool AProcessOnlyLoaded);
    void FillDirectoryIDs(TSortedIntegerList& ADest, bool ARespectLoadingState);
    void FillDocumentIDs(TSortedIntegerList& ADest, bool ARespectLoadingState);

    // IRessource
    std::string Get_Caption() override { return FTitle; }
    std::intptr_t Get_Icon(std::int32_t& ASourceDPI) override;
    TRessourceActions Get_SupportedActions() override;
    std::int32_t Get_ChildCount() override;
    IPtr<IRessource> Get_Child(std::int32_t AIndex) override;
    bool Get_HasChildren() override { return true; }
    bool Do_ExecuteAction(TRessourceAction AAction, const std::string& AFileName,
                          const std::string& ACaption, bool AReadOnly, bool ALoadNonBlocking,
                          IRessourceActionCallBack* ACallBack, IVTLEventPool* ARessourceChangeEvent,
                          TRessourceArchiveMode AArchiveMode) override;
    std::string Get_Extension() override { return {}; }
    IPtr<IRessourceContainer> Get_Container() override;
    TDateTime Get_Date() override { return MinDateTime; }
    std::int64_t Get_Size() override { return 0; }
    std::int32_t Get_RessourceFlags() override { return 5; }
    bool Get_ACLWriteable() override;
    bool Do_Move(IRessource* ADest) override;
    IPtr<IRessource> Do_CreateFolderStruct(const std::string& APath) override;
    std::int64_t Get_ID() override { return FDirID; }
    void Do_CancelAction(bool /*ACancel*/) override {}
    std::int64_t Get_RecordFlagsMetaID() override;
    std::uint8_t Get_Tags() override { return 0; }
    TRessourceAction Get_DefaultAction() override { return raView; }

    // IDirectory
    std::int64_t Get_DirID() override { return FDirID; }
    std::string Get_Title() override { return FTitle; }
    void Set_Title(const std::string& ATitle) override { SetTitel(ATitle); }
    TDateTime Get_CreaDate() override { return FCreaDate; }
    std::int32_t Get_CreaID() override { return FCreaID; }
    IPtr<IDirectory> Get_ParentDir() override;
    void Set_ParentDir(IDirectory* AParent) override;
    std::int32_t Get_ChildDirectoryCount() override { return ChildDirectoryCount(); }
    IPtr<IDirectory> Get_ChildDirectory(std::int32_t AIndex) override;
    std::int32_t Get_DocumentCount() override { return DocumentCount(); }
    IPtr<IDocument> Get_Document(std::int32_t AIndex) override;
    bool Do_Import(const std::string& APath) override;
    void Do_MoveContentTo(IDirectory* ADest) override;
    std::string Get_GlobalRecUID() override { return FGlobalRecUID; }

  protected:
    friend class TDocument;
    friend class TDocDirectoryRoot;
    friend class TBaseDocAdmin;

    void CheckChildDirectoriesLoaded();
    void CheckDocumentsLoaded();
    // Hands shared items to ExtractAsRefCounted and frees the others; the lists end empty.
    void DetachAndFreeChildren();
    void NotifyChildCountChanged(TLoadingState AState);

    std::int64_t FDirID = -1;
    TDocDirectory* FParentDir = nullptr;
    std::string FTitle;
    std::string FPlugin;
    std::vector<TDocDirectory*> FChildDirectories;  // owned (one reference each)
    std::vector<TDocument*> FDocuments;             // owned (one reference each)
    // Deleted from FChildDirectories while held elsewhere, still linked here; not owned.
    std::vector<TDocDirectory*> FDetachedChildren;
    TLoadingStateSet FLoadingState;
};

class TDocDirectoryRoot : public TDocDirectory {
  public:
    explicit TDocDirectoryRoot(TBaseDocAdmin* ADocAdmin);

    void ExtractAsRefCounted() override;
    // Finds the folder that the administrator's RootDirectoryPath names, creating the missing
    // levels, and takes over its identity and content.
    void LoadChildDirectories() override;

    TBaseDocAdmin* GetRootDocAdmin() const { return FDocAdmin; }
    // The administrator goes away: the root and everything below stop reaching it.
    void DetachFromDocAdmin() { FDocAdmin = nullptr; }
    bool IsNewUniqueFolder() const { return FIsNewUniqueFolder; }
    void SetIsNewUniqueFolder(bool v) { FIsNewUniqueFolder = v; }

  private:
    void LoadRoot();

    TBaseDocAdmin* FDocAdmin;
    bool FIsNewUniqueFolder = false;
    bool FLoadingRoot = false;  // the root load runs; nested reads must not start it again
};

class TDocument : public TCustomStorageItem,
                  public IDocAdminDownloderCallBack,
                  public IRessource,
                  public IDocument {
  public:
    TDocument() = default;
    ~TDocument() override;

    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override { return TCustomStorageItem::_AddRef(); }
    std::int32_t _Release() override { return TCustomStorageItem::_Release(); }

    void ExtractAsRefCounted() override;
    std::string DisplayName() override { return FDocName; }

    // Fills size, version, creation and date from LocalFile; run on every save of a file.
    static void Calculate(TDocument* Item, IMainInterface* AMainInterface);

    std::int32_t DocID() const { return FDocID; }
    void SetDocID(std::int32_t v) { FDocID = v; }
    TDocDirectory* Directory() const { return FDirectory; }
    // Moves the document into another directory's list; nullptr is ignored.
    void SetDirectory(TDocDirectory* ADirectory);
    const std::string& DocName() const { return FDocName; }
    void SetDocName(const std::string& AName);
    std::int64_t Size() const { return FSize; }
    void SetSize(std::int64_t v) { FSize = v; }
    TDateTime Date() const { return FDate; }
    void SetDate(TDateTime v) { FDate = v; }
    const TFileVersion& Version() const { return FVersion; }
    void SetVersion(const TFileVersion& AVersion);
    const std::string& RemoteFileName() const { return FRemoteFileName; }
    void SetRemoteFileName(std::string v) { FRemoteFileName = std::move(v); }
    TDocAdminDocTags DocumentTags() const { return FDocumentTags; }
    void SetDocumentTags(TDocAdminDocTags v) { FDocumentTags = v; }
    bool FileHasChanged() const { return FFileHasChanged; }
    // The first switch to true remembers the stored file's date, size, version and changer.
    void SetFileHasChanged(bool AValue);
    TRessourceArchiveMode ArchiveMode() const { return FArchiveMode; }
    void SetArchiveMode(TRessourceArchiveMode v) { FArchiveMode = v; }
    const std::string& LocalFile() const { return FLocalFile; }
    void SetLocalFile(std::string v) { FLocalFile = std::move(v); }
    TDateTime PrevDate() const { return FPrevDate; }
    std::int64_t PrevSize() const { return FPrevSize; }
    const TFileVersion& PrevVersion() const { return FPrevVersion; }
    TDateTime PrevChangeDate() const { return FPrevChangeDate; }
    std::int64_t PrevChangeID() const { return FPrevChangeID; }
    IRessourceActionCallBack* NonBlockingActionCallBack() const {
        return FNonBlockingActionCallBack.get();
    }
    void SetNonBlockingActionCallBack(IRessourceActionCallBack* v) {
        FNonBlockingActionCallBack = v;
    }

    // A loader brackets each document so that its setters mark nothing.
    void BeginLoad() { ++FLoadingUpdateCount; }
    void EndLoad() { --FLoadingUpdateCount; }
    bool IsLoading() const { return FLoadingUpdateCount != 0; }
    // ChangeDate := now, ChangeID := the current user.
    void UpdatedChanged();
    // The administrator of the tree, or nullptr when detached.
    TBaseDocAdmin* DocAdmin() const;

    // IDocAdminDownloderCallBack
    void DownloadDone(const std::string& DestFileName) override;
    void DownloadFailed(const std::string& DestFileName, const std::string& ErrorMessage) override;

    // IRessource
    std::string Get_Caption() override;
    std::intptr_t Get_Icon(std::int32_t& ASourceDPI) override;
    TRessourceActions Get_SupportedActions() override;
    std::int32_t Get_ChildCount() override { return 0; }
    IPtr<IRessource> Get_Child(std::int32_t AIndex) override;
    bool Get_HasChildren() override { return false; }
    bool Do_ExecuteAction(TRessourceAction AAction, const std::string& AFileName,
                          const std::string& ACaption, bool AReadOnly, bool ALoadNonBlocking,
                          IRessourceActionCallBack* ACallBack, IVTLEventPool* ARessourceChangeEvent,
                          TRessourceArchiveMode AArchiveMode) override;
    std::string Get_Extension() override { return ExtractFileExt(FDocName); }
    IPtr<IRessourceContainer> Get_Container() override;
    TDateTime Get_Date() override { return FDate; }
    std::int64_t Get_Size() override { return FSize; }
    std::int32_t Get_RessourceFlags() override { return 10; }
    bool Get_ACLWriteable() override;
    bool Do_Move(IRessource* ADest) override;
    IPtr<IRessource> Do_CreateFolderStruct(const std::string& /*APath*/) override {
        return nullptr;
    }
    std::int64_t Get_ID() override { return FDocID; }
    void Do_CancelAction(bool ACancel) override;
    std::int64_t Get_RecordFlagsMetaID() override;
    std::uint8_t Get_Tags() override { return FDocumentTags; }
    TRessourceAction Get_DefaultAction() override;

    // IDocument
    std::int32_t Get_DocID() override { return FDocID; }
    std::string Get_DocName() override { return FDocName; }
    IPtr<IDirectory> Get_Directory() override;
    void Set_Directory(IDirectory* ADirectory) override;
    std::string Get_Version() override { return FileVersionToStr(FVersion); }
    void Set_Version(const std::string& AVersion) override;
    TDateTime Get_CreaDate() override { return FCreaDate; }
    std::int32_t Get_CreaID() override { return FCreaID; }
    bool Do_Download(const std::string& ADestFile) override;
    void Do_Replace(const std::string& AFileName, bool AChangeFileName) override;
    std::string Get_GlobalRecUID() override { return FGlobalRecUID; }

  private:
    friend class TDocDirectory;

    std::string FDocName;
    std::int32_t FDocID = 0;
    TDocDirectory* FDirectory = nullptr;
    std::int64_t FSize = 0;
    TFileVersion FVersion = verNULL;
    TDateTime FDate = 0;
    std::string FRemoteFileName;
    bool FFileHasChanged = false;
    std::string FLocalFile;
    IPtr<IRessourceActionCallBack> FNonBlockingActionCallBack;
    TDocAdminDocTags FDocumentTags = 0;
    std::int64_t FPrevSize = 0;
    TDateTime FPrevDate = 0;
    TFileVersion FPrevVersion = verNULL;
    TDateTime FPrevChangeDate = 0;
    std::int64_t FPrevChangeID = 0;
    std::int32_t FLoadingUpdateCount = 0;
    TRessourceArchiveMode FArchiveMode = ramDefault;
};

// Interface to item. The hard casts raise EInvalidCast-like EConvertError for an object of
// another class; a nil interface gives nullptr.
TDocDirectory* IntfToDirectory(IInterface* AIntf);
// The same, but an interface without IOBJAccess (or of another class) gives nullptr.
TDocDirectory* IntfToDirectorySafe(IInterface* AIntf);
TDocument* IntfToDocument(IInterface* AIntf);
// The same, but an interface without IOBJAccess (or of another class) gives nullptr.
TDocument* IntfToDocumentSafe(IInterface* AIntf);

}  // namespace docadmin
