// The search by stored documents next to one recursive SQL query that finds the same records, on
// the same database in one run: the time (median of --repeat runs after one warm-up) and the
// number of statements of each, and the ratio search / recursive query.
//
//   search_bench --dir /tmp/x [--pg CONNINFO] [--records 10000] [--docs 10] [--repeat 5]
//
// The tree: one "contacts#Records" root; per record a folder titled with its UID and three
// levels below it (Correspondence/2024/Offers). Each record holds --docs documents spread over
// its four folders. Every tenth record has "Offer-<n>.PDF" in its deepest folder; "invoice"
// matches two documents of every record, one in the record folder and one two levels down.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "_DBBackend.h"
#include "_DBInterface.h"
#include "_DocAdminSearch.h"
#include "_THost.h"

using namespace docadmin;

namespace {

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point t) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

void Check(bool ok, const std::string& what) {
    if (!ok) throw std::runtime_error(what);
}

std::string RecordUID(int r) {
    char b[40];
    std::snprintf(b, sizeof b, "{5EA2C400-0000-4000-8000-%012d}", r);
    return b;
}

// The tree of the header comment, written in one transaction.
void Fill(IDBInterface& db, int records, int docsPerRecord) {
    const std::int64_t tx = db.BeginTransaction();
    IPtr<IDBSQLStatement> st = db.CreateStatement("");
    IPtr<IDBFieldSchemaItem> dirs = GetSchemaByName(db.GetFieldSchema(), "docadmindir");
    IPtr<IDBFieldSchemaItem> docs = GetSchemaByName(db.GetFieldSchema(), "docadmindocs");
    st->SetDBATransactionID(tx);
    auto dir = [&](std::int64_t parent, const std::string& title) {
        st->SetSchemaItem(dirs.get());
        st->SetStatementKind(0);
        st->AddField("parentdirid", TVariant(static_cast<long long>(parent)));
        st->AddField("title", TVariant(title));
        std::int64_t id = 0;
        st->ExecuteInsert(id);
        return id;
    };
    const char* kinds[] = {"Letter", "Invoice", "Contract", "Note", "Scan"};
    const char* exts[] = {".pdf", ".docx", ".txt"};
    const std::int64_t root = dir(0, "contacts#Records");
    st->SetSchemaItem(dirs.get());
    for (int r = 0; r < records; ++r) {
        const std::int64_t rec = dir(root, RecordUID(r));
        const std::int64_t l1 = dir(rec, "Correspondence");
        const std::int64_t l2 = dir(l1, "2024");
        const std::int64_t l3 = dir(l2, "Offers");
        const std::int64_t levels[] = {rec, l1, l2, l3};
        st->SetSchemaItem(docs.get());
        for (int k = 0; k < docsPerRecord; ++k) {
            const std::int64_t d = levels[std::min(3, k * 4 / docsPerRecord)];
            std::string name = k == docsPerRecord - 1 && r % 10 == 0
                                   ? "Offer-" + std::to_string(r) + ".PDF"
                                   : std::string(kinds[k % 5]) + "-" + std::to_string(r) + "-" +
                                         std::to_string(k) + exts[(r + k) % 3];
            st->SetStatementKind(0);
            st->AddField("dirid", TVariant(static_cast<long long>(d)));
            st->AddField("docname", TVariant(name));
            st->AddField("flsize", TVariant(static_cast<long long>(1000 + k)));
            st->Execute();
        }
    }
    db.CommitTransaction(tx);
}

struct TRun {
    double Ms = 0;
    std::uint64_t Statements = 0;
    std::set<std::string> UIDs;
};

TRun RunSearch(THost& host, const std::string& text) {
    TRun r;
    const std::uint64_t before = DBStatementCount();
    const auto t0 = Clock::now();
    TDocAdminSearchObject search(nullptr, &host);
    search.SetRootFolderName("contacts#Records");
    search.Search("%" + UpperCase(text) + "%", ftLike);
    r.Ms = Since(t0);
    r.Statements = DBStatementCount() - before;
    for (const auto& item : search.ResultList())
        r.UIDs.insert(item.Title);
    return r;
}

// One statement: the documents' folders, climbed with WITH RECURSIVE under the same rules as the
// search (stop at a folder whose parent is a root; don't climb past a "#Records" title).
TRun RunRecursive(IDBInterface& db, const std::string& text) {
    const TDBDialect& d = db.GetDialect();
    const std::string sql =
        "WITH RECURSIVE roots(id) AS (SELECT id FROM docadmindir WHERE title = " +
        d.Placeholder(1) +
        "), up(id, parentdirid, title) AS ("
        "SELECT f.id, f.parentdirid, f.title FROM docadmindir f WHERE f.id IN "
        "(SELECT dirid FROM docadmindocs WHERE upper(CAST(docname AS TEXT)) LIKE " +
        d.Placeholder(2) +
        ") UNION "
        "SELECT p.id, p.parentdirid, p.title FROM up JOIN docadmindir p ON p.id = up.parentdirid "
        "WHERE up.parentdirid > 0 AND up.parentdirid NOT IN (SELECT id FROM roots) "
        "AND up.title NOT LIKE " +
        d.Placeholder(3) +
        ") SELECT DISTINCT title FROM up WHERE parentdirid IN (SELECT id FROM roots)";
    std::vector<TDBParam> params(3);
    params[0].Value = TVariant(std::string("contacts#Records"));
    params[1].Value = TVariant("%" + UpperCase(text) + "%");
    params[2].Value = TVariant(std::string("%#Records%"));
    TRun r;
    const std::uint64_t before = DBStatementCount();
    const auto t0 = Clock::now();
    TDBResult result;
    db.AcquireConnection(0)->Execute(sql, params, &result);
    r.Ms = Since(t0);
    r.Statements = DBStatementCount() - before;
    for (int i = 0; i < result.RowCount(); ++i)
        r.UIDs.insert(result.At(i, 0).AsString());
    return r;
}

template <class F>
TRun Median(int repeat, F run) {
    run();  // warm-up: statement caches and the database's pages
    std::vector<TRun> runs;
    for (int i = 0; i < repeat; ++i)
        runs.push_back(run());
    std::sort(runs.begin(), runs.end(), [](auto& a, auto& b) { return a.Ms < b.Ms; });
    return runs[runs.size() / 2];
}

// Answers false when a ratio misses the target.
bool Bench(const std::string& label, const std::string& config, int records, int docs, int repeat) {
    THost host(TDocAdminConfig::FromString(config, ""), rmTool, 1000);
    IDBInterface& db = *host.GetDBInterface();
    auto t0 = Clock::now();
    Fill(db, records, docs);
    std::printf("%s: %d records, %d documents, %d folders written in %.0f ms\n", label.c_str(),
                records, records * docs, records * 4 + 1, Since(t0));
    bool ok = true;
    for (const std::string text : {"offer", "invoice"}) {
        const TRun s = Median(repeat, [&] { return RunSearch(host, text); });
        const TRun q = Median(repeat, [&] { return RunRecursive(db, text); });
        Check(s.UIDs == q.UIDs, label + ": the two found different records for " + text);
        const double ratio = s.Ms / q.Ms;
        ok = ok && ratio <= 3.0;
        std::printf(
            "  %-8s %5zu records | search %8.2f ms, %2llu statements | recursive %8.2f ms, "
            "%llu statement | ratio %.2f (target <= 3)\n",
            text.c_str(), s.UIDs.size(), s.Ms, static_cast<unsigned long long>(s.Statements), q.Ms,
            static_cast<unsigned long long>(q.Statements), ratio);
    }
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir, pg;
    int records = 10000, docs = 10, repeat = 5;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i], v = argv[i + 1];
        if (a == "--dir")
            dir = v;
        else if (a == "--pg")
            pg = v;
        else if (a == "--records")
            records = std::stoi(v);
        else if (a == "--docs")
            docs = std::stoi(v);
        else if (a == "--repeat")
            repeat = std::stoi(v);
        else {
            std::fprintf(stderr, "unknown argument %s\n", a.c_str());
            return 2;
        }
    }
    if (dir.empty() || records < 1 || docs < 1 || repeat < 1) {
        std::fprintf(stderr,
                     "usage: search_bench --dir DIR [--pg CONNINFO] [--records N] [--docs N] "
                     "[--repeat N]\n");
        return 2;
    }
    try {
        bool ok = true;
        const std::string sqliteDir = dir + "/sqlite";
        std::filesystem::create_directories(sqliteDir);
        ok &= Bench("SQLite", "data_dir = \"" + sqliteDir + "\"\n", records, docs, repeat);
        if (!pg.empty())
            ok &= Bench("PostgreSQL",
                        "data_dir = \"" + dir +
                            "/pghost\"\n[databases.main]\nbackend = "
                            "\"postgresql\"\nconninfo = \"" +
                            pg + "\"\n",
                        records, docs, repeat);
        return ok ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "search_bench: %s\n", e.what());
        return 1;
    }
}
