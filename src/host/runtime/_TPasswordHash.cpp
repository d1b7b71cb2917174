#include "_TPasswordHash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdint>
#include <vector>

#include "_SysUtils.h"

namespace docadmin {

namespace {

constexpr const char* kScheme = "pbkdf2-sha256";
constexpr size_t kSaltBytes = 16;
constexpr size_t kKeyBytes = 32;
// Guards against a stored count that would make a login hang.
constexpr long kMaxIterations = 10'000'000;

std::string ToHex(const std::vector<unsigned char>& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(bytes.size() * 2);
    for (unsigned char b : bytes) {
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}

bool FromHex(const std::string& s, std::vector<unsigned char>& out) {
    if (s.empty() || s.size() % 2) return false;
    auto val = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    out.clear();
    for (size_t i = 0; i < s.size(); i += 2) {
        const int hi = val(s[i]), lo = val(s[i + 1]);
        if (hi < 0 || lo < 0) return false;
        out.push_back(static_cast<unsigned char>(hi * 16 + lo));
    }
    return true;
}

std::vector<unsigned char> Derive(const std::string& APassword,
                                  const std::vector<unsigned char>& ASalt, int AIterations,
                                  size_t AKeyBytes) {
    std::vector<unsigned char> key(AKeyBytes);
    if (PKCS5_PBKDF2_HMAC(APassword.data(), static_cast<int>(APassword.size()), ASalt.data(),
                          static_cast<int>(ASalt.size()), AIterations, EVP_sha256(),
                          static_cast<int>(key.size()), key.data()) != 1)
        throw Exception("Password hashing failed");
    return key;
}

// The parts of a stored hash; false when the text is not in the format above.
struct TStoredHash {
    long Iterations = 0;
    std::vector<unsigned char> Salt, Key;
};

bool ParseStoredHash(const std::string& AStoredHash, TStoredHash& AOut) {
    // scheme $ iterations $ salt $ key
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        const size_t p = AStoredHash.find('$', start);
        parts.push_back(AStoredHash.substr(start, p == std::string::npos ? p : p - start));
        if (p == std::string::npos) break;
        start = p + 1;
    }
    if (parts.size() != 4 || parts[0] != kScheme) return false;
    long iterations = 0;
    for (char c : parts[1]) {
        if (c < '0' || c > '9' || iterations > kMaxIterations) return false;
        iterations = iterations * 10 + (c - '0');
    }
    if (parts[1].empty() || iterations < 1 || iterations > kMaxIterations) return false;
    AOut.Iterations = iterations;
    return FromHex(parts[2], AOut.Salt) && FromHex(parts[3], AOut.Key);
}

}  // namespace

std::string HashPassword(const std::string& APassword, int AIterations) {
    if (AIterations < 1 || AIterations > kMaxIterations)
        throw EArgumentException("Password hash iterations out of range");
    std::vector<unsigned char> salt(kSaltBytes);
    if (RAND_bytes(salt.data(), static_cast<int>(salt.size())) != 1)
        throw Exception("No random bytes for a password salt");
    const auto key = Derive(APassword, salt, AIterations, kKeyBytes);
    return std::string(kScheme) + "$" + std::to_string(AIterations) + "$" + ToHex(salt) + "$" +
           ToHex(key);
}

bool VerifyPassword(const std::string& APassword, const std::string& AStoredHash) {
    TStoredHash h;
    if (!ParseStoredHash(AStoredHash, h)) return false;
    const auto derived = Derive(APassword, h.Salt, static_cast<int>(h.Iterations), h.Key.size());
    return CRYPTO_memcmp(derived.data(), h.Key.data(), h.Key.size()) == 0;
}

bool PasswordHashNeedsUpgrade(const std::string& AStoredHash, int AIterations) {
    TStoredHash h;
    return !ParseStoredHash(AStoredHash, h) || h.Iterations < AIterations ||
           h.Key.size() < kKeyBytes || h.Salt.size() < kSaltBytes;
}

}  // namespace docadmin
