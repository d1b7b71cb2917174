#include "_DBExec.h"

#include <algorithm>

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
    TDBConnectionLease conn = db.AcquireConnection(tx);
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

std::int64_t DBExecInsert(IDBInterface& ADB, std::int64_t ATransactionID, const TDBTableDef& ATable,
                          const TClientSQLFields& AFields) {
    TSQLBuild b(ADB.GetDialect(), *ADB.GetFieldSchema());
    std::string cols;
    std::string vals;
    auto add = [&](const TDBFieldDef& f, const TVariant& v) {
        if (!cols.empty()) {
            cols += ", ";
            vals += ", ";
        }
        cols += TDBDialect::QuoteName(f.Name);
        vals += b.AddParam(ConvertForField(v, f));
    };
    bool given[6] = {};  // creadate, creaid, lastchangedtsp, lastchangedid, globalrecuid
    static const char* const hostCols[] = {"creadate", "creaid", "lastchangedtsp", "lastchangedid",
                                           "globalrecuid"};
    for (int i = 0; i < AFields.Count(); ++i) {
        const TClientSQLField& fld = *AFields.GetItems(i);
        const TDBFieldDef& f = RequireField(ATable, fld.GetFieldName());
        if (f.IsKey)
            throw EDBException("The key field \"" + f.Name + "\" of \"" + ATable.SchemaName +
                               "\" is assigned by the database");
        for (int h = 0; h < 5; ++h)
            if (f.Name == hostCols[h]) given[h] = !(h == 4 && fld.GetValue().AsString().empty());
        add(f, fld.GetValue());
    }
    const TDateTime now = Now();
    const long long user = GetDBCurrentUserID();
    if (!given[0]) add(RequireField(ATable, "creadate"), TVariant::FromDate(now));
    if (!given[1]) add(RequireField(ATable, "creaid"), TVariant(user));
    if (!given[2]) add(RequireField(ATable, "lastchangedtsp"), TVariant::FromDate(now));
    if (!given[3]) add(RequireField(ATable, "lastchangedid"), TVariant(user));
    if (!given[4]) add(RequireField(ATable, "globalrecuid"), TVariant(CreateGUIDString()));
    const std::string sql = "INSERT INTO " + TDBDialect::QuoteName(ATable.SQLTableName) + " (" +
                            cols + ") VALUES (" + vals + ") RETURNING " +
                            TDBDialect::QuoteName(ATable.KeyField().Name);
    TDBResult result;
    Run(ADB, ATransactionID, sql, b.Params, &result);
    if (result.Rows.empty() || result.Rows[0].empty())
        throw EDBException("Insert into \"" + ATable.SQLTableName + "\" returned no key");
    return result.Rows[0][0].AsInt64();
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
