// The database object behind IDBInterface: the catalogue, a pool of connections and the open
// transactions.
#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "_DBExec.h"
#include "_DBInterface.h"
#include "_DBSQLBuilder.h"

namespace docadmin {

namespace {

thread_local std::int64_t tCurrentUserID = 0;

constexpr size_t kMaxIdleConnections = 8;
// The PostgreSQL advisory lock that serialises schema upgrades of several processes.
constexpr long long kUpgradeLockKey = 0x446F6341646D696E;  // "DocAdmin"

class TDBDatabase;

class TDBSQLStatement : public TInterfacedImpl<IDBSQLStatement> {
  public:
    explicit TDBSQLStatement(IDBInterface* ADB) : FSQL(nullptr, ADB) {}

    void SetSchemaItem(IDBFieldSchemaItem* AItem) override {
        if (!AItem) throw EDBUnknownSchema("No schema item for the statement");
        FSQL.SetSchemaName(AItem->GetSchemaName());
    }
    void SetStatementKind(int AKind) override {
        if (AKind < 0 || AKind > 2)
            throw EDBException("Unknown statement kind " + std::to_string(AKind));
        FSQL.SetStatementKind(static_cast<TClientSQLKind>(AKind));
    }
    TClientSQLField* AddField(const std::string& AName, TVariant AValue, int) override {
        return FSQL.GetFields()->AddField(AName, std::move(AValue));
    }
    TClientSQLFilter* AddFilter(const std::string& AName, TVariant AValue, TFilterType AType,
                                TFilterLink ALink, TParenthesis AParenthesis,
                                TFilterFieldFunction AFunction) override {
        return docadmin::AddFilter(FSQL.GetFilters(), AName, std::move(AValue), AType, ALink, false,
                                   AParenthesis, AFunction);
    }
    void Execute() override {
        Emptier e{FSQL};
        FSQL.ExecuteSQL();
    }
    void ExecuteInsert(std::int64_t& ANewID) override {
        Emptier e{FSQL};
        if (FSQL.GetStatementKind() != skInsert)
            throw EDBException("ExecuteInsert needs an insert statement");
        FSQL.ExecuteSQL(ANewID);
    }
    void SetDBATransactionID(std::int64_t AID) override { FSQL.SetDBATransactionID(AID); }
    std::int64_t RowsAffected() override { return FSQL.RowsAffected(); }

  private:
    // Execute empties fields and filters, also when it fails.
    struct Emptier {
        TClientSQL& S;
        ~Emptier() {
            S.GetFields()->Clear();
            S.GetFilters()->Clear();
        }
    };
    TClientSQL FSQL;
};

class TDBDatabase : public TInterfacedImpl<IDBInterface> {
  public:
    TDBDatabase(const TDatabaseParams& AParams, std::shared_ptr<TDBFieldSchema> ASchema)
        : FParams(AParams),
          FKind(AParams.Backend == "postgresql" ? TDBBackendKind::bkPostgreSQL
                                                : TDBBackendKind::bkSQLite),
          FDialect(FKind),
          FSchema(std::move(ASchema)) {}

    ~TDBDatabase() override {
        for (auto& [id, t] : FTransactions) {
            if (!t.Owned) continue;
            try {
                t.Conn->ExecDirect("ROLLBACK");
            } catch (...) {
            }
        }
    }

    const IDBFieldSchema* GetFieldSchema() override { return FSchema.get(); }
    TDBBackendKind GetBackendKind() override { return FKind; }
    const TDBDialect& GetDialect() override { return FDialect; }

    IPtr<IDBSQLStatement> CreateStatement(const std::string&) override {
        return IPtr<IDBSQLStatement>(new TDBSQLStatement(this));
    }

    std::string GetRecordUIDByDBID(const std::string& ASQLTableName, std::int64_t ADBID) override {
        const TDBTableDef& t = RequireTableBySQLName(*FSchema, ASQLTableName);
        TDBResult r;
        TDBParam p;
        p.Value = TVariant(static_cast<long long>(ADBID));
        AcquireConnection(0, false)->Execute(
            "SELECT " + TDBDialect::QuoteName("globalrecuid") + " FROM " +
                TDBDialect::QuoteName(t.SQLTableName) + " WHERE " +
                TDBDialect::QuoteName(t.KeyField().Name) + " = " + FDialect.Placeholder(1),
            {p}, &r);
        return r.RowCount() == 0 ? std::string() : r.At(0, 0).AsString();
    }

    std::int64_t GetDBIDByRecordUID(const std::string& ASQLTableName,
                                    const std::string& ARecordUID) override {
        const TDBTableDef& t = RequireTableBySQLName(*FSchema, ASQLTableName);
        TDBResult r;
        TDBParam p;
        p.Value = TVariant(ARecordUID);
        AcquireConnection(0, false)->Execute("SELECT " + TDBDialect::QuoteName(t.KeyField().Name) +
                                                 " FROM " + TDBDialect::QuoteName(t.SQLTableName) +
                                                 " WHERE " + TDBDialect::QuoteName("globalrecuid") +
                                                 " = " + FDialect.Placeholder(1),
                                             {p}, &r);
        return r.RowCount() == 0 ? 0 : r.At(0, 0).AsInt64();
    }

    std::int64_t BeginTransaction() override {
        if (FKind == TDBBackendKind::bkSQLite) {
            // SQLite has one writer at a time: a second transaction of a thread that already holds
            // one would wait for itself. It becomes a savepoint on the same connection instead.
            std::unique_lock lock(FLock);
            if (TTransaction* outer = OwnTransaction()) {
                TTransaction nested;
                nested.Conn = outer->Conn;
                nested.Owner = outer->Owner;
                nested.Savepoint = "docadmin_sp" + std::to_string(FNextTransactionID + 1);
                lock.unlock();
                nested.Conn->ExecDirect("SAVEPOINT " + nested.Savepoint);
                lock.lock();
                const std::int64_t id = ++FNextTransactionID;
                FTransactions.emplace(id, std::move(nested));
                return id;
            }
        }
        std::unique_ptr<TDBConnection> conn = TakeIdle();
        conn->ExecDirect(FDialect.BeginTransactionSQL());
        std::lock_guard lock(FLock);
        const std::int64_t id = ++FNextTransactionID;
        TTransaction t;
        t.Conn = conn.get();
        t.Owned = std::move(conn);
        t.Owner = std::this_thread::get_id();
        FTransactions.emplace(id, std::move(t));
        return id;
    }

    void CommitTransaction(std::int64_t AID) override { EndTransaction(AID, true); }
    void RollbackTransaction(std::int64_t AID) override { EndTransaction(AID, false); }

    TDBConnectionLease AcquireConnection(std::int64_t AID, bool AForWrite) override {
        if (AID != 0) {
            std::lock_guard lock(FLock);
            auto it = FTransactions.find(AID);
            if (it == FTransactions.end()) throw UnknownTransaction(AID);
            return TDBConnectionLease(it->second.Conn, nullptr);
        }
        if (AForWrite && FKind == TDBBackendKind::bkSQLite) {
            // A write outside a transaction, on a thread that holds SQLite's write lock, would wait
            // for that lock until it times out; it runs on the transaction's connection instead.
            std::lock_guard lock(FLock);
            if (TTransaction* own = OwnTransaction()) return TDBConnectionLease(own->Conn, nullptr);
        }
        TDBConnection* conn = TakeIdle().release();
        return TDBConnectionLease(conn, [this](TDBConnection* c) { GiveBack(c); });
    }

    std::vector<std::string> UpgradeSchema() override {
        std::vector<std::string> changes;
        TDBConnectionLease conn = AcquireConnection(0, false);
        // Several processes may open a fresh database at once: the upgrade runs in a transaction
        // that one of them holds at a time (SQLite's write lock, a PostgreSQL advisory lock), and
        // each looks at the tables only once it holds it.
        bool committed = false;
        conn->ExecDirect(FDialect.BeginTransactionSQL());
        TFinally endUpgrade{[&] {
            if (committed) return;
            try {
                conn->ExecDirect("ROLLBACK");
            } catch (...) {
            }
        }};
        if (FKind == TDBBackendKind::bkPostgreSQL)
            conn->ExecDirect("SELECT pg_advisory_xact_lock(" + std::to_string(kUpgradeLockKey) +
                             ")");
        for (const std::string& name : FSchema->SchemaNames()) {
            const TDBTableDef& t = *FSchema->FindTable(name);
            const std::vector<std::string> have = conn->TableColumns(t.SQLTableName);
            const std::string table = TDBDialect::QuoteName(t.SQLTableName);
            if (have.empty()) {
                std::string sql = "CREATE TABLE IF NOT EXISTS " + table + " (";
                for (size_t i = 0; i < t.Fields.size(); ++i)
                    sql += (i ? ", " : "") + TDBDialect::QuoteName(t.Fields[i].Name) + " " +
                           FDialect.ColumnType(t.Fields[i]);
                conn->ExecDirect(sql + ")");
                changes.push_back("created table " + t.SQLTableName);
            } else {
                for (const auto& f : t.Fields) {
                    if (std::find(have.begin(), have.end(), f.Name) != have.end()) continue;
                    conn->ExecDirect("ALTER TABLE " + table + " ADD COLUMN " +
                                     TDBDialect::QuoteName(f.Name) + " " + FDialect.ColumnType(f));
                    changes.push_back("added column " + t.SQLTableName + "." + f.Name);
                }
            }
            for (const auto& ix : t.Indexes) {
                std::string cols;
                for (const auto& c : ix.Fields)
                    cols += (cols.empty() ? "" : ", ") + TDBDialect::QuoteName(c);
                conn->ExecDirect(std::string("CREATE ") + (ix.Unique ? "UNIQUE " : "") +
                                 "INDEX IF NOT EXISTS " + TDBDialect::QuoteName(ix.Name) + " ON " +
                                 table + " (" + cols + ")");
            }
        }
        conn->ExecDirect("COMMIT");
        committed = true;
        return changes;
    }

    // Checks the connection once so that a wrong path or conninfo fails at open.
    void Connect() { GiveBack(TakeIdle().release()); }

  private:
    static EDBException UnknownTransaction(std::int64_t id) {
        return EDBException("Unknown DBA transaction ID " + std::to_string(id));
    }

    std::unique_ptr<TDBConnection> TakeIdle() {
        {
            std::lock_guard lock(FLock);
            if (!FIdle.empty()) {
                auto c = std::move(FIdle.back());
                FIdle.pop_back();
                return c;
            }
        }
        if (FKind == TDBBackendKind::bkSQLite) return OpenSQLiteConnection(FParams.SQLitePath);
        return OpenPostgreSQLConnection(FParams.ConnInfo);
    }

    void GiveBack(TDBConnection* c) {
        std::unique_ptr<TDBConnection> owned(c);
        std::lock_guard lock(FLock);
        if (FIdle.size() < kMaxIdleConnections) FIdle.push_back(std::move(owned));
    }

    void EndTransaction(std::int64_t id, bool ACommit) {
        TTransaction t;
        {
            std::lock_guard lock(FLock);
            auto it = FTransactions.find(id);
            if (it == FTransactions.end()) throw UnknownTransaction(id);
            t = std::move(it->second);
            FTransactions.erase(it);
        }
        if (!t.Savepoint.empty()) {
            if (!ACommit) t.Conn->ExecDirect("ROLLBACK TO " + t.Savepoint);
            t.Conn->ExecDirect("RELEASE " + t.Savepoint);
            return;
        }
        try {
            t.Conn->ExecDirect(ACommit ? "COMMIT" : "ROLLBACK");
        } catch (...) {
            // A failed commit leaves the transaction open on the server; end it and drop the
            // connection rather than hand it on.
            try {
                t.Conn->ExecDirect("ROLLBACK");
            } catch (...) {
            }
            throw;
        }
        GiveBack(t.Owned.release());
    }

    // An open transaction on a connection of its own (Owned), or a savepoint within the
    // transaction of the same thread (Savepoint, the connection belongs to the outer one).
    struct TTransaction {
        TDBConnection* Conn = nullptr;
        std::unique_ptr<TDBConnection> Owned;
        std::thread::id Owner;
        std::string Savepoint;
    };

    // The outermost transaction that the calling thread holds; FLock must be held.
    TTransaction* OwnTransaction() {
        const std::thread::id me = std::this_thread::get_id();
        for (auto& [id, t] : FTransactions)
            if (t.Owner == me && t.Owned) return &t;
        return nullptr;
    }

    TDatabaseParams FParams;
    TDBBackendKind FKind;
    TDBDialect FDialect;
    std::shared_ptr<TDBFieldSchema> FSchema;

    std::mutex FLock;  // guards FIdle, FTransactions, FNextTransactionID
    std::vector<std::unique_ptr<TDBConnection>> FIdle;
    std::map<std::int64_t, TTransaction> FTransactions;
    std::int64_t FNextTransactionID = 0;
};

}  // namespace

IPtr<IDBInterface> OpenDatabase(const TDatabaseParams& AParams) {
    if (AParams.Backend != "sqlite" && AParams.Backend != "postgresql")
        throw EDBException("Unknown database backend \"" + AParams.Backend +
                           "\" (expected \"sqlite\" or \"postgresql\")");
    if (AParams.Backend == "sqlite" && AParams.SQLitePath.empty())
        throw EDBException("No SQLite database file given");
    auto* db = new TDBDatabase(AParams, TDBFieldSchema::Load(AParams.SchemaFolder));
    IPtr<IDBInterface> holder(db);
    db->Connect();
    if (AParams.UpgradeSchema) db->UpgradeSchema();
    return holder;
}

void SetDBCurrentUserID(std::int64_t AUserID) {
    tCurrentUserID = AUserID;
}

std::int64_t GetDBCurrentUserID() {
    return tCurrentUserID;
}

}  // namespace docadmin
