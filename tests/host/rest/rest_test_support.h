// A started REST server on a free loopback port over a host on a fresh database (SQLite, or a
// schema of its own on the test PostgreSQL server), and a small blocking HTTP client on plain
// sockets (so that tests can also send broken requests).
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "_THost.h"
#include "_TVTLRestServer.h"
#include "host/db/db_test_support.h"
#include "host/test_helpers.h"

namespace docadmin::test {

inline std::string PercentEncodeForTest(const std::string& AText) {
    static const char* hex = "0123456789ABCDEF";
    std::string r;
    for (unsigned char c : AText) {
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.') {
            r += static_cast<char>(c);
        } else {
            r += '%';
            r += hex[c >> 4];
            r += hex[c & 15];
        }
    }
    return r;
}

struct THTTPAnswer {
    int Status = 0;  // 0 when the connection closed without an answer
    std::string Head;
    std::string Body;
    std::string Header(const std::string& AName) const {
        const std::string key = "\r\n" + LowerCase(AName) + ":";
        const std::string lower = LowerCase(Head);
        const std::size_t p = lower.find(key);
        if (p == std::string::npos) return {};
        const std::size_t b = p + key.size();
        std::string v = Head.substr(b, Head.find("\r\n", b) - b);
        return v.substr(v.find_first_not_of(' '));
    }
};

class TTestClient {
  public:
    explicit TTestClient(std::uint16_t APort) {
        FSocket = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(APort);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(FSocket, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
            throw std::runtime_error("connect failed");
        timeval tv{10, 0};
        setsockopt(FSocket, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~TTestClient() { ::close(FSocket); }

    void SendRaw(const std::string& AData) {
        std::size_t done = 0;
        while (done < AData.size()) {
            const ssize_t n =
                ::send(FSocket, AData.data() + done, AData.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return;
            done += static_cast<std::size_t>(n);
        }
    }
    // Reads one answer (Content-Length framed).
    THTTPAnswer Read() {
        THTTPAnswer a;
        std::size_t headEnd;
        while ((headEnd = FBuffer.find("\r\n\r\n")) == std::string::npos)
            if (!Fill()) return a;
        a.Head = FBuffer.substr(0, headEnd + 2);
        a.Status = std::stoi(a.Head.substr(9, 3));
        const std::size_t length = std::stoul("0" + a.Header("Content-Length"));
        while (FBuffer.size() < headEnd + 4 + length)
            if (!Fill()) break;
        a.Body = FBuffer.substr(headEnd + 4, length);
        FBuffer.erase(0, headEnd + 4 + length);
        return a;
    }
    THTTPAnswer Call(const std::string& AMethod, const std::string& ATarget,
                     const std::string& ABody = "", const std::string& AToken = "",
                     const std::string& AExtraHeaders = "") {
        std::string r = AMethod + " " + ATarget + " HTTP/1.1\r\nHost: test\r\n";
        if (!AToken.empty()) r += "Authorization: Bearer " + AToken + "\r\n";
        r += AExtraHeaders;
        r += "Content-Length: " + std::to_string(ABody.size()) + "\r\n\r\n" + ABody;
        SendRaw(r);
        return Read();
    }

  private:
    bool Fill() {
        char buf[8192];
        const ssize_t n = ::recv(FSocket, buf, sizeof buf, 0);
        if (n <= 0) return false;
        FBuffer.append(buf, static_cast<std::size_t>(n));
        return true;
    }
    int FSocket = -1;
    std::string FBuffer;
};

// A host with users "alice" and "bob" (password "password-1") and a server on a free port.
class TRestServerFixture : public ::testing::Test {
  protected:
    // "sqlite" or "postgresql".
    virtual std::string Backend() const { return "sqlite"; }

    void SetUp() override {
        std::string config = "data_dir = \"" + FDir.string() + "\"\n";
        if (Backend() == "postgresql") {
            DOCADMIN_PG_CONNINFO_OR_SKIP(conninfo);
            FPGSchema = std::make_unique<docadmin::testing::TPGTestSchema>(conninfo);
            config += "[databases.main]\nbackend = \"postgresql\"\nconninfo = \"" +
                      FPGSchema->ConnInfo() + "\"\n";
        }
        FHost = std::make_unique<THost>(TDocAdminConfig::FromString(config, ""), rmServer, 1000);
        TUserInfo u;
        u.UserName = "alice";
        FAlice = FHost->Users().AddUser(u, "password-1");
        u.UserName = "bob";
        FBob = FHost->Users().AddUser(u, "password-1");
        FOptions.HTTP.Port = 0;
        FOptions.HTTP.WorkerThreads = 4;
        FOptions.HTTP.IOThreads = 2;
        FOptions.HTTP.AccessLog = "";
    }
    void TearDown() override {
        FServer.reset();
        FHost.reset();
        FPGSchema.reset();
    }
    void StartServer() {
        FServer = std::make_unique<TVTLRestServer>(*FHost, FOptions);
        FServer->Start();
    }
    std::string Login(const std::string& AUser, int AType = 1) {
        TTestClient c(FServer->Port());
        const auto a = c.Call("POST", "/login",
                              "{\"user\":\"" + AUser + "\",\"password\":\"password-1\"," +
                                  "\"session_type\":" + std::to_string(AType) + "}");
        EXPECT_EQ(a.Status, 200) << a.Body;
        return nlohmann::json::parse(a.Body).value("session", "");
    }
    THTTPAnswer Call(const std::string& AMethod, const std::string& ATarget,
                     const std::string& ABody = "", const std::string& AToken = "") {
        TTestClient c(FServer->Port());
        return c.Call(AMethod, ATarget, ABody, AToken);
    }

    TTempDir FTemp{"rest"};
    const std::filesystem::path FDir = FTemp.Dir();
    std::unique_ptr<docadmin::testing::TPGTestSchema> FPGSchema;
    std::unique_ptr<THost> FHost;
    std::int64_t FAlice = 0;
    std::int64_t FBob = 0;
    TRestServerOptions FOptions;
    std::unique_ptr<TVTLRestServer> FServer;
};

}  // namespace docadmin::test
