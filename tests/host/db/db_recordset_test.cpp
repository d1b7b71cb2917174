// Reading and writing through TKRRecordSet: filters, groups, lists, sub-selects, lookups, order,
// write-back, and names that don't belong to the schema.
#include <gtest/gtest.h>

#include "_TVTLSQLParser.h"
#include "db_test_support.h"

namespace docadmin {
namespace {

class DBRecordSet : public testing::DBTest {
  protected:
    // Contacts: Miller (Acme), miller (null company), Smith (""), Jones (Acme).
    void AddContacts() {
        Insert("contacts", {{"name", "Miller"}, {"company", "Acme"}});
        Insert("contacts", {{"name", "miller"}});
        Insert("contacts", {{"name", "Smith"}, {"company", ""}});
        Insert("contacts", {{"name", "Jones"}, {"company", "Acme"}});
    }
    std::vector<std::string> Names(TKRRecordSet& rs) {
        rs.GetOrderFields()->SetOrder("name", true);
        rs.Open();
        return Column(rs, "name");
    }
    using V = std::vector<std::string>;
};

TEST_P(DBRecordSet, EmptyResultHasNoRowsButItsColumns) {
    auto rs = Set("docadmindocs");
    rs->Open();
    EXPECT_TRUE(rs->GetActive());
    EXPECT_EQ(rs->GetRecordCount(), 0);
    EXPECT_EQ(rs->GetFieldName(0), "id");
    EXPECT_GT(rs->GetFieldIndex("fllocname"), 0);
    EXPECT_EQ(rs->GetFieldIndex("nosuchfield"), -1);
    EXPECT_THROW(rs->ValueByIndex(0, 0), EListError);
}

TEST_P(DBRecordSet, InsertedRowsGetKeyRecordUIDAndHostColumns) {
    TDBUserScope user(7);
    const std::int64_t a = Insert("contacts", {{"name", "A"}});
    const std::int64_t b = Insert("contacts", {{"name", "B"}});
    EXPECT_GT(a, 0);
    EXPECT_NE(a, b);
    auto rs = Set("contacts");
    rs->GetSelectFieldOptions("creaid").DisableLookupValueLoading = true;
    rs->GetFilters()->AddFilter("id", TVariant(static_cast<long long>(b)));
    rs->SetSelectAll(true);
    rs->Open();
    ASSERT_EQ(rs->GetRecordCount(), 1);
    const std::string uid = rs->ValueByName(0, "globalrecuid").GetAsString();
    EXPECT_EQ(uid.size(), 38u);
    EXPECT_EQ(uid.front(), '{');
    EXPECT_EQ(rs->ValueByName(0, "creaid").GetAsInteger(), 7);
    EXPECT_NEAR(rs->ValueByName(0, "creadate").GetAsFloat(), Now(), 0.01);
    EXPECT_EQ(rs->ValueByName(0, "creadate").GetAsVariant().VarType(), TVarType::vtDate);
    EXPECT_EQ(DB->GetRecordUIDByDBID("contacts", b), uid);
    EXPECT_EQ(DB->GetDBIDByRecordUID("contacts", uid), b);
    EXPECT_EQ(DB->GetRecordUIDByDBID("contacts", b + 100), "");
    EXPECT_EQ(DB->GetDBIDByRecordUID("contacts", "{00000000-0000-0000-0000-000000000000}"), 0);
    EXPECT_THROW(DB->GetRecordUIDByDBID("contacts; --", b), EDBUnknownSchema);
}

TEST_P(DBRecordSet, EmptyStringIsAnOrdinaryValueAndNullIsNot) {
    AddContacts();
    auto rs = Set("contacts");
    rs->GetFilters()->AddFilter("company", "");
    EXPECT_EQ(Names(*rs), V({"Smith"}));
    rs->Close();
    rs->GetFilters()->Clear();
    rs->GetFilters()->AddFilter("company", TVariant());
    EXPECT_EQ(Names(*rs), V({"miller"}));
}

TEST_P(DBRecordSet, OrOnTheFirstFilterOfAGroupDoesNotReachBeforeIt) {
    AddContacts();
    auto rs = Set("contacts");
    TClientSQLFilters* f = rs->GetFilters();
    f->AddFilter("company", "Acme");
    AddFilterGroup(f, pOpen, flAnd);
    f->AddFilter("name", "Miller")->SetFilterLink(flOr);  // first of the group
    f->AddFilter("name", "Smith")->SetFilterLink(flOr);
    AddFilterGroup(f, pClose);
    // company = Acme AND (name = Miller OR name = Smith)
    EXPECT_EQ(Names(*rs), V({"Miller"}));

    // A filter item that opens and closes groups itself, and an empty group, which adds nothing.
    rs->Close();
    f->Clear();
    AddFilter(f, "name", "Jones", ftEqual, flNone, false, pOpen);
    AddFilter(f, "name", "Smith", ftEqual, flOr, false, pClose);
    AddFilterGroup(f, pOpen, flOr);
    AddFilterGroup(f, pClose);
    EXPECT_EQ(Names(*rs), V({"Jones", "Smith"}));
}

TEST_P(DBRecordSet, ComparisonsPatternsAndUpperCaseFolding) {
    AddContacts();
    auto rs = Set("contacts");
    AddFilter(rs->GetFilters(), "name", "M%", ftLike);
    EXPECT_EQ(Names(*rs), V({"Miller"})) << "LIKE is case-sensitive on both databases";
    rs->Close();
    rs->GetFilters()->Clear();
    AddFilter(rs->GetFilters(), "name", "mil%", ftLike, flAnd, false, pNone, fffUpper);
    EXPECT_EQ(Names(*rs), V({"Miller", "miller"}));
    rs->Close();
    rs->GetFilters()->Clear();
    AddFilter(rs->GetFilters(), "name", "MILLER", ftEqual, flAnd, false, pNone, fffUpper);
    EXPECT_EQ(Names(*rs).size(), 2u);
    rs->Close();
    rs->GetFilters()->Clear();
    AddFilter(rs->GetFilters(), "name", "Miller", ftGreaterEqual);
    AddFilter(rs->GetFilters(), "name", "Smith", ftNotEqual);
    EXPECT_EQ(Names(*rs), V({"Miller", "miller"}));

    // Column and value are folded by the same database function, also beyond ASCII.
    Insert("contacts", {{"name", "Büro"}});
    for (const char* text : {"%ürO", "büro"}) {
        rs->Close();
        rs->GetFilters()->Clear();
        AddFilter(rs->GetFilters(), "name", text, text[0] == '%' ? ftLike : ftEqual, flAnd, false,
                  pNone, fffUpper);
        EXPECT_EQ(Names(*rs), V({"Büro"})) << text;
    }
}

TEST_P(DBRecordSet, ListFiltersOfAnyLength) {
    std::vector<std::int64_t> ids;
    for (int i = 0; i < 5; ++i)
        ids.push_back(Insert("catalog_items", {{"itemno", "N" + std::to_string(i)}}));
    auto rs = Set("catalog_items");
    auto open = [&](const std::string& list, TFilterType type) {
        rs->Close();
        rs->GetFilters()->Clear();
        AddFilter(rs->GetFilters(), "id", list, type);
        rs->GetOrderFields()->SetOrder("id");
        rs->Open();
        return Column(*rs, "itemno");
    };
    // One element behaves as equals.
    EXPECT_EQ(open(std::to_string(ids[2]), ftInList), V({"N2"}));
    EXPECT_EQ(open(std::to_string(ids[0]) + "," + std::to_string(ids[4]), ftInList),
              V({"N0", "N4"}));
    EXPECT_EQ(open(std::to_string(ids[0]) + "," + std::to_string(ids[4]), ftNotInList),
              V({"N1", "N2", "N3"}));
    EXPECT_EQ(open("", ftInList), V{});
    EXPECT_EQ(open("", ftNotInList).size(), 5u);
    // Far beyond any parameter limit (SQLite 32766, PostgreSQL 65535).
    std::string big;
    for (int i = 0; i < 70000; ++i)
        big += std::to_string(1000000 + i) + ",";
    big += std::to_string(ids[3]);
    EXPECT_EQ(open(big, ftInList), V({"N3"}));
    // A list of strings with a quoted item holding a comma and a quote.
    Insert("catalog_items", {{"itemno", "a,\"b"}});
    rs->Close();
    rs->GetFilters()->Clear();
    AddFilter(rs->GetFilters(), "itemno", "N1,\"a,\"\"b\"", ftInList);
    rs->GetOrderFields()->SetOrder("itemno");
    rs->Open();
    EXPECT_EQ(Column(*rs, "itemno"), V({"N1", "a,\"b"}));
}

TEST_P(DBRecordSet, SubSelectFindsTopLevelDirectoriesThroughTheFilterEvent) {
    const std::int64_t root = Insert("docadmindir", {{"title", "root"}, {"parentdirid", 0}});
    Insert("docadmindir",
           {{"title", "child"}, {"parentdirid", TVariant(static_cast<long long>(root))}});
    Insert("docadmindir", {{"title", "orphan"}, {"parentdirid", 99999}});
    auto rs = Set("docadmindir");
    TObject* sender = nullptr;
    rs->OnSetFiltersToSchema = [&](TObject* s) {
        sender = s;
        auto* set = dynamic_cast<TKRRecordSet*>(s);
        TClientSQLFilter* f =
            AddFilter(set->GetActiveSchema(), "parentdirid", TVariant(), ftNotInList);
        f->SetSubSelect("docadmindir", "id");
    };
    rs->GetOrderFields()->SetOrder("title");
    rs->Open();
    EXPECT_EQ(sender, rs.get());
    EXPECT_EQ(Column(*rs, "title"), V({"orphan", "root"}));

    // Type 8 with a filter inside the sub-select: rows whose parent is titled "root".
    rs->Close();
    rs->OnSetFiltersToSchema = [&](TObject* s) {
        auto* set = dynamic_cast<TKRRecordSet*>(s);
        TClientSQLFilter* f =
            AddFilter(set->GetActiveSchema(), "parentdirid", TVariant(), ftInList);
        f->SetSubSelect("docadmindir", "id");
        f->GetSubSelectFilters()->AddFilter("title", "root");
    };
    rs->Open();
    EXPECT_EQ(Column(*rs, "title"), V({"child"}));
}

// A subclass extends the where-clause in its override, after the base has copied its filters.
class TOnlyAcme : public TKRRecordSet {
  public:
    using TKRRecordSet::TKRRecordSet;
    void InternalSetFiltersToSchema(TFilterContext AContext) override {
        TKRRecordSet::InternalSetFiltersToSchema(AContext);
        AddFilterGroup(GetActiveSchema()->GetFilters(), pOpen, flAnd);
        AddFilter(GetActiveSchema(), "company", "Acme");
        AddFilterGroup(GetActiveSchema()->GetFilters(), pClose);
    }
};

TEST_P(DBRecordSet, OverrideOfInternalSetFiltersToSchemaExtendsTheQuery) {
    AddContacts();
    TOnlyAcme rs(nullptr, DB.get());
    rs.SetSchemaName("contacts");
    AddFilter(rs.GetFilters(), "name", "Jones", ftEqual, flOr);
    AddFilter(rs.GetFilters(), "name", "Smith", ftEqual, flOr);
    EXPECT_EQ(Names(rs), V({"Jones"}));
    // Reopening rebuilds the schema's list instead of appending to it.
    rs.Open();
    EXPECT_EQ(rs.GetRecordCount(), 1);
}

TEST_P(DBRecordSet, LookupsShowMasterValuesUnlessDisabled) {
    const std::int64_t doc = Insert("docadmindocs", {{"docname", "report.pdf"}, {"flsize", 10}});
    Insert("docadminressources", {{"documentid", TVariant(static_cast<long long>(doc))},
                                  {"resident", "CRMAI"},
                                  {"resid", 5}});
    auto rs = Set("docadminressources");
    rs->GetSelectFields()->Add("documentid");
    rs->GetSelectFields()->Add("docadmindocs.docname");
    rs->GetSelectFields()->Add("docadmindocs.flsize");
    rs->Open();
    ASSERT_EQ(rs->GetRecordCount(), 1);
    EXPECT_EQ(rs->ValueByName(0, "documentid").GetAsString(), "report.pdf");
    EXPECT_EQ(rs->ValueByName(0, "documentid").GetRealValue(), doc);
    EXPECT_EQ(rs->ValueByName(0, "docadmindocs.docname").GetAsString(), "report.pdf");
    EXPECT_EQ(rs->ValueByName(0, "docadmindocs.flsize").GetAsInteger(), 10);
    const int joined = rs->GetFieldIndex("docadmindocs.docname");
    EXPECT_FALSE(rs->GetHasSchemaField(joined));
    EXPECT_TRUE(rs->GetHasSchemaField(rs->GetFieldIndex("documentid")));
    EXPECT_EQ(rs->GetSchemaFields(rs->GetFieldIndex("documentid"))->GetFieldKind(),
              TDBFieldKind::fkInt64);
    EXPECT_EQ(rs->GetFieldIndex("resident"), -1) << "only the select fields and the key come";

    rs->Close();
    rs->GetSelectFieldOptions("DocumentID").DisableLookupValueLoading = true;
    rs->Open();
    EXPECT_EQ(rs->ValueByName(0, "documentid").GetAsString(), std::to_string(doc));
    // A dangling key shows no display value but keeps its raw value.
    auto raw = Set("docadminressources");
    Insert("docadminressources", {{"documentid", 424242}});
    raw->GetFilters()->AddFilter("documentid", 424242);
    raw->Open();
    EXPECT_EQ(raw->ValueByName(0, "documentid").GetAsString(), "");
    EXPECT_EQ(raw->ValueByName(0, "documentid").GetRealValue(), 424242);
}

TEST_P(DBRecordSet, WriteBackByCloseAndBySaveRecordNumber) {
    AddContacts();
    auto rs = Set("contacts");
    rs->SetUpdateMode(umWriteBack);
    rs->SetSelectAll(true);
    rs->GetOrderFields()->SetOrder("name");
    rs->Open();
    rs->ValueByName(0, "email", true).SetAsString("jones@example.org");
    rs->ValueByName(1, "email", true).SetAsString("m@example.org");
    rs->SaveRecordNumber(1);
    EXPECT_THROW(rs->ValueByName(0, "email").SetAsString("x"), EDBException) << "read handle";
    EXPECT_THROW(rs->ValueByName(0, "id", true).SetAsInteger(5), EDBException);
    rs->Close();  // writes row 0

    auto check = Set("contacts");
    AddFilter(check->GetFilters(), "email", "%@example.org", ftLike);
    EXPECT_EQ(Names(*check), V({"Jones", "Miller"}));

    // Pending cells are written when the set is freed, too.
    {
        auto w = Set("contacts");
        w->SetUpdateMode(umWriteBack);
        w->GetFilters()->AddFilter("name", "Smith");
        w->GetSelectFields()->Add("phone");
        w->Open();
        w->ValueByIndex(0, 1, true).SetAsString("555");
    }
    auto phone = Set("contacts");
    phone->GetFilters()->AddFilter("phone", "555");
    EXPECT_EQ(Names(*phone), V({"Smith"}));

    auto ro = Set("contacts");
    ro->Open();
    EXPECT_THROW(ro->ValueByName(0, "name", true).SetAsString("x"), EDBException);
}

TEST_P(DBRecordSet, DeleteRecordAndFindLocalRecord) {
    AddContacts();
    auto rs = Set("contacts");
    rs->GetSelectFields()->Add("name");
    rs->GetOrderFields()->SetOrder("name", false);
    rs->Open();
    EXPECT_EQ(Column(*rs, "name"), V({"miller", "Smith", "Miller", "Jones"}));
    const int col = rs->GetFieldIndex("name");
    EXPECT_EQ(rs->FindLocalRecord(col, "Miller"), 2);
    EXPECT_EQ(rs->FindLocalRecord(col, "MILLER", true), 0);
    EXPECT_EQ(rs->FindLocalRecord(col, "Nobody"), -1);
    EXPECT_EQ(rs->FindLocalRecord(0, TVariant(rs->GetDBIDByRecNo(3))), 3);
    rs->DeleteRecord(1, false, -1);
    EXPECT_EQ(Column(*rs, "name"), V({"miller", "Miller", "Jones"}));
    rs->Open();
    EXPECT_EQ(rs->GetRecordCount(), 3);
}

TEST_P(DBRecordSet, UnknownFieldNamesRaiseInsteadOfReachingSQL) {
    AddContacts();
    const char* evil[] = {"name; DROP TABLE contacts", "name\" = name OR \"1", "1=1 --",
                          "contacts.name", ""};
    for (const char* name : evil) {
        if (*name) {  // an item without a name only carries a parenthesis
            auto a = Set("contacts");
            a->GetFilters()->AddFilter(name, "x");
            EXPECT_THROW(a->Open(), EDBUnknownField) << name;
        }
        auto b = Set("contacts");
        b->GetSelectFields()->Add(name);
        EXPECT_THROW(b->Open(), EDBUnknownField) << name;
        auto c = Set("contacts");
        c->GetOrderFields()->SetOrder(name);
        EXPECT_THROW(c->Open(), EDBUnknownField) << name;
    }
    auto rs = Set("contacts");
    rs->Open();
    EXPECT_EQ(rs->GetRecordCount(), 4);
    EXPECT_THROW(rs->ValueByName(0, "nosuchfield"), EDBUnknownField);
    EXPECT_THROW(Set("contacts; DROP TABLE contacts"), EDBUnknownSchema);
}

// The document filters turn a parsed where-text into filters the way this helper does; values
// from the text must match literally and names must be schema fields.
void ApplyGroup(TClientSQLFilters* f, const TSQLParserFilterGroup& g) {
    static const TFilterType map[] = {ftEqual,   ftExactEqual,   ftNotEqual, ftLess,   ftLessEqual,
                                      ftGreater, ftGreaterEqual, ftLike,     ftInList, ftNotInList};
    if (g.Link != 0) AddFilterGroup(f, pOpen, static_cast<TFilterLink>(g.Link));
    for (const auto& c : g.Filters)
        AddFilter(f, c.LeftValue, c.RightValue, map[static_cast<int>(c.Compare)],
                  static_cast<TFilterLink>(c.Link));
    for (const auto& sub : g.Groups)
        ApplyGroup(f, sub);
    if (g.Link != 0) AddFilterGroup(f, pClose, flAnd);
}

TEST_P(DBRecordSet, WhereTextsMatchValuesLiterallyAndRejectForeignNames) {
    AddContacts();
    Insert("contacts", {{"name", "x' OR '1'='1"}});
    auto run = [&](const std::string& where) {
        TVTLSQLParser p;
        p.ParseSQL(where);
        auto rs = Set("contacts");
        ApplyGroup(rs->GetFilters(), p.WhereGroup());
        return Names(*rs);
    };
    EXPECT_EQ(run("name = 'x'' OR ''1''=''1'"), V({"x' OR '1'='1"}));
    EXPECT_EQ(run("name = 'Smith''; DROP TABLE contacts; --'"), V{});
    EXPECT_EQ(run("company = 'Acme' AND (name = 'Jones' OR name = 'Smith')"), V({"Jones"}));
    EXPECT_EQ(run("name IN ('Jones', 'Smith') OR company = 'Acme'"),
              V({"Jones", "Miller", "Smith"}));
    EXPECT_THROW(run("\"name = name OR 1\" = 'x'"), EDBUnknownField);
    EXPECT_THROW(run("pg_sleep = 1"), EDBUnknownField);
    EXPECT_EQ(run("").size(), 5u) << "the table is still there";
}

TEST_P(DBRecordSet, PagesComeFromTheDatabaseInATotalOrderAndCountWithTheFilters) {
    // Eleven rows with only three distinct companies: the key breaks the ties.
    for (int i = 0; i < 11; ++i)
        Insert("contacts", {{"name", "n" + std::to_string(i)},
                            {"company", std::string(1, static_cast<char>('a' + i % 3))}});
    const V expected = {"n2", "n5", "n8", "n1", "n4", "n7", "n10", "n0", "n3", "n6", "n9"};
    auto rs = Set("contacts");
    rs->GetSelectFields()->Add("name");
    rs->GetOrderFields()->SetOrder("company", false);
    for (const std::int64_t limit : {1, 3, 4, 11}) {
        V paged;
        for (std::int64_t offset = 0;; offset += limit) {
            rs->SetPaging(limit, offset);
            rs->Open();
            ASSERT_LE(rs->GetRecordCount(), limit);
            if (rs->GetRecordCount() == 0) break;
            for (const auto& n : Column(*rs, "name"))
                paged.push_back(n);
        }
        EXPECT_EQ(paged, expected) << "limit " << limit;  // no row twice, none skipped
    }
    rs->SetPaging(-1, 9);  // an offset alone
    rs->Open();
    EXPECT_EQ(rs->GetRecordCount(), 2);
    rs->SetPaging(0, 0);
    rs->Open();
    EXPECT_EQ(rs->GetRecordCount(), 0);
    EXPECT_EQ(rs->CountRecords(), 11);
    rs->SetPaging(5, 100);
    rs->Open();
    EXPECT_EQ(rs->GetRecordCount(), 0);

    // Filters narrow the page and the count alike.
    rs->Close();
    rs->GetFilters()->AddFilter("company", "b");
    rs->SetPaging(2, 2);
    rs->Open();
    EXPECT_EQ(Column(*rs, "name"), V({"n7", "n10"}));
    EXPECT_EQ(rs->CountRecords(), 4);
    EXPECT_THROW(rs->SetPaging(-2, 0), EDBException);
    EXPECT_THROW(rs->SetPaging(1, -1), EDBException);
}

DB_INSTANTIATE(DBRecordSet);

}  // namespace
}  // namespace docadmin
