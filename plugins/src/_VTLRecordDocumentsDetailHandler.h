// TVTLRestAPIDatabaseRecordDocumentsTableDetailHandler: the "record_documents" detail of the
// host's record service, registered for every schema ("*") while the module is loaded.
//
// Reading: when the client's field list names "record_documents" (or its mapped JSON name), each
// row gets, under that JSON name, the listing of the record's document tree in the form of
// QueryRecordResourceList. The row's "globalrecuid" must be in the field list too; without it the
// request fails with 400. Without the field the handler costs nothing: no tree is loaded.
//
// Writing: after a row was inserted or updated, the documents in "record_documents"."insert"
// (the array that ImportRecordDocumentsFromJSONArray takes) are imported into the record's tree
// and reported in the result's "record_info". The key is "record_documents" whatever the
// mapping; any other form of the section is ignored. The row stays written when the import
// fails: the hooks run after its statement.
//
// A handler serves one request on one thread; the documents service it makes is its own.
#pragma once

#include <memory>
#include <string>

#include "_TVTLRestAPICustomKRRecordSetServiceImpl.h"
#include "_VTLDocumentsRestService.h"

namespace docadmin {

inline const std::string RecordDocumentsDetailName = "record_documents";

class TVTLRestAPIDatabaseRecordDocumentsTableDetailHandler
    : public TVTLRestAPIDatabaseCustomDetailTableHandler {
  public:
    using TVTLRestAPIDatabaseCustomDetailTableHandler::TVTLRestAPIDatabaseCustomDetailTableHandler;

    void InitializeDetails() override;
    std::string GetDetailName() const override { return RecordDocumentsDetailName; }
    void AfterInsertSQLExecute(const TJsonObject& AValues, const std::string& ASchema,
                               const std::string& ARecUID, std::int64_t ARecDBID,
                               TJsonObject& AResultJson) override;
    void AfterUpdateSQLExecute(const TJsonObject& AValues, const std::string& ASchema,
                               const std::string& ARecUID, TJsonObject& AResultJson) override;
    void WriteRecordToJson(TKRRecordSet& ARecordSet, int RecNo, TJsonObject& ARecordsData,
                           void* AJsonLookupTableDataList,
                           const TFieldMappingProc& AMappingProc) override;

    // Imports "record_documents"."insert" of the row's values, if there is such an array.
    void ImportRecordDocuments(const TJsonObject& AValues, const std::string& ASchema,
                               const std::string& ARecUID, TJsonObject& AResultJson);
    // The handler's own service, made on first use.
    TVTLDocumentsRestService& GetDocumentsRestService();

    bool Active() const { return FActive; }
    const std::string& JSONFieldName() const { return FJSONFieldName; }

  private:
    bool FActive = false;
    std::string FJSONFieldName;
    TFieldMappingItem FFieldMappingItem;
    std::unique_ptr<TVTLDocumentsRestService> FDocumentsRestService;
};

}  // namespace docadmin
