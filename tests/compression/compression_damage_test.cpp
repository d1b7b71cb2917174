// Damaged containers: a read never repairs and never takes part of a file for all of it; damage
// fails on its block with the exact texts followed by which block it is; repair cuts behind the
// intact blocks only on request; lying sizes never crash or allocate what the file cannot hold.
#include <gtest/gtest.h>

#include <thread>

#include "_TECLFileStream.h"
#include "compression_test_util.h"

namespace docadmin {
namespace {

using namespace docadmin::testing;

const std::string kDecompression = "TECLStream.LoadBlock - decompression error.";
const std::string kInvalidSize = "TECLStream.LoadBlock - decompression error, invalid size.";
const std::string kCrc = "TECLStream.LoadBlock - decompression crc error.";

bool StartsWith(const std::string& s, const std::string& prefix) {
    return s.rfind(prefix, 0) == 0;
}

// Whole-stream reads of a damaged container fail with the decompression text and the damage.
void ExpectUnreadable(TECLStream& s, const std::string& damage) {
    EXPECT_NE(s.Damage().find(damage), std::string::npos) << s.Damage();
    TMemoryStream out;
    const std::string msg = MessageOf([&] { s.SaveToStream(out); });
    EXPECT_EQ(msg, kDecompression + " " + s.Damage());
    EXPECT_EQ(out.Size(), 0);
    Bytes buf(16);
    EXPECT_TRUE(StartsWith(MessageOf([&] { s.Read(buf.data(), 16); }), kDecompression));
    EXPECT_TRUE(StartsWith(MessageOf([&] { s.Write(buf.data(), 16); }), kDecompression));
}

// A file cut anywhere, also exactly at a block boundary, reads as damaged and keeps its bytes;
// only Repair cuts it behind the intact blocks, which then read back.
TEST(ECLDamageTest, CutFileFailsToReadAndIsRepairedOnlyOnRequest) {
    TTempDir dir;
    const Bytes data = MixedData(3 * kFast, 17);
    const Bytes full = Pack(data);
    std::vector<RawBlock> blocks;
    IndependentRead(full, &blocks);
    ASSERT_EQ(blocks.size(), 3u);
    struct Case {
        const char* what;
        std::size_t cutAt;
        std::string damage;
        std::int32_t kept;
    };
    const std::vector<Case> cases = {
        {"at the start of block 2", blocks[1].pos, "the file ends after block 1", 1},
        {"inside the third block header", blocks[2].pos + 7, "the file ends after block 2", 2},
        {"inside block 2's data", blocks[1].pos + 16 + blocks[1].packedSize / 2,
         "Block 2 of 3 reaches past the end", 1},
        {"behind the stream header", 128, "the file ends before the first", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(c.cutAt));
        WriteAll(dir / "c", cut);
        {
            TECLFileStream r(dir / "c", fmShareDenyWrite, "", zlibMax, 0);
            ExpectUnreadable(*r.InnerStream(), c.damage);
        }
        {
            TECLFileStream rw(dir / "c", fmOpenReadWrite, "", zlibMax, 0);
            ExpectUnreadable(*rw.InnerStream(), c.damage);
        }
        EXPECT_EQ(ReadAll(dir / "c"), cut);  // opening, even for writing, changed nothing
        {
            TFileStream f(dir / "c", fmOpenReadWrite);
            TECLStream s(&f, false, "", zlibMax, 0);
            EXPECT_EQ(s.Repair(), c.kept);
            EXPECT_EQ(s.Damage(), "");
            EXPECT_EQ(s.Size(), c.kept * kFast);
        }
        const Bytes repaired = ReadAll(dir / "c");
        EXPECT_EQ(U32At(repaired, 12), static_cast<std::uint32_t>(c.kept));
        EXPECT_EQ(IndependentRead(repaired), Bytes(data.begin(), data.begin() + c.kept * kFast));
    }
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
        auto m = InMemory(bad);
        TECLStream s(m.get(), false, "", zlibMax, 0);
        EXPECT_NO_THROW(s.LoadBlock(0));
        EXPECT_NO_THROW(s.LoadBlock(2));
        const std::string msg = MessageOf([&] { s.LoadBlock(1); });
        const std::string block = " Block 2 of 3 is damaged.";
        EXPECT_TRUE(msg == kDecompression + block || msg == kCrc + block ||
                    msg == kInvalidSize + block)
            << spot << ": " << msg;
        if (spot == blocks[1].pos + 8) {
            EXPECT_EQ(msg, kCrc + block);
        }
        Bytes out(kFast);
        s.SetPosition(2 * kFast);
        EXPECT_EQ(s.Read(out.data(), kFast), kFast);
        EXPECT_TRUE(std::equal(out.begin(), out.end(), data.begin() + 2 * kFast));
    }
}

// A flipped bit in a zlib stream's own Adler-32 (its last byte) leaves the block's bytes intact.
// Reading that block fails all the same; a whole copy on several threads skips the sum (the
// block's CRC-32 checks the same bytes) and gives every byte.
TEST(ECLDamageTest, FlippedStreamSumFailsTheBlockButNotAWholeCopy) {
    const Bytes data = MixedData(3 * kFast, 23);
    Bytes bad = Pack(data);
    std::vector<RawBlock> blocks;
    IndependentRead(bad, &blocks);
    bad[blocks[1].pos + 16 + blocks[1].packedSize - 1] ^= 0x10;
    auto m = InMemory(bad);
    TECLStream s(m.get(), false, "", zlibMax, 0);
    EXPECT_FALSE(MessageOf([&] { s.LoadBlock(1); }).empty());
    TMemoryStream out;
    if (std::thread::hardware_concurrency() > 1) {
        s.SaveToStream(out);
        EXPECT_EQ(out.Data(), data);
    } else {
        EXPECT_THROW(s.SaveToStream(out), Exception);  // the block by block loop checks both
    }
}

// Header fields that lie. A chain pointer that skips a block or points back, or more blocks
// claimed than the chain holds, is found when the chain is walked: nothing reads as complete and
// the header is not "corrected". Impossible stream header values fail the open; sizes that don't
// fit their block fail that block with the decompression texts.
TEST(ECLDamageTest, LyingHeaderFieldsAreDamage) {
    // Three whole blocks for the chain, a short last block for the sizes.
    const Bytes whole = Pack(MixedData(3 * kFast, 31)), good = Pack(MixedData(2 * kFast + 10, 29));
    std::vector<RawBlock> w, blocks;
    IndependentRead(whole, &w);
    IndependentRead(good, &blocks);
    enum TFound { onWalk, onOpen, onLoad };
    struct Case {
        const char* what;
        const Bytes& file;
        std::size_t off;
        std::uint32_t value;
        TFound found;
        std::string text;
        int block;
    };
    const std::vector<Case> cases = {
        {"block 1 points over block 2", whole, w[0].pos + 12, w[2].pos, onWalk,
         "announces 3 blocks, but the file ends after block 2", 0},
        {"block 1 points at itself", whole, w[0].pos + 12, w[0].pos, onWalk,
         "chain pointer of block 1 of 3 points back", 0},
        {"far too many blocks claimed", whole, 12, 1000000, onWalk, "announces 1000000 blocks", 0},
        {"block 3 claims a second block size", whole, w[2].pos + 4, kFast + 1, onWalk,
         "Block 3 of 3 claims 524289 plain bytes", 0},
        {"BlockSize beyond any level", good, 4, 64u << 20, onOpen, kDecompression, 0},
        {"BlockSize 0", good, 4, 0, onOpen, kDecompression, 0},
        {"negative NumBlocks", good, 12, 0x80000000u, onOpen, kDecompression, 0},
        {"custom header beyond the file", good, 23, 0x7FFFFFF0u, onOpen, kDecompression, 0},
        {"trueSize above BlockSize", good, blocks[2].pos + 4, kFast + 1, onLoad, kInvalidSize, 2},
        {"short middle block", good, blocks[0].pos + 4, 1000, onLoad, kInvalidSize, 0},
        {"trueSize beyond the data", good, blocks[2].pos + 4, 11, onLoad, kInvalidSize, 2},
        {"packedSize beyond the file", good, blocks[1].pos, 0xFFFFFFF0u, onLoad, kDecompression, 1},
        {"empty block", good, blocks[2].pos + 4, 0, onLoad, kDecompression, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes bad = c.file;
        PutU32At(bad, c.off, c.value);
        auto m = InMemory(bad);
        if (c.found == onOpen) {
            const std::string msg =
                MessageOf([&] { TECLStream s(m.get(), false, "", zlibMax, 0); });
            EXPECT_TRUE(StartsWith(msg, c.text + " The stream header is damaged")) << msg;
            continue;
        }
        TECLStream s(m.get(), false, "", zlibMax, 0);
        if (c.found == onWalk) {
            ExpectUnreadable(s, c.text);
            EXPECT_EQ(m->Data(), bad);
        } else {
            EXPECT_EQ(MessageOf([&] { s.LoadBlock(c.block); }),
                      c.text + " Block " + std::to_string(c.block + 1) + " of 3 is damaged.");
        }
    }
}

// Inputs the fuzzer found once; each must be refused or read without a crash.
TEST(ECLDamageTest, KeptFuzzerInputsDoNotCrash) {
    int seen = 0;
    for (const auto& entry : std::filesystem::directory_iterator(COMPRESSION_CRASHERS_DIR)) {
        if (!entry.is_regular_file() || entry.path().extension() == ".md") continue;
        ++seen;
        const Bytes input = ReadAll(entry.path());
        auto m = InMemory(input);
        try {
            TECLStream s(m.get(), false, "", zlibMax, 0);
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
