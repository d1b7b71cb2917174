// The on-disk layout: header fields, block geometry, chaining, CRC and what counts as plain.
#include <gtest/gtest.h>

#include "_ECLZlib.h"
#include "_TECLFileStream.h"
#include "compression_test_util.h"

namespace docadmin {
namespace {

using namespace docadmin::testing;

TEST(ECLFormatTest, BlockCrcIsReflectedFromZeroWithoutComplement) {
    const std::string s = "123456789";
    const auto* p = reinterpret_cast<const std::uint8_t*>(s.data());
    // The usual CRC-32 of "123456789" is CBF43926; starting from 0 without the final
    // complement gives another value, which the bitwise reference pins down.
    EXPECT_EQ(ReferenceBlockCrc(p, s.size()), 0x2DFD2D88u);
    EXPECT_EQ(ECLBlockCrc(p, s.size()), 0x2DFD2D88u);
    const Bytes data = MixedData(100000, 3);
    EXPECT_EQ(ECLBlockCrc(data.data(), data.size()), ReferenceBlockCrc(data.data(), data.size()));
    EXPECT_EQ(ECLBlockCrc(p, 0), 0u);
}

TEST(ECLFormatTest, EmptyStreamIsJustTheHeader) {
    TTempDir dir;
    { TECLFileStream s(dir / "e.ecl", fmCreate, "", zlibMax, 0); }
    const Bytes f = ReadAll(dir / "e.ecl");
    ASSERT_EQ(f.size(), 128u);
    EXPECT_EQ(std::string(f.begin(), f.begin() + 4), "AACS");
    EXPECT_EQ(U32At(f, 4), 1572864u);      // BlockSize
    EXPECT_EQ(U32At(f, 8), 0u);            // Crc32
    EXPECT_EQ(U32At(f, 12), 0u);           // NumBlocks
    EXPECT_EQ(U32At(f, 16), 0x40400000u);  // 3.0f
    EXPECT_EQ(f[20], zlibMax);
    EXPECT_EQ(f[21], 0);
    EXPECT_EQ(f[22], 0);
    EXPECT_EQ(U32At(f, 23), 0u);
    for (std::size_t i = 27; i < 128; ++i)
        ASSERT_EQ(f[i], 0) << i;
    TECLFileStream r(dir / "e.ecl", fmShareDenyWrite, "", zlibMax, 0);
    EXPECT_EQ(r.CompressionLevel(), zlibMax);
    EXPECT_EQ(r.Size(), 0);
    EXPECT_EQ(r.GetCompressionRate(), 0.0);
}

TEST(ECLFormatTest, ThreeMillionBytesMakeTwoBlocksAndComeBack) {
    TTempDir dir;
    const Bytes data = MixedData(3000000);
    WriteAll(dir / "in", data);
    {
        TECLFileStream s(dir / "c.ecl", fmCreate, "", zlibMax, 0);
        s.LoadFromFile(dir / "in");
        EXPECT_EQ(s.Size(), 3000000);
        EXPECT_GT(s.GetCompressionRate(), 0.0);
    }
    const Bytes f = ReadAll(dir / "c.ecl");
    std::vector<RawBlock> blocks;
    EXPECT_EQ(IndependentRead(f, &blocks), data);
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(U32At(f, 12), 2u);
    EXPECT_EQ(blocks[0].pos, 128u);
    EXPECT_EQ(blocks[0].trueSize, 1572864u);
    EXPECT_EQ(blocks[1].trueSize, 1427136u);
    EXPECT_EQ(blocks[0].next, blocks[0].packedSize + 128 + 16);
    EXPECT_EQ(blocks[1].pos, blocks[0].next);
    EXPECT_EQ(blocks[1].next, blocks[0].next + blocks[1].packedSize + 16);
    EXPECT_EQ(f.size(), blocks[1].next);

    TECLFileStream r(dir / "c.ecl", fmShareDenyWrite, "", zlibMax, 0);
    EXPECT_EQ(r.GetPackedSize(), 128 + blocks[0].packedSize + blocks[1].packedSize);
    EXPECT_DOUBLE_EQ(r.GetCompressionRate(),
                     100.0 * (1.0 - static_cast<double>(r.GetPackedSize()) / 3000000.0));
    r.SaveToFile(dir / "out");
    EXPECT_EQ(ReadAll(dir / "out"), data);
}

TEST(ECLFormatTest, BlockBoundaryDecidesTheBlockCount) {
    ASSERT_EQ(ECLBlockSizeOf(zlibFastest), kFast);
    const std::uint32_t bs = kFast;
    for (const std::uint32_t len : {bs, bs + 1}) {
        SCOPED_TRACE(len);
        const Bytes data = MixedData(len, 5);
        std::vector<RawBlock> blocks;
        EXPECT_EQ(IndependentRead(Pack(data), &blocks), data);
        ASSERT_EQ(blocks.size(), len == bs ? 1u : 2u);
        EXPECT_EQ(blocks.back().trueSize, len == bs ? bs : 1u);
    }
}

TEST(ECLFormatTest, ShortOrUnsignedFilesArePlain) {
    TTempDir dir;
    Bytes shortFile = {'A', 'A', 'C', 'S'};
    shortFile.resize(100, 'x');
    Bytes longFile = MixedData(10000, 9);
    longFile[0] = 'N';
    for (const Bytes& content : {shortFile, longFile, Bytes{}}) {
        WriteAll(dir / "plain", content);
        TECLFileStream s(dir / "plain", fmShareDenyWrite, "", zlibMax, 0);
        EXPECT_EQ(s.CompressionLevel(), eclNone);
        EXPECT_EQ(s.InnerStream()->CompressionLevel(), eclNone);
        EXPECT_EQ(s.Size(), static_cast<std::int64_t>(content.size()));
        EXPECT_EQ(s.GetPackedSize(), static_cast<std::int64_t>(content.size()));
        EXPECT_EQ(s.GetCompressionRate(), 0.0);
        Bytes back(content.size() + 10);
        EXPECT_EQ(s.Read(back.data(), static_cast<std::int32_t>(back.size())),
                  static_cast<std::int32_t>(content.size()));
        back.resize(content.size());
        EXPECT_EQ(back, content);
        s.SaveToFile(dir / "copy");
        EXPECT_EQ(ReadAll(dir / "copy"), content);
    }
}

TEST(ECLFormatTest, EveryZlibLevelRoundTripsWithItsBlockSize) {
    const Bytes data = MixedData(2500000, 11);
    for (TECLCompressionLevel level : {zlibFastest, zlibNormal, zlibMax}) {
        SCOPED_TRACE(ECLLevelName(level));
        TMemoryStream mem, out;
        TECLStream s(&mem, true, "", level, 0);
        s.LoadFromStream(*InMemory(data));
        s.SaveToStream(out);
        EXPECT_EQ(out.Data(), data);
        EXPECT_EQ(U32At(mem.Data(), 4), static_cast<std::uint32_t>(ECLBlockSizeOf(level)));
        EXPECT_EQ(mem.Data()[20], level);
        EXPECT_EQ(IndependentRead(mem.Data()), data);
    }
    // Level 0 writes no header at all: the file is the plain data.
    const Bytes head(data.begin(), data.begin() + 1000);
    EXPECT_EQ(Pack(head, eclNone), head);
}

TEST(ECLFormatTest, LevelsWithoutCompressorFail) {
    for (TECLCompressionLevel level :
         {ppmNormal, ppmMax, ppmFastest, bzipFastest, bzipNormal, bzipMax}) {
        SCOPED_TRACE(ECLLevelName(level));
        TMemoryStream mem;
        TECLStream s(&mem, true, "", level, 0);
        EXPECT_EQ(s.CompressionLevel(), level);
        EXPECT_EQ(U32At(mem.Data(), 4), static_cast<std::uint32_t>(ECLBlockSizeOf(level)));
        EXPECT_EQ(MessageOf([&] { s.WriteBuffer("abc", 3); }),
                  "TECLStream.PrepareBufferForWriting - compression error in PrepareBuffer.");
    }
    // A zlib block in a file that names an unavailable level cannot be read.
    Bytes f = Pack({'h', 'e', 'l', 'l', 'o'}, zlibMax);
    f[20] = ppmMax;
    auto damaged = InMemory(f);
    TECLStream s(damaged.get(), false, "", zlibMax, 0);
    EXPECT_EQ(s.Size(), 5);
    char buf[5];
    EXPECT_EQ(MessageOf([&] { s.Read(buf, 5); }),
              "TECLStream.LoadBlock - decompression error. Block 1 of 1 is damaged.");
}

// Chain pointers are 32-bit: a container that would need a larger offset is refused, whether it
// is loaded block by block, on worker threads or written at once.
TEST(ECLFormatTest, OffsetsBeyondTheFormatsLimitAreRefused) {
    const std::uint64_t saved = TECLStream::MaxFileOffset;
    TFinally restore{[saved] { TECLStream::MaxFileOffset = saved; }};
    TECLStream::MaxFileOffset = 600000;
    const Bytes data = RandomData(700000);  // incompressible: two blocks, the second too far
    for (unsigned threads : {1u, 4u}) {
        TMemoryStream mem;
        TECLStream s(&mem, true, "", zlibFastest, 0);
        s.SetThreads(threads);
        EXPECT_THROW(s.LoadFromStream(*InMemory(data)), EECLSizeLimit) << threads;
    }
    TMemoryStream mem;
    TECLStream s(&mem, true, "", zlibFastest, 0);
    EXPECT_THROW(s.WriteBuffer(data.data(), static_cast<std::int64_t>(data.size())), EECLSizeLimit);
}

TEST(ECLFormatTest, ParallelLoadWritesTheSequentialBytes) {
    const std::int32_t bs = ECLBlockSizeOf(zlibMax);
    for (const std::size_t len : {std::size_t{0}, std::size_t{10}, std::size_t(bs),
                                  std::size_t(3 * bs), std::size_t(5 * bs + 12345)}) {
        const Bytes data = MixedData(len, static_cast<std::uint32_t>(len));
        Bytes written[2];
        std::vector<double> progress[2];
        for (int k = 0; k < 2; ++k) {
            TMemoryStream mem;
            TECLStream s(&mem, true, "", zlibMax, 16);
            s.SetThreads(k == 0 ? 1 : 3);
            s.OnProgress = [&, k](TObject*, double p) { progress[k].push_back(p); };
            s.LoadFromStream(*InMemory(data));
            written[k] = mem.Data();
            EXPECT_EQ(s.Size(), static_cast<std::int64_t>(len));
        }
        EXPECT_EQ(written[0], written[1]) << len;
        EXPECT_EQ(progress[0], progress[1]) << len;
        EXPECT_EQ(IndependentRead(written[1]), data) << len;
    }
}

TEST(ECLFormatTest, CustomHeaderShiftsTheFirstBlock) {
    TMemoryStream mem;
    TECLStream s(&mem, true, "", zlibFastest, 40);
    EXPECT_EQ(s.CustomHeaderSize(), 40);
    EXPECT_EQ(mem.Size(), 168);
    s.WriteBuffer("payload", 7);
    std::vector<RawBlock> blocks;
    const Bytes plain = IndependentRead(mem.Data(), &blocks);
    EXPECT_EQ(std::string(plain.begin(), plain.end()), "payload");
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].pos, 168u);
    EXPECT_EQ(blocks[0].next, 168u + 16 + blocks[0].packedSize);
}

TEST(ECLFormatTest, MissingStreamIsRefused) {
    EXPECT_EQ(MessageOf([] { TECLStream s(nullptr, true, "", zlibMax, 0); }),
              "TECLStream.Create - data stream = nil.");
    EXPECT_EQ(MessageOf([] { TECLBaseStream s(nullptr); }),
              "TECLBaseStream.Create - Stream = nil.");
}

}  // namespace
}  // namespace docadmin
