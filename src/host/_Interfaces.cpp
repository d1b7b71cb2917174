#include "_Interfaces.h"

#include <openssl/rand.h>

#include <cstdio>

namespace docadmin {

std::string GUIDToString(const TGUID& g) {
    char buf[39];
    std::snprintf(buf, sizeof buf, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.D1, g.D2,
                  g.D3, g.D4[0], g.D4[1], g.D4[2], g.D4[3], g.D4[4], g.D4[5], g.D4[6], g.D4[7]);
    return buf;
}

TGUID StringToGUID(const std::string& text) {
    if (text.size() != 38) throw EConvertError("'" + text + "' is not a valid GUID value");
    try {
        return TGUID::Parse(text.c_str());
    } catch (const char*) {
        throw EConvertError("'" + text + "' is not a valid GUID value");
    }
}

TGUID CreateGUID() {
    unsigned char b[16];
    if (RAND_bytes(b, sizeof b) != 1) throw Exception("CreateGUID: no random bytes available");
    b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);  // version 4
    b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
    TGUID g;
    g.D1 = (std::uint32_t{b[0]} << 24) | (std::uint32_t{b[1]} << 16) | (std::uint32_t{b[2]} << 8) |
           b[3];
    g.D2 = static_cast<std::uint16_t>((b[4] << 8) | b[5]);
    g.D3 = static_cast<std::uint16_t>((b[6] << 8) | b[7]);
    for (int i = 0; i < 8; ++i)
        g.D4[i] = b[8 + i];
    return g;
}

std::string CreateGUIDString() {
    return GUIDToString(CreateGUID());
}

}  // namespace docadmin
