// The fixture of the data layer's suite: a fresh database per case, on the backend named by the
// test parameter. SQLite gets a temporary file; PostgreSQL gets a schema of its own on the
// server that scripts/pg-peer started (conninfo in $DOCADMIN_PG_CONNINFO_FILE), so that cases
// can run in parallel.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

#include "_DBInterface.h"
#include "_TKRRecordSet.h"

namespace docadmin::testing {

inline std::string PGConnInfo() {
    const char* file = std::getenv("DOCADMIN_PG_CONNINFO_FILE");
    if (!file) return {};
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    return line;
}

class DBTest : public ::testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        const std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        FTag = "t" + std::to_string(::getpid()) + "_" + std::to_string(std::rand());
        TDatabaseParams p;
        p.Backend = GetParam();
        if (GetParam() == "sqlite") {
            FFile = std::filesystem::temp_directory_path() / ("docadmin_db_" + FTag + ".sqlite");
            p.SQLitePath = FFile.string();
        } else {
            const std::string conninfo = PGConnInfo();
            if (conninfo.empty()) {
                const char* ci = std::getenv("CI");
                if (ci && std::string(ci) == "true") FAIL() << "no PostgreSQL server for " << name;
                GTEST_SKIP() << "no PostgreSQL server (scripts/pg-peer did not start one)";
            }
            TDatabaseParams admin;
            admin.Backend = "postgresql";
            admin.ConnInfo = conninfo;
            admin.UpgradeSchema = false;
            FAdmin = OpenDatabase(admin);
            FAdmin->AcquireConnection(0)->ExecDirect("CREATE SCHEMA " + FTag);
            p.ConnInfo = conninfo + " options='-c search_path=" + FTag + "'";
        }
        FParams = p;
        DB = OpenDatabase(p);
    }

    void TearDown() override {
        DB.reset();
        if (FAdmin) FAdmin->AcquireConnection(0)->ExecDirect("DROP SCHEMA " + FTag + " CASCADE");
        if (!FFile.empty()) {
            std::error_code ec;
            for (const char* suffix : {"", "-wal", "-shm"})
                std::filesystem::remove(FFile.string() + suffix, ec);
        }
    }

    // Inserts a row through a statement and answers its key.
    std::int64_t Insert(const std::string& schema,
                        std::initializer_list<std::pair<const char*, TVariant>> fields,
                        std::int64_t tx = 0) {
        IPtr<IDBSQLStatement> st = DB->CreateStatement("");
        st->SetSchemaItem(GetSchemaByName(DB->GetFieldSchema(), schema).get());
        st->SetStatementKind(0);
        st->SetDBATransactionID(tx);
        for (const auto& [n, v] : fields)
            st->AddField(n, v);
        std::int64_t id = 0;
        st->ExecuteInsert(id);
        return id;
    }

    // A record set on a schema, owned by the test.
    std::unique_ptr<TKRRecordSet> Set(const std::string& schema) {
        auto rs = std::make_unique<TKRRecordSet>(nullptr, DB.get());
        rs->SetSchemaName(schema);
        return rs;
    }

    // The values of one column of an opened set, in row order.
    static std::vector<std::string> Column(TKRRecordSet& rs, const std::string& field) {
        std::vector<std::string> r;
        for (int i = 0; i < rs.GetRecordCount(); ++i)
            r.push_back(rs.ValueByName(i, field).GetAsString());
        return r;
    }

    IPtr<IDBInterface> DB;
    TDatabaseParams FParams;

  private:
    std::string FTag;
    std::filesystem::path FFile;
    IPtr<IDBInterface> FAdmin;
};

inline std::string BackendName(const ::testing::TestParamInfo<std::string>& info) {
    return info.param;
}

}  // namespace docadmin::testing

#define DB_INSTANTIATE(Suite)                                                            \
    INSTANTIATE_TEST_SUITE_P(Backends, Suite, ::testing::Values("sqlite", "postgresql"), \
                             ::docadmin::testing::BackendName)
