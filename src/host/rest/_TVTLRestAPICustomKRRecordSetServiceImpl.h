// The generic record REST service over the schema catalogue, its detail handlers, field mappings
// and filter handlers.
//
//   GET  /records/<schema>?fields=a,b&where=TEXT&order=a,-b&limit=N&offset=N
//        [&filter=<identifier>&filter_value=TEXT]
//        -> {"records": [...], "offset": N, "limit": N, "total": N}
//   GET  /records/<schema>/<record UID>[?fields=...]    -> {"records": [row]}
//   POST /records/<schema>           JSON object of values  -> {"record_info": [...]}
//   PUT  /records/<schema>/<record UID>                     -> {"record_info": [...]}
//   GET  /filters/<schema>                               -> {"filters": [...]}
//
// Reads run with the current user's row rights: a row the user may not read is not listed and
// reads as 404. A list is one page that the database cuts out (LIMIT/OFFSET bound as values) in
// the order asked for, completed by the key; "total" counts all rows of the query. A page holds at
// most MaxPageSize rows, which is also the page without a limit; a larger limit gets 400.
// Writes need a user that isn't read-only and, on a table registered for record ACLs, a writing
// mode (0 or 2) in the row's ACL group and write access to each row that its ACL fields name, for
// the row as it is and as it will be; otherwise 403 before anything is written. A where-text goes
// through the where-clause parser; every field name is checked against the schema and every value
// is bound.
// The host's own tables of users and settings are not served.
//
// A field mapping gives a column another JSON name, for output and input alike. A detail handler
// registered under a schema name pattern ("*" for every schema) takes part in the requests of the
// matching schemas: it may add data to each row it writes out and act on the values of a write.
// Handlers are made per request and serve one request.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <typeindex>
#include <vector>

#include "_Classes.h"
#include "_TKRRecordSet.h"
#include "_TVTLCustomRestService.h"

namespace docadmin {

struct TFieldMappingItem {
    std::string FieldName;
    std::string JSONName;
};
// The mapping entry of a field, or nullptr.
using TFieldMappingProc = std::function<const TFieldMappingItem*(const std::string& AFieldName)>;

class TVTLRestAPICustomKRRecordSetServiceImpl;

class TVTLRestAPIDatabaseCustomDetailTableHandler : public TObject {
  public:
    TVTLRestAPIDatabaseCustomDetailTableHandler(
        TVTLRestAPICustomKRRecordSetServiceImpl* AServiceImpl, TFieldMappingProc AMappingProc);

    // Virtuals in the order the service calls them for a request.
    virtual void InitializeDetails() {}
    // The key under which the detail travels in a row's JSON.
    virtual std::string GetDetailName() const = 0;
    virtual void BeforeSQLExecute(const TJsonObject& AValues, const std::string& ASchema,
                                  TClientSQL& AStatement) {}
    virtual void AfterInsertSQLExecute(const TJsonObject& AValues, const std::string& ASchema,
                                       const std::string& ARecUID, std::int64_t ARecDBID,
                                       TJsonObject& AResultJson) {}
    virtual void AfterUpdateSQLExecute(const TJsonObject& AValues, const std::string& ASchema,
                                       const std::string& ARecUID, TJsonObject& AResultJson) {}
    // ARecordsData is the row's JSON object; AJsonLookupTableDataList is unused (null).
    virtual void WriteRecordToJson(TKRRecordSet& ARecordSet, int RecNo, TJsonObject& ARecordsData,
                                   void* AJsonLookupTableDataList,
                                   const TFieldMappingProc& AMappingProc) {}

    // Whether the client's field list names ADetailName; with AOnlyWhenListed false an absent
    // field list counts as asking. Delivers the JSON name (a mapping's, else the name) and the
    // mapping entry.
    bool GetFieldSettings(const std::string& ADetailName, std::string& AJSONFieldName,
                          bool AOnlyWhenListed, TFieldMappingItem& AMapping);
    TVTLRestAPICustomKRRecordSetServiceImpl* ServiceImpl() const { return FServiceImpl; }
    const TFieldMappingProc& MappingProc() const { return FMappingProc; }

    using TFactory = std::function<std::unique_ptr<TVTLRestAPIDatabaseCustomDetailTableHandler>(
        TVTLRestAPICustomKRRecordSetServiceImpl*, TFieldMappingProc)>;
    template <class T>
    static void RegisterDetailHandler(const std::string& AName) {
        Register(AName, typeid(T),
                 [](TVTLRestAPICustomKRRecordSetServiceImpl* s, TFieldMappingProc m) {
                     return std::unique_ptr<TVTLRestAPIDatabaseCustomDetailTableHandler>(
                         new T(s, std::move(m)));
                 });
    }
    template <class T>
    static void UnRegisterDetailHandler(const std::string& AName) {
        Unregister(AName, typeid(T));
    }
    // Fresh handlers of every registration whose pattern matches the schema.
    static std::vector<std::unique_ptr<TVTLRestAPIDatabaseCustomDetailTableHandler>> CreateHandlers(
        const std::string& ASchemaName, TVTLRestAPICustomKRRecordSetServiceImpl* AServiceImpl,
        const TFieldMappingProc& AMappingProc);

  private:
    static void Register(const std::string& AName, std::type_index AType, TFactory AFactory);
    static void Unregister(const std::string& AName, std::type_index AType);
    TVTLRestAPICustomKRRecordSetServiceImpl* FServiceImpl;
    TFieldMappingProc FMappingProc;
};

// A filter that a plug-in offers for schemas: listed by GET /filters/<schema>, applied to a list
// by its identifier with the client's value.
struct TKRFilterHandler {
    std::string Identifier;
    std::string Caption;
    std::function<bool(const std::string& ASchemaName)> SupportsSchema;
    // Narrows the record set's query (by adding to its filters) for the value.
    std::function<void(TKRRecordSet& ARecordSet, const std::string& AValue)> OnApplyFilter;
};

class TKRFilterHandlerClient : public TComponent {
  public:
    explicit TKRFilterHandlerClient(TComponent* AOwner);
    ~TKRFilterHandlerClient() override;
    void AddHandler(TKRFilterHandler AHandler) { FHandlers.push_back(std::move(AHandler)); }
    const std::vector<TKRFilterHandler>& Handlers() const { return FHandlers; }
    // Every handler of every client alive now that supports the schema.
    static std::vector<TKRFilterHandler> HandlersForSchema(const std::string& ASchemaName);

  private:
    std::vector<TKRFilterHandler> FHandlers;
};

struct TRecordListQuery {
    std::string Fields;  // comma-separated; empty: all columns
    std::string Where;
    std::string Order;  // comma-separated, "-" before a name for descending
    std::int64_t Limit = -1;
    std::int64_t Offset = 0;
    std::string Filter;  // identifier of a filter handler, or empty
    std::string FilterValue;
};

class TVTLRestAPICustomKRRecordSetServiceImpl : public TVTLCustomRestService {
  public:
    TVTLRestAPICustomKRRecordSetServiceImpl();
    ~TVTLRestAPICustomKRRecordSetServiceImpl() override;

    // Each raises EVTLRestServiceError with 400, 401, 403 or 404 as fits.
    TJsonObject ListRecords(const std::string& ASchema, const TRecordListQuery& AQuery);
    TJsonObject ReadRecord(const std::string& ASchema, const std::string& ARecordUID,
                           const std::string& AFields);
    TJsonObject InsertRecord(const std::string& ASchema, const TJsonObject& AValues);
    TJsonObject UpdateRecord(const std::string& ASchema, const std::string& ARecordUID,
                             const TJsonObject& AValues);
    TJsonObject ListFilters(const std::string& ASchema);

    // The field list of the request being served (lower case), empty when none was given.
    const std::vector<std::string>& RequestedFields() const { return FRequestedFields; }
    bool FieldListGiven() const { return FFieldListGiven; }
    // The record flag types of a detail: a service data setting of type 1, else the default.
    TRecordFlagTypes GetDetailRecordFlagTypes(const std::string& ADetailName);
    // The mapping of a field of the schema being served, or nullptr.
    const TFieldMappingItem* FindFieldMapping(const std::string& AFieldName) const;

    // Process-wide field mappings by schema.
    static void RegisterFieldMapping(const std::string& ASchema, const std::string& AFieldName,
                                     const std::string& AJSONName);
    static void UnRegisterFieldMapping(const std::string& ASchema, const std::string& AFieldName);

    // Schemas the service never serves.
    static bool IsPrivateSchema(const std::string& ASchema);
    // The most rows a list answers at once (the server's setting).
    static std::int64_t MaxPageSize();

    // A row's value by field name (null when the row has none).
    using TRowValueFunc = std::function<TVariant(const std::string& AFieldName)>;

  private:
    const TDBTableDef& RequireSchema(const std::string& ASchema);
    void PrepareRequest(const TDBTableDef& ATable, const std::string& AFields);
    // The list query on the set: select fields, where-text, filter handler and order.
    void PrepareListSet(const TDBTableDef& ATable, const TRecordListQuery& AQuery,
                        TKRRecordSet& ASet);
    TJsonObject RowToJson(TKRRecordSet& ASet, int ARecNo);
    // Raises 403 unless the current user may write a row of the table with these values: not
    // read-only, and on a table registered for record ACLs a writing mode (0 or 2) in the row's
    // ACL group and write access to each row that its ACL fields name.
    void CheckWritable(const TDBTableDef& ATable, const TRowValueFunc& AValueOf, int ADepth = 0);
    void FillFields(const TDBTableDef& ATable, const TJsonObject& AValues, TClientSQL& AStatement,
                    bool AInsert);

    std::string FSchema;
    std::vector<TFieldMappingItem> FMappings;
    std::vector<std::string> FRequestedFields;
    bool FFieldListGiven = false;
    std::vector<std::unique_ptr<TVTLRestAPIDatabaseCustomDetailTableHandler>> FHandlers;
};

}  // namespace docadmin
