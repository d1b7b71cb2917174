// /resources over real HTTP with the module loaded, on SQLite and PostgreSQL: listing and acting
// on a record's linked documents and on a doc:// tree as users of different rights.
#include "_TKRRecordSet.h"
#include "plugin_fixtures.h"

using namespace docadmin;
using namespace docadmin::test;

namespace {

using json = nlohmann::ordered_json;

class ResourcesHTTP : public ModuleRestTest {
  protected:
    // Documents, stored by alice (so that folders get her default group, none): Files/pub.txt (no
    // group) and Files/Sales/sec.txt (group sales), both linked to CONTACTS 5. alice has full
    // rights in sales, bob none, carol is a read-only user with full rights in sales.
    void SetUp() override {
        TRestServerFixture::SetUp();
        if (IsSkipped()) return;
        FModule = std::make_unique<TModuleRun>(FHost.get());
        const std::int64_t sales = FHost->Users().AddACLGroup("sales", "");
        TUserInfo u;
        u.UserName = "carol";
        u.ReadOnly = true;
        const std::int64_t carol = FHost->Users().AddUser(u, "password-1");
        FHost->Users().SetUserACLMode(FAlice, sales, uamFull);
        FHost->Users().SetUserACLMode(carol, sales, uamFull);
        FHost->SetCurrentUser(FAlice);
        TFinally nobody{[this] { FHost->SetCurrentUser(0); }};

        std::unique_ptr<TBaseDocAdmin> admin =
            FModule->Repo().CreateDocAdmin("", "\"Files\"", false, "");
        admin->SetAutoSave(false);
        TDocDirectory* root = admin->Directories();
        root->ChildDirectoryCount();  // finds or makes the folder
        TDocDirectory* dir = admin->AddDirectory(root, "Sales");
        dir->SetACLGroupID(sales);
        auto store = [&](TDocDirectory* ADir, const std::string& AName, const std::string& ABytes) {
            const std::string local = (FDir / AName).string();
            SaveStrToFile(local, ABytes, false);
            return admin->SaveDoc(nullptr, chAdded, local, ADir, AName, 0);
        };
        TDocument* pub = store(root, "pub.txt", "public");
        TDocument* sec = store(dir, "sec.txt", "secret");
        admin->SaveChanges();
        FPub = pub->DocID();
        FSec = sec->DocID();
        FModule->Docs()->Do_AddRessourceLink("CONTACTS", 5, FPub);
        FModule->Docs()->Do_AddRessourceLink("CONTACTS", 5, FSec);
        StartServer();
        for (const char* user : {"alice", "bob", "carol"})
            FTokens[user] = Login(user);
    }
    THTTPAnswer Request(const std::string& AUser, const std::string& AMethod,
                        const std::string& AIdentifier, std::int64_t AID, const std::string& AQuery,
                        const std::string& ABody = "") {
        return Call(AMethod,
                    "/resources?identifier=" + PercentEncodeForTest(AIdentifier) +
                        "&id=" + std::to_string(AID) + AQuery,
                    ABody, FTokens.at(AUser));
    }
    json List(const std::string& AUser, const std::string& AIdentifier, std::int64_t AID,
              const std::string& AQuery = "") {
        const THTTPAnswer a = Request(AUser, "GET", AIdentifier, AID, AQuery);
        EXPECT_EQ(a.Status, 200) << a.Body;
        return json::parse(a.Body)["containers"][0]["resources"];
    }
    std::vector<std::string> Names(const json& AResources) {
        std::vector<std::string> names;
        for (const json& r : AResources)
            names.push_back(r["name"].get<std::string>());
        return names;
    }
    int LinkRows(std::int64_t ADocument) {
        TKRRecordSet rs(nullptr, FHost->GetDBInterface());
        rs.SetSchemaName("docadminressources");
        AddFilter(rs.GetFilters(), "documentid", TVariant(static_cast<long long>(ADocument)));
        rs.Open();
        return rs.GetRecordCount();
    }

    std::map<std::string, std::string> FTokens;
    std::int64_t FPub = 0, FSec = 0;
};

TEST_P(ResourcesHTTP, LinkedDocumentsUnderEachUsersRights) {
    if (IsSkipped()) return;
    const std::string pub = "&ref=f:" + std::to_string(FPub);
    const std::string sec = "&ref=f:" + std::to_string(FSec);
    const json alice = List("alice", "CONTACTS", 5);
    EXPECT_EQ(Names(alice), (std::vector<std::string>{"pub.txt", "sec.txt"}));
    EXPECT_EQ(alice[0]["ref"], "f:" + std::to_string(FPub));
    EXPECT_EQ(alice[0]["actions"],
              json({"view", "save_copy", "replace", "delete", "edit_monitored"}));
    EXPECT_EQ(Names(List("bob", "CONTACTS", 5)), std::vector<std::string>{"pub.txt"});

    struct TCase {
        const char *User, *Method;
        std::string Query, Ref, Body;
        int Status;
        std::string Answer;  // the body, or a part of the error message
    };
    const TCase cases[] = {
        {"alice", "POST", "&action=save_copy", sec, "", 200, "secret"},
        {"bob", "POST", "&action=save_copy", sec, "", 404, "No resource"},
        {"carol", "POST", "&action=delete", pub, "", 403, "No write access"},
        {"carol", "POST", "&action=replace", sec, "x", 403, "No write access"},
        {"alice", "POST", "&action=replace", pub, "renewed", 200, "{\"done\":true}"},
        {"bob", "POST", "&action=save_copy", pub, "", 200, "renewed"},
        {"bob", "POST", "&action=add_link&name=s.txt&document_id=" + std::to_string(FSec), "", "",
         404, "not found"},
        {"alice", "POST", "&action=add_document&name=a.txt", "", "x", 403, "not offered"},
        {"alice", "POST", "&action=import_directory", "", "", 400, "Unknown action"},
        {"alice", "POST", "&action=save_copy", "", "", 400, "ref is required"},
        {"alice", "POST", "&action=delete", "&ref=d:1", "", 404, "No resource"},
        {"alice", "POST", "&action=delete", "&ref=x1", "", 400, "ref must read"},
        {"alice", "PUT", "", "", "", 405, "Method not allowed"},
    };
    for (const TCase& c : cases) {
        SCOPED_TRACE(c.User + (" " + c.Query) + c.Ref);
        const THTTPAnswer a = Request(c.User, c.Method, "CONTACTS", 5, c.Query + c.Ref, c.Body);
        EXPECT_EQ(a.Status, c.Status) << a.Body;
        if (c.Status == 200 && c.Answer[0] != '{')
            EXPECT_EQ(a.Body, c.Answer);
        else
            EXPECT_NE(a.Body.find(c.Answer), std::string::npos) << a.Body;
    }
    EXPECT_EQ(Call("GET", "/resources?id=5", "", FTokens["alice"]).Status, 400);
    EXPECT_EQ(Call("GET", "/resources?identifier=X&id=5").Status, 401);

    // A link of a document alice may see (listed by the document's own name); then the document
    // goes with all its links.
    const std::string link = "&action=add_link&name=s.txt&document_id=" + std::to_string(FSec);
    EXPECT_EQ(Request("alice", "POST", "CONTACTS", 6, link).Status, 200);
    EXPECT_EQ(Names(List("alice", "CONTACTS", 6)), std::vector<std::string>{"sec.txt"});
    EXPECT_EQ(LinkRows(FSec), 2);
    EXPECT_EQ(Request("alice", "POST", "CONTACTS", 5, "&action=delete" + sec).Status, 200);
    EXPECT_EQ(LinkRows(FSec), 0);
    EXPECT_EQ(Names(List("alice", "CONTACTS", 5)), std::vector<std::string>{"pub.txt"});
    EXPECT_TRUE(List("alice", "CONTACTS", 6).empty());
}

TEST_P(ResourcesHTTP, ADocumentTreeByAddress) {
    if (IsSkipped()) return;
    const std::string tree = "doc://\"Shared\"";
    const auto post = [&](const char* AUser, const std::string& AQuery, const char* ABody = "") {
        return Request(AUser, "POST", tree, 0, AQuery, ABody);
    };
    EXPECT_TRUE(List("alice", tree, 0).empty());
    EXPECT_EQ(post("carol", "&action=add_directory&name=Inbox").Status, 403);
    EXPECT_EQ(post("alice", "&action=add_directory&name=a/b").Status, 400);
    EXPECT_EQ(post("alice", "&action=add_directory&name=Inbox").Status, 200);
    EXPECT_EQ(post("alice", "&action=add_document&name=x.txt", "xx").Status, 200);
    const json top = List("alice", tree, 0);
    ASSERT_EQ(Names(top), (std::vector<std::string>{"Inbox", "x.txt"}));
    EXPECT_TRUE(top[0]["has_children"].get<bool>());
    const std::string inbox = top[0]["ref"];
    EXPECT_EQ(inbox.substr(0, 2), "d:");
    EXPECT_EQ(post("alice", "&action=add_document&name=y.txt&ref=" + inbox, "yy").Status, 200);
    const json children = List("alice", tree, 0, "&ref=" + inbox);
    ASSERT_EQ(Names(children), std::vector<std::string>{"y.txt"});
    const std::string y = children[0]["ref"];
    const THTTPAnswer copy = post("bob", "&action=save_copy&ref=" + y);
    EXPECT_EQ(copy.Status, 200);
    EXPECT_EQ(copy.Body, "yy");
    EXPECT_NE(copy.Header("Content-Disposition").find("y.txt"), std::string::npos);
    EXPECT_EQ(post("alice", "&action=delete&ref=" + inbox).Status, 200);
    EXPECT_EQ(Names(List("alice", tree, 0)), std::vector<std::string>{"x.txt"});
}

DB_INSTANTIATE(ResourcesHTTP);

}  // namespace
