// IDocumentStore: the documents service that the module publishes under the APIRoot "services".
//
// Every method is a procedure that answers through its two last out-parameters: MethodResult
// tells success, ResultInfo is always a JSON object (on failure it carries the error form with
// its HTTP status). RawJSON parameters are JSON texts; an empty text means "not given".
//
// Methods in slot order:
//   QueryRecordResourceList(StorageUID, SchemaName, RecordUID, Filter, Pagination)
//   DownloadRecordDocument(StorageUID, SchemaName, RecordUID, ServerDBID, Chunk)
//   DownloadRecordDocumentEx(StorageUID, SchemaName, RecordUID, ServerDBID, Chunk, Options)
//   DownloadDocument(DocumentUID, Chunk)
//   DownloadDocumentEx(DocumentUID, Chunk, Options)
#pragma once

#include <cstdint>
#include <string>

#include "_Interfaces.h"
#include "_TVTLBIAPIClient.h"

namespace docadmin {

class IDocumentStore : public IInterface {
  public:
    DOCADMIN_IID("{D10F1DDF-0F23-4B96-BBCC-C51EA1D98CB3}");
    virtual void QueryRecordResourceList(const std::string& StorageUID,
                                         const std::string& SchemaName,
                                         const std::string& RecordUID, const std::string& Filter,
                                         const std::string& Pagination, bool& MethodResult,
                                         std::string& ResultInfo) = 0;
    virtual void DownloadRecordDocument(const std::string& StorageUID,
                                        const std::string& SchemaName, const std::string& RecordUID,
                                        std::int64_t ServerDBID, const std::string& Chunk,
                                        bool& MethodResult, std::string& ResultInfo) = 0;
    virtual void DownloadRecordDocumentEx(const std::string& StorageUID,
                                          const std::string& SchemaName,
                                          const std::string& RecordUID, std::int64_t ServerDBID,
                                          const std::string& Chunk, const std::string& Options,
                                          bool& MethodResult, std::string& ResultInfo) = 0;
    virtual void DownloadDocument(const std::string& DocumentUID, const std::string& Chunk,
                                  bool& MethodResult, std::string& ResultInfo) = 0;
    virtual void DownloadDocumentEx(const std::string& DocumentUID, const std::string& Chunk,
                                    const std::string& Options, bool& MethodResult,
                                    std::string& ResultInfo) = 0;
};

// The published description of IDocumentStore: its methods with their parameters by name and
// the thunks that call them on a service object implementing the interface.
const TAPIInterfaceType* DocumentStoreInterfaceType();

}  // namespace docadmin
