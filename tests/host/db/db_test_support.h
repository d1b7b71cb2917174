// The fixture of the data layer's suite: a fresh database per case, on the backend named by the
// test parameter. SQLite gets a temporary file; PostgreSQL gets a schema of its own on the
// server that scripts/pg-peer started (conninfo in $DOCADMIN_PG_CONNINFO_FILE), so that cases
// can run in parallel.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <unistd.h>

#include "_DBInterface.h"
#include "_TKRRecordSet.h"
#include "host/test_helpers.h"

namespace docadmin::testing {

inline std::string PGConnInfo() {
    const char* file = std::getenv("DOCADMIN_PG_CONNINFO_FILE");
    if (!file) return {};
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    return line;
}

inline bool RunningInCI() {
    const char* ci = std::getenv("CI");
    return ci && std::string(ci) == "true";
}

// In a fixture's SetUp: the test server's conninfo into AVar, or skip the test when scripts/pg-peer
// started no server (under CI=true a missing server fails the test instead).
#define DOCADMIN_PG_CONNINFO_OR_SKIP(AVar)                                          \
    const std::string AVar = ::docadmin::testing::PGConnInfo();                     \
    if (AVar.empty()) {                                                             \
        if (::docadmin::testing::RunningInCI()) FAIL() << "no PostgreSQL server";   \
        GTEST_SKIP() << "no PostgreSQL server (scripts/pg-peer did not start one)"; \
    }

// A schema of its own on the test server, so that cases can run in parallel; dropped with the
// object, which must outlive every connection into it.
class TPGTestSchema {
  public:
    explicit TPGTestSchema(const std::string& AServerConnInfo)
        : FTag("t" + std::to_string(::getpid()) + "_" + std::to_string(std::rand())) {
        TDatabaseParams admin;
        admin.Backend = "postgresql";
        admin.ConnInfo = AServerConnInfo;
        admin.UpgradeSchema = false;
        FAdmin = OpenDatabase(admin);
        FAdmin->AcquireConnection(0)->ExecDirect("CREATE SCHEMA " + FTag);
        FConnInfo = AServerConnInfo + " options='-c search_path=" + FTag + "'";
    }
    ~TPGTestSchema() {
        FAdmin->AcquireConnection(0)->ExecDirect("DROP SCHEMA " + FTag + " CASCADE");
    }
    TPGTestSchema(const TPGTestSchema&) = delete;
    TPGTestSchema& operator=(const TPGTestSchema&) = delete;
    // Connects into the schema.
    const std::string& ConnInfo() const { return FConnInfo; }

  private:
    std::string FTag;
    std::string FConnInfo;
    IPtr<IDBInterface> FAdmin;
};

class DBTest : public ::testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        TDatabaseParams p;
        p.Backend = GetParam();
        if (GetParam() == "sqlite") {
            p.SQLitePath = FTemp / "db.sqlite";
        } else {
            DOCADMIN_PG_CONNINFO_OR_SKIP(conninfo);
            FSchema = std::make_unique<TPGTestSchema>(conninfo);
            p.ConnInfo = FSchema->ConnInfo();
        }
        FParams = p;
        DB = OpenDatabase(p);
    }

    void TearDown() override {
        DB.reset();
        FSchema.reset();
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
    test::TTempDir FTemp{"docadmin_db"};
    std::unique_ptr<TPGTestSchema> FSchema;
};

inline std::string BackendName(const ::testing::TestParamInfo<std::string>& info) {
    return info.param;
}

}  // namespace docadmin::testing

#define DB_INSTANTIATE(Suite)                                                            \
    INSTANTIATE_TEST_SUITE_P(Backends, Suite, ::testing::Values("sqlite", "postgresql"), \
                             ::docadmin::testing::BackendName)
