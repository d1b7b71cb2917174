// The PostgreSQL backend over libpq: text parameters typed by the server from their context,
// and statements prepared once per connection and cached by SQL text.
#include <libpq-fe.h>

#include <unordered_map>

#include "_DBBackend.h"

namespace docadmin {

namespace {

constexpr size_t kMaxCachedStatements = 200;

// Type OIDs of the built-in types that the result conversion tells apart.
constexpr Oid kBoolOid = 16, kInt8Oid = 20, kInt2Oid = 21, kInt4Oid = 23, kFloat4Oid = 700,
              kFloat8Oid = 701, kNumericOid = 1700;

std::string ValueText(const TVariant& v) {
    if (v.VarType() == TVarType::vtFloat || v.VarType() == TVarType::vtDate)
        return FloatToStrExact(v.RawFloat());
    return v.AsString();
}

// A list parameter as an array literal: {1,2} or {"a","b \"c\""}.
std::string ListToArray(const std::vector<TVariant>& items) {
    std::string r = "{";
    for (size_t i = 0; i < items.size(); ++i) {
        if (i) r += ',';
        const TVariant& v = items[i];
        if (v.IsNull()) {
            r += "NULL";
            continue;
        }
        r += '"';
        for (char c : ValueText(v)) {
            if (c == '"' || c == '\\') r += '\\';
            r += c;
        }
        r += '"';
    }
    return r + "}";
}

struct TPGResult {
    PGresult* R;
    ~TPGResult() { PQclear(R); }
};

class TPGConnection : public TDBConnection {
  public:
    explicit TPGConnection(const std::string& conninfo) : FConn(PQconnectdb(conninfo.c_str())) {
        if (!FConn || PQstatus(FConn) != CONNECTION_OK) {
            std::string msg = FConn ? PQerrorMessage(FConn) : "out of memory";
            PQfinish(FConn);
            FConn = nullptr;
            while (!msg.empty() && (msg.back() == '\n' || msg.back() == ' '))
                msg.pop_back();
            throw EDBException("Cannot connect to PostgreSQL: " + msg);
        }
        PQsetNoticeProcessor(
            FConn, [](void*, const char*) {}, nullptr);
    }

    ~TPGConnection() override { PQfinish(FConn); }

    TDBBackendKind Kind() const override { return TDBBackendKind::bkPostgreSQL; }

    void ExecDirect(const std::string& ASQL) override {
        CountDBStatement();
        TPGResult r{PQexec(FConn, ASQL.c_str())};
        Check(r.R, ASQL);
    }

    std::int64_t Execute(const std::string& ASQL, const std::vector<TDBParam>& AParams,
                         TDBResult* AResult) override {
        CountDBStatement();
        const std::string& name = Prepare(ASQL, static_cast<int>(AParams.size()));
        std::vector<std::string> texts(AParams.size());
        std::vector<const char*> values(AParams.size(), nullptr);
        for (size_t i = 0; i < AParams.size(); ++i) {
            const TDBParam& p = AParams[i];
            if (p.IsList) {
                texts[i] = ListToArray(p.Items);
            } else if (p.Value.IsNull()) {
                continue;
            } else if (p.Value.IsString()) {
                values[i] = p.Value.RawString().c_str();
                continue;
            } else {
                texts[i] = ValueText(p.Value);
            }
            values[i] = texts[i].c_str();
        }
        TPGResult r{PQexecPrepared(FConn, name.c_str(), static_cast<int>(values.size()),
                                   values.data(), nullptr, nullptr, 0)};
        Check(r.R, ASQL);
        if (PQresultStatus(r.R) == PGRES_COMMAND_OK) {
            const char* n = PQcmdTuples(r.R);
            return n && *n ? std::stoll(n) : 0;
        }
        const int cols = PQnfields(r.R);
        const int rows = PQntuples(r.R);
        if (AResult) {
            if (AResult->WantColumnNames && AResult->Columns.empty())
                for (int c = 0; c < cols; ++c)
                    AResult->Columns.emplace_back(PQfname(r.R, c));
            std::vector<Oid> types(static_cast<size_t>(cols));
            for (int c = 0; c < cols; ++c)
                types[static_cast<size_t>(c)] = PQftype(r.R, c);
            AResult->ColumnCount = cols;
            AResult->Cells.reserve(AResult->Cells.size() +
                                   static_cast<size_t>(rows) * static_cast<size_t>(cols));
            for (int i = 0; i < rows; ++i)
                for (int c = 0; c < cols; ++c)
                    AResult->Cells.push_back(Cell(r.R, i, c, types[static_cast<size_t>(c)]));
        }
        // Writes with RETURNING answer tuples too; a select changes nothing.
        if (ASQL.rfind("SELECT", 0) == 0) return 0;
        const char* n = PQcmdTuples(r.R);
        return n && *n ? std::stoll(n) : 0;
    }

    std::vector<std::string> TableColumns(const std::string& ASQLTableName) override {
        TDBParam p;
        p.Value = TVariant(ASQLTableName);
        TDBResult r;
        Execute(
            "SELECT column_name FROM information_schema.columns WHERE table_schema = "
            "current_schema() AND table_name = $1",
            {p}, &r);
        std::vector<std::string> cols;
        for (int i = 0; i < r.RowCount(); ++i)
            cols.push_back(r.At(i, 0).AsString());
        return cols;
    }

  private:
    static TVariant Cell(PGresult* r, int row, int col, Oid type) {
        if (PQgetisnull(r, row, col)) return {};
        const char* t = PQgetvalue(r, row, col);
        switch (type) {
            case kInt2Oid:
            case kInt4Oid:
            case kInt8Oid:
                return TVariant(std::strtoll(t, nullptr, 10));
            case kFloat4Oid:
            case kFloat8Oid:
            case kNumericOid:
                return TVariant(std::strtod(t, nullptr));
            case kBoolOid:
                return TVariant(t[0] == 't' ? 1 : 0);
            default:
                return TVariant(std::string(t, static_cast<size_t>(PQgetlength(r, row, col))));
        }
    }

    void Check(PGresult* r, const std::string& sql) {
        const ExecStatusType s = r ? PQresultStatus(r) : PGRES_FATAL_ERROR;
        if (s == PGRES_COMMAND_OK || s == PGRES_TUPLES_OK) return;
        std::string msg = r ? PQresultErrorMessage(r) : PQerrorMessage(FConn);
        while (!msg.empty() && (msg.back() == '\n' || msg.back() == ' '))
            msg.pop_back();
        throw EDBSQLError(msg + " [" + sql + "]");
    }

    const std::string& Prepare(const std::string& sql, int nParams) {
        auto it = FCache.find(sql);
        if (it != FCache.end()) return it->second;
        if (FCache.size() >= kMaxCachedStatements) {
            TPGResult d{PQexec(FConn, "DEALLOCATE ALL")};
            FCache.clear();
        }
        std::string name = "da" + std::to_string(++FCounter);
        TPGResult r{PQprepare(FConn, name.c_str(), sql.c_str(), nParams, nullptr)};
        Check(r.R, sql);
        return FCache.emplace(sql, std::move(name)).first->second;
    }

    PGconn* FConn = nullptr;
    std::unordered_map<std::string, std::string> FCache;
    std::uint64_t FCounter = 0;
};

}  // namespace

std::unique_ptr<TDBConnection> OpenPostgreSQLConnection(const std::string& AConnInfo) {
    return std::make_unique<TPGConnection>(AConnInfo);
}

}  // namespace docadmin
