// The SQLite backend: one sqlite3 handle per connection, WAL, a busy timeout, and prepared
// statements cached by SQL text.
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <charconv>
#include <unordered_map>

#include "_DBBackend.h"

namespace docadmin {

namespace {

// Writers wait their turn behind another writer this long before "database is locked".
constexpr int kBusyTimeoutMs = 60000;
constexpr size_t kMaxCachedStatements = 200;

void AppendJSONString(std::string& out, const std::string& s) {
    out += '"';
    for (unsigned char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            default:
                if (c < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    out += '"';
}

// A list parameter as a JSON array for json_each.
std::string ListToJSON(const std::vector<TVariant>& items) {
    std::string r = "[";
    r.reserve(items.size() * 8 + 2);
    for (size_t i = 0; i < items.size(); ++i) {
        if (i) r += ',';
        const TVariant& v = items[i];
        if (v.IsNull())
            r += "null";
        else if (v.IsString())
            AppendJSONString(r, v.RawString());
        else if (v.IsIntegral()) {
            char buf[24];
            auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v.RawInt());
            r.append(buf, end);
        } else
            r += FloatToStrExact(v.AsFloat());
    }
    return r + "]";
}

class TSQLiteConnection : public TDBConnection {
  public:
    explicit TSQLiteConnection(const std::string& path) {
        // A new database file is made readable by its owner only; SQLite gives its -wal and -shm
        // files the mode of the database file. An existing file keeps the mode it has.
        if (!path.empty() && path != ":memory:" && path.rfind("file:", 0) != 0) {
            const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
            if (fd >= 0) ::close(fd);
        }
        const int rc = sqlite3_open_v2(
            path.c_str(), &FDB, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
            nullptr);
        if (rc != SQLITE_OK) {
            std::string msg = FDB ? sqlite3_errmsg(FDB) : sqlite3_errstr(rc);
            sqlite3_close(FDB);
            FDB = nullptr;
            throw EDBException("Cannot open SQLite database \"" + path + "\": " + msg);
        }
        sqlite3_busy_timeout(FDB, kBusyTimeoutMs);
        ExecDirect("PRAGMA journal_mode=WAL");
        ExecDirect("PRAGMA synchronous=NORMAL");
        // LIKE compares case-sensitively, as on PostgreSQL; folding is the caller's choice.
        ExecDirect("PRAGMA case_sensitive_like=ON");
    }

    ~TSQLiteConnection() override {
        for (auto& [sql, stmt] : FCache)
            sqlite3_finalize(stmt);
        sqlite3_close(FDB);
    }

    TDBBackendKind Kind() const override { return TDBBackendKind::bkSQLite; }

    void ExecDirect(const std::string& ASQL) override {
        CountDBStatement();
        char* err = nullptr;
        if (sqlite3_exec(FDB, ASQL.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
            std::string msg = err ? err : sqlite3_errmsg(FDB);
            sqlite3_free(err);
            throw EDBSQLError(msg);
        }
    }

    std::int64_t Execute(const std::string& ASQL, const std::vector<TDBParam>& AParams,
                         TDBResult* AResult) override {
        CountDBStatement();
        sqlite3_stmt* stmt = Prepare(ASQL);
        struct Reset {
            sqlite3_stmt* s;
            ~Reset() {
                sqlite3_reset(s);
                sqlite3_clear_bindings(s);
            }
        } reset{stmt};
        std::vector<std::string> lists;  // JSON texts must live until the step
        lists.reserve(AParams.size());
        for (size_t i = 0; i < AParams.size(); ++i) {
            const int n = static_cast<int>(i + 1);
            const TDBParam& p = AParams[i];
            int rc;
            if (p.IsList) {
                lists.push_back(ListToJSON(p.Items));
                rc = sqlite3_bind_text(stmt, n, lists.back().data(),
                                       static_cast<int>(lists.back().size()), SQLITE_STATIC);
            } else {
                const TVariant& v = p.Value;
                switch (v.VarType()) {
                    case TVarType::vtNull:
                        rc = sqlite3_bind_null(stmt, n);
                        break;
                    case TVarType::vtInteger:
                    case TVarType::vtInt64:
                        rc = sqlite3_bind_int64(stmt, n, v.RawInt());
                        break;
                    case TVarType::vtFloat:
                    case TVarType::vtDate:
                        rc = sqlite3_bind_double(stmt, n, v.RawFloat());
                        break;
                    default:
                        rc = sqlite3_bind_text(stmt, n, v.RawString().data(),
                                               static_cast<int>(v.RawString().size()),
                                               SQLITE_STATIC);
                }
            }
            if (rc != SQLITE_OK) throw EDBSQLError(sqlite3_errmsg(FDB));
        }
        const int cols = sqlite3_column_count(stmt);
        if (AResult && AResult->WantColumnNames && AResult->Columns.empty())
            for (int c = 0; c < cols; ++c)
                AResult->Columns.emplace_back(sqlite3_column_name(stmt, c));
        if (AResult) AResult->ColumnCount = cols;
        for (;;) {
            const int rc = sqlite3_step(stmt);
            if (rc == SQLITE_DONE) break;
            if (rc != SQLITE_ROW) throw EDBSQLError(sqlite3_errmsg(FDB));
            if (!AResult) continue;
            std::vector<TVariant>& row = AResult->Cells;
            for (int c = 0; c < cols; ++c) {
                switch (sqlite3_column_type(stmt, c)) {
                    case SQLITE_INTEGER:
                        row.emplace_back(static_cast<long long>(sqlite3_column_int64(stmt, c)));
                        break;
                    case SQLITE_FLOAT:
                        row.emplace_back(sqlite3_column_double(stmt, c));
                        break;
                    case SQLITE_NULL:
                        row.emplace_back();
                        break;
                    default: {
                        const auto* t = reinterpret_cast<const char*>(sqlite3_column_text(stmt, c));
                        row.emplace_back(std::string(
                            t ? t : "", static_cast<size_t>(sqlite3_column_bytes(stmt, c))));
                    }
                }
            }
        }
        return sqlite3_stmt_readonly(stmt) ? 0 : sqlite3_changes64(FDB);
    }

    std::vector<std::string> TableColumns(const std::string& ASQLTableName) override {
        std::vector<std::string> cols;
        TDBResult r;
        TDBParam p;
        p.Value = TVariant(ASQLTableName);
        Execute("SELECT name FROM pragma_table_info(?1)", {p}, &r);
        for (int i = 0; i < r.RowCount(); ++i)
            cols.push_back(r.At(i, 0).AsString());
        return cols;
    }

  private:
    sqlite3_stmt* Prepare(const std::string& sql) {
        // Row-by-row work repeats one statement: try the last one before hashing.
        if (FLast && FLastSQL == sql) return FLast;
        auto it = FCache.find(sql);
        if (it != FCache.end()) {
            FLastSQL = sql;
            FLast = it->second;
            return FLast;
        }
        if (FCache.size() >= kMaxCachedStatements) {
            for (auto& [s, stmt] : FCache)
                sqlite3_finalize(stmt);
            FCache.clear();
            FLast = nullptr;
        }
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v3(FDB, sql.c_str(), static_cast<int>(sql.size()),
                               SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK)
            throw EDBSQLError(std::string(sqlite3_errmsg(FDB)) + " [" + sql + "]");
        FCache.emplace(sql, stmt);
        FLastSQL = sql;
        FLast = stmt;
        return stmt;
    }

    sqlite3* FDB = nullptr;
    std::unordered_map<std::string, sqlite3_stmt*> FCache;
    std::string FLastSQL;
    sqlite3_stmt* FLast = nullptr;
};

}  // namespace

std::unique_ptr<TDBConnection> OpenSQLiteConnection(const std::string& APath) {
    return std::make_unique<TSQLiteConnection>(APath);
}

std::uint64_t DBSQLiteMemoryUsed() {
    return static_cast<std::uint64_t>(sqlite3_memory_used());
}

}  // namespace docadmin
