// The backend interface: one connection to SQLite or PostgreSQL, and the dialect that the layer
// above writes its SQL in. Nothing outside src/host/db uses these classes directly.
//
// A connection is used by one thread at a time. Every value is bound as a parameter; the SQL
// text of a statement holds only names from the schema catalogue and placeholders. Connections
// cache their prepared statements by SQL text.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "_DBSchema.h"
#include "_DBVariant.h"

namespace docadmin {

enum class TDBBackendKind : std::uint8_t { bkSQLite, bkPostgreSQL };

// A parameter: a value and how the database must take it.
struct TDBParam {
    TVariant Value;
    // Lists: the items as one array parameter (see TDBDialect::ListCondition).
    bool IsList = false;
    std::vector<TVariant> Items;
};

// A result: the rows, and the column names when WantColumnNames is set.
struct TDBResult {
    bool WantColumnNames = false;
    std::vector<std::string> Columns;
    // The cells row by row, ColumnCount per row.
    int ColumnCount = 0;
    std::vector<TVariant> Cells;

    int RowCount() const { return ColumnCount ? static_cast<int>(Cells.size()) / ColumnCount : 0; }
    const TVariant& At(int ARow, int AColumn) const {
        return Cells[static_cast<size_t>(ARow) * static_cast<size_t>(ColumnCount) +
                     static_cast<size_t>(AColumn)];
    }
};

class TDBConnection {
  public:
    virtual ~TDBConnection() = default;
    virtual TDBBackendKind Kind() const = 0;
    // Runs a statement without parameters and without result (DDL, transaction control).
    virtual void ExecDirect(const std::string& ASQL) = 0;
    // Runs a statement; the rows of its result go to AResult when it is given. Answers the
    // number of rows changed (0 for a select).
    virtual std::int64_t Execute(const std::string& ASQL, const std::vector<TDBParam>& AParams,
                                 TDBResult* AResult) = 0;
    // The columns of a table as the database has them (lower case); empty when it has none.
    virtual std::vector<std::string> TableColumns(const std::string& ASQLTableName) = 0;
};

// Statements sent to a database by any connection of this process (Execute and ExecDirect),
// counted for diagnostics such as "how many queries does a listing cost".
std::uint64_t DBStatementCount();
void CountDBStatement();
// Memory that SQLite holds in this process (page caches, prepared statements, schemas).
std::uint64_t DBSQLiteMemoryUsed();

// Opens a connection. SQLite: AConnInfo is the file path. PostgreSQL: a libpq conninfo string.
std::unique_ptr<TDBConnection> OpenSQLiteConnection(const std::string& APath);
std::unique_ptr<TDBConnection> OpenPostgreSQLConnection(const std::string& AConnInfo);

// SQL text differences between the two databases.
class TDBDialect {
  public:
    explicit TDBDialect(TDBBackendKind AKind) : FKind(AKind) {}
    TDBBackendKind Kind() const { return FKind; }
    // Placeholder of the 1-based parameter number.
    std::string Placeholder(int ANumber) const;
    // A name in double quotes (names come from the catalogue; quotes are doubled anyway).
    static std::string QuoteName(const std::string& AName);
    // The column type of a field in CREATE TABLE / ALTER TABLE.
    std::string ColumnType(const TDBFieldDef& AField) const;
    // "x IN list" for a list bound as one parameter; ANot gives "not in".
    std::string ListCondition(const std::string& AExpr, const std::string& APlaceholder,
                              TDBFieldKind AKind, bool ANot) const;
    // "BEGIN" of a write transaction.
    std::string BeginTransactionSQL() const;

  private:
    TDBBackendKind FKind;
};

}  // namespace docadmin
