// TdmDocAdminRepository: the factory and the shared state of the document module. It chooses the
// file store, makes document administrators and tree handles, fetches and replaces documents
// outside a tree, and keeps what lives as long as the module (the unique folder cache, the
// temporary files still to delete).
//
// There is one instance per loaded module, published by its constructor (Instance) and cleared
// by its destructor. It is the first data module of the module: the others lean on it.
//
// Threads: CreateDocAdmin, GetDocAdminObject, DownloadDocumentWithUID, DownloadRemoteDocument and
// UpdateDocumentWithID keep their state in locals and may run on any thread; the unique folder
// cache and the list of temporary files have locks of their own. The lifecycle hooks run on the
// host's start-up thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "_DocAdminIntf.h"
#include "_KRFileHandler.h"
#include "_PluginBase.h"
#include "_RecordFlagsIntf.h"
#include "_TBaseDocAdmin.h"
#include "_TBaseDocFileLoader.h"
#include "_TUniqueFolderCache.h"

namespace docadmin {

class TdmDocAdminRepository : public TPluginBaseDataModule {
  public:
    explicit TdmDocAdminRepository(TClientPluginBase* AOwner);
    ~TdmDocAdminRepository() override;

    // The module's repository, or nullptr outside its lifetime.
    static TdmDocAdminRepository* Instance();

    // ---- File stores

    // The store class for the host's answers (see _DocFileLoaderChoice.h); in a client the
    // offline flag may come back set.
    virtual TBaseDocFileLoaderClass GetDocFileLoaderClass(bool& AOfflineContainer);
    // A new store of that class with the host's main interface, not yet configured.
    std::unique_ptr<TBaseDocFileLoader> CreateDocFileLoader(bool& AOfflineContainer);

    // ---- Administrators

    // A new administrator with its configured store, for a plug-in and a folder path below its
    // tree. The empty GUID as plug-in together with a path naming a "<table>#Records" folder
    // takes the table's storage UID instead. AParams, when not empty, is a filter text.
    std::unique_ptr<TBaseDocAdmin> CreateDocAdmin(std::string Plugin,
                                                  const std::string& BaseDirectory,
                                                  bool AOfflineContainer,
                                                  const std::string& AParams);
    // A tree handle over a new administrator; it loads in the call (never in the background).
    IPtr<IDirectoryRoot> GetDocAdminObject(const std::string& Plugin,
                                           const std::string& BaseDirectory, bool ALoad,
                                           const std::string& AResIdentifier, std::int64_t AResID,
                                           std::int64_t ADBATransactionID,
                                           TRecordFlagTypes ARecordFlagTypes, bool AAutoSave,
                                           bool AIsNewUniqueFolder);

    // ---- Documents outside a tree

    // Fetches the document whose row has this globalrecuid into ADestFileName. False, with no
    // store call, when no row has it (or the current user may not read it); ADocName is cleared
    // on entry, the dates are set only on success.
    bool DownloadDocumentWithUID(const std::string& ADocumentUID, const std::string& ADestFileName,
                                 std::string& ADocName, TDateTime& ACreateDate,
                                 TDateTime& ALastModifiedDate, bool AOfflineContainer);
    // Fetches a stored file by its remote name.
    void DownloadRemoteDocument(const std::string& ADocumentRemoteUID,
                                const std::string& ADestFileName, bool AOfflineContainer);
    // Replaces the stored file of a document by id (see TDBDocAdmin::UpdateDocumentWithID); false
    // when no row has the id.
    bool UpdateDocumentWithID(std::int64_t ADocumentID, const std::string& ASourceFileName,
                              bool AOfflineContainer, bool AddToArchive);

    // Removes the folders of records that no longer exist, below every plug-in folder whose
    // title is a GUID (with AProcessExistingPluginsOnly only those of loaded plug-ins), and
    // saves. Record root folders of tables the schema catalogue doesn't know are left alone.
    // ARemoved, when given, gets the path of every folder removed.
    void DeleteDeadLinkPluginDocuments(bool AProcessExistingPluginsOnly,
                                       std::vector<std::string>* ARemoved = nullptr);

    // ---- Host services

    TKRFileHandlerShowResult CheckAndExecuteInternalFile(const std::string& AFileName,
                                                         bool ShowEditor);
    // This build shows no icons: one fixed index for every file and for "@directory@".
    std::int32_t GetImageIndexForFile(const std::string& FileName) const;
    // The module's text for an ID in the host's language, through the main data module.
    std::string GetTranslatedText(const std::string& AText) override;

    // ---- State

    IExtFuncPluginDocAdmin* DocAdminInt() const { return FDocAdminInt; }
    void SetDocAdminInt(IExtFuncPluginDocAdmin* AValue) { FDocAdminInt = AValue; }
    TUniqueFolderCache& UniqueFolderCache() { return *FUniqueFolderCache; }
    TKRFileHandlerClient* KRFileHandlerClient() const { return FKRFileHandlerClient; }
    // The record flags service when it reports itself available, else nullptr.
    TRecordFlagsPlugin* RecordFlagsPlugin() const;

    // Temporary files still in use; they are deleted at BeforeUnInit.
    void AddTempFileToDelete(const std::string& AFileName);
    std::vector<std::string> TempFilesToDelete() const;

    // Deletes the temporary files, last entry first; what can't be deleted stays listed.
    void BeforeUnInit() override;

  private:
    TKRFileHandlerClient* FKRFileHandlerClient = nullptr;  // owned as a component
    std::unique_ptr<TRecordFlagsPlugin> FRecordFlagsPlugin;
    IExtFuncPluginDocAdmin* FDocAdminInt = nullptr;  // the main data module; not counted
    std::unique_ptr<TUniqueFolderCache> FUniqueFolderCache;
    mutable std::mutex FTempFilesLock;
    std::vector<std::string> FTempFilesToDelete;  // guarded by FTempFilesLock
};

}  // namespace docadmin
