// Row rights by ACL group and delete notification.
#include <gtest/gtest.h>

#include "_TKRACLDataTableController.h"
#include "_TKRSQLDeleteNotifyListener.h"
#include "db_test_support.h"

namespace docadmin {
namespace {

class DBRights : public testing::DBTest {
  protected:
    static TVariant I(std::int64_t v) { return TVariant(static_cast<long long>(v)); }

    // Two users in disjoint groups; a directory per group and a shared one without group, each
    // with a document, and a link to each document.
    void SetUpTree() {
        const std::int64_t g1 = Insert("aclgroups", {{"name", "sales"}});
        const std::int64_t g2 = Insert("aclgroups", {{"name", "hr"}});
        Alice = Insert("users", {{"username", "alice"}});
        Bob = Insert("users", {{"username", "bob"}});
        Insert("useraclmodes",
               {{"userid", I(Alice)}, {"aclgroupid", I(g1)}, {"accessmode", uamReadOnly}});
        Insert("useraclmodes",
               {{"userid", I(Bob)}, {"aclgroupid", I(g2)}, {"accessmode", uamFull}});
        Insert("useraclmodes",
               {{"userid", I(Bob)}, {"aclgroupid", I(g1)}, {"accessmode", uamDenied}});
        for (auto [title, group] : {std::pair{"sales", g1}, {"hr", g2}, {"shared", 0}}) {
            const std::int64_t dir =
                Insert("docadmindir", {{"title", title}, {"globalaclgrp", I(group)}});
            const std::int64_t doc = Insert(
                "docadmindocs", {{"dirid", I(dir)}, {"docname", std::string(title) + ".txt"}});
            Insert("docadminressources", {{"documentid", I(doc)}, {"resident", title}});
        }
        Insert("docadmindocs", {{"dirid", 0}, {"docname", "loose.txt"}});
    }

    std::vector<std::string> Visible(const std::string& schema, const std::string& field,
                                     bool rights = true) {
        auto rs = Set(schema);
        if (rights) rs->SetOptions({rsoUserRowRights});
        rs->GetSelectFields()->Add(field);
        rs->GetOrderFields()->SetOrder(field);
        rs->Open();
        return Column(*rs, field);
    }

    std::int64_t Alice = 0, Bob = 0;
    using V = std::vector<std::string>;
};

TEST_P(DBRights, UsersInDisjointGroupsSeeTheirRowsAndRowsFollowTheirACLField) {
    SetUpTree();
    TKRACLDataTableController acl(nullptr);
    acl.AddTable("docadmindir", TACLTableType::atDefault, "", "Ordner Dokumentenverwaltung");
    acl.AddTable("docadmindocs", TACLTableType::atDefault, "dirid", "Dateien Dokumentenverwaltung");
    acl.AddTable("docadminressources", TACLTableType::atFields, "documentid",
                 "Dokument-Ressourcen");
    EXPECT_EQ(TKRACLDataTableController::FindController("DocAdminDocs"), &acl);
    EXPECT_EQ(TKRACLDataTableController::FindController("contacts"), nullptr);

    EXPECT_EQ(Visible("docadmindir", "title"), V({"hr", "sales", "shared"})) << "no user";
    {
        TDBUserScope user(Alice);
        EXPECT_EQ(Visible("docadmindir", "title"), V({"sales", "shared"}));
        EXPECT_EQ(Visible("docadmindocs", "docname"), V({"loose.txt", "sales.txt", "shared.txt"}));
        EXPECT_EQ(Visible("docadminressources", "resident"), V({"sales", "shared"}));
        EXPECT_EQ(Visible("docadmindir", "title", false).size(), 3u) << "without the option";
        auto byMode = Set("docadmindir");
        byMode->SetAccessMode(gamRead);
        byMode->Open();
        EXPECT_EQ(byMode->GetRecordCount(), 2);
    }
    {
        TDBUserScope user(Bob);  // denied in sales explicitly
        EXPECT_EQ(Visible("docadmindir", "title"), V({"hr", "shared"}));
        EXPECT_EQ(Visible("docadmindocs", "docname"), V({"hr.txt", "loose.txt", "shared.txt"}));
        EXPECT_EQ(Visible("docadminressources", "resident"), V({"hr", "shared"}));
    }
    {
        TDBUserScope user(999);  // no group at all
        EXPECT_EQ(Visible("docadmindir", "title"), V({"shared"}));
    }
}

TEST_P(DBRights, UnregisteredTablesAreNotFiltered) {
    SetUpTree();
    TDBUserScope user(Alice);
    EXPECT_EQ(Visible("docadmindir", "title").size(), 3u);
}

TEST_P(DBRights, DeleteTakesDeclaredDependentsInTheSameTransaction) {
    SetUpTree();
    std::vector<std::string> asked;
    TKRSQLDeleteNotifyListener listener(nullptr);
    listener.OnExecute = [&](TObject* sender, IKRSQLDeleteNotify* e) {
        EXPECT_EQ(sender, &listener);
        asked.push_back(e->IsTable("docadmindocs") ? "docs" : "other");
        if (!e->IsTable("DOCADMINDOCS")) return;
        if (e->CanDeclareDependents())
            e->AddDependentRows("docadminressources", "documentid");
        else
            e->NoDependentsDeclared();
    };
    auto docsNamed = [&](const std::string& name) {
        auto rs = Set("docadmindocs");
        rs->GetFilters()->AddFilter("docname", name);
        rs->Open();
        return rs->GetDBIDByRecNo(0);
    };
    const std::int64_t sales = docsNamed("sales.txt");

    // Rolled back: the document and its link both stay.
    const std::int64_t tx = DB->BeginTransaction();
    IPtr<IDBSQLStatement> st = DB->CreateStatement("");
    st->SetDBATransactionID(tx);
    st->SetSchemaItem(GetSchemaByName(DB->GetFieldSchema(), "docadmindocs").get());
    st->SetStatementKind(2);
    st->AddFilter("id", I(sales));
    st->Execute();
    EXPECT_EQ(Visible("docadminressources", "resident").size(), 3u);
    DB->RollbackTransaction(tx);
    EXPECT_EQ(Visible("docadminressources", "resident"), V({"hr", "sales", "shared"}));

    // Without a transaction of the caller's: both go.
    st->SetDBATransactionID(0);
    st->SetStatementKind(2);
    st->AddFilter("id", I(sales));
    st->Execute();
    EXPECT_EQ(Visible("docadminressources", "resident"), V({"hr", "shared"}));
    EXPECT_EQ(Visible("docadmindocs", "docname"), V({"hr.txt", "loose.txt", "shared.txt"}));

    // Through a record set, and the dependent table is notified in turn.
    asked.clear();
    auto rs = Set("docadmindocs");
    rs->GetFilters()->AddFilter("docname", "hr.txt");
    rs->Open();
    rs->DeleteRecord(0);
    EXPECT_EQ(asked, V({"docs", "other"}));
    EXPECT_EQ(Visible("docadminressources", "resident"), V({"shared"}));

    // A dependent named by a field that isn't there fails the whole delete.
    TKRSQLDeleteNotifyListener bad(nullptr);
    bad.OnExecute = [](TObject*, IKRSQLDeleteNotify* e) {
        if (e->IsTable("docadmindocs")) e->AddDependentRows("docadminressources", "nosuch");
    };
    rs->GetFilters()->Clear();
    rs->GetFilters()->AddFilter("docname", "shared.txt");
    rs->Open();
    EXPECT_THROW(rs->DeleteRecord(0), EDBUnknownField);
    EXPECT_EQ(rs->GetRecordCount(), 1) << "a failed delete keeps the row in the result";
    EXPECT_EQ(Visible("docadmindocs", "docname").size(), 2u);
}

DB_INSTANTIATE(DBRights);

}  // namespace
}  // namespace docadmin
