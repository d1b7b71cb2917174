#include "_TKRRecordSet.h"

#include <algorithm>

#include "_DBExec.h"
#include "_DBSQLBuilder.h"

namespace docadmin {

namespace {

bool SameTextCI(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// A value in the form the column keeps: dates as date variants, the rest as the field wants.
TVariant CellValue(const TVariant& AValue, const TDBFieldDef& AField) {
    TVariant v = ConvertForField(AValue, AField);
    if (AField.Kind == TDBFieldKind::fkDate && v.IsNumeric())
        return TVariant::FromDate(v.AsFloat());
    return v;
}

}  // namespace

// TOrderFields

void TOrderFields::SetOrder(const std::string& AFieldName, bool AAscending, bool AAppend) {
    if (!AAppend) FItems.clear();
    FItems.push_back(TOrderField{AFieldName, AAscending});
}

// TFieldDataAccess

const TVariant& TFieldDataAccess::Cell() const {
    const auto& col = FSet->FColumns[static_cast<size_t>(FColumn)];
    return FSet->RowPtr(FRecNo)[col.DisplayIndex >= 0 ? col.DisplayIndex : FColumn];
}

const TVariant& TFieldDataAccess::Raw() const {
    return FSet->RowPtr(FRecNo)[FColumn];
}

TVariant TFieldDataAccess::GetAsVariant() const {
    return Cell();
}

std::string TFieldDataAccess::GetAsString() const {
    const TVariant& v = Cell();
    return v.IsString() ? v.RawString() : v.AsString();
}

std::int64_t TFieldDataAccess::GetAsInteger() const {
    return Raw().AsInt64();
}

double TFieldDataAccess::GetAsFloat() const {
    return Raw().AsFloat();
}

std::int64_t TFieldDataAccess::GetRealValue() const {
    return Raw().AsInt64();
}

bool TFieldDataAccess::IsNull() const {
    return Raw().IsNull();
}

void TFieldDataAccess::SetAsString(const std::string& AValue) const {
    Write(TVariant(AValue));
}

void TFieldDataAccess::SetAsInteger(std::int64_t AValue) const {
    Write(TVariant(static_cast<long long>(AValue)));
}

void TFieldDataAccess::SetAsFloat(double AValue) const {
    Write(TVariant(AValue));
}

void TFieldDataAccess::SetAsVariant(const TVariant& AValue) const {
    Write(AValue);
}

void TFieldDataAccess::Write(TVariant AValue) const {
    if (!FWrite) throw EDBException("The cell was taken for reading");
    FSet->CheckOpen();
    if (FSet->FUpdateMode != umWriteBack)
        throw EDBException("Record set of \"" + FSet->FSchemaName + "\" is not opened for writing");
    auto& col = FSet->FColumns[static_cast<size_t>(FColumn)];
    if (!col.Def) throw EDBException("Column \"" + col.Name + "\" can't be written");
    if (col.Def->IsKey) throw EDBException("The key field \"" + col.Name + "\" can't be written");
    TVariant* row = FSet->RowPtr(FRecNo);
    row[static_cast<size_t>(FColumn)] = CellValue(AValue, *col.Def);
    // The display value of a lookup is unknown until the set is opened again.
    if (col.DisplayIndex >= 0) row[static_cast<size_t>(col.DisplayIndex)] = TVariant();
    auto& changed = FSet->FChanged[static_cast<size_t>(FRecNo)];
    if (changed.empty()) changed.resize(FSet->FColumns.size());
    changed[static_cast<size_t>(FColumn)] = true;
}

// TKRCustomRecordSet

TKRCustomRecordSet::TKRCustomRecordSet(TComponent* AOwner) : TPluginBaseComponent(AOwner) {}

TKRCustomRecordSet::TKRCustomRecordSet(TComponent* AOwner, IDBInterface* ADatabase)
    : TPluginBaseComponent(AOwner), FDatabase(ADatabase) {}

TKRCustomRecordSet::~TKRCustomRecordSet() {
    try {
        WritePending();
    } catch (...) {
    }
}

IDBInterface* TKRCustomRecordSet::GetDatabase() const {
    if (FDatabase) return FDatabase;
    if (IMainInterface* mi = GetMainInterface())
        if (IDBInterface* db = mi->GetDBInterface()) return db;
    throw EDBException("No database for the record set");
}

void TKRCustomRecordSet::SetSchemaName(const std::string& ASchemaName) {
    if (FActive) throw EDBException("The schema can't change while the record set is open");
    IPtr<IDBFieldSchemaItem> item = GetSchemaByName(GetDatabase()->GetFieldSchema(), ASchemaName);
    if (!item) throw EDBUnknownSchema("Unknown schema \"" + ASchemaName + "\"");
    FSchemaName = ASchemaName;
    FActiveSchema = item;
}

IDBFieldSchemaItem* TKRCustomRecordSet::RequireSchema() const {
    if (!FActiveSchema) throw EDBUnknownSchema("The record set has no schema");
    return FActiveSchema.get();
}

TRSSelectFieldOption& TKRCustomRecordSet::GetSelectFieldOptions(const std::string& AFieldName) {
    return FSelectFieldOptions[LowerCase(AFieldName)];
}

void TKRCustomRecordSet::InternalSetFiltersToSchema(TFilterContext) {
    RequireSchema()->GetFilters()->Assign(FFilters);
    if (OnSetFiltersToSchema) OnSetFiltersToSchema(this);
}

void TKRCustomRecordSet::SetPaging(std::int64_t ALimit, std::int64_t AOffset) {
    if (ALimit < -1 || AOffset < 0)
        throw EDBException("Invalid paging: limit " + std::to_string(ALimit) + ", offset " +
                           std::to_string(AOffset));
    FLimit = ALimit;
    FOffset = AOffset;
}

std::string TKRCustomRecordSet::BuildSelect(TSQLBuild& b, bool ACount,
                                            std::vector<TColumn>* AColumns) {
    IDBInterface& db = *GetDatabase();
    IDBFieldSchemaItem* schema = RequireSchema();
    const TDBTableDef& table = schema->GetTableDef();
    schema->GetFilters()->Clear();
    InternalSetFiltersToSchema(TFilterContext().set(ACount ? fcCount : fcSelect));

    std::vector<TColumn> columns;
    std::vector<std::string> selects;  // expressions of the visible columns
    std::vector<std::string> hidden;   // expressions of the lookup display values
    std::vector<int> hiddenOwner;      // column that each hidden value belongs to
    std::string joins;
    std::map<std::string, std::string> joinAlias;  // field name -> alias of its master join
    auto joinFor = [&](const TDBFieldDef& f) -> std::string {
        auto it = joinAlias.find(f.Name);
        if (it != joinAlias.end()) return it->second;
        const TDBTableDef& master = RequireTable(*db.GetFieldSchema(), f.Lookup.MasterSchema);
        const std::string a = "l" + std::to_string(joinAlias.size() + 1);
        joins += " LEFT JOIN " + TDBDialect::QuoteName(master.SQLTableName) + " " + a + " ON " +
                 QualifiedName(a, RequireField(master, f.Lookup.KeyField).Name) + " = " +
                 QualifiedName("t", f.Name);
        joinAlias.emplace(f.Name, a);
        return a;
    };
    // "master.field" through a lookup of this table: the lookup field and the master's field.
    auto masterColumn = [&](const std::string& name) -> std::string {
        const size_t dot = name.find('.');
        const std::string masterName = name.substr(0, dot);
        const std::string fieldName = name.substr(dot + 1);
        for (const auto& f : table.Fields) {
            if (!f.HasLookup || !SameTextCI(f.Lookup.MasterSchema, masterName)) continue;
            const TDBTableDef& master = RequireTable(*db.GetFieldSchema(), f.Lookup.MasterSchema);
            return QualifiedName(joinFor(f), RequireField(master, fieldName).Name);
        }
        throw EDBUnknownField("Unknown field \"" + name + "\" in schema \"" + table.SchemaName +
                              "\"");
    };
    auto addField = [&](const TDBFieldDef& f) {
        for (const auto& c : columns)
            if (c.Def == &f) return;
        TColumn c;
        c.Name = f.Name;
        c.Def = &f;
        selects.push_back(QualifiedName("t", f.Name));
        if (f.HasLookup && !GetSelectFieldOptions(f.Name).DisableLookupValueLoading &&
            !f.Lookup.DisplayField.empty()) {
            const TDBTableDef& master = RequireTable(*db.GetFieldSchema(), f.Lookup.MasterSchema);
            hidden.push_back(
                QualifiedName(joinFor(f), RequireField(master, f.Lookup.DisplayField).Name));
            hiddenOwner.push_back(static_cast<int>(columns.size()));
        }
        columns.push_back(std::move(c));
    };

    addField(table.KeyField());
    if (FSelectAll || FSelectFields.Count() == 0) {
        for (const auto& f : table.Fields)
            addField(f);
    } else {
        for (const auto& name : FSelectFields.Items()) {
            if (name.find('.') != std::string::npos) {
                TColumn c;
                c.Name = LowerCase(name);
                selects.push_back(masterColumn(name));
                columns.push_back(std::move(c));
            } else {
                addField(RequireField(table, name));
            }
        }
    }
    for (size_t i = 0; i < hiddenOwner.size(); ++i)
        columns[static_cast<size_t>(hiddenOwner[i])].DisplayIndex =
            static_cast<int>(columns.size() + i);

    std::string sql = FOptions.Contains(rsoDistinct) ? "SELECT DISTINCT " : "SELECT ";
    for (size_t i = 0; i < selects.size(); ++i)
        sql += (i ? ", " : "") + selects[i];
    for (const auto& h : hidden)
        sql += ", " + h;
    sql += " FROM " + TDBDialect::QuoteName(table.SQLTableName) + " t" + joins;

    std::string where = RenderFilters(b, table, "t", *schema->GetFilters());
    const std::int64_t user = GetDBCurrentUserID();
    if (user != 0 && (FAccessMode == gamRead || FOptions.Contains(rsoUserRowRights))) {
        const std::string acl = RenderACLCondition(b, table, "t", user);
        if (!acl.empty()) where = where.empty() ? acl : "(" + where + ") AND " + acl;
    }
    if (!where.empty()) sql += " WHERE " + where;
    if (ACount) return "SELECT COUNT(*) FROM (" + sql + ") c";

    const bool paging = FLimit >= 0 || FOffset > 0;
    const std::string key = QualifiedName("t", table.KeyField().Name);
    bool keyOrdered = false;
    for (int i = 0; i < FOrderFields.Count(); ++i) {
        const auto& o = FOrderFields.Items(i);
        const std::string expr = o.FieldName.find('.') != std::string::npos
                                     ? masterColumn(o.FieldName)
                                     : QualifiedName("t", RequireField(table, o.FieldName).Name);
        keyOrdered = keyOrdered || expr == key;
        sql += (i ? ", " : " ORDER BY ") + expr + (o.Ascending ? " ASC" : " DESC");
    }
    // The key makes the order total; otherwise rows of equal sort values may change places
    // between the queries of two pages.
    if (paging && !keyOrdered) sql += (FOrderFields.Count() ? ", " : " ORDER BY ") + key + " ASC";
    sql += RenderPaging(b, FLimit, FOffset);
    if (AColumns) *AColumns = std::move(columns);
    return sql;
}

void TKRCustomRecordSet::Open() {
    if (FActive) Close();
    IDBInterface& db = *GetDatabase();
    TSQLBuild b(db.GetDialect(), *db.GetFieldSchema());
    std::vector<TColumn> columns;
    const std::string sql = BuildSelect(b, false, &columns);

    TDBResult result;
    {
        TDBConnectionLease conn = db.AcquireConnection(FDBATransactionID);
        conn->Execute(sql, b.Params, &result);
    }
    FColumns = std::move(columns);
    FRowWidth = static_cast<size_t>(result.ColumnCount);
    const int rowCount = result.RowCount();
    FCells = std::move(result.Cells);
    for (size_t c = 0; c < FColumns.size(); ++c) {
        if (!FColumns[c].Def || FColumns[c].Def->Kind != TDBFieldKind::fkDate) continue;
        for (size_t i = c; i < FCells.size(); i += FRowWidth)
            if (FCells[i].IsNumeric()) FCells[i] = TVariant::FromDate(FCells[i].AsFloat());
    }
    FChanged.assign(static_cast<size_t>(rowCount), {});
    FActive = true;
}

std::int64_t TKRCustomRecordSet::CountRecords() {
    IDBInterface& db = *GetDatabase();
    TSQLBuild b(db.GetDialect(), *db.GetFieldSchema());
    const std::string sql = BuildSelect(b, true, nullptr);
    TDBResult result;
    {
        TDBConnectionLease conn = db.AcquireConnection(FDBATransactionID);
        conn->Execute(sql, b.Params, &result);
    }
    return result.RowCount() == 1 ? result.At(0, 0).AsInt64() : 0;
}

void TKRCustomRecordSet::WritePending() {
    if (!FActive) return;
    for (size_t r = 0; r < FChanged.size(); ++r)
        if (!FChanged[r].empty()) SaveRecordNumber(static_cast<int>(r));
}

void TKRCustomRecordSet::Close() {
    struct Clear {
        TKRCustomRecordSet& S;
        ~Clear() {
            S.FActive = false;
            S.FCells.clear();
            S.FChanged.clear();
            S.FColumns.clear();
        }
    } clear{*this};
    WritePending();
}

void TKRCustomRecordSet::SetActive(bool AValue) {
    if (AValue)
        Open();
    else
        Close();
}

void TKRCustomRecordSet::CheckOpen() const {
    if (!FActive) throw EDBException("The record set is not open");
}

void TKRCustomRecordSet::CheckRecNo(int ARecNo) const {
    CheckOpen();
    if (ARecNo < 0 || ARecNo >= GetRecordCount())
        throw EListError("Record number out of range (" + std::to_string(ARecNo) + ")");
}

void TKRCustomRecordSet::CheckColumn(int AColumn) const {
    CheckOpen();
    if (AColumn < 0 || AColumn >= GetFieldCount())
        throw EListError("Column index out of range (" + std::to_string(AColumn) + ")");
}

int TKRCustomRecordSet::GetRecordCount() const {
    return static_cast<int>(FChanged.size());
}

int TKRCustomRecordSet::GetFieldCount() const {
    return static_cast<int>(FColumns.size());
}

const std::string& TKRCustomRecordSet::GetFieldName(int AColumn) const {
    CheckColumn(AColumn);
    return FColumns[static_cast<size_t>(AColumn)].Name;
}

int TKRCustomRecordSet::GetFieldIndex(const std::string& AFieldName) const {
    for (size_t i = 0; i < FColumns.size(); ++i)
        if (SameTextCI(FColumns[i].Name, AFieldName)) return static_cast<int>(i);
    return -1;
}

bool TKRCustomRecordSet::GetHasSchemaField(int AColumn) const {
    CheckColumn(AColumn);
    return FColumns[static_cast<size_t>(AColumn)].Def != nullptr;
}

IPtr<IDBSchemaFieldItem> TKRCustomRecordSet::GetSchemaFields(int AColumn) const {
    CheckColumn(AColumn);
    const TDBFieldDef* def = FColumns[static_cast<size_t>(AColumn)].Def;
    if (!def) return {};
    return RequireSchema()->GetFieldByName(def->Name);
}

TFieldDataAccess TKRCustomRecordSet::ValueByIndex(int ARecNo, int AColumn, bool AWrite) {
    CheckRecNo(ARecNo);
    CheckColumn(AColumn);
    return TFieldDataAccess(this, ARecNo, AColumn, AWrite);
}

TFieldDataAccess TKRCustomRecordSet::ValueByName(int ARecNo, const std::string& AFieldName,
                                                 bool AWrite) {
    const int col = GetFieldIndex(AFieldName);
    if (col < 0)
        throw EDBUnknownField("Unknown field \"" + AFieldName + "\" in the result of \"" +
                              FSchemaName + "\"");
    return ValueByIndex(ARecNo, col, AWrite);
}

std::int64_t TKRCustomRecordSet::GetDBIDByRecNo(int ARecNo) const {
    CheckRecNo(ARecNo);
    return RowPtr(ARecNo)[0].AsInt64();
}

void TKRCustomRecordSet::SaveRecordNumber(int ARecNo, bool, bool) {
    CheckRecNo(ARecNo);
    auto& changed = FChanged[static_cast<size_t>(ARecNo)];
    if (changed.empty()) return;
    const TVariant* row = RowPtr(ARecNo);
    TClientSQLFields fields;
    for (size_t c = 0; c < changed.size(); ++c)
        if (changed[c]) fields.AddField(FColumns[c].Name, row[c]);
    TClientSQLFilters filters;
    filters.AddFilter(RequireSchema()->GetKeyFieldName(),
                      TVariant(static_cast<long long>(GetDBIDByRecNo(ARecNo))));
    IDBInterface& db = *GetDatabase();
    DBExecUpdate(db, FDBATransactionID, RequireSchema()->GetTableDef(), fields, filters);
    changed.clear();
}

void TKRCustomRecordSet::DeleteRecord(int ARecNo, bool, int) {
    CheckRecNo(ARecNo);
    TClientSQLFilters filters;
    filters.AddFilter(RequireSchema()->GetKeyFieldName(),
                      TVariant(static_cast<long long>(GetDBIDByRecNo(ARecNo))));
    DBExecDelete(*GetDatabase(), FDBATransactionID, RequireSchema()->GetTableDef(), filters);
    const auto first =
        FCells.begin() + static_cast<std::ptrdiff_t>(static_cast<size_t>(ARecNo) * FRowWidth);
    FCells.erase(first, first + static_cast<std::ptrdiff_t>(FRowWidth));
    FChanged.erase(FChanged.begin() + ARecNo);
}

int TKRCustomRecordSet::FindLocalRecord(int AColumn, const TVariant& AValue,
                                        bool ACaseInsensitive) const {
    CheckColumn(AColumn);
    const size_t c = static_cast<size_t>(AColumn);
    for (int r = 0; r < GetRecordCount(); ++r) {
        const TVariant& cell = RowPtr(r)[c];
        bool equal;
        if (cell.IsNull() || AValue.IsNull())
            equal = cell.IsNull() && AValue.IsNull();
        else if (cell.IsNumeric() && AValue.IsNumeric())
            equal = cell == AValue;
        else if (ACaseInsensitive)
            equal = SameTextCI(cell.AsString(), AValue.AsString());
        else
            equal = cell.AsString() == AValue.AsString();
        if (equal) return r;
    }
    return -1;
}

}  // namespace docadmin
