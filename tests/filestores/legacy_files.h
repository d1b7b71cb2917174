// Legacy compressed files as older versions of the system wrote them: one zlib stream with the
// gzip or the zlib wrapper.
#pragma once

#include <zlib.h>

#include <stdexcept>
#include <string>

namespace docadmin::test {

enum class Wrapper { gzip, zlib };

inline std::string DeflateWith(const std::string& plain, Wrapper w, int level = 9) {
    z_stream zs{};
    const int windowBits = w == Wrapper::gzip ? 15 + 16 : 15;
    if (deflateInit2(&zs, level, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("deflateInit2");
    std::string out(deflateBound(&zs, plain.size()) + 64, '\0');
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
    zs.avail_in = static_cast<uInt>(plain.size());
    zs.next_out = reinterpret_cast<Bytef*>(out.data());
    zs.avail_out = static_cast<uInt>(out.size());
    const int rc = deflate(&zs, Z_FINISH);
    out.resize(zs.total_out);
    deflateEnd(&zs);
    if (rc != Z_STREAM_END) throw std::runtime_error("deflate");
    return out;
}

}  // namespace docadmin::test
