#include "_VTLRecordDocumentsDetailHandler.h"

#include "_DBSchema.h"

namespace docadmin {

namespace {

// Registered for every schema while the module is loaded.
struct TRegistration {
    TRegistration() {
        TVTLRestAPIDatabaseCustomDetailTableHandler::RegisterDetailHandler<
            TVTLRestAPIDatabaseRecordDocumentsTableDetailHandler>("*");
    }
    ~TRegistration() {
        TVTLRestAPIDatabaseCustomDetailTableHandler::UnRegisterDetailHandler<
            TVTLRestAPIDatabaseRecordDocumentsTableDetailHandler>("*");
    }
};
const TRegistration GRegistration;

}  // namespace

void TVTLRestAPIDatabaseRecordDocumentsTableDetailHandler::InitializeDetails() {
    TVTLRestAPIDatabaseCustomDetailTableHandler::InitializeDetails();
    FActive = GetFieldSettings(RecordDocumentsDetailName, FJSONFieldName, true, FFieldMappingItem);
}

void TVTLRestAPIDatabaseRecordDocumentsTableDetailHandler::AfterInsertSQLExecute(
    const TJsonObject& AValues, const std::string& ASchema, const std::string& ARecUID,
    std::int64_t ARecDBID, TJsonObject& AResultJson) {
    TVTLRestAPIDatabaseCustomDetailTableHandler::AfterInsertSQLExecute(AValues, ASchema, ARecUID,
                                                                       ARecDBID, AResultJson);
    ImportRecordDocuments(AValues, ASchema, ARecUID, AResultJson);
}

void TVTLRestAPIDatabaseRecordDocumentsTableDetailHandler::AfterUpdateSQLExecute(
    const TJsonObject& AValues, const std::string& ASchema, const std::string& ARecUID,
    TJsonObject& AResultJson) {
    TVTLRestAPIDatabaseCustomDetailTableHandler::AfterUpdateSQLExecute(AValues, ASchema, ARecUID,
                                                                       AResultJson);
    ImportRecordDocuments(AValues, ASchema, ARecUID, AResultJson);
}

void TVTLRestAPIDatabaseRecordDocumentsTableDetailHandler::ImportRecordDocuments(
    const TJsonObject& AValues, const std::string& ASchema, const std::string& ARecUID,
    TJsonObject& AResultJson) {
    const auto section = AValues.find(RecordDocumentsDetailName);
    if (section == AValues.end() || !section->is_object() || section->empty()) return;
    const auto items = section->find("insert");
    if (items == section->end() || !items->is_array() || items->empty()) return;
    const TRecordFlagTypes flags =
        ServiceImpl() ? ServiceImpl()->GetDetailRecordFlagTypes(RecordDocumentsDetailName)
                      : TVTLCustomRestService::DefaultRecordFlagTypes();
    IMainInterface* main = TVTLCustomRestService::MainInterface();
    IPtr<IDBFieldSchemaItem> schema =
        main ? GetSchemaByName(main->GetDBFieldSchema(), ASchema) : IPtr<IDBFieldSchemaItem>();
    if (!schema) throw EVTLRestServiceError(400, "SchemaName \"" + ASchema + "\" not found");
    GetDocumentsRestService().ImportRecordDocumentsFromJSONArray(*items, schema.get(), ARecUID,
                                                                 &AResultJson, flags);
}

void TVTLRestAPIDatabaseRecordDocumentsTableDetailHandler::WriteRecordToJson(
    TKRRecordSet& ARecordSet, int RecNo, TJsonObject& ARecordsData, void* AJsonLookupTableDataList,
    const TFieldMappingProc& AMappingProc) {
    TVTLRestAPIDatabaseCustomDetailTableHandler::WriteRecordToJson(
        ARecordSet, RecNo, ARecordsData, AJsonLookupTableDataList, AMappingProc);
    if (!FActive) return;
    const int uidColumn = ARecordSet.GetFieldIndex("globalrecuid");
    if (uidColumn < 0)
        throw EVTLRestServiceError(400,
                                   "Missing field \"globalrecuid\" (required for detail handler "
                                   "\"record_documents\") in field list!");
    std::string jsonName = RecordDocumentsDetailName;
    if (AMappingProc)
        if (const TFieldMappingItem* m = AMappingProc(RecordDocumentsDetailName);
            m && !m->JSONName.empty())
            jsonName = m->JSONName;
    const std::string recordUID = ARecordSet.ValueByIndex(RecNo, uidColumn).GetAsString();
    const TRecordFlagTypes flags =
        ServiceImpl() ? ServiceImpl()->GetDetailRecordFlagTypes(RecordDocumentsDetailName)
                      : TVTLCustomRestService::DefaultRecordFlagTypes();
    IDBFieldSchemaItem* schema = ARecordSet.GetActiveSchema();
    const std::string storageUID = TVTLDocumentsRestService::GuessStorageUIDBySQLTableName(
        schema ? schema->GetSQLTableName() : std::string());
    TJsonObject& target = ARecordsData[jsonName];
    if (!target.is_object()) target = TJsonObject::object();
    GetDocumentsRestService().InternalQueryRecordRessourceList(
        storageUID, ARecordSet.GetSchemaName(), recordUID, "", "", target, flags);
}

TVTLDocumentsRestService&
TVTLRestAPIDatabaseRecordDocumentsTableDetailHandler::GetDocumentsRestService() {
    if (!FDocumentsRestService)
        FDocumentsRestService = std::make_unique<TVTLDocumentsRestService>();
    return *FDocumentsRestService;
}

}  // namespace docadmin
