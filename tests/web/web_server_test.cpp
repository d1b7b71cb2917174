// The server's side of the page: its files at "/", the session query and the CSRF rules for
// cookie sessions, over real HTTP.
#include <filesystem>
#include <fstream>

#include "host/rest/rest_test_support.h"

namespace docadmin::test {
namespace {

namespace fs = std::filesystem;

class WebServer : public TRestServerFixture {
  protected:
    void SetUp() override {
        TRestServerFixture::SetUp();
        FWeb = FDir / "web";
        fs::create_directories(FWeb / "lib");
        Write(FWeb / "index.html", "<!doctype html><p>page</p>");
        Write(FWeb / "lib" / "app.js", "export const x = 1;");
        Write(FWeb / ".hidden.js", "secret");
        Write(FDir / "outside.txt", "outside");
        fs::create_symlink(FDir / "outside.txt", FWeb / "link.txt");
        FOptions.WebRoot = FWeb.string();
        StartServer();
    }
    static void Write(const fs::path& APath, const std::string& AText) {
        std::ofstream(APath, std::ios::binary) << AText;
    }
    // Logs in as a browser does and answers the cookie header and the CSRF token.
    std::pair<std::string, std::string> BrowserLogin() {
        const auto a = Call("POST", "/login", R"({"user":"alice","password":"password-1"})");
        EXPECT_EQ(a.Status, 200) << a.Body;
        const auto body = nlohmann::json::parse(a.Body);
        return {"Cookie: docadmin_session=" + body["session"].get<std::string>() + "\r\n",
                body.value("csrf_token", "")};
    }
    THTTPAnswer Send(const std::string& AMethod, const std::string& ATarget,
                     const std::string& AHeaders, const std::string& ABody = "") {
        TTestClient c(FServer->Port());
        return c.Call(AMethod, ATarget, ABody, "", AHeaders);
    }
    fs::path FWeb;
};

TEST_F(WebServer, ServesThePageFilesAndNothingBesideThem) {
    const auto index = Call("GET", "/");
    EXPECT_EQ(index.Status, 200);
    EXPECT_EQ(index.Body, "<!doctype html><p>page</p>");
    EXPECT_EQ(index.Header("Content-Type"), "text/html; charset=utf-8");
    EXPECT_NE(index.Header("Content-Security-Policy").find("default-src 'self'"),
              std::string::npos);
    EXPECT_EQ(index.Header("Cache-Control"), "no-cache");
    const auto js = Call("GET", "/lib/app.js");
    EXPECT_EQ(js.Status, 200);
    EXPECT_EQ(js.Header("Content-Type"), "text/javascript; charset=utf-8");
    EXPECT_EQ(js.Header("X-Content-Type-Options"), "nosniff");

    // Revalidation: the same ETag gets 304 without a body; a changed file a new ETag.
    const std::string etag = js.Header("ETag");
    ASSERT_FALSE(etag.empty());
    const auto again = Send("GET", "/lib/app.js", "If-None-Match: " + etag + "\r\n");
    EXPECT_EQ(again.Status, 304);
    EXPECT_TRUE(again.Body.empty());
    Write(FWeb / "lib" / "app.js", "export const x = 22;");
    const auto changed = Send("GET", "/lib/app.js", "If-None-Match: " + etag + "\r\n");
    EXPECT_EQ(changed.Status, 200);
    EXPECT_EQ(changed.Body, "export const x = 22;");

    // No way out of the folder, to hidden files or to folders; API routes stay API routes.
    for (const char* target :
         {"/../outside.txt", "/lib/../../outside.txt", "/%2e%2e/outside.txt",
          "/lib/%2E%2E/index.html", "/link.txt", "/.hidden.js", "/lib", "/lib/", "/lib//app.js",
          "/lib\\app.js", "/nothing.js", "/index.html%00.js"}) {
        const auto a = Call("GET", target);
        EXPECT_EQ(a.Status, 404) << target;
        EXPECT_EQ(a.Body.find("outside"), std::string::npos) << target;
    }
    EXPECT_EQ(Call("POST", "/lib/app.js").Status, 404);
    EXPECT_EQ(Call("GET", "/records/contacts").Status, 401);
    EXPECT_EQ(Call("GET", "/health").Status, 200);
}

TEST_F(WebServer, CookieSessionsNeedTheCsrfTokenToChangeThings) {
    const auto [cookie, csrf] = BrowserLogin();
    ASSERT_EQ(csrf.size(), 64u);

    // The session query answers the user and the same token; without a session 401.
    const auto session = Send("GET", "/session", cookie);
    ASSERT_EQ(session.Status, 200);
    const auto s = nlohmann::json::parse(session.Body);
    EXPECT_EQ(s["user"], "alice");
    EXPECT_EQ(s["csrf_token"], csrf);
    EXPECT_EQ(Call("GET", "/session").Status, 401);

    const std::string body = R"({"name":"Adams"})";
    struct Case {
        const char* What;
        std::string Headers;
        int Status;
        const char* Message;
    };
    const std::string token = "X-CSRF-Token: " + csrf + "\r\n";
    const char* kToken = "Missing or wrong CSRF token";
    const char* kCross = "Cross-site request refused";
    const Case cases[] = {
        {"cookie without token", cookie, 403, kToken},
        {"cookie with a wrong token", cookie + "X-CSRF-Token: " + std::string(64, 'a') + "\r\n",
         403, kToken},
        {"cookie with the token of another session",
         cookie + "X-CSRF-Token: " + BrowserLogin().second + "\r\n", 403, kToken},
        {"cookie, token, foreign origin", cookie + token + "Origin: http://evil.example\r\n", 403,
         kCross},
        {"cookie, token, cross-site fetch", cookie + token + "Sec-Fetch-Site: cross-site\r\n", 403,
         kCross},
        {"cookie, token, own origin", cookie + token + "Origin: http://test\r\n", 201, ""},
        {"cookie and token", cookie + token, 201, ""},
    };
    for (const auto& c : cases) {
        const auto a = Send("POST", "/records/contacts", c.Headers, body);
        EXPECT_EQ(a.Status, c.Status) << c.What << ": " << a.Body;
        EXPECT_NE(a.Body.find(c.Message), std::string::npos) << c.What << ": " << a.Body;
    }
    // Reading needs no token; a bearer call needs none either.
    EXPECT_EQ(Send("GET", "/records/contacts", cookie).Status, 200);
    const std::string bearer = Login("alice");
    EXPECT_EQ(Call("POST", "/records/contacts", body, bearer).Status, 201);
    // A login started by another site is refused.
    EXPECT_EQ(Send("POST", "/login", "Origin: http://evil.example\r\n",
                   R"({"user":"alice","password":"password-1"})")
                  .Status,
              403);

    // Logging out needs the token too; afterwards the cookie names no session.
    EXPECT_EQ(Send("POST", "/logout", cookie).Status, 403);
    EXPECT_EQ(Send("POST", "/logout", cookie + token).Status, 200);
    EXPECT_EQ(Send("GET", "/session", cookie).Status, 401);
}

TEST_F(WebServer, RecordDocumentActionsCheckTheirRequestBeforeTheTree) {
    const std::string token = Login("alice");
    const auto created = Call("POST", "/records/contacts", R"({"name":"Adams"})", token);
    ASSERT_EQ(created.Status, 201) << created.Body;
    const std::string uid =
        nlohmann::json::parse(created.Body)["record_info"][0]["server_uid"].get<std::string>();
    const std::string storage = R"("storage":"{A48847CA-33D3-4EB0-A586-E316EA2E5322}")";
    auto body = [&](const std::string& AUid, const std::string& AStorage = "") {
        return "{" + (AStorage.empty() ? storage : AStorage) +
               R"(,"schema":"contacts","record":")" + AUid + R"(","id":1})";
    };
    struct Case {
        const char* Method;
        const char* Path;
        std::string Body;
        int Status;
        const char* Message;
    };
    const Case cases[] = {
        {"GET", "/record-documents/delete", body(uid), 405, "Method not allowed"},
        {"POST", "/record-documents/rename", body(uid), 404, "Not found"},
        {"POST", "/record-documents/delete", "[1]", 400, "must be an object"},
        {"POST", "/record-documents/delete", body(uid, R"("storage":"x")"), 400, "plug-in GUID"},
        {"POST", "/record-documents/delete", body("not-a-uid"), 400, "Invalid record UID"},
        {"POST", "/record-documents/delete", body("{00000000-0000-0000-0000-000000000001}"), 404,
         ""},
        // A readable record, but no document module in this host.
        {"POST", "/record-documents/delete", body(uid), 503, "module isn't loaded"},
    };
    for (const auto& c : cases) {
        const auto a = Call(c.Method, c.Path, c.Body, token);
        EXPECT_EQ(a.Status, c.Status) << c.Path << " " << c.Body << ": " << a.Body;
        EXPECT_NE(a.Body.find(c.Message), std::string::npos) << c.Body << ": " << a.Body;
    }
    EXPECT_EQ(Call("POST", "/record-documents/delete", body(uid)).Status, 401);
}

}  // namespace
}  // namespace docadmin::test
