#include "_VTLDocumentsRestService.h"

#include <atomic>
#include <cctype>
#include <filesystem>
#include <optional>

#include "_BufferPool.h"
#include "_DocAdminStorageUIDs.h"
#include "_TDBRecordFlagsPlugin.h"
#include "_TKRRecordSet.h"
#include "_Tools.h"
#include "_dmDocAdminRepository.h"

namespace docadmin {

namespace {

std::atomic<IDocumentsServiceRepository*> GRepository{nullptr};

// A RawJSON parameter as a JSON value; nothing for an empty text or null. A client may also send
// the JSON as a string holding it.
std::optional<TJsonObject> ParseRawJson(const std::string& AText, const char* AName) {
    if (AText.empty()) return std::nullopt;
    TJsonObject v = TJsonObject::parse(AText, nullptr, false);
    if (v.is_string()) {
        const std::string inner = v.get<std::string>();
        if (inner.empty()) return std::nullopt;
        v = TJsonObject::parse(inner, nullptr, false);
    }
    if (v.is_discarded())
        throw EVTLRestServiceError(400, std::string(AName) + " is not valid JSON");
    if (v.is_null()) return std::nullopt;
    if (!v.is_object())
        throw EVTLRestServiceError(400, std::string(AName) + " must be a JSON object");
    return v;
}

std::int64_t ChunkInt(const TJsonObject& AChunk, const char* AKey) {
    const TJsonObject& v = AChunk.at(AKey);
    if (!v.is_number_integer())
        throw EVTLRestServiceError(400, std::string("Chunk \"") + AKey + "\" must be an integer");
    return v.get<std::int64_t>();
}

// A chunk's answer is written by ServeChunk itself, straight into the method shell's ResultInfo:
// the other keys of the result as JSON, then "content" and "content--encoding" (the last two
// keys), the Base64 encoded from the file into the text with no copy of megabytes on the way.
struct TChunkAnswer {
    std::string* Out = nullptr;
    bool Written = false;
};
thread_local TChunkAnswer* GChunkAnswer = nullptr;

// The method shell: ResultInfo is always a JSON object, failures come back as MethodResult false
// with the error in it. With AOptions the text is parsed into an object for the inner routine.
template <class F>
void RunServiceMethod(const std::string* AOptions, bool& MethodResult, std::string& ResultInfo,
                      F AInner) {
    ResultInfo.clear();
    std::unique_ptr<TJsonObject> result = TVTLCustomRestService::CreateResultJson();
    TChunkAnswer answer{&ResultInfo};
    try {
        TVTLCustomRestService::CheckAndSimulateMethodeError();
        std::optional<TJsonObject> options;
        if (AOptions) options = ParseRawJson(*AOptions, "Options");
        GChunkAnswer = &answer;
        TFinally noAnswer{[] { GChunkAnswer = nullptr; }};
        MethodResult = AInner(*result, options ? &*options : nullptr);
    } catch (const std::exception& e) {
        answer.Written = false;
        TVTLCustomRestService::AddExceptionToJsonResult(e, *result);
        MethodResult = false;
    }
    if (answer.Written) return;
    // Assigned, not moved: ResultInfo may bring memory of its own for the next large answer.
    ResultInfo.assign(
        TVTLCustomRestService::ToJSON(*result, TVTLCustomRestService::ReturnCompactJson()));
}

// Writes AResult with the Base64 of up to ACount bytes of AStream as its last keys into AOut.
void WriteChunkAnswer(const TJsonObject& AResult, TStream& AStream, std::int64_t ACount,
                      std::string& AOut) {
    AOut.assign(TVTLCustomRestService::ToJSON(AResult, TVTLCustomRestService::ReturnCompactJson()));
    while (!AOut.empty() && AOut.back() != '}')
        AOut.pop_back();
    if (!AOut.empty()) AOut.pop_back();
    while (!AOut.empty() && std::isspace(static_cast<unsigned char>(AOut.back())))
        AOut.pop_back();
    const std::int64_t rest = std::max<std::int64_t>(0, AStream.Size() - AStream.Position());
    const std::int64_t n = ACount < 0 ? rest : std::min(ACount, rest);
    ReserveLarge(AOut, AOut.size() + static_cast<std::size_t>((n + 2) / 3 * 4) + 48);
    AOut += !AOut.empty() && AOut.back() == '{' ? "\"content\":\"" : ",\"content\":\"";
    MIMEEncodeAppend(AStream, n, AOut);
    AOut += "\",\"content--encoding\":\"Base64\"}";
}

// The module's repository; gone once the module is ending.
class TModuleRepositoryAdapter final : public IDocumentsServiceRepository {
  public:
    IPtr<IDirectoryRoot> GetDocAdminObject(const std::string& Plugin,
                                           const std::string& BaseDirectory, bool ALoad,
                                           const std::string& AResIdentifier, std::int64_t AResID,
                                           std::int64_t ADBATransactionID,
                                           TRecordFlagTypes ARecordFlagTypes, bool AAutoSave,
                                           bool AIsNewUniqueFolder) override {
        return Repository().GetDocAdminObject(Plugin, BaseDirectory, ALoad, AResIdentifier, AResID,
                                              ADBATransactionID, ARecordFlagTypes, AAutoSave,
                                              AIsNewUniqueFolder);
    }
    bool DownloadDocumentWithUID(const std::string& ADocumentUID, const std::string& ADestFileName,
                                 std::string& ADocName, TDateTime& ACreateDate,
                                 TDateTime& ALastModifiedDate, bool AOfflineContainer) override {
        return Repository().DownloadDocumentWithUID(ADocumentUID, ADestFileName, ADocName,
                                                    ACreateDate, ALastModifiedDate,
                                                    AOfflineContainer);
    }
    TKRFileHandlerClient* KRFileHandlerClient() override {
        return Repository().KRFileHandlerClient();
    }

  private:
    static TdmDocAdminRepository& Repository() {
        TdmDocAdminRepository* r = TdmDocAdminRepository::Instance();
        if (!r) throw EVTLRestServiceError(500, "Service is in shutdown state!");
        return *r;
    }
};

// A download's temporary file. On the record route the entry goes into the cache before the
// fetch; when the fetch fails the entry keeps the failure, and the next call on it answers that
// failure and gives the entry up, rather than serving the empty file as the document.
class TDocumentTempFileHelper : public TSessionCacheTempFileHelper {
  public:
    std::exception_ptr Failure;
};

// The text of a member of an import element; empty when absent or not a string.
std::string StringMember(const TJsonObject& AItem, const char* AKey) {
    const auto it = AItem.find(AKey);
    return it != AItem.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// The bytes of an import element by its "content--encoding": "Base64" and "hex" (exact), any
// other value or none the text as it stands (UTF-8, nothing is lost).
std::string DecodeContent(const TJsonObject& AItem) {
    const std::string content = StringMember(AItem, "content");
    const std::string encoding = StringMember(AItem, "content--encoding");
    if (encoding == "Base64") return MIMEDecodeRawByteStr(content);
    if (encoding == "hex") return HexToBin(content);
    return content;
}

// Marks a new document with the record flags of the kinds in ATypes: every flag the flags service
// defines for documents with such a kind, so that a tree loaded with these kinds shows it.
void SetDocumentRecordFlags(std::int64_t ADocumentID, TRecordFlagTypes ATypes) {
    auto* flags =
        dynamic_cast<TDBRecordFlagsPlugin*>(TVTLCustomRestService::GetRecordFlagsPlugin());
    if (!flags || !flags->Available()) return;
    const std::string table = "docadmindocs";
    TKRRecordSet defs(nullptr, flags->Database());
    defs.SetSchemaName("recordflagdefs");
    defs.GetSelectFields()->Add("flagtype");
    defs.GetSelectFieldOptions("flagtype").DisableLookupValueLoading = true;
    AddFilter(defs.GetFilters(), "metaid",
              TVariant(static_cast<long long>(flags->GetMetaID(table))));
    defs.Open();
    for (int i = 0; i < defs.GetRecordCount(); ++i) {
        const std::int64_t type = defs.ValueByName(i, "flagtype").GetAsInteger();
        if (type >= 0 && type < 8 && (ATypes & (1u << type)) != 0)
            flags->SetFlag(table, ADocumentID, defs.GetDBIDByRecNo(i));
    }
}

IDocumentsServiceRepository* RepositoryOrShutdown() {
    IDocumentsServiceRepository* r = DocumentsServiceRepository();
    if (!r) throw EVTLRestServiceError(500, "Service is in shutdown state!");
    return r;
}

// Steps 6 to 11 of a download, shared by both routes: reads the chunk, writes "chunk" and, through
// AWriteKeys, the route's keys, then the content; ends the entry when the read reached the end.
template <class F>
void ServeChunk(TSessionCacheTempFileHelper& AHelper, const std::string& AKey,
                const std::string& AChunk, TJsonObject& AResult, F AWriteKeys) {
    TStream* stream = AHelper.GetStream();
    std::int64_t size = -1;
    if (auto chunk = ParseRawJson(AChunk, "Chunk")) {
        if (chunk->contains("position")) {
            const std::int64_t position = ChunkInt(*chunk, "position");
            if (position >= 0) stream->SetPosition(position);
        }
        if (chunk->contains("size")) size = ChunkInt(*chunk, "size");
    }
    const std::int64_t position = stream->Position();
    AResult["chunk"] = {{"position", position},
                        {"size", size < 0 ? stream->Size() - position : size}};
    AWriteKeys();
    if (GChunkAnswer) {
        WriteChunkAnswer(AResult, *stream, size, *GChunkAnswer->Out);
        GChunkAnswer->Written = true;
    } else {
        AResult["content"] = MIMEEncodeRawByteStr(*stream, size);
        AResult["content--encoding"] = "Base64";
    }
    if (size < 0 || stream->Position() == stream->Size())
        TVTLCustomRestService::CurrentSession()->GetSessionCache().Remove(AKey);
}

std::optional<std::string> OptionFormat(const TJsonObject* AOptions) {
    const TVariant format = TVTLCustomRestService::GetOptionsParamValue(AOptions, "format");
    if (format.IsNull()) return std::nullopt;
    return format.AsString();
}

// The record set's first row's integer field; 0 for null.
std::int64_t IntOrZero(TKRRecordSet& ASet, const char* AField) {
    auto v = ASet.ValueByName(0, AField);
    return v.IsNull() ? 0 : v.GetAsInteger();
}

}  // namespace

IDocumentsServiceRepository* DocumentsServiceRepository() {
    return GRepository.load();
}

void SetDocumentsServiceRepository(IDocumentsServiceRepository* ARepository) {
    GRepository = ARepository;
}

IDocumentsServiceRepository& ModuleDocumentsServiceRepository() {
    static TModuleRepositoryAdapter adapter;
    return adapter;
}

void GetDocumentsAPIService(const TVTLBIAPIItem& AItem, TRestServiceClass& AImplementorClass,
                            TInterfaceTypeList& AImplementedInterfaces) {
    AImplementedInterfaces.clear();
    if (AItem.Index != 0) return;
    AImplementorClass = [] { return std::make_unique<TVTLDocumentsRestService>(); };
    AImplementedInterfaces.push_back(DocumentStoreInterfaceType());
}

// ---- Publication

const TAPIInterfaceType* DocumentStoreInterfaceType() {
    using K = TAPIParamKind;
    static const auto store = [](TVTLCustomRestService& AService) -> IDocumentStore& {
        auto* s = dynamic_cast<IDocumentStore*>(&AService);
        if (!s) throw EVTLRestServiceError(500, "The service doesn't implement IDocumentStore");
        return *s;
    };
    static const std::vector<TAPIParam> results = {{"MethodResult", K::pkBoolean, true},
                                                   {"ResultInfo", K::pkRawJSON, true}};
    static const auto params = [](std::vector<TAPIParam> AIn) {
        AIn.insert(AIn.end(), results.begin(), results.end());
        return AIn;
    };
    static const TAPIParam storage{"StorageUID", K::pkString}, schema{"SchemaName", K::pkString},
        record{"RecordUID", K::pkString}, dbid{"ServerDBID", K::pkInt64},
        chunk{"Chunk", K::pkRawJSON}, options{"Options", K::pkRawJSON},
        docUID{"DocumentUID", K::pkString};
    static const TAPIInterfaceType type{
        "IDocumentStore",
        IDocumentStore::IID,
        {
            {"QueryRecordResourceList",
             params(
                 {storage, schema, record, {"Filter", K::pkRawJSON}, {"Pagination", K::pkRawJSON}}),
             [](TVTLCustomRestService& S, TAPICallArgs& A) {
                 store(S).QueryRecordResourceList(
                     A.Str("StorageUID"), A.Str("SchemaName"), A.Str("RecordUID"), A.Raw("Filter"),
                     A.Raw("Pagination"), A.OutBool("MethodResult"), A.OutRaw("ResultInfo"));
             }},
            {"DownloadRecordDocument", params({storage, schema, record, dbid, chunk}),
             [](TVTLCustomRestService& S, TAPICallArgs& A) {
                 store(S).DownloadRecordDocument(A.Str("StorageUID"), A.Str("SchemaName"),
                                                 A.Str("RecordUID"), A.Int("ServerDBID"),
                                                 A.Raw("Chunk"), A.OutBool("MethodResult"),
                                                 A.OutRaw("ResultInfo"));
             }},
            {"DownloadRecordDocumentEx", params({storage, schema, record, dbid, chunk, options}),
             [](TVTLCustomRestService& S, TAPICallArgs& A) {
                 store(S).DownloadRecordDocumentEx(
                     A.Str("StorageUID"), A.Str("SchemaName"), A.Str("RecordUID"),
                     A.Int("ServerDBID"), A.Raw("Chunk"), A.Raw("Options"),
                     A.OutBool("MethodResult"), A.OutRaw("ResultInfo"));
             }},
            {"DownloadDocument", params({docUID, chunk}),
             [](TVTLCustomRestService& S, TAPICallArgs& A) {
                 store(S).DownloadDocument(A.Str("DocumentUID"), A.Raw("Chunk"),
                                           A.OutBool("MethodResult"), A.OutRaw("ResultInfo"));
             }},
            {"DownloadDocumentEx", params({docUID, chunk, options}),
             [](TVTLCustomRestService& S, TAPICallArgs& A) {
                 store(S).DownloadDocumentEx(A.Str("DocumentUID"), A.Raw("Chunk"), A.Raw("Options"),
                                             A.OutBool("MethodResult"), A.OutRaw("ResultInfo"));
             }},
        }};
    return &type;
}

// ---- TVTLDocumentsRestService

HRESULT TVTLDocumentsRestService::QueryInterface(const TGUID& iid, void** obj) {
    if (iid == IDocumentStore::IID || iid == IInterface::IID) {
        *obj = static_cast<IDocumentStore*>(this);
        return S_OK;
    }
    *obj = nullptr;
    return E_NOINTERFACE;
}

void TVTLDocumentsRestService::QueryRecordResourceList(
    const std::string& StorageUID, const std::string& SchemaName, const std::string& RecordUID,
    const std::string& Filter, const std::string& Pagination, bool& MethodResult,
    std::string& ResultInfo) {
    RunServiceMethod(nullptr, MethodResult, ResultInfo, [&](TJsonObject& R, const TJsonObject*) {
        const TRecordFlagTypes flags = ResolveRecordFlagTypes(MainInterface(), SchemaName);
        return InternalQueryRecordRessourceList(StorageUID, SchemaName, RecordUID, Filter,
                                                Pagination, R, flags);
    });
}

void TVTLDocumentsRestService::DownloadRecordDocument(const std::string& StorageUID,
                                                      const std::string& SchemaName,
                                                      const std::string& RecordUID,
                                                      std::int64_t ServerDBID,
                                                      const std::string& Chunk, bool& MethodResult,
                                                      std::string& ResultInfo) {
    RunServiceMethod(nullptr, MethodResult, ResultInfo, [&](TJsonObject& R, const TJsonObject*) {
        return InternalDownloadRecordDocument(StorageUID, SchemaName, RecordUID, ServerDBID, Chunk,
                                              R, nullptr);
    });
}

void TVTLDocumentsRestService::DownloadRecordDocumentEx(
    const std::string& StorageUID, const std::string& SchemaName, const std::string& RecordUID,
    std::int64_t ServerDBID, const std::string& Chunk, const std::string& Options,
    bool& MethodResult, std::string& ResultInfo) {
    RunServiceMethod(&Options, MethodResult, ResultInfo,
                     [&](TJsonObject& R, const TJsonObject* AOptions) {
                         return InternalDownloadRecordDocument(StorageUID, SchemaName, RecordUID,
                                                               ServerDBID, Chunk, R, AOptions);
                     });
}

void TVTLDocumentsRestService::DownloadDocument(const std::string& DocumentUID,
                                                const std::string& Chunk, bool& MethodResult,
                                                std::string& ResultInfo) {
    RunServiceMethod(nullptr, MethodResult, ResultInfo, [&](TJsonObject& R, const TJsonObject*) {
        return InternalDownloadDocument(DocumentUID, Chunk, nullptr, R);
    });
}

void TVTLDocumentsRestService::DownloadDocumentEx(const std::string& DocumentUID,
                                                  const std::string& Chunk,
                                                  const std::string& Options, bool& MethodResult,
                                                  std::string& ResultInfo) {
    RunServiceMethod(&Options, MethodResult, ResultInfo,
                     [&](TJsonObject& R, const TJsonObject* AOptions) {
                         return InternalDownloadDocument(DocumentUID, Chunk, AOptions, R);
                     });
}

// ---- Frame

TSessionDirectoryRootHelper* TVTLDocumentsRestService::GetDirectoryHelper(
    const std::string& StorageUID, const std::string& SchemaName, const std::string& RecordUID,
    TRecordFlagTypes ARecordFlagTypes, bool AllowFromCache) {
    CheckCurrentSession();
    TSessionCache& cache = CurrentSession()->GetSessionCache();
    if (auto* helper =
            dynamic_cast<TSessionDirectoryRootHelper*>(cache.Find(SessionDirectoryRootKey));
        helper && AllowFromCache && helper->StorageUID() == StorageUID &&
        helper->SchemaName() == SchemaName && helper->RecordUID() == RecordUID &&
        helper->RecordFlagTypes() == ARecordFlagTypes)
        return helper;
    cache.Remove(SessionDirectoryRootKey);

    IDocumentsServiceRepository* repository = RepositoryOrShutdown();
    std::string recordUID = RecordUID;
    const std::string baseDirectory = GetRecordBaseDirectory(SchemaName, recordUID, -1);
    IPtr<IDirectoryRoot> root = repository->GetDocAdminObject(StorageUID, baseDirectory, true, "",
                                                              -1, 0, ARecordFlagTypes, true, false);

    auto owned = std::make_unique<TSessionDirectoryRootHelper>(std::move(root));
    TSessionDirectoryRootHelper* helper = owned.get();
    cache.Add(SessionDirectoryRootKey, std::move(owned));
    helper->SetStorageUID(StorageUID);
    helper->SetSchemaName(SchemaName);
    helper->SetRecordUID(recordUID);
    helper->SetRecordFlagTypes(ARecordFlagTypes);
    return helper;
}

std::string TVTLDocumentsRestService::GetRecordBaseDirectory(const std::string& SchemaName,
                                                             std::string& RecordUID,
                                                             std::int64_t ADBID) {
    IMainInterface* main = MainInterface();
    IPtr<IDBFieldSchemaItem> schema =
        main ? GetSchemaByName(main->GetDBFieldSchema(), SchemaName) : IPtr<IDBFieldSchemaItem>();
    if (!schema) throw EVTLRestServiceError(400, "SchemaName \"" + SchemaName + "\" not found");
    const std::string table = schema->GetHasOwnDocumentTable() ? schema->GetDocumentTableName()
                                                               : schema->GetSQLTableName();
    if (table.empty())
        throw EVTLRestServiceError(400, "No document storage found for \"" + SchemaName + "\"");
    if (RecordUID.empty()) RecordUID = main->GetDBInterface()->GetRecordUIDByDBID(table, ADBID);
    return "\"" + table + "#Records\",\"" + RecordUID + "\"";
}

TRecordFlagTypes TVTLDocumentsRestService::ResolveRecordFlagTypes(IMainInterface* AMainInterface,
                                                                  const std::string& SchemaName) {
    // An unknown schema has no setting; GetRecordBaseDirectory reports it with its 400 once the
    // session's root has been given up.
    std::string table;
    try {
        if (AMainInterface)
            table = GetSQLTableNameFromSchemaName(AMainInterface->GetDBFieldSchema(), SchemaName);
    } catch (const EDBUnknownSchema&) {
        return DefaultRecordFlagTypes();
    }
    TServiceDataSettings::TItem item;
    if (ServiceDataSettings().Find(0, table, CurrentSessionTypes(), item))
        return item.RecordFlagTypes;
    return DefaultRecordFlagTypes();
}

std::string TVTLDocumentsRestService::GuessStorageUIDBySQLTableName(
    const std::string& ASQLTableName) {
    return docadmin::GuessStorageUIDBySQLTableName(ASQLTableName);
}

// ---- Import

void TVTLDocumentsRestService::ImportRecordDocumentsFromJSONArray(
    const TJsonObject& AJSONItems, IDBFieldSchemaItem* ASchema, const std::string& RecordUID,
    TJsonObject* AResultJson, TRecordFlagTypes ActiveRecordFlags) {
    const std::string storageUID = GuessStorageUIDBySQLTableName(ASchema->GetSQLTableName());
    TSessionDirectoryRootHelper* helper = GetDirectoryHelper(storageUID, ASchema->GetSchemaName(),
                                                             RecordUID, ActiveRecordFlags, true);
    if (!helper || !AJSONItems.is_array()) return;
    IDirectoryRoot* root = helper->Value().get();
    IPtr<IRessourceContainer> container;
    Supports(root, container);
    for (const TJsonObject& item : AJSONItems) {
        if (!item.is_object()) continue;
        const std::string file = GetTempPath() + GetTempFileName();
        TFinally removeFile{[&file] {
            std::error_code ec;
            std::filesystem::remove(file, ec);
        }};
        SaveStrToFile(file, DecodeContent(item), false);
        // A path that names no folder of the tree puts the document into the record's folder.
        IPtr<IDirectory> dir = root->Do_GetDirectoryByTitle(nullptr, StringMember(item, "path"));
        // Adding doesn't check the target folder's rights on its own: a user who may only read a
        // folder adds nothing to it.
        IPtr<IRessource> target;
        if (dir) Supports(dir.get(), target);
        if (container && !container->Get_ACLWriteable(target.get()))
            throw EVTLRestServiceError(
                403, "No write access to \"" + (dir ? dir->Get_Title() : std::string()) + "\"");
        // Without a name the document takes the temporary file's name (not its folder).
        std::string name = StringMember(item, "name");
        if (name.empty()) name = ExtractFileName(file);
        IPtr<IDocument> doc = root->Do_SaveDocument(dir.get(), name, file, 0);
        if (!doc) continue;
        if (ActiveRecordFlags != 0 && doc->Get_DocID() > 0)
            SetDocumentRecordFlags(doc->Get_DocID(), ActiveRecordFlags);
        if (AResultJson) {
            // The row's UID is made by the database; a document just written may not hold it.
            std::string uid = doc->Get_GlobalRecUID();
            if (uid.empty() && doc->Get_DocID() > 0)
                uid = MainInterface()->GetDBInterface()->GetRecordUIDByDBID("docadmindocs",
                                                                            doc->Get_DocID());
            AddRecordInfoToJsonResult(StringMember(item, "remote_uid"), uid, doc->Get_DocID(),
                                      *AResultJson);
        }
    }
}

// ---- Listing

bool TVTLDocumentsRestService::InternalQueryRecordRessourceList(
    const std::string& StorageUID, const std::string& SchemaName, const std::string& RecordUID,
    const std::string& /*Filter*/, const std::string& /*Pagination*/, TJsonObject& ResultJson,
    TRecordFlagTypes ARecordFlagTypes) {
    TSessionDirectoryRootHelper* helper =
        GetDirectoryHelper(StorageUID, SchemaName, RecordUID, ARecordFlagTypes, false);
    if (!helper) return false;
    IPtr<IDirectory> root = helper->Value()->Get_RootDir();
    FillDirectoryJson(root.get(), ResultJson);
    return true;
}

void TVTLDocumentsRestService::FillDirectoryJson(IDirectory* ADirectory, TJsonObject& AJson) {
    if (ADirectory->Get_ChildDirectoryCount() > 0) {
        TJsonObject& list = AJson["directories"] = TJsonObject::array();
        for (std::int32_t i = 0; i < ADirectory->Get_ChildDirectoryCount(); ++i) {
            IPtr<IDirectory> dir = ADirectory->Get_ChildDirectory(i);
            TJsonObject& o = list.emplace_back(TJsonObject::object());
            o["server_dbid"] = dir->Get_DirID();
            o["server_uid"] = dir->Get_GlobalRecUID();
            o["name"] = dir->Get_Title();
            o["createdate"] = DateTimeToISO8601(dir->Get_CreaDate());
            FillDirectoryJson(dir.get(), o);
        }
    }
    if (ADirectory->Get_DocumentCount() > 0) {
        TJsonObject& list = AJson["documents"] = TJsonObject::array();
        for (std::int32_t i = 0; i < ADirectory->Get_DocumentCount(); ++i) {
            IPtr<IDocument> doc = ADirectory->Get_Document(i);
            list.push_back({{"server_dbid", static_cast<std::int64_t>(doc->Get_DocID())},
                            {"server_uid", doc->Get_GlobalRecUID()},
                            {"name", doc->Get_DocName()},
                            {"size", doc->Get_Size()},
                            {"lastmodified", DateTimeToISO8601(doc->Get_Date())},
                            {"createdate", DateTimeToISO8601(doc->Get_CreaDate())},
                            {"version", doc->Get_Version()}});
        }
    }
}

// ---- Download

bool TVTLDocumentsRestService::InternalDownloadRecordDocument(
    const std::string& StorageUID, const std::string& SchemaName, const std::string& RecordUID,
    std::int64_t ServerDBID, const std::string& Chunk, TJsonObject& ResultJson,
    const TJsonObject* OptionsJson) {
    const TRecordFlagTypes flags = ResolveRecordFlagTypes(MainInterface(), SchemaName);
    TSessionDirectoryRootHelper* root =
        GetDirectoryHelper(StorageUID, SchemaName, RecordUID, flags, true);
    if (!root) return false;
    IPtr<IDocument> document;
    if (!FindDocumentByID(root->Value()->Get_RootDir().get(), document, ServerDBID))
        throw EVTLRestServiceError(404, DocumentNotFoundText);

    const std::string key = SessionDocumentKeyPrefix + std::to_string(ServerDBID);
    TSessionCache& cache = CurrentSession()->GetSessionCache();
    auto* helper = dynamic_cast<TSessionCacheTempFileHelper*>(cache.Find(key));
    if (auto* failed = dynamic_cast<TDocumentTempFileHelper*>(helper); failed && failed->Failure) {
        const std::exception_ptr failure = failed->Failure;
        cache.Remove(key);
        std::rethrow_exception(failure);
    }
    if (!helper) {
        // Into the cache before anything can fail: a failed fetch leaves the entry behind,
        // holding its failure.
        auto owned = std::make_unique<TDocumentTempFileHelper>();
        TDocumentTempFileHelper* entry = owned.get();
        helper = entry;
        cache.Add(key, std::move(owned));
        try {
            helper->DisplayName = document->Get_DocName();
            helper->FileName = ChangeFileExt(helper->FileName, ExtractFileExt(helper->DisplayName));
            if (!document->Do_Download(helper->FileName))
                throw EDocAdminException("The document \"" + helper->DisplayName +
                                         "\" could not be fetched");
            if (auto format = OptionFormat(OptionsJson)) ConvertSessionFile(*helper, *format);
            helper->GetStream()->SetPosition(0);
        } catch (...) {
            entry->Failure = std::current_exception();
            throw;
        }
    }
    ServeChunk(*helper, key, Chunk, ResultJson, [&] {
        ResultJson["server_dbid"] = ServerDBID;
        ResultJson["name"] = helper->DisplayName;
        ResultJson["converted"] = helper->Converted;
    });
    return true;
}

bool TVTLDocumentsRestService::InternalDownloadDocument(const std::string& DocumentUID,
                                                        const std::string& Chunk,
                                                        const TJsonObject* OptionsJson,
                                                        TJsonObject& ResultJson) {
    CheckCurrentSession();
    const std::string key = SessionDocumentKeyPrefix + DocumentUID;
    TSessionCache& cache = CurrentSession()->GetSessionCache();
    auto* helper = dynamic_cast<TSessionCacheTempFileHelper*>(cache.Find(key));
    if (!helper) {
        IDocumentsServiceRepository* repository = RepositoryOrShutdown();
        // The record route only finds what the user's tree holds; this route must not reach
        // further, so the rights are checked before anything is fetched.
        if (!CurrentUserMayReadDocument(DocumentUID))
            throw EVTLRestServiceError(404, DocumentNotFoundText);
        // Freed with its file on any failure: on this route a failed fetch leaves no entry.
        auto owned = std::make_unique<TSessionCacheTempFileHelper>();
        std::string name;
        TDateTime created = 0, modified = 0;
        if (!repository->DownloadDocumentWithUID(DocumentUID, owned->FileName, name, created,
                                                 modified, false))
            throw EVTLRestServiceError(404, DocumentNotFoundText);
        owned->DisplayName = name;
        owned->CreationDate = created;
        owned->ModificationDate = modified;
        if (auto format = OptionFormat(OptionsJson)) {
            owned->ChangeFileExt(ExtractFileExt(name));
            ConvertSessionFile(*owned, *format);
        }
        owned->GetStream()->SetPosition(0);
        helper = owned.get();
        cache.Add(key, std::move(owned));
    }
    ServeChunk(*helper, key, Chunk, ResultJson, [&] {
        ResultJson["server_uid"] = DocumentUID;
        ResultJson["name"] = helper->DisplayName;
        ResultJson["lastmodified"] = DateTimeToISO8601(helper->ModificationDate);
        ResultJson["createdate"] = DateTimeToISO8601(helper->CreationDate);
        ResultJson["converted"] = helper->Converted;
    });
    return true;
}

bool TVTLDocumentsRestService::FindDocumentByID(IDirectory* ADirectory, IPtr<IDocument>& ADocument,
                                                std::int64_t ADocumentID) {
    for (std::int32_t i = 0; i < ADirectory->Get_DocumentCount(); ++i) {
        IPtr<IDocument> doc = ADirectory->Get_Document(i);
        if (static_cast<std::int64_t>(doc->Get_DocID()) == ADocumentID) {
            ADocument = std::move(doc);
            return true;
        }
    }
    for (std::int32_t i = 0; i < ADirectory->Get_ChildDirectoryCount(); ++i)
        if (FindDocumentByID(ADirectory->Get_ChildDirectory(i).get(), ADocument, ADocumentID))
            return true;
    return false;
}

void TVTLDocumentsRestService::ConvertSessionFile(TSessionCacheTempFileHelper& AFileHelper,
                                                  const std::string& AFormat) {
    // The format becomes a file name's extension: one that could name another folder isn't a
    // format, and the document goes out unconverted.
    if (AFormat.find('/') != std::string::npos || AFormat.find('\0') != std::string::npos) return;
    IDocumentsServiceRepository* repository = DocumentsServiceRepository();
    TKRFileHandlerClient* converter = repository ? repository->KRFileHandlerClient() : nullptr;
    if (!converter) return;
    std::string target = ChangeFileExt(GetTempPath() + GetTempFileName(), AFormat);
    TFinally removeTarget{[&target] {
        if (target.empty()) return;
        std::error_code ec;
        std::filesystem::remove(target, ec);
    }};
    if (converter->ConvertFormat(AFileHelper.FileName, target)) {
        std::error_code ec;
        std::filesystem::remove(AFileHelper.FileName, ec);
        AFileHelper.FileName = target;
        target.clear();
        AFileHelper.DisplayName = ChangeFileExt(AFileHelper.DisplayName, AFormat);
        AFileHelper.Converted = true;
    } else {
        target.clear();
    }
}

bool TVTLDocumentsRestService::CurrentUserMayReadDocument(const std::string& DocumentUID) {
    IMainInterface* main = MainInterface();
    if (!main) return false;
    IDBInterface* db = main->GetDBInterface();
    // The user's row rights decide, as when a tree loads: the document's row, then each folder
    // up to the top, since a tree shows nothing below a folder the user may not read.
    TKRRecordSet docs(nullptr, db);
    docs.SetSchemaName("docadmindocs");
    docs.SetOptions({rsoUserRowRights});
    docs.GetSelectFields()->Add("dirid");
    docs.GetSelectFieldOptions("dirid").DisableLookupValueLoading = true;
    AddFilter(docs.GetFilters(), "globalrecuid", TVariant(DocumentUID));
    docs.Open();
    if (docs.GetRecordCount() == 0) return false;
    std::int64_t dirID = IntOrZero(docs, "dirid");
    // A folder chain is short; the bound only guards against a cycle in damaged rows.
    for (int depth = 0; dirID > 0; ++depth) {
        if (depth > 10000) return false;
        TKRRecordSet dirs(nullptr, db);
        dirs.SetSchemaName("docadmindir");
        dirs.SetOptions({rsoUserRowRights});
        dirs.GetSelectFields()->Add("parentdirid");
        dirs.GetSelectFieldOptions("parentdirid").DisableLookupValueLoading = true;
        AddFilter(dirs.GetFilters(), "id", TVariant(static_cast<long long>(dirID)));
        dirs.Open();
        if (dirs.GetRecordCount() == 0) return false;
        dirID = IntOrZero(dirs, "parentdirid");
    }
    return true;
}

}  // namespace docadmin
