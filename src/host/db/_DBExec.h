// Inserts, updates and deletes by field and filter list, shared by TClientSQL, IDBSQLStatement
// and the record set. Internal to src/host/db.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "_DBInterface.h"
#include "_TClientSQL.h"

namespace docadmin {

// Inserts one row and answers its key. The host record columns that the caller leaves out are
// filled: creadate and lastchangedtsp with now, creaid and lastchangedid with the thread's user,
// globalrecuid with a fresh GUID.
std::int64_t DBExecInsert(IDBInterface& ADB, std::int64_t ATransactionID, const TDBTableDef& ATable,
                          const TClientSQLFields& AFields);
// Updates the rows that match the filters (all rows without filters); answers the rows touched.
std::int64_t DBExecUpdate(IDBInterface& ADB, std::int64_t ATransactionID, const TDBTableDef& ATable,
                          const TClientSQLFields& AFields, const TClientSQLFilters& AFilters);
// Deletes the rows that match the filters, after asking the delete listeners; dependent rows go
// first, in the same transaction. Answers the rows deleted from ATable.
std::int64_t DBExecDelete(IDBInterface& ADB, std::int64_t ATransactionID, const TDBTableDef& ATable,
                          const TClientSQLFilters& AFilters);

}  // namespace docadmin
