// The server over real HTTP: login and sessions, per-session serialisation, limits, shutdown and
// API publication; and the session cache and service helpers on their own.
#include <filesystem>
#include <future>
#include <mutex>

#include "_TVTLBIAPIClient.h"
#include "rest_test_support.h"

using namespace docadmin;
using namespace docadmin::test;
using Clock = std::chrono::steady_clock;

namespace {

// Entry and exit of each Sleep call, with the calling session's token.
struct TVisit {
    std::string Session;
    Clock::time_point In, Out;
};
std::mutex GVisitLock;
std::vector<TVisit> GVisits;
std::string GTempFile;

// A service for the session types it is made with.
class TTestService : public TVTLCustomRestService {
  public:
    explicit TTestService(TConnectorSessionTypes ATypes) : FTypes(ATypes) {}
    TConnectorSessionTypes GetValidConnectorSessionTypes() const override { return FTypes; }

  private:
    TConnectorSessionTypes FTypes;
};

const TAPIInterfaceType& TestInterface() {
    using K = TAPIParamKind;
    static const TAPIInterfaceType intf{
        "ITest",
        TGUID::Parse("{11111111-2222-4333-8444-555555555555}"),
        {{"Echo",
          {{"S", K::pkString},
           {"I", K::pkInt64},
           {"B", K::pkBoolean},
           {"R", K::pkRawJSON},
           {"SOut", K::pkString, true},
           {"IOut", K::pkInt64, true},
           {"BOut", K::pkBoolean, true},
           {"ROut", K::pkRawJSON, true}},
          [](TVTLCustomRestService&, TAPICallArgs& a) {
              TVTLCustomRestService::CheckAndSimulateMethodeError();
              a.OutStr("SOut") = a.Str("S") + "!";
              a.OutInt("IOut") = a.Int("I") + 1;
              a.OutBool("BOut") = !a.Bool("B");
              a.OutRaw("ROut") = a.Raw("R");
          }},
         {"Sleep",
          {{"Ms", K::pkInt64}, {"Ok", K::pkBoolean, true}},
          [](TVTLCustomRestService&, TAPICallArgs& a) {
              TVisit v{TVTLCustomRestService::CurrentSession()->GetUserName(), Clock::now(), {}};
              std::this_thread::sleep_for(std::chrono::milliseconds(a.Int("Ms")));
              v.Out = Clock::now();
              std::lock_guard lock(GVisitLock);
              GVisits.push_back(v);
              a.OutBool("Ok") = true;
          }},
         {"HoldTempFile",
          {{"Ms", K::pkInt64}, {"File", K::pkString, true}},
          [](TVTLCustomRestService&, TAPICallArgs& a) {
              auto helper = std::make_unique<TSessionCacheTempFileHelper>();
              helper->GetStream()->WriteBuffer("abc", 3);
              {
                  std::lock_guard lock(GVisitLock);
                  GTempFile = helper->FileName;
              }
              a.OutStr("File") = helper->FileName;
              TVTLCustomRestService::CurrentSession()->GetSessionCache().Add("tmp",
                                                                             std::move(helper));
              std::this_thread::sleep_for(std::chrono::milliseconds(a.Int("Ms")));
          }}}};
    return intf;
}

class RestServer : public TRestServerFixture {
  protected:
    void SetUp() override {
        TRestServerFixture::SetUp();
        FClient = std::make_unique<TVTLBIAPIClient>(nullptr);
        FClient->AddItem("Test", "{0A0A0A0A-1B1B-4C2C-8D3D-4E4E4E4E4E4E}", "test");
        FClient->AddItem("Restricted", "{0A0A0A0A-1B1B-4C2C-8D3D-4E4E4E4E4E4F}", "restricted");
        FClient->OnGetAPIService = [](TVTLBIAPIClient*, const TVTLBIAPIItem& item,
                                      TRestServiceClass& cls, TInterfaceTypeList& intfs) {
            const TConnectorSessionTypes types =
                item.Index == 0 ? 1 << cstAPIClient | 1 << cstBrowser : 1 << cstService;
            cls = [types] { return std::make_unique<TTestService>(types); };
            intfs.push_back(&TestInterface());
        };
        std::lock_guard lock(GVisitLock);
        GVisits.clear();
    }
    std::unique_ptr<TVTLBIAPIClient> FClient;
};

TEST_F(RestServer, LoginLogoutAndTheTwoWaysToNameASession) {
    StartServer();
    EXPECT_EQ(Call("GET", "/health").Status, 200);
    TTestClient c(FServer->Port());
    const auto login =
        c.Call("POST", "/login", R"({"user":"alice","password":"password-1","session_type":1})");
    ASSERT_EQ(login.Status, 200);
    const std::string token = nlohmann::json::parse(login.Body)["session"];
    EXPECT_GE(token.size(), 22u);  // at least 128 bits in base64
    const std::string cookie = login.Header("Set-Cookie");
    EXPECT_NE(cookie.find("docadmin_session=" + token), std::string::npos);
    EXPECT_NE(cookie.find("HttpOnly"), std::string::npos);
    EXPECT_NE(cookie.find("SameSite=Strict"), std::string::npos);
    EXPECT_NE(Login("alice"), token);

    const std::string echo = R"({"S":"x"})";
    EXPECT_EQ(Call("POST", "/test/ITest/Echo", echo, token).Status, 200);
    EXPECT_EQ(c.Call("POST", "/test/ITest/Echo", echo, "",
                     "Cookie: other=1; docadmin_session=" + token + "\r\nX-CSRF-Token: " +
                         nlohmann::json::parse(login.Body).value("csrf_token", "") + "\r\n")
                  .Status,
              200);
    EXPECT_EQ(Call("POST", "/test/ITest/Echo", echo).Status, 401);
    EXPECT_EQ(Call("POST", "/test/ITest/Echo", echo, token + "x").Status, 401);
    EXPECT_EQ(Call("POST", "/logout", "", token).Status, 200);
    EXPECT_EQ(Call("POST", "/test/ITest/Echo", echo, token).Status, 401);
    EXPECT_EQ(Call("GET", "/nowhere", "", token).Status, 404);
}

TEST_F(RestServer, WrongNameAndWrongPasswordLookTheSameAndRepeatsAreSlowedDown) {
    FOptions.LoginThrottleAfter = 3;
    FOptions.LoginThrottleDelay = std::chrono::milliseconds(400);
    StartServer();
    auto timed = [&](const std::string& body) {
        const auto t0 = Clock::now();
        const auto a = Call("POST", "/login", body);
        return std::make_pair(a, Clock::now() - t0);
    };
    const auto [wrongPw, t1] = timed(R"({"user":"alice","password":"nope"})");
    const auto [wrongName, t2] = timed(R"({"user":"nobody","password":"nope"})");
    EXPECT_EQ(wrongPw.Status, 401);
    EXPECT_EQ(wrongName.Status, 401);
    EXPECT_EQ(wrongPw.Body, wrongName.Body);
    EXPECT_LT(t1, std::chrono::milliseconds(400));
    EXPECT_LT(t2, std::chrono::milliseconds(400));
    EXPECT_EQ(Call("POST", "/login", "{]").Status, 400);

    timed(R"({"user":"bob","password":"nope"})");
    timed(R"({"user":"bob","password":"nope"})");
    timed(R"({"user":"bob","password":"nope"})");
    // Three failures for bob (and five for the address): even the right password now waits.
    const auto [right, t3] = timed(R"({"user":"bob","password":"password-1"})");
    EXPECT_EQ(right.Status, 200);
    EXPECT_GE(t3, std::chrono::milliseconds(400));
}

TEST_F(RestServer, IdleSessionsExpire) {
    FOptions.SessionIdleTimeout = std::chrono::milliseconds(300);
    StartServer();
    const std::string token = Login("alice");
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(Call("POST", "/test/ITest/Echo", "{}", token).Status, 200);  // use keeps it alive
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_EQ(Call("POST", "/test/ITest/Echo", "{}", token).Status, 401);
    EXPECT_EQ(FServer->SessionCount(), 0);
}

TEST_F(RestServer, RequestsOfOneSessionNeverOverlapWhileSessionsRunInParallel) {
    StartServer();
    const std::string a = Login("alice"), b = Login("bob");
    std::vector<std::future<int>> calls;
    for (const std::string& t : {a, a, a, b})
        calls.push_back(std::async(std::launch::async, [&, t] {
            return Call("POST", "/test/ITest/Sleep", R"({"Ms":150})", t).Status;
        }));
    for (auto& f : calls)
        EXPECT_EQ(f.get(), 200);
    ASSERT_EQ(GVisits.size(), 4u);
    bool parallel = false;
    for (const auto& x : GVisits)
        for (const auto& y : GVisits) {
            if (&x == &y) continue;
            const bool overlap = x.In < y.Out && y.In < x.Out;
            if (x.Session == y.Session) {
                EXPECT_FALSE(overlap);
            }
            parallel = parallel || overlap;
        }
    EXPECT_TRUE(parallel);  // bob's call ran beside one of alice's
}

TEST_F(RestServer, LimitsAnswerWithTheirStatus) {
    FOptions.HTTP.MaxBodyBytes = 1000;
    FOptions.HTTP.MaxHeaderBytes = 2000;
    FOptions.HTTP.ReadTimeout = std::chrono::milliseconds(1000);
    StartServer();
    const std::string token = Login("alice");
    EXPECT_EQ(Call("POST", "/test/ITest/Echo", std::string(1001, ' '), token).Status, 413);
    {
        TTestClient c(FServer->Port());
        EXPECT_EQ(
            c.Call("GET", "/health", "", "", "X-Big: " + std::string(3000, 'a') + "\r\n").Status,
            431);
    }
    for (const std::string& garbage : {std::string("\x16\x03\x01\x02\x00\x01\r\n\r\n", 10),
                                       std::string("GET / HTTP/9.Z\r\n\r\n"),
                                       std::string("POST /login HTTP/1.1\r\nContent-Length: "
                                                   "zz\r\n\r\n")}) {
        TTestClient c(FServer->Port());
        c.SendRaw(garbage);
        EXPECT_EQ(c.Read().Status, 400) << garbage;
    }
    // A client that sends its header a byte at a time gets 408 while others are served.
    auto slow = std::async(std::launch::async, [&] {
        TTestClient c(FServer->Port());
        const std::string req = "GET /health HTTP/1.1\r\nHost: slow\r\n\r\n";
        for (char ch : req) {
            c.SendRaw(std::string(1, ch));
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
            if (ch == 'H') break;  // the timeout comes long before the header ends
        }
        return c.Read().Status;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto t0 = Clock::now();
    EXPECT_EQ(Call("GET", "/health").Status, 200);
    EXPECT_LT(Clock::now() - t0, std::chrono::milliseconds(200));
    EXPECT_EQ(slow.get(), 408);
}

TEST_F(RestServer, ShutdownFinishesTheRequestInFlightAndEndsItsSession) {
    StartServer();
    const std::string token = Login("alice");
    auto inFlight = std::async(std::launch::async, [&] {
        return Call("POST", "/test/ITest/HoldTempFile", R"({"Ms":400})", token);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    std::string file;
    {
        std::lock_guard lock(GVisitLock);
        file = GTempFile;
    }
    ASSERT_FALSE(file.empty());
    EXPECT_TRUE(std::filesystem::exists(file));
    FServer->Shutdown();
    const auto answer = inFlight.get();
    EXPECT_EQ(answer.Status, 200);
    EXPECT_EQ(answer.Header("Connection"), "close");
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_THROW(TTestClient{FServer->Port()}, std::runtime_error);  // no longer listening
}

TEST_F(RestServer, PublishedMethodsMapEveryParameterKindAndPassRawJSONThrough) {
    FOptions.Service.AllowSimulateErrorHeader = true;
    StartServer();
    const std::string token = Login("alice");
    const std::string raw = R"({"b": [1, 2.50 ,"\u00e9x"], "n" :null })";
    const auto a = Call("POST", "/test/ITest/Echo",
                        R"({"S":"é","I":9007199254740993,"B":false,"R":)" + raw + "}", token);
    ASSERT_EQ(a.Status, 200) << a.Body;
    EXPECT_EQ(a.Body, R"({"SOut":"é!","IOut":9007199254740994,"BOut":true,"ROut":)" + raw + "}");

    EXPECT_EQ(Call("POST", "/test/ITest/Echo", R"({"I":"7"})", token).Status, 400);
    EXPECT_EQ(Call("POST", "/test/ITest/Echo", R"([1])", token).Status, 400);
    EXPECT_EQ(Call("GET", "/test/ITest/Echo", "", token).Status, 405);
    // The kind of session: the restricted root serves service sessions only.
    EXPECT_EQ(Call("POST", "/restricted/ITest/Echo", "{}", token).Status, 403);
    EXPECT_EQ(Call("POST", "/restricted/ITest/Echo", "{}", Login("bob", cstService)).Status, 200);
    // The simulated failure, armed by a header.
    TTestClient c(FServer->Port());
    const auto sim = c.Call("POST", "/test/ITest/Echo", "{}", token, "X-Simulate-Error: 418\r\n");
    EXPECT_EQ(sim.Status, 418);
    EXPECT_NE(sim.Body.find("Simulated"), std::string::npos);

    const auto doc = nlohmann::json::parse(Call("GET", "/openapi.json").Body);
    EXPECT_TRUE(doc["paths"].contains("/test/ITest/Sleep"));
    EXPECT_EQ(doc["paths"]["/test/ITest/Echo"]["post"]["requestBody"]["content"]["application/json"]
                 ["schema"]["properties"]["I"]["format"],
              "int64");
    EXPECT_TRUE(doc["paths"].contains("/records/{schema}/{uid}"));
}

// ---- Without a server

TEST(RestSessionCache, OwnsItsEntriesAndForgivesAMissingKey) {
    struct TCounted : TObject {
        explicit TCounted(int& n) : N(n) { ++N; }
        ~TCounted() override { --N; }
        int& N;
    };
    int alive = 0;
    {
        TSessionCache cache;
        cache.Add("a", std::make_unique<TCounted>(alive));
        cache.Add("b", std::make_unique<TCounted>(alive));
        EXPECT_THROW(cache.Add("a", std::make_unique<TCounted>(alive)), ESessionCacheDuplicate);
        EXPECT_EQ(alive, 2);  // the rejected one is freed
        cache.Remove("a");
        EXPECT_EQ(alive, 1);
        cache.Remove("a");  // twice: nothing happens
        cache.Remove("never");
        EXPECT_EQ(cache.Count(), 1);
        TObject* b = nullptr;
        EXPECT_TRUE(cache.TryGetValue("b", b));
        EXPECT_FALSE(cache.ContainsKey("a"));
    }
    EXPECT_EQ(alive, 0);  // the rest goes with the cache
}

TEST(RestSessionCache, TempFileHelperKeepsItsStreamRenamesAndDeletes) {
    std::string name;
    {
        TSessionCacheTempFileHelper h;
        EXPECT_FALSE(std::filesystem::exists(h.FileName));
        TStream* s = h.GetStream();
        EXPECT_EQ(s, h.GetStream());
        s->WriteBuffer("hello", 5);
        h.ChangeFileExt("pdf");
        EXPECT_EQ(std::filesystem::path(h.FileName).extension(), ".pdf");
        s->WriteBuffer("!", 1);  // the open stream follows the rename
        name = h.FileName;
        EXPECT_EQ(std::filesystem::file_size(name), 6u);
        TSessionCacheTempFileHelper other;
        EXPECT_NE(other.FileName, h.FileName);
    }
    EXPECT_FALSE(std::filesystem::exists(name));
}

TEST(RestServiceHelpers, OptionsErrorsAndRecordInfo) {
    EXPECT_TRUE(TVTLCustomRestService::GetOptionsParamValue(nullptr, "x").IsNull());
    const TJsonObject empty = TJsonObject::object();
    EXPECT_TRUE(TVTLCustomRestService::GetOptionsParamValue(&empty, "x").IsNull());
    const TJsonObject opts = {{"n", 5000000000LL}, {"s", "t"}, {"o", {{"a", 1}}}};
    EXPECT_EQ(TVTLCustomRestService::GetOptionsParamValue(&opts, "n").AsInt64(), 5000000000LL);
    EXPECT_EQ(TVTLCustomRestService::GetOptionsParamValue(&opts, "s").AsString(), "t");
    EXPECT_EQ(TVTLCustomRestService::GetOptionsParamValue(&opts, "o").AsString(), R"({"a":1})");
    EXPECT_TRUE(TVTLCustomRestService::GetOptionsParamValue(&opts, "missing").IsNull());

    TJsonObject r = TJsonObject::object();
    TVTLCustomRestService::AddExceptionToJsonResult(EVTLRestServiceError(404, "gone"), r);
    EXPECT_EQ(r["error"]["status"], 404);
    EXPECT_EQ(r["error"]["message"], "gone");
    TVTLCustomRestService::AddExceptionToJsonResult(std::runtime_error("boom"), r);
    EXPECT_EQ(r["error"]["status"], 500);
    TVTLCustomRestService::AddRecordInfoToJsonResult("{R}", "{S}", 7, r);
    TVTLCustomRestService::AddRecordInfoToJsonResult("", "{T}", 8, r);
    EXPECT_EQ(r["record_info"].size(), 2u);
    EXPECT_EQ(r["record_info"][1]["dbid"], 8);
    // Without a request nothing is armed and there is no session.
    EXPECT_NO_THROW(TVTLCustomRestService::CheckAndSimulateMethodeError());
    EXPECT_THROW(TVTLCustomRestService::CheckCurrentSession(), EVTLRestServiceError);

    TServiceDataSettings settings;
    settings.Add({0, "Contacts", 1 << cstDevice, 5});
    TServiceDataSettings::TItem item;
    EXPECT_TRUE(settings.Find(0, "contacts", 1 << cstDevice, item));
    EXPECT_EQ(item.RecordFlagTypes, 5);
    EXPECT_FALSE(settings.Find(0, "contacts", 1 << cstBrowser, item));
    EXPECT_FALSE(settings.Find(1, "contacts", 1 << cstDevice, item));
}

}  // namespace
