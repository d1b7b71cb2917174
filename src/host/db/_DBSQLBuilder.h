// SQL text for the layer's statements, built from the catalogue. Internal to src/host/db.
//
// Every name written into a text comes from a TDBTableDef; every value becomes a parameter.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "_DBBackend.h"
#include "_DBSchema.h"
#include "_TClientSQL.h"

namespace docadmin {

class TSQLBuild {
  public:
    TSQLBuild(const TDBDialect& ADialect, const IDBFieldSchema& ACatalogue)
        : Dialect(ADialect), Catalogue(ACatalogue) {}

    // Appends a parameter and answers its placeholder.
    std::string AddParam(TVariant AValue);
    std::string AddListParam(std::vector<TVariant> AItems);
    // A fresh alias for a sub-select ("s1", "s2", ...).
    std::string NewAlias() { return "s" + std::to_string(++FAliasCount); }

    const TDBDialect& Dialect;
    const IDBFieldSchema& Catalogue;
    std::vector<TDBParam> Params;

  private:
    int FAliasCount = 0;
};

// "<alias>.<quoted name>", or the quoted name alone when AAlias is empty.
std::string QualifiedName(const std::string& AAlias, const std::string& AName);

// The table's description; raises EDBUnknownSchema.
const TDBTableDef& RequireTable(const IDBFieldSchema& ACatalogue, const std::string& ASchemaName);
const TDBTableDef& RequireTableBySQLName(const IDBFieldSchema& ACatalogue,
                                         const std::string& ASQLTableName);
// The field's description; raises EDBUnknownField.
const TDBFieldDef& RequireField(const TDBTableDef& ATable, const std::string& AFieldName);

// A value as the field's kind wants it bound: numbers from numeric text, text for text fields.
TVariant ConvertForField(const TVariant& AValue, const TDBFieldDef& AField);

// The where expression of a filter list on a table (no "WHERE"); empty when it has no condition.
std::string RenderFilters(TSQLBuild& ABuild, const TDBTableDef& ATable, const std::string& AAlias,
                          const TClientSQLFilters& AFilters);

// " LIMIT .. OFFSET .." with both values bound as parameters; empty without paging. ALimit -1
// means no limit; negative values otherwise raise EDBException.
std::string RenderPaging(TSQLBuild& ABuild, std::int64_t ALimit, std::int64_t AOffset);

// The row-rights condition of a table for a user; empty when the table isn't restricted.
std::string RenderACLCondition(TSQLBuild& ABuild, const TDBTableDef& ATable,
                               const std::string& AAlias, std::int64_t AUserID, int ADepth = 0);

}  // namespace docadmin
