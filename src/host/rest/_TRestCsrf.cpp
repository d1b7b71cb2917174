#include "_TRestCsrf.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include "_Tools.h"

namespace docadmin {

TRestCsrf::TRestCsrf() {
    if (RAND_bytes(FKey, sizeof FKey) != 1) throw Exception("No random bytes for the CSRF key");
}

std::string TRestCsrf::TokenFor(const std::string& ASessionToken) const {
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), FKey, sizeof FKey,
         reinterpret_cast<const unsigned char*>(ASessionToken.data()), ASessionToken.size(), mac,
         &length);
    static const char* hex = "0123456789abcdef";
    std::string r;
    for (unsigned int i = 0; i < length; ++i) {
        r += hex[mac[i] >> 4];
        r += hex[mac[i] & 15];
    }
    return r;
}

bool TRestCsrf::IsSafeMethod(const std::string& AMethod) {
    return AMethod == "GET" || AMethod == "HEAD" || AMethod == "OPTIONS";
}

bool TRestCsrf::UsesBearer(const THTTPRequest& ARequest) {
    const std::string auth = ARequest.Header("Authorization");
    return auth.size() > 7 && LowerCase(auth.substr(0, 7)) == "bearer ";
}

std::string TRestCsrf::Refusal(const THTTPRequest& ARequest,
                               const std::string& ASessionToken) const {
    if (IsSafeMethod(ARequest.Method)) return {};
    static const std::string kCrossSite = "Cross-site request refused";
    if (LowerCase(ARequest.Header("Sec-Fetch-Site")) == "cross-site") return kCrossSite;
    const std::string origin = ARequest.Header("Origin");
    if (!origin.empty()) {
        std::string host = origin;
        for (const char* scheme : {"http://", "https://"})
            if (LowerCase(host).starts_with(scheme)) host = host.substr(std::string(scheme).size());
        if (host == origin || LowerCase(host) != LowerCase(ARequest.Header("Host")))
            return kCrossSite;
    }
    if (ASessionToken.empty() || UsesBearer(ARequest)) return {};
    const std::string sent = ARequest.Header(HeaderName);
    const std::string expected = TokenFor(ASessionToken);
    if (sent.size() != expected.size() ||
        CRYPTO_memcmp(sent.data(), expected.data(), expected.size()) != 0)
        return "Missing or wrong CSRF token";
    return {};
}

}  // namespace docadmin
