// TVTLRestServer: the host's REST application on its HTTP server.
//
// Routes:
//   GET  /health                            no session needed
//   POST /login                             {"user", "password", "session_type"?} -> {"session",
//   ...} POST /logout                            ends the request's session GET  /openapi.json
//   generated from the registrations at start POST /<APIRoot>/<Interface>/<Method>    published API
//   methods GET|POST /records/<schema>, GET|PUT /records/<schema>/<record UID>, GET
//   /filters/<schema>
//
// A session is named by "Authorization: Bearer <token>" or by the cookie "docadmin_session". Its
// token is 256 random bits from OpenSSL. A session that is idle longer than SessionIdleTimeout
// ends; its cache entries are freed on a worker thread. Every request of a session runs on a
// worker as the session's user (the data layer's per-thread user) and never beside another request
// of the same session: it waits its turn in the session's queue.
//
// Logins: a wrong name and a wrong password get the same 401 after the same work (one password
// hash). After LoginThrottleAfter failures for a name or an address, further attempts for it wait
// LoginThrottleDelay, doubled for each further failure up to LoginThrottleMaxDelay, before they are
// looked at; the wait holds no worker. Failures are forgotten after 15 minutes or, for a name, at
// its next successful login.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "_THTTPServer.h"
#include "_THost.h"
#include "_TRestCsrf.h"
#include "_TRestSession.h"
#include "_TStaticFileRoute.h"
#include "_TVTLBIAPIClient.h"
#include "_TVTLCustomRestService.h"

namespace docadmin {

class TDBRecordFlagsPlugin;

struct TRestServerOptions {
    THTTPServerOptions HTTP;
    TRestServiceSettings Service;
    std::chrono::milliseconds SessionIdleTimeout{std::chrono::minutes(30)};
    int LoginThrottleAfter = 5;
    std::chrono::milliseconds LoginThrottleDelay{500};
    std::chrono::milliseconds LoginThrottleMaxDelay{8000};
    // The folder of the page's files served at "/"; empty serves none.
    std::string WebRoot;
};

// The options of the configuration's [server] table.
TRestServerOptions RestServerOptionsFromConfig(const TDocAdminConfig& AConfig);

class TVTLRestServer {
  public:
    // The host must outlive the server.
    TVTLRestServer(THost& AHost, TRestServerOptions AOptions);
    ~TVTLRestServer();

    // Collects the published API, binds and starts serving. Raises Exception when it can't bind.
    void Start();
    // Graceful stop: the HTTP server drains, then every session ends on the calling thread.
    void Shutdown();
    std::uint16_t Port() const { return FHTTP->Port(); }
    THTTPServer& HTTP() { return *FHTTP; }

    int SessionCount();
    const std::string& OpenAPIJson() const { return FOpenAPI; }

  private:
    void Handle(THTTPRequest&& ARequest, THTTPResponder ARespond);
    void Submit(std::function<void()> ATask);
    void HandleLogin(const THTTPRequest& ARequest, const THTTPResponder& ARespond);
    void HandleInSession(TRestSession& ASession, const THTTPRequest& ARequest,
                         const THTTPResponder& ARespond);
    THTTPResponse Route(const THTTPRequest& ARequest);
    // The session's user, kind, idle timeout and CSRF token, as /login and /session answer them.
    TJsonObject SessionJson(TRestSession& ASession) const;
    IPtr<TRestSession> FindSession(const THTTPRequest& ARequest);
    void EndSession(const IPtr<TRestSession>& ASession);
    // Every 10 s: freed memory goes back to the system (see ReleaseFreeHeapMemory).
    void TidyHeaps();
    void SweepSessions();
    std::chrono::milliseconds ThrottleDelay(const std::string& AUser, const std::string& AAddress);
    void NoteLoginResult(const std::string& AUser, const std::string& AAddress, bool ASuccess);
    bool IsKnownRoute(const std::string& APath) const;
    std::string BuildOpenAPI() const;

    THost& FHost;
    TRestServerOptions FOptions;
    std::unique_ptr<TDBRecordFlagsPlugin> FRecordFlags;
    std::unique_ptr<THTTPServer> FHTTP;
    std::map<std::string, TPublishedAPIMethod> FAPI;  // set by Start, then only read
    std::string FOpenAPI;                             // set by Start, then only read
    std::atomic<bool> FStopping{false};
    std::unique_ptr<TStaticFileRoute> FStatic;  // set by Start, then only read
    TRestCsrf FCsrf;

    std::mutex FSessionLock;
    std::map<std::string, IPtr<TRestSession>> FSessions;  // by token; guarded by FSessionLock

    struct TFailures {
        int Count = 0;
        std::chrono::steady_clock::time_point Last;
    };
    std::mutex FThrottleLock;
    std::map<std::string, TFailures> FFailures;  // "u:<name>" / "a:<address>"; FThrottleLock
};

}  // namespace docadmin
