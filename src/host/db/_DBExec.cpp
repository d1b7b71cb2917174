#include "_DBExec.h"

#include <algorithm>
#include <unordered_map>

#include "_DBSQLBuilder.h"
#include "_TKRSQLDeleteNotifyListener.h"

namespace docadmin {

namespace {

bool SameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

// The notification handed to the listeners for one table.
class TDeleteNotify : public IKRSQLDeleteNotify {
  public:
    explicit TDeleteNotify(const std::string& ATable) : FTable(ATable) {}
    bool CanDeclareDependents() override { return true; }
    bool IsTable(const std::string& ASQLTableName) override {
        return SameName(ASQLTableName, FTable);
    }
    void AddDependentRows(const std::string& ASQLTableName,
                          const std::string& AFieldName) override {
        Dependents.emplace_back(ASQLTableName, AFieldName);
    }
    void NoDependentsDeclared() override {}

    std::vector<std::pair<std::string, std::string>> Dependents;

  private:
    std::string FTable;
};

// Runs a write statement on the transaction's connection or a pooled one.
std::int64_t Run(IDBInterface& db, std::int64_t tx, const std::string& sql,
                 const std::vector<TDBParam>& params, TDBResult* result = nullptr) {
    TDBConnectionLease conn = db.AcquireConnection(tx, true);
    return conn->Execute(sql, params, result);
}

// Deletes the rows of ATable that match AWhere (written against the unaliased table), dependents
// first. All statements run on the one connection given.
std::int64_t DeleteWhere(TDBConnection& conn, const IDBFieldSchema& cat, const TDBTableDef& table,
                         const std::string& where, const std::vector<TDBParam>& params, int depth) {
    if (depth > 8)
        throw EDBException("Delete dependencies nested too deep at \"" + table.SQLTableName + "\"");
    TDeleteNotify notify(table.SQLTableName);
    TKRSQLDeleteNotifyListener::NotifyAll(&notify);
    for (const auto& [depTable, depField] : notify.Dependents) {
        const TDBTableDef& dep = RequireTableBySQLName(cat, depTable);
        const TDBFieldDef& field = RequireField(dep, depField);
        std::string depWhere =
            QualifiedName(TDBDialect::QuoteName(dep.SQLTableName), field.Name) + " IN (SELECT " +
            QualifiedName(TDBDialect::QuoteName(table.SQLTableName), table.KeyField().Name) +
            " FROM " + TDBDialect::QuoteName(table.SQLTableName);
        if (!where.empty()) depWhere += " WHERE " + where;
        depWhere += ")";
        DeleteWhere(conn, cat, dep, depWhere, params, depth + 1);
    }
    std::string sql = "DELETE FROM " + TDBDialect::QuoteName(table.SQLTableName);
    if (!where.empty()) sql += " WHERE " + where;
    return conn.Execute(sql, params, nullptr);
}

}  // namespace

namespace {

// The SQL of an insert depends only on the table, the dialect and the names of the given fields;
// statements that insert row after row reuse it instead of building it again.
struct TInsertPlan {
    std::string SQL;
    std::vector<const TDBFieldDef*> Given;   // the caller's fields, in their order
    std::vector<const TDBFieldDef*> Filled;  // host columns the layer fills
};

const TInsertPlan& InsertPlan(const TDBDialect& dialect, const TDBTableDef& table,
                              const TClientSQLFields& fields) {
    thread_local std::unordered_map<std::string, TInsertPlan> cache;
    std::string key;
    key.reserve(64);
    key.append(reinterpret_cast<const char*>(&table.Serial), sizeof table.Serial);
    key += dialect.Kind() == TDBBackendKind::bkSQLite ? 's' : 'p';
    for (int i = 0; i < fields.Count(); ++i) {
        key += fields.GetItems(i)->GetFieldName();
        key += ',';
        if (fields.GetItems(i)->GetFieldName() == "globalrecuid")
            key += fields.GetItems(i)->GetValue().AsString().empty() ? '0' : '1';
    }
    auto it = cache.find(key);
    if (it != cache.end()) return it->second;

    TInsertPlan plan;
    bool given[5] = {};
    static const char* const hostCols[] = {"creadate", "creaid", "lastchangedtsp", "lastchangedid",
                                           "globalrecuid"};
    for (int i = 0; i < fields.Count(); ++i) {
        const TClientSQLField& fld = *fields.GetItems(i);
        const TDBFieldDef& f = RequireField(table, fld.GetFieldName());
        if (f.IsKey)
            throw EDBException("The key field \"" + f.Name + "\" of \"" + table.SchemaName +
                               "\" is assigned by the database");
        for (int h = 0; h < 5; ++h)
            if (f.Name == hostCols[h]) given[h] = !(h == 4 && fld.GetValue().AsString().empty());
        plan.Given.push_back(&f);
    }
    for (int h = 0; h < 5; ++h)
        if (!given[h]) plan.Filled.push_back(&RequireField(table, hostCols[h]));
    std::string cols, vals;
    int n = 0;
    for (const auto* list : {&plan.Given, &plan.Filled}) {
        for (const TDBFieldDef* f : *list) {
            cols += (n ? ", " : "") + TDBDialect::QuoteName(f->Name);
            vals += (n ? ", " : "") + dialect.Placeholder(n + 1);
            ++n;
        }
    }
    plan.SQL = "INSERT INTO " + TDBDialect::QuoteName(table.SQLTableName) + " (" + cols +
               ") VALUES (" + vals + ") RETURNING " + TDBDialect::QuoteName(table.KeyField().Name);
    if (cache.size() > 256) cache.clear();
    return cache.emplace(std::move(key), std::move(plan)).first->second;
}

}  // namespace

std::int64_t DBExecInsert(IDBInterface& ADB, std::int64_t ATransactionID, const TDBTableDef& ATable,
                          const TClientSQLFields& AFields) {
    const TInsertPlan& plan = InsertPlan(ADB.GetDialect(), ATable, AFields);
    std::vector<TDBParam> params(plan.Given.size() + plan.Filled.size());
    size_t n = 0;
    for (; n < plan.Given.size(); ++n)
        params[n].Value =
            ConvertForField(AFields.GetItems(static_cast<int>(n))->GetValue(), *plan.Given[n]);
    const TDateTime now = Now();
    const long long user = GetDBCurrentUserID();
    for (const TDBFieldDef* f : plan.Filled) {
        if (f->Name == "globalrecuid")
            params[n++].Value = TVariant(CreateGUIDString());
        else if (f->Kind == TDBFieldKind::fkDate)
            params[n++].Value = TVariant::FromDate(now);
        else
            params[n++].Value = TVariant(user);
    }
    TDBResult result;
    Run(ADB, ATransactionID, plan.SQL, params, &result);
    if (result.RowCount() == 0)
        throw EDBException("Insert into \"" + ATable.SQLTableName + "\" returned no key");
    return result.At(0, 0).AsInt64();
}

std::int64_t DBExecUpdate(IDBInterface& ADB, std::int64_t ATransactionID, const TDBTableDef& ATable,
                          const TClientSQLFields& AFields, const TClientSQLFilters& AFilters) {
    if (AFields.Count() == 0) return 0;
    TSQLBuild b(ADB.GetDialect(), *ADB.GetFieldSchema());
    std::string sets;
    bool hasTsp = false;
    bool hasChangedID = false;
    auto add = [&](const TDBFieldDef& f, const TVariant& v) {
        if (!sets.empty()) sets += ", ";
        sets += TDBDialect::QuoteName(f.Name) + " = " + b.AddParam(ConvertForField(v, f));
    };
    for (int i = 0; i < AFields.Count(); ++i) {
        const TClientSQLField& fld = *AFields.GetItems(i);
        const TDBFieldDef& f = RequireField(ATable, fld.GetFieldName());
        if (f.IsKey)
            throw EDBException("The key field \"" + f.Name + "\" of \"" + ATable.SchemaName +
                               "\" can't be changed");
        hasTsp = hasTsp || f.Name == "lastchangedtsp";
        hasChangedID = hasChangedID || f.Name == "lastchangedid";
        add(f, fld.GetValue());
    }
    if (!hasTsp) add(RequireField(ATable, "lastchangedtsp"), TVariant::FromDate(Now()));
    if (!hasChangedID)
        add(RequireField(ATable, "lastchangedid"),
            TVariant(static_cast<long long>(GetDBCurrentUserID())));
    const std::string where =
        RenderFilters(b, ATable, TDBDialect::QuoteName(ATable.SQLTableName), AFilters);
    std::string sql = "UPDATE " + TDBDialect::QuoteName(ATable.SQLTableName) + " SET " + sets;
    if (!where.empty()) sql += " WHERE " + where;
    return Run(ADB, ATransactionID, sql, b.Params);
}

std::int64_t DBExecDelete(IDBInterface& ADB, std::int64_t ATransactionID, const TDBTableDef& ATable,
                          const TClientSQLFilters& AFilters) {
    TSQLBuild b(ADB.GetDialect(), *ADB.GetFieldSchema());
    const std::string where =
        RenderFilters(b, ATable, TDBDialect::QuoteName(ATable.SQLTableName), AFilters);
    if (ATransactionID != 0) {
        TDBConnectionLease conn = ADB.AcquireConnection(ATransactionID);
        return DeleteWhere(*conn, *ADB.GetFieldSchema(), ATable, where, b.Params, 0);
    }
    // Without a caller's transaction the delete and its dependents get one of their own.
    const std::int64_t tx = ADB.BeginTransaction();
    try {
        std::int64_t n;
        {
            TDBConnectionLease conn = ADB.AcquireConnection(tx);
            n = DeleteWhere(*conn, *ADB.GetFieldSchema(), ATable, where, b.Params, 0);
        }
        ADB.CommitTransaction(tx);
        return n;
    } catch (...) {
        try {
            ADB.RollbackTransaction(tx);
        } catch (...) {
        }
        throw;
    }
}

}  // namespace docadmin
