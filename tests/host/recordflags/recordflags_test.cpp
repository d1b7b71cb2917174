// The record flags service on both databases: meta ids, flags on rows, and the filter conditions.
#include "_TDBRecordFlagsPlugin.h"
#include "host/db/db_test_support.h"

namespace docadmin::testing {
namespace {

using RecordFlagsTest = DBTest;

std::vector<std::int64_t> Ids(TKRRecordSet& rs) {
    std::vector<std::int64_t> r;
    for (int i = 0; i < rs.GetRecordCount(); ++i)
        r.push_back(rs.GetDBIDByRecNo(i));
    std::sort(r.begin(), r.end());
    return r;
}

TEST_P(RecordFlagsTest, MetaIdsAreMadeOncePerTableAndKeptAcrossObjects) {
    TDBRecordFlagsPlugin flags(DB.get());
    ASSERT_TRUE(flags.Available());
    const std::int64_t docs = flags.GetPlugin("docadmindocs")->Get_MetaID();
    EXPECT_GT(docs, 0);
    EXPECT_NE(flags.GetMetaID("docadmindir"), docs);
    TDBRecordFlagsPlugin again(DB.get());
    EXPECT_EQ(again.GetMetaID("docadmindocs"), docs);
    auto metas = Set("recordflagmetas");
    metas->Open();
    EXPECT_EQ(metas->GetRecordCount(), 2);
}

TEST_P(RecordFlagsTest, FlagsOnRowsAndNames) {
    TDBRecordFlagsPlugin flags(DB.get());
    const std::int64_t urgent = flags.DefineFlag("docadmindocs", "Urgent", 1);
    EXPECT_EQ(flags.DefineFlag("docadmindocs", "Urgent", 1), urgent);
    const std::int64_t other = flags.DefineFlag("docadmindir", "Urgent", 1);
    EXPECT_NE(other, urgent);
    EXPECT_THROW(flags.DefineFlag("docadmindocs", "Bad", 8), EArgumentException);
    // A flag of another table can't be set here.
    EXPECT_THROW(flags.SetFlag("docadmindocs", 1, other), EArgumentException);

    flags.SetFlag("docadmindocs", 42, urgent);
    flags.SetFlag("docadmindocs", 42, urgent);
    EXPECT_TRUE(flags.HasFlag("docadmindocs", 42, urgent));
    EXPECT_FALSE(flags.HasFlag("docadmindocs", 43, urgent));
    auto rows = Set("recordflags");
    rows->Open();
    EXPECT_EQ(rows->GetRecordCount(), 1);
    flags.ClearFlag("docadmindocs", 42, urgent);
    flags.ClearFlag("docadmindocs", 42, urgent);
    EXPECT_FALSE(flags.HasFlag("docadmindocs", 42, urgent));

    TSortedIntegerList ids;
    IPtr<IKRRecordFlagsTable> table = flags.GetPlugin("docadmindocs");
    table->FlagNamesToIDs("Urgent,Missing,\"x,y\"", table->Get_MetaID(), &ids);
    ASSERT_EQ(ids.Count(), 1);
    EXPECT_EQ(ids[0], urgent);
}

TEST_P(RecordFlagsTest, ConditionsSelectRowsByFlagIdsAndKinds) {
    TDBRecordFlagsPlugin flags(DB.get());
    std::vector<std::int64_t> docs;
    for (const char* n : {"a", "b", "c"})
        docs.push_back(Insert("docadmindocs", {{"docname", TVariant(n)}}));
    const std::int64_t red = flags.DefineFlag("docadmindocs", "red", 0);
    const std::int64_t blue = flags.DefineFlag("docadmindocs", "blue", 3);
    flags.SetFlag("docadmindocs", docs[0], red);
    flags.SetFlag("docadmindocs", docs[1], blue);
    // A flag of the same id range on another table must not leak in.
    const std::int64_t dirFlag = flags.DefineFlag("docadmindir", "red", 0);
    flags.SetFlag("docadmindir", docs[2], dirFlag);
    IPtr<IKRRecordFlagsTable> table = flags.GetPlugin("docadmindocs");

    auto query = [&](auto&& add) {
        auto rs = Set("docadmindocs");
        rs->OnSetFiltersToSchema = [&](TObject*) { add(rs->GetActiveSchema()->GetFilters()); };
        rs->Open();
        return Ids(*rs);
    };
    TSortedIntegerList both;
    both.Add(red);
    both.Add(blue);
    EXPECT_EQ(query([&](TClientSQLFilters* f) {
                  table->AddFlagIDsCondition(f, "id", &both, ftInList, flAnd);
              }),
              (std::vector<std::int64_t>{docs[0], docs[1]}));
    TSortedIntegerList onlyRed;
    onlyRed.Add(red);
    EXPECT_EQ(query([&](TClientSQLFilters* f) {
                  table->AddFlagIDsCondition(f, "id", &onlyRed, ftNotEqual, flAnd);
              }),
              (std::vector<std::int64_t>{docs[1], docs[2]}));
    TSortedIntegerList none;
    EXPECT_TRUE(query([&](TClientSQLFilters* f) {
                    table->AddFlagIDsCondition(f, "id", &none, ftEqual, flAnd);
                }).empty());
    EXPECT_EQ(query([&](TClientSQLFilters* f) { table->AddFlagTypesCondition(f, "id", 1u << 3); }),
              std::vector<std::int64_t>{docs[1]});
    EXPECT_EQ(
        query([&](TClientSQLFilters* f) { table->AddFlagTypesCondition(f, "id", (1u << 3) | 1u); }),
        (std::vector<std::int64_t>{docs[0], docs[1]}));
}

DB_INSTANTIATE(RecordFlagsTest);

}  // namespace
}  // namespace docadmin::testing
