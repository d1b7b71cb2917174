// IDBInterface: the database of the host, opened from {backend, path | conninfo}.
//
// OpenDatabase loads the schema catalogue, connects and creates missing tables, indexes and
// columns (it never drops anything). The database object is shared by all threads: it keeps a
// small pool of connections (one is leased for each operation) and the open transactions, each on
// a connection of its own. Work that names a DBA transaction ID runs on that transaction's
// connection; a transaction is used by the thread that began it.
//
// IDBSQLStatement is the statement object of the database-level operations: one schema at a time,
// kind 0 insert, 1 update, 2 delete; Execute empties fields and filters so that the object serves
// the next row.
//
// The current user is per thread (SetDBCurrentUserID); record sets that check row rights use it.
// With no user (0) nothing is filtered.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "_DBBackend.h"
#include "_DBSchema.h"
#include "_TClientSQL.h"

namespace docadmin {

struct TDatabaseParams {
    // "sqlite" (the default) or "postgresql".
    std::string Backend = "sqlite";
    // SQLite: the database file (created when missing).
    std::string SQLitePath;
    // PostgreSQL: a libpq connection string ("host=... port=... dbname=... user=...").
    std::string ConnInfo;
    // Optional folder of further table descriptions (*.json) beside the built-in ones.
    std::string SchemaFolder;
    // Create missing tables, columns and indexes while opening.
    bool UpgradeSchema = true;
};

class TDBConnectionLease;

class IDBSQLStatement : public IInterface {
  public:
    DOCADMIN_IID("{4E5F6A7B-8C9D-4E0F-A1B2-C3D4E5F60718}");
    virtual void SetSchemaItem(IDBFieldSchemaItem* AItem) = 0;
    // 0 insert, 1 update, 2 delete.
    virtual void SetStatementKind(int AKind) = 0;
    virtual TClientSQLField* AddField(const std::string& AName, TVariant AValue,
                                      int AFlags = 0) = 0;
    virtual TClientSQLFilter* AddFilter(const std::string& AName, TVariant AValue,
                                        TFilterType AType = ftEqual, TFilterLink ALink = flAnd,
                                        TParenthesis AParenthesis = pNone,
                                        TFilterFieldFunction AFunction = fffNone) = 0;
    // Runs the statement and empties fields and filters.
    virtual void Execute() = 0;
    // Runs an insert, delivers the new key and empties fields and filters.
    virtual void ExecuteInsert(std::int64_t& ANewID) = 0;
    virtual void SetDBATransactionID(std::int64_t AID) = 0;
    virtual std::int64_t RowsAffected() = 0;
};

class IDBInterface : public IInterface {
  public:
    DOCADMIN_IID("{9F8E7D6C-5B4A-4392-8170-6F5E4D3C2B1A}");
    virtual const IDBFieldSchema* GetFieldSchema() = 0;
    virtual TDBBackendKind GetBackendKind() = 0;
    // A statement object for a plug-in.
    virtual IPtr<IDBSQLStatement> CreateStatement(const std::string& APluginGUID) = 0;
    // The record UID (globalrecuid) of a row by its DBID; "" when there is no such row.
    virtual std::string GetRecordUIDByDBID(const std::string& ASQLTableName,
                                           std::int64_t ADBID) = 0;
    // The DBID of a row by its record UID; 0 when there is no such row.
    virtual std::int64_t GetDBIDByRecordUID(const std::string& ASQLTableName,
                                            const std::string& ARecordUID) = 0;
    // Transactions. Begin answers the DBA transaction ID (never 0); commit and rollback end it.
    // An unknown ID raises EDBException.
    virtual std::int64_t BeginTransaction() = 0;
    virtual void CommitTransaction(std::int64_t AID) = 0;
    virtual void RollbackTransaction(std::int64_t AID) = 0;

    // Creates missing tables, indexes and columns; answers one line per change made.
    virtual std::vector<std::string> UpgradeSchema() = 0;

    // For the layer's own classes: a connection for one operation, the transaction's when AID
    // isn't 0. A write without a transaction (AForWrite) on SQLite, by a thread that holds an open
    // transaction and so SQLite's only write lock, gets that transaction's connection: on another
    // it would wait for the lock its own thread holds. Reads keep their own connection and don't
    // see the transaction's uncommitted rows.
    virtual TDBConnectionLease AcquireConnection(std::int64_t ADBATransactionID,
                                                 bool AForWrite = false) = 0;
    virtual const TDBDialect& GetDialect() = 0;
};

// A connection held for one operation; returned to the pool when the lease ends.
class TDBConnectionLease {
  public:
    TDBConnectionLease() = default;
    TDBConnectionLease(TDBConnection* AConn, std::function<void(TDBConnection*)> ARelease)
        : FConn(AConn), FRelease(std::move(ARelease)) {}
    TDBConnectionLease(TDBConnectionLease&& o) noexcept
        : FConn(std::exchange(o.FConn, nullptr)), FRelease(std::move(o.FRelease)) {}
    TDBConnectionLease& operator=(TDBConnectionLease&&) = delete;
    ~TDBConnectionLease() {
        if (FConn && FRelease) FRelease(FConn);
    }
    TDBConnection* operator->() const { return FConn; }
    TDBConnection& operator*() const { return *FConn; }

  private:
    TDBConnection* FConn = nullptr;
    std::function<void(TDBConnection*)> FRelease;
};

// Opens the database, loads the catalogue and, unless AParams says otherwise, upgrades the
// tables. Raises EDBException when the backend is unknown or the connection fails.
IPtr<IDBInterface> OpenDatabase(const TDatabaseParams& AParams);

// The current user of this thread for row rights and the host record columns; 0 for none.
void SetDBCurrentUserID(std::int64_t AUserID);
std::int64_t GetDBCurrentUserID();

// Sets the current user of this thread for a scope and restores the previous one.
class TDBUserScope {
  public:
    explicit TDBUserScope(std::int64_t AUserID) : FPrevious(GetDBCurrentUserID()) {
        SetDBCurrentUserID(AUserID);
    }
    ~TDBUserScope() { SetDBCurrentUserID(FPrevious); }
    TDBUserScope(const TDBUserScope&) = delete;
    TDBUserScope& operator=(const TDBUserScope&) = delete;

  private:
    std::int64_t FPrevious;
};

}  // namespace docadmin
