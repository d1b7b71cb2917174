// The record REST service over real HTTP on the "contacts" table, on SQLite and on PostgreSQL.
#include "_TKRACLDataTableController.h"
#include "_TVTLRestAPICustomKRRecordSetServiceImpl.h"
#include "rest_test_support.h"

using namespace docadmin;
using namespace docadmin::test;
using nlohmann::json;

namespace {

// A detail that adds {"upper": NAME} to each row when the field list asks for "shout", and counts
// the writes it saw.
int GDetailWrites = 0;
class TShoutDetail : public TVTLRestAPIDatabaseCustomDetailTableHandler {
  public:
    using TVTLRestAPIDatabaseCustomDetailTableHandler::TVTLRestAPIDatabaseCustomDetailTableHandler;
    void InitializeDetails() override {
        TFieldMappingItem m;
        FActive = GetFieldSettings("shout", FJSONName, true, m);
    }
    std::string GetDetailName() const override { return "shout"; }
    void AfterInsertSQLExecute(const TJsonObject& AValues, const std::string&,
                               const std::string& ARecUID, std::int64_t, TJsonObject&) override {
        if (AValues.contains("shout") && IsGuid(ARecUID)) ++GDetailWrites;
    }
    void WriteRecordToJson(TKRRecordSet& ASet, int RecNo, TJsonObject& ARow, void*,
                           const TFieldMappingProc&) override {
        if (!FActive) return;
        ARow[FJSONName] = {{"upper", UpperCase(ASet.ValueByName(RecNo, "name").GetAsString())}};
    }

  private:
    bool FActive = false;
    std::string FJSONName;
};

class RestRecords : public TRestServerFixture, public ::testing::WithParamInterface<std::string> {
  protected:
    std::string Backend() const override { return GetParam(); }
    void SetUp() override {
        TRestServerFixture::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        StartServer();
        FToken = Login("alice");
        for (const char* n : {"Adams", "Baker", "Clark", "Davis", "Evans"})
            Insert(R"({"name":")" + std::string(n) + R"(","company":"ACME"})");
    }
    json Get(const std::string& ATarget, int AStatus = 200, const std::string& AToken = "") {
        const auto a = Call("GET", ATarget, "", AToken.empty() ? FToken : AToken);
        EXPECT_EQ(a.Status, AStatus) << ATarget << " " << a.Body;
        return json::parse(a.Body);
    }
    json Insert(const std::string& ABody, int AStatus = 201, const std::string& AToken = "",
                const std::string& ASchema = "contacts") {
        const auto a = Call("POST", "/records/" + ASchema, ABody, AToken.empty() ? FToken : AToken);
        EXPECT_EQ(a.Status, AStatus) << ABody << " " << a.Body;
        return json::parse(a.Body);
    }
    int Put(const std::string& ASchema, const std::string& AUID, const std::string& ABody,
            const std::string& AToken) {
        return Call("PUT", "/records/" + ASchema + "/" + AUID, ABody, AToken).Status;
    }
    static std::vector<std::string> Names(const json& AList) {
        std::vector<std::string> r;
        for (const auto& row : AList["records"])
            r.push_back(row.value("name", ""));
        return r;
    }
    std::string FToken;
};

TEST_P(RestRecords, ListsReadsInsertsAndUpdates) {
    const json one = Get("/records/contacts?fields=name,globalrecuid&where=name%3D'Baker'");
    ASSERT_EQ(one["records"].size(), 1u);
    EXPECT_EQ(one["records"][0].size(), 3u);  // id, name, globalrecuid
    const std::string uid = one["records"][0]["globalrecuid"];

    EXPECT_EQ(Get("/records/contacts/" + uid)["records"][0]["company"], "ACME");
    const auto put = Call("PUT", "/records/contacts/" + uid, R"({"company":"Globex"})", FToken);
    ASSERT_EQ(put.Status, 200) << put.Body;
    EXPECT_EQ(json::parse(put.Body)["record_info"][0]["server_uid"], uid);
    EXPECT_EQ(Get("/records/contacts/" + uid + "?fields=company")["records"][0]["company"],
              "Globex");

    const std::string remote = "{6C1F4E2A-0000-4000-8000-00000000ABCD}";
    const json ins = Insert(R"({"name":"Fox","globalrecuid":")" + remote + "\"}");
    EXPECT_EQ(ins["record_info"][0]["remote_uid"], remote);
    EXPECT_EQ(ins["record_info"][0]["server_uid"], remote);
    EXPECT_EQ(Get("/records/contacts/" + remote)["records"][0]["name"], "Fox");

    Get("/records/contacts/{00000000-0000-4000-8000-000000000000}", 404);
    Get("/records/nosuchtable", 404);
    Get("/records/users", 404);  // the host's own tables are not served
    Get("/records/contacts?fields=name,nosuchfield", 400);
    Get("/records/contacts?order=nosuchfield", 400);
    Get("/records/contacts?limit=x", 400);
    Insert(R"({"nosuchfield":1})", 400);
    Insert(R"({"id":77})", 400);
    EXPECT_EQ(Call("PUT", "/records/contacts/not-a-uid", "{}", FToken).Status, 400);
    EXPECT_EQ(Call("GET", "/records/contacts").Status, 401);
}

TEST_P(RestRecords, PagesNeitherOverlapNorSkipAndCountWithTheWhereText) {
    // All rows share the company, so only the key orders them within it.
    std::vector<std::string> paged;
    for (int offset = 0; offset < 8; offset += 2) {
        const json page = Get("/records/contacts?fields=name&order=company&limit=2&offset=" +
                              std::to_string(offset));
        EXPECT_EQ(page["total"], 5);
        for (const auto& n : Names(page))
            paged.push_back(n);
    }
    EXPECT_EQ(paged, (std::vector<std::string>{"Adams", "Baker", "Clark", "Davis", "Evans"}));
    EXPECT_EQ(Names(Get("/records/contacts?fields=name&order=-name&limit=2&offset=1")),
              (std::vector<std::string>{"Davis", "Clark"}));
    const json beyond = Get("/records/contacts?limit=2&offset=5");
    EXPECT_EQ(beyond["records"].size(), 0u);
    EXPECT_EQ(beyond["total"], 5);
    const json where = Get("/records/contacts?fields=name&limit=1&offset=1&where=" +
                           PercentEncodeForTest("name IN ('Adams','Clark','Evans')"));
    EXPECT_EQ(Names(where), (std::vector<std::string>{"Clark"}));
    EXPECT_EQ(where["total"], 3);
    for (const char* bad : {"limit=1%3B%20DROP%20TABLE%20contacts", "offset=-1", "limit=-2"})
        Get(std::string("/records/contacts?") + bad, 400);

    // Above the maximum page size a clear 400; without a limit one page of that size.
    FServer.reset();
    FOptions.Service.MaxRecordPageSize = 3;
    StartServer();
    FToken = Login("alice");
    const json capped = Get("/records/contacts");
    EXPECT_EQ(capped["records"].size(), 3u);
    EXPECT_EQ(capped.value("limit", -1), 3);
    EXPECT_EQ(capped["total"], 5);
    EXPECT_EQ(Get("/records/contacts?limit=4", 400).value("/error/message"_json_pointer, ""),
              "limit must be at most 3; page with offset");
    EXPECT_EQ(Get("/records/contacts?limit=3&offset=3")["records"].size(), 2u);
}

TEST_P(RestRecords, WhereTextsAreParsedAndTheirValuesBound) {
    EXPECT_EQ(Names(Get("/records/contacts?fields=name&where=" +
                        PercentEncodeForTest("name IN ('Adams','Evans') OR name LIKE 'C%'"))),
              (std::vector<std::string>{"Adams", "Clark", "Evans"}));
    // An injection attempt is one value that matches nothing, and the table is unharmed.
    for (const char* attempt :
         {"name = 'x'' OR ''1''=''1'", "name = 'x''; DELETE FROM contacts; --'"})
        EXPECT_EQ(Get("/records/contacts?where=" + PercentEncodeForTest(attempt))["records"].size(),
                  0u)
            << attempt;
    EXPECT_EQ(Get("/records/contacts")["total"], 5);
    for (const char* bad : {"name = 'x' OR 1=1", "name = ", "nosuch = 1", "id = 'abc'",
                            "name = 'a'; DROP TABLE contacts"})
        Get("/records/contacts?where=" + PercentEncodeForTest(bad), 400);
}

TEST_P(RestRecords, RowRightsOfTwoUsers) {
    TKRACLDataTableController acl(nullptr);
    acl.AddTable("contacts", TACLTableType::atDefault, "", "Contacts");
    const std::int64_t group = FHost->Users().AddACLGroup("sales", "");
    FHost->Users().SetUserACLMode(FAlice, group, uamFull);
    const std::string bob = Login("bob");
    const json ins = Insert(R"({"name":"Secret","globalaclgrp":)" + std::to_string(group) + "}");
    const std::string uid = ins["record_info"][0]["server_uid"];

    EXPECT_EQ(Get("/records/contacts")["total"], 6);
    EXPECT_EQ(Get("/records/contacts", 200, bob)["total"], 5);
    Get("/records/contacts/" + uid, 404, bob);
    EXPECT_EQ(Call("PUT", "/records/contacts/" + uid, R"({"name":"Mine"})", bob).Status, 404);
    // Bob may not put a row into a group he can't write, nor move one there.
    Insert(R"({"name":"Sneaky","globalaclgrp":)" + std::to_string(group) + "}", 403, bob);
    const std::string adams = Get("/records/contacts?fields=globalrecuid&where=name%3D'Adams'", 200,
                                  bob)["records"][0]["globalrecuid"];
    EXPECT_EQ(Call("PUT", "/records/contacts/" + adams,
                   R"({"globalaclgrp":)" + std::to_string(group) + "}", bob)
                  .Status,
              403);
    FHost->Users().SetUserACLMode(FBob, group, uamReadOnly);
    FHost->UserAccessFor(FBob)->Invalidate();
    EXPECT_EQ(Get("/records/contacts/" + uid, 200, bob)["records"][0]["name"], "Secret");
    EXPECT_EQ(Call("PUT", "/records/contacts/" + uid, R"({"name":"Mine"})", bob).Status, 403);
    EXPECT_EQ(Call("PUT", "/records/contacts/" + uid, R"({"name":"Ours"})", FToken).Status, 200);
}

TEST_P(RestRecords, WritesNeedAWritingModeInTheRowsGroupAndInTheRowsItsACLFieldsName) {
    TKRACLDataTableController acl(nullptr);
    acl.AddTable("contacts", TACLTableType::atDefault, "", "Contacts");
    acl.AddTable("contact_details", TACLTableType::atFields, "contactid", "Contact details");
    const std::int64_t sales = FHost->Users().AddACLGroup("sales", "");
    const std::int64_t hr = FHost->Users().AddACLGroup("hr", "");
    FHost->Users().SetUserACLMode(FAlice, sales, uamFull);
    FHost->Users().SetUserACLMode(FBob, hr, uamFull);
    const std::string bob = Login("bob");
    const auto setBobMode = [&](TUserACLMode AMode) {
        FHost->Users().SetUserACLMode(FBob, sales, AMode);
        FHost->UserAccessFor(FBob)->Invalidate();
    };
    const auto contact = [&](const char* AName, std::int64_t AGroup, const std::string& AToken) {
        return Insert(R"({"name":")" + std::string(AName) + R"(","globalaclgrp":)" +
                          std::to_string(AGroup) + "}",
                      201, AToken)["record_info"][0]["dbid"]
            .get<std::int64_t>();
    };
    const std::string salesContact = std::to_string(contact("S", sales, FToken));
    const std::string hrContact = std::to_string(contact("H", hr, bob));
    const auto detail = [&](const std::string& AContact, int AStatus, const std::string& AToken) {
        const json r = Insert(R"({"contactid":)" + AContact + R"(,"kind":"phone","value":"1"})",
                              AStatus, AToken, "contact_details");
        return AStatus == 201 ? r["record_info"][0]["server_uid"].get<std::string>() : "";
    };
    const auto stored = [&] {  // every row, as the host sees the table
        TKRRecordSet set(nullptr, FHost->GetDBInterface());
        set.SetSchemaName("contact_details");
        return set.CountRecords();
    };
    const auto contactOf = [&](const std::string& AUID) {  // as Bob sees it
        const json r = Get("/records/contact_details/" + AUID + "?fields=contactid", 200, bob);
        return std::to_string(r["records"][0]["contactid"].get<std::int64_t>());
    };

    detail(salesContact, 403, bob);  // a row under a contact Bob can't see
    EXPECT_EQ(stored(), 0);
    const std::string bobs = detail(hrContact, 201, bob);
    const std::string alices = detail(salesContact, 201, FToken);
    EXPECT_EQ(Put("contact_details", alices, R"({"value":"2"})", bob), 404);

    setBobMode(uamReadOnly);
    EXPECT_EQ(Get("/records/contact_details/" + alices, 200, bob)["records"][0]["value"], "1");
    EXPECT_EQ(Put("contact_details", alices, R"({"value":"2"})", bob), 403);
    detail(salesContact, 403, bob);
    EXPECT_EQ(Put("contact_details", bobs, R"({"contactid":)" + salesContact + "}", bob), 403);
    EXPECT_EQ(contactOf(bobs), hrContact);
    // A new row without a group takes the user's default group, and that decides.
    FHost->Users().SetDefaultACLGroup("bob", sales);
    FHost->UserAccessFor(FBob)->Invalidate();
    Insert(R"({"name":"Default"})", 403, bob);
    EXPECT_EQ(stored(), 2);
    EXPECT_EQ(Get("/records/contact_details/" + alices)["records"][0]["value"], "1");

    setBobMode(uamReadWrite);  // mode 2 writes as mode 0 does
    EXPECT_EQ(Put("contact_details", alices, R"({"value":"2"})", bob), 200);
    EXPECT_EQ(Put("contact_details", bobs, R"({"contactid":)" + salesContact + "}", bob), 200);
    EXPECT_EQ(contactOf(bobs), salesContact);
    const std::string uid =
        Insert(R"({"name":"Default"})", 201, bob)["record_info"][0]["server_uid"];
    EXPECT_EQ(
        Get("/records/contacts/" + uid + "?fields=globalaclgrp")["records"][0]["globalaclgrp"],
        sales);
    // No contact gives no rights to check; a reference must be a row's key.
    detail("0", 201, bob);
    detail("987654", 403, bob);
    detail(R"("x")", 400, bob);
}

TEST_P(RestRecords, DetailHandlersMappingsAndFilterHandlers) {
    TVTLRestAPIDatabaseCustomDetailTableHandler::RegisterDetailHandler<TShoutDetail>("*");
    TVTLRestAPICustomKRRecordSetServiceImpl::RegisterFieldMapping("contacts", "name", "fullName");
    TKRFilterHandlerClient filters(nullptr);
    filters.AddHandler(
        {"initial", "Initial letter", [](const std::string& s) { return s == "contacts"; },
         [](TKRRecordSet& set, const std::string& v) {
             set.GetFilters()->AddFilter("name", TVariant(v + "%"))->SetFilterType(ftLike);
         }});

    json list = Get("/records/contacts?fields=fullName,shout&where=name%3D'Baker'");
    EXPECT_EQ(list["records"][0]["fullName"], "Baker");
    EXPECT_EQ(list["records"][0]["shout"]["upper"], "BAKER");
    EXPECT_FALSE(Get("/records/contacts?fields=name")["records"][0].contains("shout"));
    GDetailWrites = 0;
    Insert(R"({"fullName":"Gray","shout":{"x":1}})");  // mapped name in, detail key passed on
    EXPECT_EQ(GDetailWrites, 1);
    EXPECT_EQ(Get("/records/contacts?where=name%3D'Gray'")["records"][0]["fullName"], "Gray");

    const json f = Get("/filters/contacts");
    ASSERT_EQ(f["filters"].size(), 1u);
    EXPECT_EQ(f["filters"][0]["identifier"], "initial");
    EXPECT_EQ(Get("/filters/aclgroups")["filters"].size(), 0u);
    EXPECT_EQ(Get("/records/contacts?filter=initial&filter_value=D")["total"], 1);
    // Filter and where-text both hold.
    EXPECT_EQ(Get("/records/contacts?filter=initial&filter_value=D&where=name%3D'Adams'")["total"],
              0);
    Get("/records/contacts?filter=nosuch&filter_value=D", 400);

    TVTLRestAPICustomKRRecordSetServiceImpl::UnRegisterFieldMapping("contacts", "name");
    TVTLRestAPIDatabaseCustomDetailTableHandler::UnRegisterDetailHandler<TShoutDetail>("*");
    EXPECT_FALSE(Get("/records/contacts?fields=name,shout", 400).contains("records"));
}

DB_INSTANTIATE(RestRecords);

}  // namespace
