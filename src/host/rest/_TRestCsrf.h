// TRestCsrf: protection of state-changing calls against requests that other sites make the
// browser send.
//
// A browser adds the session cookie by itself, also to a request that a page of another site
// starts. So a call that changes something (any method but GET, HEAD and OPTIONS) and names its
// session only by the cookie must also bring the header "X-CSRF-Token" with the session's token,
// which a page of another site can't read. A call with "Authorization: Bearer" names its session
// explicitly and needs no token. Independently, a request whose "Origin" isn't this server's own
// (the Host it was sent to) or whose "Sec-Fetch-Site" says "cross-site" is refused, logins too.
// The session cookie is SameSite=Strict as well, so these checks are the second line.
//
// The token of a session is an HMAC-SHA256 of the session's token under a key that is random per
// server object, so nothing has to be stored beside the session. Thread-safe after construction.
#pragma once

#include <string>

#include "_THTTPServer.h"

namespace docadmin {

class TRestCsrf {
  public:
    TRestCsrf();

    // The request header that carries the token.
    static constexpr const char* HeaderName = "X-CSRF-Token";

    // The token that cookie-authenticated calls of the session with this token must send.
    std::string TokenFor(const std::string& ASessionToken) const;

    // Why the request must be refused (403), or "" when it may go on. ASessionToken is the
    // token of the request's session, "" for requests without one (logins).
    std::string Refusal(const THTTPRequest& ARequest, const std::string& ASessionToken) const;

    static bool IsSafeMethod(const std::string& AMethod);
    static bool UsesBearer(const THTTPRequest& ARequest);

  private:
    unsigned char FKey[32];
};

}  // namespace docadmin
