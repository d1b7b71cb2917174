#include "_TClientSQL.h"

#include "_DBExec.h"
#include "_DBInterface.h"
#include "_DBSQLBuilder.h"

namespace docadmin {

TClientSQLField* TClientSQLFields::AddField(const std::string& AName, TVariant AValue) {
    FItems.push_back(std::make_unique<TClientSQLField>(AName, std::move(AValue)));
    return FItems.back().get();
}

TClientSQLField* TClientSQLFields::GetItems(int AIndex) const {
    if (AIndex < 0 || AIndex >= Count())
        throw EListError("List index out of bounds (" + std::to_string(AIndex) + ")");
    return FItems[static_cast<size_t>(AIndex)].get();
}

TClientSQLField* TClientSQLFields::FindField(const std::string& AName) const {
    for (const auto& f : FItems) {
        const std::string& n = f->GetFieldName();
        if (n.size() == AName.size() &&
            std::equal(n.begin(), n.end(), AName.begin(), [](char a, char b) {
                return std::tolower(static_cast<unsigned char>(a)) ==
                       std::tolower(static_cast<unsigned char>(b));
            }))
            return f.get();
    }
    return nullptr;
}

TClientSQLFilter::~TClientSQLFilter() = default;

void TClientSQLFilter::SetSubSelect(const std::string& ASchemaName,
                                    const std::string& ASelectField) {
    FSubSchema = ASchemaName;
    FSubField = ASelectField;
    if (!FSubFilters) FSubFilters = std::make_unique<TClientSQLFilters>();
}

TClientSQLFilters* TClientSQLFilter::GetSubSelectFilters() {
    if (!FSubFilters) FSubFilters = std::make_unique<TClientSQLFilters>();
    return FSubFilters.get();
}

std::unique_ptr<TClientSQLFilter> TClientSQLFilter::Clone() const {
    auto c = std::make_unique<TClientSQLFilter>(GetFieldName(), GetValue());
    c->FFilterType = FFilterType;
    c->FFilterLink = FFilterLink;
    c->FParenthesis = FParenthesis;
    c->FFieldFunction = FFieldFunction;
    c->FSubSchema = FSubSchema;
    c->FSubField = FSubField;
    if (FSubFilters) {
        c->FSubFilters = std::make_unique<TClientSQLFilters>();
        c->FSubFilters->Assign(*FSubFilters);
    }
    return c;
}

TClientSQLFilter* TClientSQLFilters::AddFilter(const std::string& AFieldName, TVariant AValue) {
    FItems.push_back(std::make_unique<TClientSQLFilter>(AFieldName, std::move(AValue)));
    return FItems.back().get();
}

TClientSQLFilter* TClientSQLFilters::Add() {
    FItems.push_back(std::make_unique<TClientSQLFilter>());
    return FItems.back().get();
}

TClientSQLFilter* TClientSQLFilters::GetItems(int AIndex) const {
    if (AIndex < 0 || AIndex >= Count())
        throw EListError("List index out of bounds (" + std::to_string(AIndex) + ")");
    return FItems[static_cast<size_t>(AIndex)].get();
}

void TClientSQLFilters::Assign(const TClientSQLFilters& ASource) {
    if (&ASource == this) return;
    for (const auto& f : ASource.FItems)
        FItems.push_back(f->Clone());
}

TClientSQLFilter* AddFilter(IDBSchemaFilters* AFilters, const std::string& AFieldName,
                            TVariant AValue, TFilterType AType, TFilterLink ALink, bool,
                            TParenthesis AParenthesis, TFilterFieldFunction AFunction) {
    TClientSQLFilter* f = AFilters->AddFilter(AFieldName, std::move(AValue));
    f->SetFilterType(AType);
    f->SetFilterLink(ALink);
    f->SetParenthesis(AParenthesis);
    f->SetFieldFunction(AFunction);
    return f;
}

TClientSQLFilter* AddFilter(IDBFieldSchemaItem* ASchema, const std::string& AFieldName,
                            TVariant AValue, TFilterType AType, TFilterLink ALink, bool AUnused,
                            TParenthesis AParenthesis, TFilterFieldFunction AFunction) {
    return AddFilter(ASchema->GetFilters(), AFieldName, std::move(AValue), AType, ALink, AUnused,
                     AParenthesis, AFunction);
}

TClientSQLFilter* AddFilterGroup(IDBSchemaFilters* AFilters, TParenthesis AParenthesis,
                                 TFilterLink ALink, TFilterType AType) {
    TClientSQLFilter* f = AFilters->Add();
    f->SetParenthesis(AParenthesis);
    f->SetFilterLink(ALink);
    f->SetFilterType(AType);
    return f;
}

TClientSQL::TClientSQL(TComponent* AOwner) : TPluginBaseComponent(AOwner) {}

TClientSQL::TClientSQL(TComponent* AOwner, IDBInterface* ADatabase)
    : TPluginBaseComponent(AOwner), FDatabase(ADatabase) {}

TClientSQL::~TClientSQL() = default;

IDBInterface* TClientSQL::GetDatabase() const {
    if (FDatabase) return FDatabase;
    if (IMainInterface* mi = GetMainInterface())
        if (IDBInterface* db = mi->GetDBInterface()) return db;
    throw EDBException("No database for the statement");
}

void TClientSQL::SetSchemaName(const std::string& ASchemaName) {
    FSchemaName = ASchemaName;
}

void TClientSQL::ExecuteSQL() {
    IDBInterface& db = *GetDatabase();
    const TDBTableDef& table = RequireTable(*db.GetFieldSchema(), FSchemaName);
    switch (FKind) {
        case skInsert:
            DBExecInsert(db, FDBATransactionID, table, FFields);
            FRowsAffected = 1;
            break;
        case skUpdate:
            FRowsAffected = DBExecUpdate(db, FDBATransactionID, table, FFields, FFilters);
            break;
        case skDelete:
            FRowsAffected = DBExecDelete(db, FDBATransactionID, table, FFilters);
            break;
        default:
            throw EDBException("Unknown statement kind " + std::to_string(static_cast<int>(FKind)));
    }
}

void TClientSQL::ExecuteSQL(std::int64_t& ANewID) {
    if (FKind != skInsert) {
        ExecuteSQL();
        ANewID = 0;
        return;
    }
    IDBInterface& db = *GetDatabase();
    const TDBTableDef& table = RequireTable(*db.GetFieldSchema(), FSchemaName);
    ANewID = DBExecInsert(db, FDBATransactionID, table, FFields);
    FRowsAffected = 1;
}

}  // namespace docadmin
