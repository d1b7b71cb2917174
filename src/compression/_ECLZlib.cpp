#include "_ECLZlib.h"

#include <zlib.h>

#include <limits>

namespace docadmin {

std::uint32_t ECLBlockCrc(const std::uint8_t* data, std::size_t len) {
    // zlib's crc32 pre- and post-complements its register. Starting it from all ones makes its
    // internal register start from 0, and complementing its answer undoes the final inversion;
    // what remains is the plain reflected CRC from 0, computed with zlib's fast code.
    uLong crc = 0xFFFFFFFFUL;
    while (len > 0) {
        const auto n = static_cast<uInt>(std::min<std::size_t>(len, 1u << 30));
        crc = ::crc32(crc, data, n);
        data += n;
        len -= n;
    }
    return static_cast<std::uint32_t>(crc ^ 0xFFFFFFFFUL);
}

std::size_t ZCompressBound(std::size_t len) {
    return ::compressBound(static_cast<uLong>(len));
}

void ZCompressBuf(const std::uint8_t* data, std::size_t len, int zlevel,
                  std::vector<std::uint8_t>& out) {
    if (len == 0 || len > std::numeric_limits<uInt>::max() || zlevel < 1 || zlevel > 9)
        throw ECompressionError("error");
    // One deflate state per thread and level, reset between blocks: setting one up allocates a
    // few hundred KiB, which would dominate the cost of packing many small files.
    struct DeflaterCache {
        z_stream zs[10] = {};
        bool ready[10] = {};
        ~DeflaterCache() {
            for (int l = 0; l < 10; ++l)
                if (ready[l]) ::deflateEnd(&zs[l]);
        }
    };
    thread_local DeflaterCache cache;
    z_stream& zs = cache.zs[zlevel];
    if (!cache.ready[zlevel]) {
        if (::deflateInit(&zs, zlevel) != Z_OK) throw ECompressionError("error");
        cache.ready[zlevel] = true;
    } else if (::deflateReset(&zs) != Z_OK) {
        throw ECompressionError("error");
    }
    out.resize(::deflateBound(&zs, static_cast<uLong>(len)));
    zs.next_in = const_cast<Bytef*>(data);
    zs.avail_in = static_cast<uInt>(len);
    zs.next_out = out.data();
    zs.avail_out = static_cast<uInt>(out.size());
    const int rc = ::deflate(&zs, Z_FINISH);
    const uLong produced = zs.total_out;
    if (rc != Z_STREAM_END) throw ECompressionError("error");
    out.resize(produced);
}

TZInflateResult ZDecompressBuf(const std::uint8_t* data, std::size_t len, std::uint8_t* out,
                               std::size_t outLen, std::size_t& produced, bool checkStreamSum) {
    produced = 0;
    if (len == 0 || len > std::numeric_limits<uInt>::max() ||
        outLen > std::numeric_limits<uInt>::max())
        throw EDecompressionError("error");
    z_stream zs{};
    if (::inflateInit(&zs) != Z_OK) throw EDecompressionError("error");
    if (!checkStreamSum) ::inflateValidate(&zs, 0);
    zs.next_in = const_cast<Bytef*>(data);
    zs.avail_in = static_cast<uInt>(len);
    zs.next_out = out;
    zs.avail_out = static_cast<uInt>(outLen);
    int rc = ::inflate(&zs, Z_FINISH);
    produced = zs.total_out;
    TZInflateResult result = TZInflateResult::Exact;
    if (rc == Z_STREAM_END) {
        result = produced == outLen ? TZInflateResult::Exact : TZInflateResult::Shorter;
    } else if ((rc == Z_BUF_ERROR || rc == Z_OK) && zs.avail_out == 0 && zs.avail_in > 0) {
        // The output is full but the stream goes on: it holds more than announced.
        result = TZInflateResult::Longer;
    } else {
        ::inflateEnd(&zs);
        throw EDecompressionError("error");
    }
    ::inflateEnd(&zs);
    return result;
}

}  // namespace docadmin
