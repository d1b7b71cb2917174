// The schema catalogue and the tables it creates.
#include <gtest/gtest.h>

#include <fstream>

#include "_DBSchema.h"
#include "db_test_support.h"

namespace docadmin {
namespace {

using testing::DBTest;

TEST(DBSchemaCatalogue, DocumentTablesCarryHostColumnsRelationsAndIndexes) {
    auto cat = TDBFieldSchema::CreateBuiltIn();
    for (const char* name :
         {"docadmindir", "docadmindocs", "docadmin_docarchive", "docadminressources"}) {
        IPtr<IDBFieldSchemaItem> item = GetSchemaByName(cat.get(), name);
        ASSERT_TRUE(item) << name;
        EXPECT_EQ(item->GetSQLTableName(), name);
        EXPECT_EQ(item->GetKeyFieldName(), "id");
        EXPECT_FALSE(item->GetHasOwnDocumentTable());
        for (const char* host :
             {"id", "creadate", "creaid", "lastchangedtsp", "lastchangedid", "globalrecuid"})
            EXPECT_TRUE(item->GetFieldByName(host)) << name << "." << host;
    }
    const TDBTableDef& docs = *cat->FindTable("docadmindocs");
    EXPECT_EQ(docs.FindField("dirid")->Lookup.MasterSchema, "docadmindir");
    EXPECT_EQ(docs.FindField("fldate")->Kind, TDBFieldKind::fkDate);
    EXPECT_EQ(docs.FindField("FLSIZE")->Kind, TDBFieldKind::fkInt64);  // names fold case
    const TDBTableDef& links = *cat->FindTable("docadminressources");
    EXPECT_EQ(links.FindField("documentid")->Lookup.DisplayField, "docname");
    auto hasIndex = [](const TDBTableDef& t, std::vector<std::string> fields) {
        for (const auto& ix : t.Indexes)
            if (ix.Fields == fields) return true;
        return false;
    };
    EXPECT_TRUE(hasIndex(*cat->FindTable("docadmindir"), {"title"}));
    EXPECT_TRUE(hasIndex(*cat->FindTable("docadmindir"), {"parentdirid"}));
    EXPECT_TRUE(hasIndex(docs, {"dirid"}));
    EXPECT_TRUE(hasIndex(docs, {"globalrecuid"}));
    EXPECT_TRUE(hasIndex(links, {"resident", "resid"}));
    EXPECT_TRUE(hasIndex(*cat->FindTable("docadmin_docarchive"), {"docadmindocid"}));
    for (const char* host :
         {"users", "aclgroups", "useraclmodes", "globalsettings", "usersettings", "recordflags",
          "contacts", "contact_details", "catalog_items", "crm_actions"})
        EXPECT_TRUE(cat->FindTable(host)) << host;
}

TEST(DBSchemaCatalogue, UnknownNamesAreReportedNotGuessed) {
    auto cat = TDBFieldSchema::CreateBuiltIn();
    EXPECT_FALSE(GetSchemaByName(cat.get(), "nosuchtable"));
    EXPECT_FALSE(GetSchemaByName(nullptr, "docadmindocs"));
    EXPECT_EQ(GetSQLTableNameFromSchemaName(cat.get(), "contacts"), "contacts");
    EXPECT_THROW(GetSQLTableNameFromSchemaName(cat.get(), "nosuchtable"), EDBUnknownSchema);
    EXPECT_FALSE(GetSchemaByName(cat.get(), "docadmindocs")->GetFieldByName("nosuchfield"));
}

TEST(DBSchemaCatalogue, BadDescriptionsAreRejectedWithTheirSource) {
    auto parse = [](const std::string& json) { return ParseTableDef(json, "x.json"); };
    EXPECT_THROW(parse("{"), EDBSchemaError);
    EXPECT_THROW(parse(R"({"schema":"a b","fields":[]})"), EDBSchemaError);
    EXPECT_THROW(parse(R"({"schema":"t","fields":[{"name":"x\"; drop","type":"string"}]})"),
                 EDBSchemaError);
    EXPECT_THROW(parse(R"({"schema":"t","fields":[{"name":"id","type":"int64"}]})"),
                 EDBSchemaError);
    EXPECT_EQ(test::MessageOf<EDBSchemaError>(
                  [&] { parse(R"({"schema":"t","fields":[{"name":"x","type":"blob"}]})"); }),
              "x.json: unknown field type \"blob\"");
}

class DBSchemaUpgrade : public DBTest {};

TEST_P(DBSchemaUpgrade, OpeningAgainAddsMissingColumnsAndKeepsRows) {
    const std::int64_t id = Insert("contacts", {{"name", "Miller"}});
    DB.reset();

    const test::TTempDir folder("docadmin_schema");
    test::WriteFile(folder / "contacts.json", R"({"schema": "contacts", "fields": [
        {"name": "name", "type": "string", "size": 200},
        {"name": "nickname", "type": "string", "size": 50, "notNull": true}]})");
    TDatabaseParams p = FParams;
    p.SchemaFolder = folder.Path();
    DB = OpenDatabase(p);
    const std::vector<std::string> second = DB->UpgradeSchema();
    EXPECT_TRUE(second.empty()) << "a second upgrade has nothing to do";

    auto rs = Set("contacts");
    rs->SetSelectAll(true);
    rs->Open();
    ASSERT_EQ(rs->GetRecordCount(), 1);
    EXPECT_EQ(rs->GetDBIDByRecNo(0), id);
    EXPECT_EQ(rs->ValueByName(0, "name").GetAsString(), "Miller");
    EXPECT_EQ(rs->ValueByName(0, "nickname").GetAsString(), "");
    // The columns that the new description leaves out are kept in the table.
    const auto cols = DB->AcquireConnection(0)->TableColumns("contacts");
    EXPECT_NE(std::find(cols.begin(), cols.end(), "email"), cols.end());
    EXPECT_NE(std::find(cols.begin(), cols.end(), "nickname"), cols.end());
}

DB_INSTANTIATE(DBSchemaUpgrade);

}  // namespace
}  // namespace docadmin
