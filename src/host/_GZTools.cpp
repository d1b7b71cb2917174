#include "_GZTools.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdint>
#include <vector>

namespace docadmin {

namespace {

// How much of a file's start the trial inflates. Random or text bytes behind a lucky header fail
// within a few bytes; a real stream decodes this far without complaint.
constexpr size_t kProbeBytes = 64 * 1024;

bool LooksLikeGzipHeader(const std::uint8_t* p, size_t n) {
    // ID1 ID2 CM=8 (deflate); flag bits 5..7 are reserved and must be 0.
    return n >= 10 && p[0] == 0x1F && p[1] == 0x8B && p[2] == 8 && (p[3] & 0xE0) == 0;
}

bool LooksLikeZlibHeader(const std::uint8_t* p, size_t n) {
    // CMF: method 8, window at most 32 KiB; FLG: check bits, no preset dictionary.
    if (n < 2) return false;
    const unsigned cmf = p[0], flg = p[1];
    return (cmf & 0x0F) == 8 && (cmf >> 4) <= 7 && (cmf * 256 + flg) % 31 == 0 && (flg & 0x20) == 0;
}

}  // namespace

bool IsCompressedGZFile(const std::string& FileName) {
    const int fd = ::open(FileName.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    std::vector<std::uint8_t> probe(kProbeBytes + 1);
    size_t have = 0;
    while (have < probe.size()) {
        const ssize_t r = ::read(fd, probe.data() + have, probe.size() - have);
        if (r < 0) {
            ::close(fd);
            return false;
        }
        if (r == 0) break;
        have += static_cast<size_t>(r);
    }
    ::close(fd);
    // One byte more than the probe tells whether the file continues behind it.
    const bool wholeFile = have <= kProbeBytes;
    if (!wholeFile) have = kProbeBytes;

    if (!LooksLikeGzipHeader(probe.data(), have) && !LooksLikeZlibHeader(probe.data(), have))
        return false;

    z_stream zs{};
    // 15 + 32: largest window, gzip or zlib wrapper detected from the header.
    if (inflateInit2(&zs, 15 + 32) != Z_OK) return false;
    zs.next_in = probe.data();
    zs.avail_in = static_cast<uInt>(have);
    std::vector<std::uint8_t> out(256 * 1024);
    int rc = Z_OK;
    while (rc == Z_OK) {
        zs.next_out = out.data();
        zs.avail_out = static_cast<uInt>(out.size());
        rc = inflate(&zs, Z_NO_FLUSH);
        // Z_BUF_ERROR: no progress possible, i.e. the probe is used up.
        if (rc == Z_OK && zs.avail_in == 0 && zs.avail_out != 0) break;
    }
    inflateEnd(&zs);
    if (rc == Z_STREAM_END) return true;
    if (rc != Z_OK && rc != Z_BUF_ERROR) return false;  // data error, dictionary, memory
    // The trial ran out of input without an error. That is a stream only if more file follows.
    return !wholeFile;
}

}  // namespace docadmin
