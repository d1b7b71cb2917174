// The search by stored documents on SQLite and PostgreSQL: the search object on its own, its
// queries per level, and the module's record filter through the record service over HTTP.
#include <gtest/gtest.h>

#include <set>

#include "_DBBackend.h"
#include "_DocAdminSearch.h"
#include "plugin_fixtures.h"

namespace docadmin::test {
namespace {

using json = nlohmann::json;
using Names = std::set<std::string>;

const std::string kUidA = "{5EA2C400-0000-4000-8000-00000000000A}";
const std::string kUidB = "{5EA2C400-0000-4000-8000-00000000000B}";
const std::string kUidC = "{5EA2C400-0000-4000-8000-00000000000C}";
const std::string kUidD = "{5EA2C400-0000-4000-8000-00000000000D}";

class Search : public ModuleRestTest {
  protected:
    // contacts Adams (A), Baker (B), Clark (C) and, kept by two plug-ins' record roots:
    //   contacts#Records/ Direct-offer.txt
    //                     A/ Letters/ Offer-draft.txt
    //                                 Old/ Offer.PDF        (Letters is reached twice)
    //                     B/ Notes.txt
    //                        Secret (group hr)/ salary-offer.txt
    //   contacts#Records/ C/ sub/ offer2.doc                (a second plug-in's root)
    //   catalog_items#Records/ D/ offer.txt                 (another table's root)
    //   Misc/ offer.doc                                     (no record root above)
    void SetUp() override {
        TRestServerFixture::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        FModule = std::make_unique<TModuleRun>(FHost.get());
        FHR = FHost->Users().AddACLGroup("hr", "");
        FHost->Users().SetUserACLMode(FBob, FHR, uamFull);
        for (const auto& [name, uid] :
             {std::pair{"Adams", kUidA}, {"Baker", kUidB}, {"Clark", kUidC}, {"Davis", kUidD}})
            Insert("contacts", {{"name", TVariant(name)}, {"globalrecuid", TVariant(uid)}});
        const std::int64_t root = Dir(0, "contacts#Records");
        Doc(root, "Direct-offer.txt");
        const std::int64_t letters = Dir(Dir(root, kUidA), "Letters");
        Doc(letters, "Offer-draft.txt");
        Doc(Dir(letters, "Old"), "Offer.PDF");
        const std::int64_t b = Dir(root, kUidB);
        Doc(b, "Notes.txt");
        Doc(Dir(b, "Secret", FHR), "salary-offer.txt");
        Doc(Dir(Dir(Dir(0, "contacts#Records"), kUidC), "sub"), "offer2.doc");
        Doc(Dir(Dir(0, "catalog_items#Records"), kUidD), "offer.txt");
        Doc(Dir(0, "Misc"), "offer.doc");
        StartServer();
    }
    std::int64_t Insert(const std::string& ASchema, TRowFields AFields) {
        return InsertRow(FHost->GetDBInterface(), ASchema, AFields);
    }
    std::int64_t Dir(std::int64_t AParent, const std::string& ATitle, std::int64_t AGroup = 0) {
        return Insert("docadmindir", {{"parentdirid", TVariant(static_cast<long long>(AParent))},
                                      {"title", TVariant(ATitle)},
                                      {"globalaclgrp", TVariant(static_cast<long long>(AGroup))}});
    }
    void Doc(std::int64_t ADir, const std::string& AName) {
        Insert("docadmindocs",
               {{"dirid", TVariant(static_cast<long long>(ADir))}, {"docname", TVariant(AName)}});
    }

    // The names of the contacts that the module's filter lets through, read without a user, and
    // a copy of the filter it added.
    Names Filtered(const std::string& AValue, std::unique_ptr<TClientSQLFilter>* AFilter) {
        TKRRecordSet rs(nullptr, FHost->GetDBInterface());
        rs.SetSchemaName("contacts");
        rs.GetSelectFields()->Add("name");
        const auto handlers = TKRFilterHandlerClient::HandlersForSchema("contacts");
        EXPECT_EQ(handlers.size(), 1u);
        handlers.at(0).OnApplyFilter(rs, AValue);
        *AFilter = rs.GetFilters()->GetItems(rs.GetFilters()->Count() - 1)->Clone();
        rs.Open();
        Names r;
        for (int i = 0; i < rs.GetRecordCount(); ++i)
            r.insert(rs.ValueByName(i, "name").GetAsString());
        return r;
    }
    Names ListOverHTTP(const std::string& AToken, const std::string& AQuery) {
        const auto a = Call(
            "GET",
            "/records/contacts?filter=" + PercentEncodeForTest(DocAdminFilterIdentifier) + AQuery,
            "", AToken);
        EXPECT_EQ(a.Status, 200) << a.Body;
        const json list = json::parse(a.Body);
        Names r;
        for (const auto& row : list["records"])
            r.insert(row.value("name", ""));
        return r;
    }

    std::int64_t FHR = 0;
};

TEST_P(Search, FindsTheRecordsAboveMatchingDocumentsIgnoringCase) {
    struct TCase {
        std::string Value;
        Names Expected;
    };
    // "offer" also matches the document directly in a root folder, the one of another table's
    // root and the one without a root above: none of them adds a record.
    const TCase cases[] = {{"offer", {"Adams", "Baker", "Clark"}},
                           {"OFFER.pdf", {"Adams"}},
                           {"notes", {"Baker"}},
                           {"direct", {}},
                           {"no such document", {}}};
    for (const TCase& c : cases) {
        std::unique_ptr<TClientSQLFilter> filter;
        EXPECT_EQ(Filtered(c.Value, &filter), c.Expected) << c.Value;
        ASSERT_NE(filter, nullptr);
        EXPECT_EQ(filter->GetFieldName(), "globalrecuid");
        if (c.Expected.empty()) {
            // Not an empty filter, which would let every row through.
            EXPECT_EQ(filter->GetValue().AsString(), DocAdminSearchNoMatchUID) << c.Value;
            EXPECT_EQ(filter->GetFilterType(), ftExactEqual);
        } else {
            EXPECT_EQ(filter->GetFilterType(), ftInList);
        }
    }
}

TEST_P(Search, ReadsEachLevelWithOneQueryAndEachFolderOnce) {
    TDocAdminSearchObject search(nullptr, FHost.get());
    search.SetRootFolderName("contacts#Records");
    EXPECT_EQ(search.RootFolderList().Count(), 2);
    // Documents, then two levels: {Letters, Old, sub, Secret, ...} and {A, B, C, ...}; Letters,
    // reached again from Old, isn't read a second time, and A is found once.
    const std::uint64_t before = DBStatementCount();
    search.Search("%OFFER%", ftLike);
    EXPECT_EQ(DBStatementCount() - before, 1u + 2u);
    Names found;
    for (const auto& item : search.ResultList())
        EXPECT_TRUE(found.insert(item.Title).second) << "twice: " << item.Title;
    EXPECT_EQ(found, (Names{kUidA, kUidB, kUidC}));
    // A second search adds to the list.
    search.Search("%NOTES%", ftLike);
    EXPECT_EQ(search.ResultList().size(), 4u);
    EXPECT_EQ(search.ResultList().back().Title, kUidB);
}

TEST_P(Search, FiltersTheRecordServiceListWithTheUsersRights) {
    const std::string alice = Login("alice"), bob = Login("bob");
    EXPECT_EQ(ListOverHTTP(alice, "&filter_value=offer"), (Names{"Adams", "Clark"}));
    EXPECT_EQ(ListOverHTTP(bob, "&filter_value=offer"), (Names{"Adams", "Baker", "Clark"}));
    EXPECT_EQ(ListOverHTTP(alice, "&filter_value=offer&where=name%3D'Clark'"), Names{"Clark"});
    EXPECT_EQ(ListOverHTTP(alice, "&filter_value=salary"), Names{});
    EXPECT_EQ(ListOverHTTP(alice, "&filter_value=zzz"), Names{});
}

INSTANTIATE_TEST_SUITE_P(Backends, Search, ::testing::Values("sqlite", "postgresql"));

}  // namespace
}  // namespace docadmin::test
