// Salted slow password hashes (PBKDF2-HMAC-SHA256 from OpenSSL).
//
// A stored hash reads "pbkdf2-sha256$<iterations>$<salt, hex>$<key, hex>": the iteration count
// travels with the hash, so that a count raised later still verifies old hashes, and a hash made
// with fewer iterations than today's count can be recognised and made again at the next login
// (PasswordHashNeedsUpgrade). The salt is 16 random bytes per hash, the key 32 bytes.
//
// The default of 600,000 iterations is the current advice for PBKDF2-HMAC-SHA256. A memory-hard
// function (scrypt) was not chosen: at its advised cost every login holds 64 MiB or more, which
// lets a burst of logins on the multi-user server exhaust its memory, while PBKDF2 costs CPU time
// only and keeps one format for old and new hashes.
#pragma once

#include <string>

namespace docadmin {

inline constexpr int DefaultPasswordIterations = 600000;

std::string HashPassword(const std::string& APassword, int AIterations = DefaultPasswordIterations);
// True when the password gives the stored hash. A malformed or empty stored text never matches.
// Compares in constant time.
bool VerifyPassword(const std::string& APassword, const std::string& AStoredHash);
// True when a stored hash is weaker than a new one made with AIterations: fewer iterations or
// not in this format.
bool PasswordHashNeedsUpgrade(const std::string& AStoredHash, int AIterations);

}  // namespace docadmin
