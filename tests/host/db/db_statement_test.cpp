// Writing through TClientSQL and IDBSQLStatement, and transactions.
#include <gtest/gtest.h>

#include <thread>

#include "db_test_support.h"

namespace docadmin {
namespace {

class DBStatement : public testing::DBTest {
  protected:
    int Count(const std::string& schema, std::int64_t tx = 0, const std::string& field = "",
              const TVariant& value = TVariant()) {
        auto rs = Set(schema);
        rs->SetDBATransactionID(tx);
        if (!field.empty()) rs->GetFilters()->AddFilter(field, value);
        rs->Open();
        return rs->GetRecordCount();
    }
};

TEST_P(DBStatement, ClientSQLIsReusedAfterChangingItemValues) {
    TClientSQL ins(nullptr, DB.get());
    ins.SetStatementKind(skInsert);
    ins.SetSchemaName("catalog_items");
    TClientSQLField* no = ins.GetFields()->AddField("itemno", "A-1");
    ins.GetFields()->AddField("stock", 1);
    std::int64_t first = 0;
    ins.ExecuteSQL(first);
    no->SetAsString("A-2");
    ins.GetFields()->GetItems(1)->SetAsInteger(2);
    std::int64_t second = 0;
    ins.ExecuteSQL(second);
    ins.GetFields()->GetItems(0)->SetAsString("A-3");
    ins.ExecuteSQL();  // the form without the key
    EXPECT_GT(second, first);
    EXPECT_EQ(Count("catalog_items"), 3);

    TClientSQL upd(nullptr, DB.get());
    upd.SetStatementKind(skUpdate);
    upd.SetSchemaName("catalog_items");
    upd.GetFields()->AddField("unit", "pcs");
    TClientSQLFilter* id =
        upd.GetFilters()->AddFilter("id", TVariant(static_cast<long long>(first)));
    upd.ExecuteSQL();
    EXPECT_EQ(upd.RowsAffected(), 1);
    id->SetAsInteger(second);
    upd.ExecuteSQL();
    EXPECT_EQ(Count("catalog_items", 0, "unit", "pcs"), 2);
    EXPECT_EQ(Count("catalog_items", 0, "stock", 2), 2) << "the third row kept the value 2";
}

TEST_P(DBStatement, UpdateWithoutFiltersTouchesAllRowsAndWithFiltersOnlyThose) {
    for (const char* n : {"a", "b", "c"})
        Insert("contacts", {{"name", n}, {"company", "old"}});
    TClientSQL upd(nullptr, DB.get());
    upd.SetStatementKind(skUpdate);
    upd.SetSchemaName("contacts");
    upd.GetFields()->AddField("company", "one");
    AddFilter(upd.GetFilters(), "name", "a,b", ftInList);
    upd.ExecuteSQL();
    EXPECT_EQ(upd.RowsAffected(), 2);
    EXPECT_EQ(Count("contacts", 0, "company", "one"), 2);
    upd.GetFilters()->Clear();
    upd.GetFields()->GetItems(0)->SetAsString("all");
    upd.ExecuteSQL();
    EXPECT_EQ(upd.RowsAffected(), 3);
    EXPECT_EQ(Count("contacts", 0, "company", "all"), 3);
}

TEST_P(DBStatement, StatementEmptiesFieldsAndFiltersOnExecute) {
    IPtr<IDBSQLStatement> st = DB->CreateStatement("{DBAE1129-670F-45DA-8489-6D64A3429BBF}");
    IPtr<IDBFieldSchemaItem> dirs = GetSchemaByName(DB->GetFieldSchema(), "docadmindir");
    st->SetSchemaItem(dirs.get());
    st->SetStatementKind(0);
    st->AddFilter("id", 0, ftExactEqual, flAnd);  // ignored by an insert
    st->AddField("title", "first", 0);
    std::int64_t a = 0;
    st->ExecuteInsert(a);
    st->AddField("title", "second", 0);  // nothing left of the first row
    std::int64_t b = 0;
    st->ExecuteInsert(b);
    EXPECT_NE(a, b);

    st->SetStatementKind(1);
    st->AddFilter("id", TVariant(static_cast<long long>(b)), ftExactEqual, flAnd);
    st->AddField("title", "renamed");
    st->Execute();
    EXPECT_EQ(st->RowsAffected(), 1);
    EXPECT_EQ(Count("docadmindir", 0, "title", "renamed"), 1);
    EXPECT_EQ(Count("docadmindir", 0, "title", "first"), 1);

    st->SetStatementKind(2);
    st->AddFilter("id", TVariant(static_cast<long long>(a)), ftExactEqual, flAnd);
    st->Execute();
    EXPECT_EQ(Count("docadmindir"), 1);
    // A failed execute empties as well, so the next row doesn't inherit a bad field.
    st->SetStatementKind(0);
    st->AddField("nosuchfield", 1);
    EXPECT_THROW(st->Execute(), EDBUnknownField);
    st->AddField("title", "third");
    EXPECT_NO_THROW(st->Execute());
    EXPECT_THROW(st->SetStatementKind(3), EDBException);
    st->AddField("id", 5);
    EXPECT_THROW(st->Execute(), EDBException) << "the key is the database's";
}

TEST_P(DBStatement, ValuesAreBoundNeverSpliced) {
    const std::string evil[] = {"x'); DROP TABLE contacts; --", "\"; DELETE FROM contacts; --",
                                "Robert'); DROP TABLE users;--", "\\'; SELECT 1; --",
                                std::string("nul\0byte", 8)};
    for (const auto& v : evil)
        Insert("contacts", {{"name", v}, {"email", v}});
    for (const auto& v : evil) {
        EXPECT_EQ(Count("contacts", 0, "name", v), 1) << v;
    }
    EXPECT_EQ(Count("contacts"), 5);
    EXPECT_EQ(Count("users"), 0);
    // A numeric column given a text that is no number fails or matches nothing; it never runs.
    auto rs = Set("contacts");
    rs->GetFilters()->AddFilter("id", "1 OR 1=1");
    try {
        rs->Open();
        EXPECT_EQ(rs->GetRecordCount(), 0);
    } catch (const EDBSQLError&) {
        SUCCEED();
    }
}

TEST_P(DBStatement, TransactionsAreSeenByTheirSetsOnlyUntilCommit) {
    const std::int64_t tx = DB->BeginTransaction();
    EXPECT_NE(tx, 0);
    const std::int64_t id = Insert("contacts", {{"name", "pending"}}, tx);
    EXPECT_EQ(Count("contacts", tx), 1);
    EXPECT_EQ(Count("contacts"), 0) << "a set outside the transaction doesn't see it";
    {
        // A write-back set in the transaction changes the row there.
        auto rs = Set("contacts");
        rs->SetDBATransactionID(tx);
        rs->SetUpdateMode(umWriteBack);
        rs->GetSelectFields()->Add("company");
        rs->Open();
        rs->ValueByName(0, "company", true).SetAsString("tx");
    }
    EXPECT_EQ(Count("contacts", tx, "company", "tx"), 1);
    DB->CommitTransaction(tx);
    EXPECT_EQ(Count("contacts", 0, "company", "tx"), 1);
    EXPECT_THROW(DB->CommitTransaction(tx), EDBException);
    EXPECT_THROW(Count("contacts", tx), EDBException) << "an ended transaction is unknown";

    const std::int64_t tx2 = DB->BeginTransaction();
    TClientSQL del(nullptr, DB.get());
    del.SetDBATransactionID(tx2);
    del.SetStatementKind(skDelete);
    del.SetSchemaName("contacts");
    del.GetFilters()->AddFilter("id", TVariant(static_cast<long long>(id)));
    del.ExecuteSQL();
    EXPECT_EQ(Count("contacts", tx2), 0);
    DB->RollbackTransaction(tx2);
    EXPECT_EQ(Count("contacts"), 1);
}

TEST_P(DBStatement, ThreadsWorkWithObjectsOfTheirOwn) {
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            try {
                TDBUserScope user(t + 1);
                for (int i = 0; i < 25; ++i)
                    Insert("crm_actions", {{"subject", "t" + std::to_string(t)}});
                const std::int64_t tx = DB->BeginTransaction();
                Insert("crm_actions", {{"subject", "tx" + std::to_string(t)}}, tx);
                DB->CommitTransaction(tx);
            } catch (const std::exception& e) {
                ++failures;
                ADD_FAILURE() << e.what();
            }
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(Count("crm_actions"), 104);
    auto rs = Set("crm_actions");
    rs->GetSelectFieldOptions("creaid").DisableLookupValueLoading = true;
    rs->GetFilters()->AddFilter("subject", "t2");
    rs->SetSelectAll(true);
    rs->Open();
    ASSERT_EQ(rs->GetRecordCount(), 25);
    EXPECT_EQ(rs->ValueByName(0, "creaid").GetAsInteger(), 3) << "the user is per thread";
}

DB_INSTANTIATE(DBStatement);

}  // namespace
}  // namespace docadmin
