// TVTLDocumentsRestService: the documents service (IDocumentStore) over a record's document tree.
//
// A record is named by storage UID (the plug-in under whose tree the record's documents live),
// schema and record UID; the service loads that record's tree through the repository and keeps
// it in the session cache under one fixed key, so a session holds one record's root at a time.
// Listings always load afresh; downloads reuse the cached root while storage, schema, record and
// record flag types stay the same.
//
// A download copies the document into a temporary file that lives in the session cache under
// "DOC:" + the document's identifier and is read chunk by chunk (Base64 in JSON); the entry ends
// when a read leaves the position at the end of the file. The route by record takes the
// document's ID and finds it in the record's tree, so only documents the user may see are found;
// the route by UID checks the user's read right on the document and every folder above it before
// anything is fetched. Both answer an unknown and a forbidden document with the same 404.
//
// The service object holds no state: everything per client lives in the session cache, which the
// host never uses from two requests of one session at once. The repository is reached through
// IDocumentsServiceRepository, which the module sets to an adapter over its TdmDocAdminRepository
// when it starts and clears when its shutdown begins; without one, tree requests answer 500.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "_DBSchema.h"
#include "_DocumentStoreIntf.h"
#include "_KRFileHandler.h"
#include "_RecordFlagsIntf.h"
#include "_RessourceIntf.h"
#include "_TRestSession.h"
#include "_TVTLCustomRestService.h"

namespace docadmin {

// What the service needs of the module's repository (tests may wrap the module's own).
class IDocumentsServiceRepository {
  public:
    // A tree handle on a new administrator for the plug-in's tree below ABaseDirectory.
    virtual IPtr<IDirectoryRoot> GetDocAdminObject(
        const std::string& Plugin, const std::string& BaseDirectory, bool ALoad,
        const std::string& AResIdentifier, std::int64_t AResID, std::int64_t ADBATransactionID,
        TRecordFlagTypes ARecordFlagTypes, bool AAutoSave, bool AIsNewUniqueFolder) = 0;
    // Fetches the document with this UID into ADestFileName; false when no row has it.
    virtual bool DownloadDocumentWithUID(const std::string& ADocumentUID,
                                         const std::string& ADestFileName, std::string& ADocName,
                                         TDateTime& ACreateDate, TDateTime& ALastModifiedDate,
                                         bool AOfflineContainer) = 0;
    virtual TKRFileHandlerClient* KRFileHandlerClient() = 0;

  protected:
    ~IDocumentsServiceRepository() = default;
};

// The repository the service works with; nullptr before the module starts and once its shutdown
// has begun. Set and cleared by the module's lifecycle.
IDocumentsServiceRepository* DocumentsServiceRepository();
void SetDocumentsServiceRepository(IDocumentsServiceRepository* ARepository);
// The adapter over the module's TdmDocAdminRepository; its calls raise the shutdown error (500)
// once the repository is gone.
IDocumentsServiceRepository& ModuleDocumentsServiceRepository();

// The answers for API items of the module's TVTLBIAPIClient: item 0 is this service with
// IDocumentStore, any other item gets nothing.
void GetDocumentsAPIService(const TVTLBIAPIItem& AItem, TRestServiceClass& AImplementorClass,
                            TInterfaceTypeList& AImplementedInterfaces);

// The session cache key of a session's directory root.
inline const std::string SessionDirectoryRootKey = "{C6F5AFFA-399C-4B9D-A7D4-4ED3A63EDCD2}";
// The prefix of a download's session cache key.
inline const std::string SessionDocumentKeyPrefix = "DOC:";
inline const std::string DocumentNotFoundText = "Provided document not found or permission denied!";

// A session's cached directory root with the arguments it was loaded for.
class TSessionDirectoryRootHelper : public TSessionCacheValueHelper<IDirectoryRoot> {
  public:
    explicit TSessionDirectoryRootHelper(IPtr<IDirectoryRoot> AValue)
        : TSessionCacheValueHelper<IDirectoryRoot>(std::move(AValue)) {}

    const std::string& SchemaName() const { return FSchemaName; }
    void SetSchemaName(const std::string& v) { FSchemaName = v; }
    const std::string& RecordUID() const { return FRecordUID; }
    void SetRecordUID(const std::string& v) { FRecordUID = v; }
    const std::string& StorageUID() const { return FStorageUID; }
    void SetStorageUID(const std::string& v) { FStorageUID = v; }
    TRecordFlagTypes RecordFlagTypes() const { return FRecordFlagTypes; }
    void SetRecordFlagTypes(TRecordFlagTypes v) { FRecordFlagTypes = v; }

  private:
    std::string FSchemaName;
    std::string FRecordUID;  // as the client passed it (possibly empty)
    std::string FStorageUID;
    TRecordFlagTypes FRecordFlagTypes = 0;
};

class TVTLDocumentsRestService : public TVTLCustomRestService, public IDocumentStore {
  public:
    TVTLDocumentsRestService() = default;

    // IInterface: the server owns the object; references don't count.
    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override { return -1; }
    std::int32_t _Release() override { return -1; }

    // Every session kind may use the service.
    TConnectorSessionTypes GetValidConnectorSessionTypes() const override {
        return AllConnectorSessionTypes;
    }

    // IDocumentStore
    void QueryRecordResourceList(const std::string& StorageUID, const std::string& SchemaName,
                                 const std::string& RecordUID, const std::string& Filter,
                                 const std::string& Pagination, bool& MethodResult,
                                 std::string& ResultInfo) override;
    void DownloadRecordDocument(const std::string& StorageUID, const std::string& SchemaName,
                                const std::string& RecordUID, std::int64_t ServerDBID,
                                const std::string& Chunk, bool& MethodResult,
                                std::string& ResultInfo) override;
    void DownloadRecordDocumentEx(const std::string& StorageUID, const std::string& SchemaName,
                                  const std::string& RecordUID, std::int64_t ServerDBID,
                                  const std::string& Chunk, const std::string& Options,
                                  bool& MethodResult, std::string& ResultInfo) override;
    void DownloadDocument(const std::string& DocumentUID, const std::string& Chunk,
                          bool& MethodResult, std::string& ResultInfo) override;
    void DownloadDocumentEx(const std::string& DocumentUID, const std::string& Chunk,
                            const std::string& Options, bool& MethodResult,
                            std::string& ResultInfo) override;

    // The session's root for the record: the cached one when AllowFromCache and all four
    // arguments match, else a fresh load that replaces the cache entry (removed first, so a
    // failure leaves none). Raises 500 in shutdown and the 400s of GetRecordBaseDirectory.
    TSessionDirectoryRootHelper* GetDirectoryHelper(const std::string& StorageUID,
                                                    const std::string& SchemaName,
                                                    const std::string& RecordUID,
                                                    TRecordFlagTypes ARecordFlagTypes,
                                                    bool AllowFromCache);
    // The folder path of the record below its plug-in's tree: "<table>#Records","<record UID>".
    // An empty RecordUID is looked up by ADBID and written back.
    static std::string GetRecordBaseDirectory(const std::string& SchemaName, std::string& RecordUID,
                                              std::int64_t ADBID);
    // The record flag types of the schema's table for the current session kind, or the default.
    static TRecordFlagTypes ResolveRecordFlagTypes(IMainInterface* AMainInterface,
                                                   const std::string& SchemaName);

    // The storage UID for a SQL table name (see _DocAdminStorageUIDs.h).
    static std::string GuessStorageUIDBySQLTableName(const std::string& ASQLTableName);

    // Imports the documents sent with a record (objects of AJSONItems; other elements are
    // skipped) into the record's tree, each into the folder its "path" names or, when no such
    // folder exists, the record's folder; nothing is created on the way. New documents get
    // ActiveRecordFlags; with AResultJson each is reported there. A failing element ends the
    // import (documents before it stay); its temporary file is deleted in any case.
    void ImportRecordDocumentsFromJSONArray(const TJsonObject& AJSONItems,
                                            IDBFieldSchemaItem* ASchema,
                                            const std::string& RecordUID, TJsonObject* AResultJson,
                                            TRecordFlagTypes ActiveRecordFlags);

    bool InternalQueryRecordRessourceList(const std::string& StorageUID,
                                          const std::string& SchemaName,
                                          const std::string& RecordUID, const std::string& Filter,
                                          const std::string& Pagination, TJsonObject& ResultJson,
                                          TRecordFlagTypes ARecordFlagTypes);
    bool InternalDownloadRecordDocument(const std::string& StorageUID,
                                        const std::string& SchemaName, const std::string& RecordUID,
                                        std::int64_t ServerDBID, const std::string& Chunk,
                                        TJsonObject& ResultJson, const TJsonObject* OptionsJson);
    bool InternalDownloadDocument(const std::string& DocumentUID, const std::string& Chunk,
                                  const TJsonObject* OptionsJson, TJsonObject& ResultJson);

    // Writes one directory level: "directories" (recursively) before "documents", each only when
    // the level has some.
    static void FillDirectoryJson(IDirectory* ADirectory, TJsonObject& AJson);
    // Depth first, the documents of a level before its subdirectories.
    static bool FindDocumentByID(IDirectory* ADirectory, IPtr<IDocument>& ADocument,
                                 std::int64_t ADocumentID);
    // Converts the helper's file into AFormat (the extension); a failed conversion leaves the
    // file as it was and reports nothing.
    static void ConvertSessionFile(TSessionCacheTempFileHelper& AFileHelper,
                                   const std::string& AFormat);
    // Whether the current user may read the document with this UID and every folder above it;
    // false also when no row has it.
    static bool CurrentUserMayReadDocument(const std::string& DocumentUID);
};

}  // namespace docadmin
