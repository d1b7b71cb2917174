// Damaged containers: truncation is repaired where possible, damage fails on its block only
// with the exact texts, and lying sizes never crash or allocate what the file cannot hold.
#include <gtest/gtest.h>

#include "_TECLFileStream.h"
#include "compression_test_util.h"

namespace docadmin {
namespace {

using namespace docadmin::testing;

constexpr std::int32_t kFast = 524288;
const std::string kDecompression = "TECLStream.LoadBlock - decompression error.";
const std::string kInvalidSize = "TECLStream.LoadBlock - decompression error, invalid size.";
const std::string kCrc = "TECLStream.LoadBlock - decompression crc error.";

Bytes Pack(const Bytes& data, TECLCompressionLevel level = zlibFastest) {
    TMemoryStream mem, src;
    src.WriteBuffer(data.data(), static_cast<std::int64_t>(data.size()));
    TECLStream s(&mem, true, "", level, 0);
    s.LoadFromStream(src);
    return mem.Data();
}

// The message of what op raises, or "" when it raises nothing.
template <class F>
std::string FailureOf(F&& op) {
    try {
        op();
    } catch (const Exception& e) {
        return e.Message();
    }
    return "";
}

TEST(ECLDamageTest, CutInsideTheThirdBlockHeaderIsRepairedOnDisk) {
    TempDir dir;
    const Bytes data = MixedData(3 * kFast, 17);
    const Bytes full = Pack(data);
    std::vector<RawBlock> blocks;
    IndependentRead(full, &blocks);
    ASSERT_EQ(blocks.size(), 3u);
    const Bytes cut(full.begin(), full.begin() + blocks[2].pos + 7);
    WriteAll(dir / "c", cut);
    {
        // Read-only: the table is repaired in memory, the file keeps its bytes.
        TECLFileStream r(dir / "c", fmShareDenyWrite, "", zlibMax, 0);
        EXPECT_EQ(r.Size(), 2 * kFast);
        EXPECT_EQ(ReadAll(dir / "c"), cut);
    }
    {
        TECLFileStream rw(dir / "c", fmOpenReadWrite, "", zlibMax, 0);
        EXPECT_EQ(rw.Size(), 2 * kFast);
        Bytes out(2 * kFast);
        rw.ReadBuffer(out.data(), 2 * kFast);
        EXPECT_EQ(out, Bytes(data.begin(), data.begin() + 2 * kFast));
    }
    const Bytes repaired = ReadAll(dir / "c");
    EXPECT_EQ(repaired.size(), blocks[2].pos);
    EXPECT_EQ(U32At(repaired, 12), 2u);
    EXPECT_EQ(IndependentRead(repaired), Bytes(data.begin(), data.begin() + 2 * kFast));
}

TEST(ECLDamageTest, CutInsideBlockDataFailsOnThatBlockOnly) {
    const Bytes data = MixedData(2 * kFast, 19);
    const Bytes full = Pack(data);
    std::vector<RawBlock> blocks;
    IndependentRead(full, &blocks);
    TMemoryStream m;
    m.WriteBuffer(full.data(), blocks[1].pos + 16 + blocks[1].packedSize / 2);
    TECLStream s(&m, false, "", zlibMax, 0);
    EXPECT_EQ(s.Size(), 2 * kFast);
    Bytes out(kFast);
    EXPECT_EQ(s.Read(out.data(), kFast), kFast);
    EXPECT_EQ(FailureOf([&] { s.Read(out.data(), kFast); }), kDecompression);
}

TEST(ECLDamageTest, FlippedBitFailsOnItsBlockOnly) {
    const Bytes data = MixedData(3 * kFast, 23);
    const Bytes good = Pack(data);
    std::vector<RawBlock> blocks;
    IndependentRead(good, &blocks);
    // Bits at several places of block 1's data, and in its CRC field.
    const std::vector<std::size_t> spots = {blocks[1].pos + 16 + 2, blocks[1].pos + 16 + 5000,
                                            blocks[1].pos + 16 + blocks[1].packedSize - 1,
                                            blocks[1].pos + 8};
    for (const std::size_t spot : spots) {
        Bytes bad = good;
        bad[spot] ^= 0x10;
        TMemoryStream m;
        m.WriteBuffer(bad.data(), static_cast<std::int64_t>(bad.size()));
        TECLStream s(&m, false, "", zlibMax, 0);
        EXPECT_NO_THROW(s.LoadBlock(0));
        EXPECT_NO_THROW(s.LoadBlock(2));
        const std::string msg = FailureOf([&] { s.LoadBlock(1); });
        EXPECT_TRUE(msg == kDecompression || msg == kCrc || msg == kInvalidSize)
            << spot << ": " << msg;
        if (spot == blocks[1].pos + 8) {
            EXPECT_EQ(msg, kCrc);
        }
        Bytes out(kFast);
        s.SetPosition(2 * kFast);
        EXPECT_EQ(s.Read(out.data(), kFast), kFast);
        EXPECT_TRUE(std::equal(out.begin(), out.end(), data.begin() + 2 * kFast));
    }
}

TEST(ECLDamageTest, LyingSizesFailWithTheDecompressionTexts) {
    const Bytes good = Pack(MixedData(2 * kFast + 10, 29));
    std::vector<RawBlock> blocks;
    IndependentRead(good, &blocks);
    auto open = [](const Bytes& f) {
        auto m = std::make_shared<TMemoryStream>();
        m->WriteBuffer(f.data(), static_cast<std::int64_t>(f.size()));
        return m;
    };
    struct Case {
        const char* what;
        std::size_t off;
        std::uint32_t value;
        bool failsOnOpen;
        std::string text;
        int block;
    };
    const std::vector<Case> cases = {
        {"BlockSize beyond any level", 4, 64u << 20, true, kDecompression, 0},
        {"BlockSize 0", 4, 0, true, kDecompression, 0},
        {"negative NumBlocks", 12, 0x80000000u, true, kDecompression, 0},
        {"custom header beyond the file", 23, 0x7FFFFFF0u, true, kDecompression, 0},
        {"trueSize above BlockSize", blocks[2].pos + 4, kFast + 1, false, kInvalidSize, 2},
        {"short middle block", blocks[0].pos + 4, 1000, false, kInvalidSize, 0},
        {"trueSize beyond the data", blocks[2].pos + 4, 11, false, kInvalidSize, 2},
        {"packedSize beyond the file", blocks[1].pos, 0xFFFFFFF0u, false, kDecompression, 1},
        {"empty block", blocks[2].pos + 4, 0, false, kDecompression, 2},
    };
    for (const Case& c : cases) {
        Bytes bad = good;
        PutU32At(bad, c.off, c.value);
        auto m = open(bad);
        if (c.failsOnOpen) {
            EXPECT_EQ(FailureOf([&] { TECLStream s(m.get(), false, "", zlibMax, 0); }), c.text)
                << c.what;
            continue;
        }
        TECLStream s(m.get(), false, "", zlibMax, 0);
        EXPECT_EQ(FailureOf([&] { s.LoadBlock(c.block); }), c.text) << c.what;
    }
}

TEST(ECLDamageTest, ChainThatDoesNotAdvanceIsRefused) {
    Bytes bad = Pack(MixedData(3 * kFast, 31));
    std::vector<RawBlock> blocks;
    IndependentRead(bad, &blocks);
    PutU32At(bad, blocks[0].pos + 12, blocks[0].pos);  // points at itself
    PutU32At(bad, 12, 0x7FFFFFFF);                     // and claims endless blocks
    TMemoryStream m;
    m.WriteBuffer(bad.data(), static_cast<std::int64_t>(bad.size()));
    EXPECT_EQ(FailureOf([&] { TECLStream s(&m, false, "", zlibMax, 0); }), kDecompression);
}

TEST(ECLDamageTest, TooManyBlocksClaimedEndsAtTheFilesEnd) {
    Bytes bad = Pack(MixedData(2 * kFast, 37));
    PutU32At(bad, 12, 1000000);
    TMemoryStream m;
    m.WriteBuffer(bad.data(), static_cast<std::int64_t>(bad.size()));
    TECLStream s(&m, false, "", zlibMax, 0);
    EXPECT_EQ(s.Headers().ItemCount, 2);
    EXPECT_EQ(s.Size(), 2 * kFast);
    EXPECT_EQ(U32At(m.Data(), 12), 2u);  // a writable stream gets its header repaired
}

// Inputs the fuzzer found once; each must be refused or read without a crash.
TEST(ECLDamageTest, KeptFuzzerInputsDoNotCrash) {
    int seen = 0;
    for (const auto& entry : std::filesystem::directory_iterator(COMPRESSION_CRASHERS_DIR)) {
        if (!entry.is_regular_file() || entry.path().extension() == ".md") continue;
        ++seen;
        const Bytes input = ReadAll(entry.path());
        TMemoryStream m;
        if (!input.empty()) m.WriteBuffer(input.data(), static_cast<std::int64_t>(input.size()));
        try {
            TECLStream s(&m, false, "", zlibMax, 0);
            TMemoryStream out;
            s.SaveToStream(out);
            EXPECT_EQ(out.Size(), s.Size()) << entry.path();
        } catch (const Exception&) {
            // refused with a text: fine
        }
    }
    EXPECT_GT(seen, 0);
}

}  // namespace
}  // namespace docadmin
