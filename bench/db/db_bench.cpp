// Inserts N rows and reads them back by an in-list, once through the data layer
// (IDBSQLStatement, TKRRecordSet) and once directly through the database's C API, in autocommit
// and in one transaction, and prints the times and the ratio layer / raw.
//
//   db_bench --rows 20000 --dir /tmp/x [--pg CONNINFO] [--repeat 3] [--modes both]
//
// Both sides write the same rows: four values plus the host record columns (dates, user ids and
// a fresh GUID per row), and read all columns of all rows into memory.
#include <libpq-fe.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "_DBInterface.h"
#include "_TKRRecordSet.h"

using namespace docadmin;

namespace {

using Clock = std::chrono::steady_clock;

struct TTimes {
    double Insert = 0;
    double Read = 0;
    double Total() const { return Insert + Read; }
};

struct TRow {
    std::int64_t Id;
    std::string ItemNo, Name;
    double Price;
    std::int64_t Stock;
    double CreaDate, ChangeDate;
    std::int64_t CreaID, ChangeID;
    std::string UID;
};

double Since(Clock::time_point t) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

std::string ItemNo(int i) {
    return "ITEM-" + std::to_string(i);
}

std::string IdList(const std::vector<std::int64_t>& ids) {
    std::string s;
    for (auto id : ids)
        s += (s.empty() ? "" : ",") + std::to_string(id);
    return s;
}

void Check(bool ok, const std::string& what) {
    if (!ok) throw std::runtime_error(what);
}

// The layer's side.
TTimes RunLayer(IDBInterface& db, int rows, bool inTransaction) {
    TTimes t;
    auto t0 = Clock::now();
    const std::int64_t tx = inTransaction ? db.BeginTransaction() : 0;
    IPtr<IDBSQLStatement> st = db.CreateStatement("");
    IPtr<IDBFieldSchemaItem> items = GetSchemaByName(db.GetFieldSchema(), "catalog_items");
    st->SetSchemaItem(items.get());
    st->SetDBATransactionID(tx);
    std::vector<std::int64_t> ids;
    ids.reserve(static_cast<size_t>(rows));
    for (int i = 0; i < rows; ++i) {
        st->SetStatementKind(0);
        st->AddField("itemno", ItemNo(i));
        st->AddField("name", "Catalog item");
        st->AddField("price", 1.5 * i);
        st->AddField("stock", i);
        std::int64_t id = 0;
        st->ExecuteInsert(id);
        ids.push_back(id);
    }
    t.Insert = Since(t0);

    t0 = Clock::now();
    std::vector<TRow> out;
    {
        TKRRecordSet rs(nullptr, &db);
        rs.SetSchemaName("catalog_items");
        rs.SetDBATransactionID(tx);
        rs.SetSelectAll(true);
        rs.GetSelectFieldOptions("creaid").DisableLookupValueLoading = true;
        rs.GetSelectFieldOptions("lastchangedid").DisableLookupValueLoading = true;
        AddFilter(rs.GetFilters(), "id", IdList(ids), ftInList);
        rs.Open();
        const int cId = rs.GetFieldIndex("id"), cNo = rs.GetFieldIndex("itemno"),
                  cName = rs.GetFieldIndex("name"), cPrice = rs.GetFieldIndex("price"),
                  cStock = rs.GetFieldIndex("stock"), cCrea = rs.GetFieldIndex("creadate"),
                  cChg = rs.GetFieldIndex("lastchangedtsp"), cCid = rs.GetFieldIndex("creaid"),
                  cLid = rs.GetFieldIndex("lastchangedid"), cUid = rs.GetFieldIndex("globalrecuid");
        out.reserve(static_cast<size_t>(rs.GetRecordCount()));
        for (int r = 0; r < rs.GetRecordCount(); ++r)
            out.push_back(TRow{
                rs.ValueByIndex(r, cId).GetAsInteger(), rs.ValueByIndex(r, cNo).GetAsString(),
                rs.ValueByIndex(r, cName).GetAsString(), rs.ValueByIndex(r, cPrice).GetAsFloat(),
                rs.ValueByIndex(r, cStock).GetAsInteger(), rs.ValueByIndex(r, cCrea).GetAsFloat(),
                rs.ValueByIndex(r, cChg).GetAsFloat(), rs.ValueByIndex(r, cCid).GetAsInteger(),
                rs.ValueByIndex(r, cLid).GetAsInteger(), rs.ValueByIndex(r, cUid).GetAsString()});
    }
    if (tx) db.CommitTransaction(tx);
    t.Read = Since(t0);
    Check(static_cast<int>(out.size()) == rows, "layer read " + std::to_string(out.size()));
    return t;
}

const char* kInsertCols =
    "itemno, name, price, stock, creadate, creaid, lastchangedtsp, lastchangedid, globalrecuid";
const char* kSelectCols =
    "id, creadate, creaid, lastchangedtsp, lastchangedid, globalrecuid, itemno, name, price, "
    "unit, stock";

// The same work with sqlite3 directly.
TTimes RunSQLite(const std::string& path, int rows, bool inTransaction) {
    sqlite3* db = nullptr;
    Check(sqlite3_open(path.c_str(), &db) == SQLITE_OK, "sqlite open");
    sqlite3_busy_timeout(db, 15000);
    sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL", nullptr, nullptr,
                 nullptr);
    TTimes t;
    auto t0 = Clock::now();
    if (inTransaction) sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    sqlite3_stmt* ins = nullptr;
    const std::string sql = std::string("INSERT INTO catalog_items (") + kInsertCols +
                            ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9) RETURNING id";
    Check(sqlite3_prepare_v2(db, sql.c_str(), -1, &ins, nullptr) == SQLITE_OK, "prepare");
    std::vector<std::int64_t> ids;
    ids.reserve(static_cast<size_t>(rows));
    for (int i = 0; i < rows; ++i) {
        const std::string no = ItemNo(i);
        const std::string uid = CreateGUIDString();
        const double now = Now();
        sqlite3_bind_text(ins, 1, no.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(ins, 2, "Catalog item", -1, SQLITE_STATIC);
        sqlite3_bind_double(ins, 3, 1.5 * i);
        sqlite3_bind_int64(ins, 4, i);
        sqlite3_bind_double(ins, 5, now);
        sqlite3_bind_int64(ins, 6, 0);
        sqlite3_bind_double(ins, 7, now);
        sqlite3_bind_int64(ins, 8, 0);
        sqlite3_bind_text(ins, 9, uid.c_str(), -1, SQLITE_STATIC);
        Check(sqlite3_step(ins) == SQLITE_ROW, sqlite3_errmsg(db));
        ids.push_back(sqlite3_column_int64(ins, 0));
        sqlite3_step(ins);
        sqlite3_reset(ins);
    }
    sqlite3_finalize(ins);
    t.Insert = Since(t0);

    t0 = Clock::now();
    std::string json = "[" + IdList(ids) + "]";
    sqlite3_stmt* sel = nullptr;
    const std::string q = std::string("SELECT ") + kSelectCols +
                          " FROM catalog_items WHERE id IN (SELECT value FROM json_each(?1))";
    Check(sqlite3_prepare_v2(db, q.c_str(), -1, &sel, nullptr) == SQLITE_OK, "prepare select");
    sqlite3_bind_text(sel, 1, json.c_str(), static_cast<int>(json.size()), SQLITE_STATIC);
    std::vector<TRow> out;
    auto text = [&](int c) {
        const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(sel, c));
        return p ? std::string(p) : std::string();
    };
    while (sqlite3_step(sel) == SQLITE_ROW)
        out.push_back(TRow{sqlite3_column_int64(sel, 0), text(6), text(7),
                           sqlite3_column_double(sel, 8), sqlite3_column_int64(sel, 10),
                           sqlite3_column_double(sel, 1), sqlite3_column_double(sel, 3),
                           sqlite3_column_int64(sel, 2), sqlite3_column_int64(sel, 4), text(5)});
    sqlite3_finalize(sel);
    if (inTransaction) sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    t.Read = Since(t0);
    sqlite3_close(db);
    Check(static_cast<int>(out.size()) == rows, "sqlite read");
    return t;
}

void PGCheck(PGconn* c, PGresult* r, ExecStatusType want) {
    if (PQresultStatus(r) != want) {
        std::string m = PQresultErrorMessage(r);
        PQclear(r);
        throw std::runtime_error("libpq: " + m + PQerrorMessage(c));
    }
}

// The same work with libpq directly.
TTimes RunPG(const std::string& conninfo, int rows, bool inTransaction) {
    PGconn* c = PQconnectdb(conninfo.c_str());
    Check(PQstatus(c) == CONNECTION_OK, PQerrorMessage(c));
    TTimes t;
    auto t0 = Clock::now();
    if (inTransaction) PQclear(PQexec(c, "BEGIN"));
    const std::string sql = std::string("INSERT INTO catalog_items (") + kInsertCols +
                            ") VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9) RETURNING id";
    PGresult* p = PQprepare(c, "ins", sql.c_str(), 9, nullptr);
    PGCheck(c, p, PGRES_COMMAND_OK);
    PQclear(p);
    std::vector<std::int64_t> ids;
    ids.reserve(static_cast<size_t>(rows));
    char price[40], stock[24], now1[40];
    for (int i = 0; i < rows; ++i) {
        const std::string no = ItemNo(i);
        const std::string uid = CreateGUIDString();
        std::snprintf(price, sizeof price, "%.17g", 1.5 * i);
        std::snprintf(stock, sizeof stock, "%d", i);
        std::snprintf(now1, sizeof now1, "%.17g", Now());
        const char* v[9] = {no.c_str(), "Catalog item", price, stock,      now1,
                            "0",        now1,           "0",   uid.c_str()};
        PGresult* r = PQexecPrepared(c, "ins", 9, v, nullptr, nullptr, 0);
        PGCheck(c, r, PGRES_TUPLES_OK);
        ids.push_back(std::strtoll(PQgetvalue(r, 0, 0), nullptr, 10));
        PQclear(r);
    }
    t.Insert = Since(t0);

    t0 = Clock::now();
    std::string arr = "{" + IdList(ids) + "}";
    const std::string q = std::string("SELECT ") + kSelectCols +
                          " FROM catalog_items WHERE id = ANY(CAST($1 AS bigint[]))";
    const char* v[1] = {arr.c_str()};
    PGresult* r = PQexecParams(c, q.c_str(), 1, nullptr, v, nullptr, nullptr, 0);
    PGCheck(c, r, PGRES_TUPLES_OK);
    std::vector<TRow> out;
    const int n = PQntuples(r);
    auto i64 = [&](int row, int col) { return std::strtoll(PQgetvalue(r, row, col), nullptr, 10); };
    auto dbl = [&](int row, int col) { return std::strtod(PQgetvalue(r, row, col), nullptr); };
    for (int i = 0; i < n; ++i)
        out.push_back(TRow{i64(i, 0), PQgetvalue(r, i, 6), PQgetvalue(r, i, 7), dbl(i, 8),
                           i64(i, 10), dbl(i, 1), dbl(i, 3), i64(i, 2), i64(i, 4),
                           PQgetvalue(r, i, 5)});
    PQclear(r);
    if (inTransaction) PQclear(PQexec(c, "COMMIT"));
    t.Read = Since(t0);
    PQfinish(c);
    Check(static_cast<int>(out.size()) == rows, "pg read");
    return t;
}

void Best(TTimes& best, const TTimes& t) {
    if (best.Total() == 0 || t.Total() < best.Total()) best = t;
}

}  // namespace

int main(int argc, char** argv) {
    int rows = 20000, repeat = 3;
    std::string modes = "both";  // "autocommit", "transaction" or "both"
    std::string dir = "/tmp/docadmin_db_bench", pg;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--rows") rows = std::atoi(argv[i + 1]);
        if (a == "--dir") dir = argv[i + 1];
        if (a == "--pg") pg = argv[i + 1];
        if (a == "--repeat") repeat = std::atoi(argv[i + 1]);
        if (a == "--modes") modes = argv[i + 1];
    }
    std::filesystem::create_directories(dir);
    try {
        std::vector<std::string> backends = {"sqlite"};
        if (!pg.empty()) backends.push_back("postgresql");
        std::printf("%d rows, best of %d runs; times in ms (insert + read = total)\n", rows,
                    repeat);
        std::printf("%-11s %-12s %-26s %-26s %s\n", "backend", "mode", "layer", "raw API", "ratio");
        for (const auto& backend : backends) {
            for (bool tx : {false, true}) {
                if (modes != "both" && modes != (tx ? "transaction" : "autocommit")) continue;
                TTimes layer, raw;
                for (int run = 0; run < repeat; ++run) {
                    // A fresh table for each side and run: the tables are created by the layer.
                    for (int side = 0; side < 2; ++side) {
                        TDatabaseParams p;
                        p.Backend = backend;
                        std::string file;
                        if (backend == "sqlite") {
                            file = dir + "/bench_" + std::to_string(side) + ".sqlite";
                            for (const char* s : {"", "-wal", "-shm"})
                                std::filesystem::remove(file + s);
                            p.SQLitePath = file;
                        } else {
                            p.ConnInfo = pg;
                        }
                        IPtr<IDBInterface> db = OpenDatabase(p);
                        if (backend != "sqlite")
                            db->AcquireConnection(0)->ExecDirect(
                                "TRUNCATE catalog_items RESTART IDENTITY");
                        if (side == 0) {
                            Best(layer, RunLayer(*db, rows, tx));
                        } else {
                            db.reset();
                            Best(raw, backend == "sqlite" ? RunSQLite(file, rows, tx)
                                                          : RunPG(pg, rows, tx));
                        }
                    }
                }
                char l[64], r[64];
                std::snprintf(l, sizeof l, "%.1f + %.1f = %.1f", layer.Insert, layer.Read,
                              layer.Total());
                std::snprintf(r, sizeof r, "%.1f + %.1f = %.1f", raw.Insert, raw.Read, raw.Total());
                std::printf("%-11s %-12s %-26s %-26s %.3f (insert %.3f, read %.3f)\n",
                            backend.c_str(), tx ? "transaction" : "autocommit", l, r,
                            layer.Total() / raw.Total(), layer.Insert / raw.Insert,
                            layer.Read / raw.Read);
                std::fflush(stdout);
            }
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "db_bench: %s\n", e.what());
        return 1;
    }
    return 0;
}
