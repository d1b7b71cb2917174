// Shared helpers of the container tests: deterministic data, temporary files, and a reader of
// the container format that uses nothing of the code under test.
#pragma once

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "_TECLFileStream.h"
#include "host/test_helpers.h"

namespace docadmin::testing {

using Bytes = std::vector<std::uint8_t>;

constexpr std::int32_t kFast = 524288;  // block size of zlibFastest

// A memory stream holding the bytes.
inline std::shared_ptr<TMemoryStream> InMemory(const Bytes& b) {
    auto m = std::make_shared<TMemoryStream>();
    if (!b.empty()) m->WriteBuffer(b.data(), static_cast<std::int64_t>(b.size()));
    return m;
}

// The container of the data at the level, written block by block.
inline Bytes Pack(const Bytes& data, TECLCompressionLevel level = zlibFastest) {
    TMemoryStream mem;
    TECLStream s(&mem, true, "", level, 0);
    s.LoadFromStream(*InMemory(data));
    return mem.Data();
}

// Text-like, compressible bytes followed by random ones, reproducible from the seed.
inline Bytes MixedData(std::size_t n, std::uint32_t seed = 1) {
    std::mt19937 rng(seed);
    Bytes b(n);
    static const char* words[] = {"document ", "archive ", "store ", "block ", "record\n", "zlib "};
    std::size_t i = 0;
    for (; i < n / 2;) {
        const char* w = words[rng() % 6];
        for (; *w && i < n / 2; ++w)
            b[i++] = static_cast<std::uint8_t>(*w);
    }
    for (; i < n; ++i)
        b[i] = static_cast<std::uint8_t>(rng());
    return b;
}

inline Bytes RandomData(std::size_t n, std::uint32_t seed = 7) {
    std::mt19937 rng(seed);
    Bytes b(n);
    for (auto& c : b)
        c = static_cast<std::uint8_t>(rng());
    return b;
}

inline Bytes ReadAll(const std::filesystem::path& p) {
    std::ifstream f(p, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), {});
}

inline void WriteAll(const std::filesystem::path& p, const Bytes& b) {
    std::ofstream f(p, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

using docadmin::test::MessageOf;
using docadmin::test::TTempDir;

inline std::uint32_t U32At(const Bytes& b, std::size_t off) {
    return static_cast<std::uint32_t>(b[off]) | static_cast<std::uint32_t>(b[off + 1]) << 8 |
           static_cast<std::uint32_t>(b[off + 2]) << 16 |
           static_cast<std::uint32_t>(b[off + 3]) << 24;
}

inline void PutU32At(Bytes& b, std::size_t off, std::uint32_t v) {
    for (int k = 0; k < 4; ++k)
        b[off + static_cast<std::size_t>(k)] = static_cast<std::uint8_t>(v >> (8 * k));
}

// Bit by bit: reflected polynomial 0xEDB88320, register starting at 0, no final complement.
inline std::uint32_t ReferenceBlockCrc(const std::uint8_t* p, std::size_t n) {
    std::uint32_t crc = 0;
    for (std::size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return crc;
}

struct RawBlock {
    std::uint32_t pos, packedSize, trueSize, crc, next;
};

// Reads a container by its layout alone: stream header, chained block headers, plain zlib
// inflate of each block's bytes at its offset, and the reference CRC. Fails the test on any
// inconsistency.
inline Bytes IndependentRead(const Bytes& file, std::vector<RawBlock>* blocks = nullptr) {
    Bytes out;
    EXPECT_GE(file.size(), 128u);
    if (file.size() < 128) return out;
    EXPECT_EQ(std::memcmp(file.data(), "AACS", 4), 0);
    const std::uint32_t numBlocks = U32At(file, 12);
    const std::uint32_t custom = U32At(file, 23);
    std::uint32_t pos = 128 + custom;
    for (std::uint32_t i = 0; i < numBlocks; ++i) {
        RawBlock rb{pos, U32At(file, pos), U32At(file, pos + 4), U32At(file, pos + 8),
                    U32At(file, pos + 12)};
        EXPECT_LE(std::size_t{pos} + 16 + rb.packedSize, file.size()) << "block " << i;
        if (std::size_t{pos} + 16 + rb.packedSize > file.size()) break;
        Bytes plain(rb.trueSize);
        uLongf len = rb.trueSize;
        EXPECT_EQ(::uncompress(plain.data(), &len, file.data() + pos + 16, rb.packedSize), Z_OK)
            << "block " << i;
        EXPECT_EQ(len, rb.trueSize) << "block " << i;
        EXPECT_EQ(ReferenceBlockCrc(plain.data(), plain.size()), rb.crc) << "block " << i;
        out.insert(out.end(), plain.begin(), plain.begin() + static_cast<std::ptrdiff_t>(len));
        if (blocks) blocks->push_back(rb);
        pos = rb.next;
    }
    return out;
}

}  // namespace docadmin::testing
