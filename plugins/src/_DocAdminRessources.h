// Record resources of the document module: what a host screen gets when it asks the module for
// the resources of a record.
//
// An identifier that is a doc:// address gives a whole document tree (a TDocAdminObject whose
// document and directory actions are carried out here); any other identifier gives a
// TDocAdminRessourceContainer, the flat list of documents linked to the record through the table
// docadminressources.
//
// Address grammar, read left to right, without unescaping or further validation:
//     "doc://"                     exact and case-sensitive, at the very start
//     "@" + 38 characters + 1      optional: the plug-in GUID, then one character that is skipped
//     base directory               all up to the first "?" (comma text of folder titles)
//     "?" + parameters             optional: a filter text
// A text of five characters or fewer is never an address; without the plug-in piece the tree is
// the global one.
//
// Reuse: on the host's main thread the provider keeps the containers it made (not counted) and
// answers the same container again for the same identifier and record id; a container leaves the
// list when it goes. Off the main thread every call makes a new container that nobody else gets.
//
// Rights: the linked documents are read under the current user's row rights; actions by document
// id first check that the user may see the document and, for a change, write it (read-only users
// and groups along the folder chain in which the user can't write are refused). A directory
// action that adds to a tree checks that the target directory is writable.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "_DocAdminIntf.h"
#include "_TBaseDocAdmin.h"
#include "_TCustomRessourceContainer.h"

namespace docadmin {

class TdmDocAdminRepository;

struct TDocAdminAddress {
    std::string Plugin;
    std::string BaseDirectory;
    std::string Params;
};

// Parses a doc:// address; false (AAddress untouched) for any other text.
bool ParseDocAdminAddress(const std::string& AIdentifier, TDocAdminAddress& AAddress);

// One linked document of a record.
class TDocAdminFileRessource : public TCustomRessource, public IDocAdminDownloderCallBack {
  public:
    // Supported actions 7, flags 10.
    explicit TDocAdminFileRessource(TCustomRessourceContainer* AContainer);

    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override { return TCustomRessource::_AddRef(); }
    std::int32_t _Release() override { return TCustomRessource::_Release(); }

    std::int64_t DocumentID() const { return FDocumentID; }
    // The resource's ID is its document's.
    void SetDocumentID(std::int64_t v) {
        FDocumentID = v;
        FID = v;
    }
    // The key of the link row; 0 until the row exists.
    std::int64_t DBID() const { return FDBID; }
    void SetDBID(std::int64_t v) { FDBID = v; }
    std::int64_t DirectoryID() const { return FDirectoryID; }
    void SetDirectoryID(std::int64_t v) { FDirectoryID = v; }
    const std::string& RemoteFileName() const { return FRemoteFileName; }
    void SetRemoteFileName(std::string v) { FRemoteFileName = std::move(v); }
    TDocAdminDocTags DocAdminDocTags() const { return FDocAdminDocTags; }
    void SetDocAdminDocTags(TDocAdminDocTags v) {
        FDocAdminDocTags = v;
        FTags = v;
    }
    // Caption and extension as the stored name is made of.
    std::string FileName() const { return FCaption + FExtension; }

    // IDocAdminDownloderCallBack: passed on to the non-blocking callback, which stays set.
    void DownloadDone(const std::string& DestFileName) override;
    void DownloadFailed(const std::string& DestFileName, const std::string& ErrorMessage) override;

  protected:
    std::intptr_t GetIconHandle(std::int32_t& ASourceDPI) override;

  private:
    std::int64_t FDocumentID = 0;
    std::int64_t FDBID = 0;
    std::int64_t FDirectoryID = 0;
    std::string FRemoteFileName;
    TDocAdminDocTags FDocAdminDocTags = 0;
};

// The documents linked to one record (identifier and record id) through docadminressources.
class TDocAdminRessourceContainer : public TCustomRessourceContainer,
                                    public IDocAdminRessourceContainer {
  public:
    TDocAdminRessourceContainer(IMainInterface* AMainInterface, const std::string& AResIdentifier,
                                std::int64_t AResID, TKRRecordSet* ARecordSet);
    // Fires OnDestroy, then frees the administrator.
    ~TDocAdminRessourceContainer() override;

    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override { return TCustomRessourceContainer::_AddRef(); }
    std::int32_t _Release() override { return TCustomRessourceContainer::_Release(); }

    IExtFuncPluginDocAdmin* DocAdminInt() const { return FDocAdminInt; }
    void SetDocAdminInt(IExtFuncPluginDocAdmin* v) { FDocAdminInt = v; }
    TNotifyEvent OnDestroy;
    // The administrator of the actions; nullptr before the first one.
    TBaseDocAdmin* DocAdmin() const { return FDocAdmin.get(); }

    // IDocAdminRessourceContainer. Refuses (EDocAdminFileNotFoundInRepository) a document the
    // current user can't see, and a read-only user (EDocAdminNoWriteAccessError).
    bool AddLink(std::int64_t ADocumentID, const std::string& AName) override;

  protected:
    // The linked documents of the record; none for a record id of 0 or less.
    void LoadRessources() override;
    TCustomRessource* CreateRessource() override { return new TDocAdminFileRessource(this); }
    bool ExecuteAction(TRessourceAction AAction, TCustomRessource* ARessource,
                       const std::string& AFileName, const std::string& ACaption, bool AReadOnly,
                       bool ALoadNonBlocking, IRessourceActionCallBack* ACallBack,
                       IVTLEventPool* ARessourceChangeEvent,
                       TRessourceArchiveMode AArchiveMode) override;
    // "Linked Documents" in the host's language.
    std::string GetCaption() override;

  private:
    void SaveCopy(TDocAdminFileRessource& R, const std::string& AFileName, bool ALoadNonBlocking,
                  IRessourceActionCallBack* ACallBack);
    // Reads the stored name, date and size of R's document again after its file changed.
    void RefreshFileInfo(TDocAdminFileRessource& R);

    IExtFuncPluginDocAdmin* FDocAdminInt = nullptr;  // the module's main object; not counted
    std::unique_ptr<TBaseDocAdmin> FDocAdmin;
};

// The action handlers of a doc:// tree (OnExecuteDocumentAction, OnExecuteDirectoryAction).
void ExecuteTreeDocumentAction(TBaseDocAdmin& ADocAdmin, TDocument* ADocument,
                               TRessourceAction AAction, const std::string& AFileName,
                               bool ALoadNonBlocking, IRessourceActionCallBack* ACallBack,
                               IVTLEventPool* ARessourceChangeEvent,
                               TRessourceArchiveMode AArchiveMode);
void ExecuteTreeDirectoryAction(TBaseDocAdmin& ADocAdmin, TDocDirectory* ADirectory,
                                TRessourceAction AAction, const std::string& AFileName,
                                const std::string& ACaption);

// GetRessourceContainer of the module, with the main thread's list of containers it made.
class TDocAdminRessourceProvider {
  public:
    TDocAdminRessourceProvider() = default;
    // Containers still alive no longer report to this provider.
    ~TDocAdminRessourceProvider();
    TDocAdminRessourceProvider(const TDocAdminRessourceProvider&) = delete;
    TDocAdminRessourceProvider& operator=(const TDocAdminRessourceProvider&) = delete;

    IPtr<IRessourceContainer> GetRessourceContainer(const std::string& AResIdentifier,
                                                    std::int64_t AResID);
    // Containers in the main thread's list.
    std::size_t LoadedCount() const { return FLoadedRessourceContainers.size(); }

  private:
    struct TEntry {
        IRessourceContainer* Container;  // not counted
        std::function<void()> Detach;    // clears the container's OnDestroy
    };
    void Remove(IRessourceContainer* AContainer);

    std::vector<TEntry> FLoadedRessourceContainers;  // main thread only: no lock
};

}  // namespace docadmin
