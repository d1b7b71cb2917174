// The remote client's paging, resuming and error handling against a small fake documents service
// on the host's HTTP server: the fake serves one document with the service's chunk rules and
// fails the requests a case names. (End to end against serve: remote_verbs_test.sh.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <random>

#include "_Classes.h"
#include "_THTTPServer.h"
#include "_Tools.h"
#include "remote_client.h"

namespace docadmin::app {
namespace {

enum class TFault { None, Status500, Garbled, WrongPosition, NotFound, SessionEnded };

class TFakeService {
  public:
    explicit TFakeService(std::string ADocument) : FDocument(std::move(ADocument)) {
        THTTPServerOptions o;
        o.Port = 0;
        o.WorkerThreads = 1;
        FServer = std::make_unique<THTTPServer>(
            o, [this](THTTPRequest&& r, THTTPResponder d) { d(Handle(r)); });
        FServer->Start();
    }
    std::string URL() const { return "http://127.0.0.1:" + std::to_string(FServer->Port()); }

    std::mutex Lock;
    std::map<int, TFault> Faults;         // by number of the download request, from 1
    std::vector<std::int64_t> Positions;  // of each download request
    std::int64_t Downloads = 0;
    int Logins = 0;

  private:
    THTTPResponse Handle(const THTTPRequest& r) {
        std::lock_guard lock(Lock);
        THTTPResponse a;
        if (r.Path == "/login") {
            if (TJson::parse(r.Body).value("password", "") != "secret") {
                a.Status = 401;
                a.Body = R"({"error":{"status":401,"message":"Invalid user name or password"}})";
                return a;
            }
            FToken = "t" + std::to_string(++Logins);
            a.Body = TJson{{"session", FToken}}.dump();
            return a;
        }
        if (r.Header("Authorization") != "Bearer " + FToken) {
            a.Status = 401;
            a.Body = R"({"error":{"status":401,"message":"No valid session"}})";
            return a;
        }
        const TJson in = TJson::parse(r.Body);
        const std::int64_t pos = in["Chunk"].value("position", std::int64_t{0});
        const std::int64_t size = in["Chunk"].value("size", std::int64_t{-1});
        Positions.push_back(pos);
        const TFault fault = Faults.count(++Downloads) ? Faults[Downloads] : TFault::None;
        if (fault == TFault::SessionEnded) FToken = "ended";
        if (fault == TFault::Status500 || fault == TFault::SessionEnded) {
            a.Status = fault == TFault::Status500 ? 500 : 401;
            a.Body = R"({"error":{"status":500,"message":"boom"}})";
            return a;
        }
        if (fault == TFault::NotFound) {
            a.Body = R"({"MethodResult":false,"ResultInfo":{"error":{"status":404,)"
                     R"("message":"Provided document not found or permission denied!"}}})";
            return a;
        }
        const auto from = static_cast<std::size_t>(std::min<std::int64_t>(pos, Size()));
        const std::string bytes = FDocument.substr(from, static_cast<std::size_t>(size));
        TMemoryStream m;
        m.WriteBuffer(bytes.data(), static_cast<std::int64_t>(bytes.size()));
        m.SetPosition(0);
        std::string content = MIMEEncodeRawByteStr(m, -1);
        if (fault == TFault::Garbled && !content.empty()) content[0] = '*';
        const TJson info = {
            {"chunk",
             {{"position", fault == TFault::WrongPosition ? pos + 1 : pos}, {"size", size}}},
            {"server_dbid", 7},
            {"name", "a.txt"},
            {"converted", false},
            {"content", content},
            {"content--encoding", "Base64"}};
        a.Body = TJson{{"MethodResult", true}, {"ResultInfo", info}}.dump();
        return a;
    }
    std::int64_t Size() const { return static_cast<std::int64_t>(FDocument.size()); }

    std::string FDocument;
    std::string FToken;
    std::unique_ptr<THTTPServer> FServer;
};

struct TStringSink : TDownloadSink {
    std::string Data;
    void Write(const std::string& ABytes) override { Data += ABytes; }
    void Restart() override { Data.clear(); }
};

TEST(RemoteDownload, PagesResumesAndFails) {
    using F = TFault;
    struct TCase {
        const char* Name;
        std::size_t DocSize;
        std::int64_t Chunk;
        std::int64_t Expected;  // listed size, -1 unknown, -2 the document's size
        std::string Format;
        std::map<int, TFault> Faults;
        std::vector<std::int64_t> Positions;  // the positions asked for, in order
        int Status = -1;                      // the failure's status; -1 for success
    };
    // clang-format off
    const TCase cases[] = {
        {"Pages", 10, 4, -1, "", {}, {0, 4, 8}},
        // Whole chunks: the listed size ends the download without an empty last call.
        {"WholeChunksListed", 8, 4, -2, "", {}, {0, 4}},
        {"WholeChunksUnlisted", 8, 4, -1, "", {}, {0, 4, 8}},
        {"Empty", 0, 4, -2, "", {}, {0}},
        // A failed chunk is asked for again at the same position.
        {"Resume500", 10, 4, -2, "", {{2, F::Status500}}, {0, 4, 4, 8}},
        {"ResumeGarbled", 10, 4, -2, "", {{3, F::Garbled}}, {0, 4, 8, 8}},
        {"ResumeWrongPosition", 10, 4, -2, "", {{2, F::WrongPosition}}, {0, 4, 4, 8}},
        // An ended session is opened again and the chunk repeated.
        {"SessionEnded", 10, 4, -2, "", {{2, F::SessionEnded}}, {0, 4, 4, 8}},
        // A converted download starts again from 0.
        {"ConvertedRestarts", 10, 4, -1, ".pdf", {{2, F::Status500}}, {0, 4, 0, 4, 8}},
        // Starting again doesn't renew the attempts of a chunk that keeps failing.
        {"ConvertedGivesUp", 10, 4, -1, ".pdf", {{2, F::Status500}, {4, F::Status500}, {6, F::Status500}}, {0, 4, 0, 4, 0, 4}, 500},
        // Not retried: a refusal; retried a bounded number of times: a failing server.
        {"NotFound", 10, 4, -2, "", {{2, F::NotFound}}, {0, 4}, 404},
        {"GivesUp", 10, 4, -2, "", {{2, F::Status500}, {3, F::Status500}, {4, F::Status500}}, {0, 4, 4, 4}, 500},
        // The listing's size is a promise: more or fewer bytes fail.
        {"ShorterThanListed", 10, 4, 12, "", {}, {0, 4, 8}, 0},
        {"LongerThanListed", 10, 4, 6, "", {}, {0, 4}, 0},
    };
    // clang-format on
    for (const TCase& c : cases) {
        SCOPED_TRACE(c.Name);
        std::string doc;
        for (std::size_t i = 0; i < c.DocSize; ++i)
            doc += static_cast<char>(i * 7 + 1);  // every byte value, zeros included
        TFakeService fake(doc);
        fake.Faults = c.Faults;
        TRemoteClientOptions o;
        o.Retries = 2;
        o.RetryDelay = std::chrono::milliseconds(1);
        TRemoteClient client(fake.URL(), o);
        client.Login("u", "secret");
        TDownloadRequest req;
        req.StorageUID = "{S}";
        req.SchemaName = "contacts";
        req.RecordUID = "{R}";
        req.ServerDBID = 7;
        req.ChunkSize = c.Chunk;
        req.Format = c.Format;
        req.ExpectedSize = c.Expected == -2 ? static_cast<std::int64_t>(c.DocSize) : c.Expected;
        TStringSink sink;
        if (c.Status >= 0) {
            try {
                client.Download(req, sink);
                ADD_FAILURE() << "no failure";
            } catch (const ERemoteError& e) {
                EXPECT_EQ(e.Status(), c.Status) << e.what();
            } catch (const Exception& e) {
                EXPECT_EQ(0, c.Status) << e.what();  // the size checks raise plain exceptions
            }
        } else {
            const TDownloadResult r = client.Download(req, sink);
            EXPECT_EQ(sink.Data, doc);
            EXPECT_EQ(r.Bytes, static_cast<std::int64_t>(doc.size()));
            EXPECT_EQ(r.Name, "a.txt");
            // A renewed session repeats its request without counting as a retry.
            EXPECT_EQ(r.Retries, std::count_if(c.Faults.begin(), c.Faults.end(), [](const auto& f) {
                          return f.second != TFault::SessionEnded;
                      }));
        }
        EXPECT_EQ(fake.Positions, c.Positions);
    }
}

TEST(RemoteClient, WrongPasswordAndNoServer) {
    TFakeService fake("x");
    TRemoteClient client(fake.URL());
    try {
        client.Login("u", "wrong");
        ADD_FAILURE() << "logged in";
    } catch (const ERemoteError& e) {
        EXPECT_EQ(e.Status(), 401);
        EXPECT_STREQ(e.what(), "Wrong user name or password");
    }
    EXPECT_THROW(TRemoteClient("ftp://x"), ERemoteError);
    try {
        TRemoteClient("http://127.0.0.1:1").Login("u", "p");
        ADD_FAILURE() << "no server answered";
    } catch (const ERemoteError& e) {
        EXPECT_EQ(e.Status(), 0);
        EXPECT_TRUE(e.Transient());
    }
}

// Base64 bit by bit, to check the table-driven encoder against.
std::string ReferenceBase64(const std::string& ABytes) {
    const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string r;
    for (std::size_t bit = 0; bit < ABytes.size() * 8; bit += 6) {
        int v = 0;
        for (std::size_t b = bit; b < bit + 6; ++b)
            v = v << 1 | (b < ABytes.size() * 8 ? (ABytes[b / 8] >> (7 - b % 8)) & 1 : 0);
        r += alphabet[v];
    }
    return r + std::string((4 - r.size() % 4) % 4, '=');
}

TEST(RemoteClient, Base64AndAnswerSplitting) {
    // Every length around the encoder's and decoder's steps, and one large text.
    std::mt19937 random(7);
    std::vector<std::string> samples;
    for (const std::size_t n : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 12, 13, 14, 17, 100, 100001}) {
        std::string s(n, '\0');
        for (char& c : s)
            c = static_cast<char>(random());
        samples.push_back(s);
    }
    for (const std::string& s : samples) {
        TMemoryStream m;
        m.WriteBuffer(s.data(), static_cast<std::int64_t>(s.size()));
        m.SetPosition(0);
        const std::string b64 = MIMEEncodeRawByteStr(m, -1);
        ASSERT_EQ(b64, ReferenceBase64(s)) << s.size();
        std::string bytes = "left over";
        Base64DecodeStrict(b64.data(), b64.size(), bytes);
        EXPECT_EQ(bytes, s) << s.size();
        EXPECT_EQ(MIMEDecodeRawByteStr(b64), s) << s.size();
    }
    std::string bytes;
    for (const char* bad : {"QQ", "Q===", "QQ=A", "Q Q=", "QUJ\n"})
        EXPECT_THROW(Base64DecodeStrict(bad, std::strlen(bad), bytes), EConvertError) << bad;

    const auto split = [&](std::string ABody) { return SplitChunkAnswer(ABody, bytes); };
    // Indented answers and a name that looks like the key are cut right.
    TJson j = split(
        "{\"MethodResult\": true, \"ResultInfo\": {\"name\": \"\\\"content\\\": \\\"x\", "
        "\"content\" : \"QUJD\", \"content--encoding\": \"Base64\"}}");
    EXPECT_EQ(bytes, "ABC");
    EXPECT_EQ(j["ResultInfo"]["name"], "\"content\": \"x");
    EXPECT_FALSE(j["ResultInfo"].contains("content"));
    // An escaped content (legal JSON, never sent) is taken from the parser.
    split(R"({"MethodResult":true,"ResultInfo":{"content":"QU\/D"}})");
    EXPECT_EQ(bytes, MIMEDecodeRawByteStr("QU/D"));
    for (const char* bad : {R"({"MethodResult":true,"ResultInfo":{"content":"QU)",
                            R"({"MethodResult":true,"ResultInfo":{"content":"QU!D"}})"})
        EXPECT_THROW(split(bad), ERemoteError) << bad;
    EXPECT_EQ(ServerErrorMessage(R"({"error":{"status":400,"message":"bad"}})"), "bad");
    EXPECT_EQ(
        ServerErrorMessage(R"({"MethodResult":false,"ResultInfo":{"error":{"message":"m"}}})"),
        "m");
}

}  // namespace
}  // namespace docadmin::app
