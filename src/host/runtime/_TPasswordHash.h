// Salted slow password hashes (PBKDF2-HMAC-SHA256 from OpenSSL).
//
// A stored hash reads "pbkdf2-sha256$<iterations>$<salt, hex>$<key, hex>": the iteration count
// travels with the hash, so that a count raised later still verifies old hashes. The salt is 16
// random bytes per hash, the key 32 bytes.
#pragma once

#include <string>

namespace docadmin {

inline constexpr int DefaultPasswordIterations = 100000;

std::string HashPassword(const std::string& APassword, int AIterations = DefaultPasswordIterations);
// True when the password gives the stored hash. A malformed or empty stored text never matches.
// Compares in constant time.
bool VerifyPassword(const std::string& APassword, const std::string& AStoredHash);

}  // namespace docadmin
