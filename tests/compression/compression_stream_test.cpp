// The stream operations: positioning, writes in place, growing and shrinking, progress, the
// read-only shell and the level change.
#include <gtest/gtest.h>

#include "_TECLFileStream.h"
#include "compression_test_util.h"

namespace docadmin {
namespace {

using namespace docadmin::testing;

// A container in memory holding data, written block by block.
struct MemContainer {
    TMemoryStream mem;
    std::unique_ptr<TECLStream> s;
    explicit MemContainer(const Bytes& data, TECLCompressionLevel level = zlibFastest) {
        s = std::make_unique<TECLStream>(&mem, true, "", level, 0);
        s->LoadFromStream(*InMemory(data));
    }
    Bytes Plain() {
        Bytes out(static_cast<std::size_t>(s->Size()));
        s->SetPosition(0);
        s->ReadBuffer(out.data(), static_cast<std::int64_t>(out.size()));
        return out;
    }
};

TEST(ECLStreamTest, CreatingOverOldContentGivesTheSameBytesAsOnAnEmptyStream) {
    // Small blocks go out with their header in one write, large ones in two; a stream that
    // already holds bytes is emptied first, an empty one is left as it is.
    for (const Bytes& data : {MixedData(3000), RandomData(3 * kFast + 100)}) {
        MemContainer fresh(data);
        auto old = InMemory(RandomData(5 * kFast, 3));
        TECLStream reused(old.get(), true, "", zlibFastest, 0);
        EXPECT_EQ(reused.Size(), 0);
        reused.LoadFromStream(*InMemory(data));
        EXPECT_EQ(old->Data(), fresh.mem.Data());
        EXPECT_EQ(fresh.Plain(), data);
        // A new container opened again reads as written.
        TECLStream again(old.get(), false, "", zlibFastest, 0);
        EXPECT_EQ(again.CompressionLevel(), zlibFastest);
        EXPECT_EQ(again.Size(), static_cast<std::int64_t>(data.size()));
    }
}

TEST(ECLStreamTest, PlainFileSavedToAFileGivesItsBytesWithTheProgressOfTheStreamCopy) {
    // A plain file is copied in the kernel; bytes and reports must match the copy through a
    // buffer, chunk for chunk, also for an empty file and one that ends inside a chunk.
    TTempDir dir;
    for (const std::size_t n : {std::size_t{0}, std::size_t{100}, std::size_t{5 << 19}}) {
        const Bytes data = RandomData(n, static_cast<std::uint32_t>(n + 1));
        const auto src = dir / ("plain" + std::to_string(n));
        WriteAll(src, data);
        std::vector<double> viaFile, viaStream;
        {
            TECLFileStream s(src, fmOpenRead | fmShareDenyWrite, "", zlibMax, 0);
            ASSERT_EQ(s.InnerStream()->CompressionLevel(), eclNone);
            s.OnProgress = [&](TObject*, double p) { viaFile.push_back(p); };
            s.SaveToFile(dir / "out");
            TMemoryStream mem;
            s.OnProgress = [&](TObject*, double p) { viaStream.push_back(p); };
            s.SaveToStream(mem);
            EXPECT_EQ(mem.Data(), data);
        }
        EXPECT_EQ(ReadAll(dir / "out"), data) << n;
        EXPECT_EQ(viaFile, viaStream) << n;
        EXPECT_GE(viaFile.size(), 2u);
    }
}

TEST(ECLStreamTest, ReadAtTheEndReturnsNothingAndStays) {
    MemContainer c(MixedData(1000));
    EXPECT_EQ(c.s->Seek(0, TSeekOrigin::soEnd), 1000);
    char buf[16];
    EXPECT_EQ(c.s->Read(buf, 16), 0);
    EXPECT_EQ(c.s->Position(), 1000);
    // Near the end a read gives what remains.
    c.s->SetPosition(990);
    EXPECT_EQ(c.s->Read(buf, 16), 10);
    EXPECT_EQ(c.s->Position(), 1000);
    // Beyond the end, nothing.
    EXPECT_EQ(c.s->Seek(50, TSeekOrigin::soEnd), 1050);
    EXPECT_EQ(c.s->Read(buf, 16), 0);
    EXPECT_EQ(c.s->Seek(-5000, TSeekOrigin::soCurrent), 0);
}

TEST(ECLStreamTest, ReadsAcrossBlocksFromAnyPosition) {
    const Bytes data = MixedData(3 * kFast + 777, 21);
    MemContainer c(data);
    for (const std::int64_t start :
         {std::int64_t{0}, std::int64_t{kFast - 3}, std::int64_t{2 * kFast + 5}}) {
        const std::int64_t n = std::min<std::int64_t>(kFast + 10, c.s->Size() - start);
        Bytes buf(static_cast<std::size_t>(n));
        c.s->SetPosition(start);
        ASSERT_EQ(c.s->Read(buf.data(), static_cast<std::int32_t>(n)), n);
        EXPECT_TRUE(std::equal(buf.begin(), buf.end(), data.begin() + start)) << start;
        EXPECT_EQ(c.s->Position(), start + n);
    }
}

TEST(ECLStreamTest, WriteAcrossBlockBoundariesStoresTheRightBytes) {
    Bytes data = MixedData(3 * kFast, 2);
    MemContainer c(data);
    // One write that starts in block 0 and ends in block 2.
    const Bytes patch = RandomData(kFast + 1000, 8);
    const std::int64_t at = kFast - 500;
    c.s->SetPosition(at);
    EXPECT_EQ(c.s->Write(patch.data(), static_cast<std::int32_t>(patch.size())),
              static_cast<std::int32_t>(patch.size()));
    std::copy(patch.begin(), patch.end(), data.begin() + at);
    EXPECT_EQ(c.s->Position(), at + static_cast<std::int64_t>(patch.size()));
    EXPECT_EQ(c.Plain(), data);
    EXPECT_EQ(IndependentRead(c.mem.Data()), data);
    // The same in a fresh stream, from position 0 over three blocks in one call.
    TMemoryStream mem;
    TECLStream s(&mem, true, "", zlibFastest, 0);
    const Bytes big = MixedData(2 * kFast + 99, 4);
    s.WriteBuffer(big.data(), static_cast<std::int64_t>(big.size()));
    EXPECT_EQ(IndependentRead(mem.Data()), big);
}

TEST(ECLStreamTest, SeekPastTheEndThenWriteFillsZeros) {
    const Bytes data = MixedData(1000, 6);
    MemContainer c(data);
    const std::int64_t gapEnd = 2 * kFast + 10;  // the gap reaches over two block boundaries
    c.s->SetPosition(gapEnd);
    c.s->WriteBuffer("tail", 4);
    EXPECT_EQ(c.s->Size(), gapEnd + 4);
    Bytes expected = data;
    expected.resize(static_cast<std::size_t>(gapEnd), 0);
    expected.insert(expected.end(), {'t', 'a', 'i', 'l'});
    EXPECT_EQ(c.Plain(), expected);
    EXPECT_EQ(IndependentRead(c.mem.Data()), expected);
}

TEST(ECLStreamTest, WriteInTheMiddleRewritesOnlyTouchedBlocks) {
    // Four blocks of random bytes: a rewrite with other random bytes keeps the packed size
    // about the same, so small writes must leave the other blocks' bytes alone.
    Bytes data = RandomData(4 * kFast, 12);
    MemContainer c(data);
    std::vector<RawBlock> before;
    IndependentRead(c.mem.Data(), &before);
    const Bytes fileBefore = c.mem.Data();
    // Same bytes as before: every block keeps its size.
    c.s->SetPosition(2 * kFast + 100);
    c.s->WriteBuffer(data.data() + 2 * kFast + 100, 50);
    EXPECT_EQ(c.mem.Data(), fileBefore);

    // Zeros into block 1: it shrinks and keeps its slot, leaving a gap.
    const Bytes zeros(kFast, 0);
    c.s->SetPosition(kFast);
    c.s->WriteBuffer(zeros.data(), kFast);
    std::copy(zeros.begin(), zeros.end(), data.begin() + kFast);
    std::vector<RawBlock> after;
    EXPECT_EQ(IndependentRead(c.mem.Data(), &after), data);
    ASSERT_EQ(after.size(), 4u);
    EXPECT_LT(after[1].packedSize, before[1].packedSize);
    for (int i : {0, 2, 3}) {
        EXPECT_EQ(after[i].pos, before[i].pos) << i;
        const auto b = c.mem.Data().begin() + after[i].pos;
        EXPECT_TRUE(std::equal(b, b + 16 + after[i].packedSize, fileBefore.begin() + before[i].pos))
            << i;
    }
    EXPECT_EQ(after[1].next, before[1].next);  // the slot stays, with a gap behind the data

    // Random bytes into the shrunk block: it grows and the blocks behind it move.
    const Bytes noise = RandomData(kFast, 77);
    c.s->SetPosition(kFast);
    c.s->WriteBuffer(noise.data(), kFast);
    std::copy(noise.begin(), noise.end(), data.begin() + kFast);
    std::vector<RawBlock> moved;
    EXPECT_EQ(IndependentRead(c.mem.Data(), &moved), data);
    ASSERT_EQ(moved.size(), 4u);
    EXPECT_EQ(moved[1].pos, after[1].pos);
    EXPECT_EQ(moved[2].pos, moved[1].pos + 16 + moved[1].packedSize);
    EXPECT_EQ(moved[3].pos, moved[2].next);
    EXPECT_EQ(c.Plain(), data);
}

TEST(ECLStreamTest, ShrinkKeepsAReadableFile) {
    Bytes data = MixedData(3 * kFast + 100, 13);
    MemContainer c(data);
    // Inside a block: the kept part of that block is deflated again.
    c.s->SetSize(kFast + 1234);
    data.resize(kFast + 1234);
    EXPECT_EQ(c.s->Size(), kFast + 1234);
    EXPECT_EQ(c.Plain(), data);
    std::vector<RawBlock> blocks;
    EXPECT_EQ(IndependentRead(c.mem.Data(), &blocks), data);
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(c.mem.Size(), blocks[1].next);
    // On a block boundary: the file isn't cut, the chain just ends earlier.
    const std::int64_t fileSize = c.mem.Size();
    c.s->SetSize(kFast);
    data.resize(kFast);
    EXPECT_EQ(c.mem.Size(), fileSize);
    EXPECT_EQ(IndependentRead(c.mem.Data()), data);
    // The position follows the end; then growing again appends zeros.
    c.s->SetPosition(kFast);
    c.s->SetSize(10);
    EXPECT_EQ(c.s->Position(), 10);
    c.s->SetSize(kFast + 5);
    data.resize(10);
    data.resize(kFast + 5, 0);
    EXPECT_EQ(c.Plain(), data);
    c.s->SetSize(0);
    EXPECT_EQ(c.s->Size(), 0);
    EXPECT_EQ(U32At(c.mem.Data(), 12), 0u);
}

TEST(ECLStreamTest, ProgressOfASaveIsZeroRisingThenHundredTwice) {
    TTempDir dir;
    WriteAll(dir / "in", MixedData(3 * kFast + 5, 1));
    {
        TECLFileStream w(dir / "c", fmCreate, "", zlibFastest, 0);
        std::vector<double> load;
        w.OnProgress = [&](TObject*, double p) { load.push_back(p); };
        w.LoadFromFile(dir / "in");
        ASSERT_GE(load.size(), 3u);
        EXPECT_EQ(load.front(), 0.0);
        EXPECT_EQ(load[load.size() - 2], 100.0);
        EXPECT_EQ(load.back(), 100.0);
    }
    TECLFileStream r(dir / "c", fmShareDenyWrite, "", zlibMax, 0);
    std::vector<double> seen;
    r.OnProgress = [&](TObject*, double p) { seen.push_back(p); };  // assigned after creation
    r.SaveToFile(dir / "out");
    ASSERT_EQ(seen.size(), 6u);  // 0, one per block (4), and the closing 100
    EXPECT_EQ(seen.front(), 0.0);
    for (std::size_t i = 1; i < seen.size(); ++i)
        EXPECT_GT(seen[i], seen[i - 1] - (i + 1 == seen.size() ? 1e-9 : 0)) << i;
    EXPECT_EQ(seen[seen.size() - 2], 100.0);
    EXPECT_EQ(seen.back(), 100.0);
    EXPECT_EQ(ReadAll(dir / "out"), ReadAll(dir / "in"));

    // An empty file reports start and end once each.
    WriteAll(dir / "empty", {});
    TECLFileStream e(dir / "empty", fmShareDenyWrite, "", zlibMax, 0);
    seen.clear();
    e.OnProgress = [&](TObject*, double p) { seen.push_back(p); };
    e.SaveToFile(dir / "out2");
    EXPECT_EQ(seen, (std::vector<double>{0.0, 100.0}));
}

TEST(ECLStreamTest, ReadOnlyShellRefusesChanges) {
    TTempDir dir;
    { TECLFileStream w(dir / "c", fmCreate, "", zlibMax, 0); }
    WriteAll(dir / "src", {1, 2, 3});
    TECLFileStream r(dir / "c", fmShareDenyWrite, "", zlibMax, 0);
    EXPECT_TRUE(r.ReadOnly());
    EXPECT_EQ(MessageOf([&] { r.Write("x", 1); }),
              "TECLAdvCompressedStream.Write - file is in read only mode.");
    EXPECT_EQ(MessageOf([&] { r.SetSize(5); }),
              "TECLAdvCompressedStream.SetSize - file is in read only mode.");
    EXPECT_EQ(MessageOf([&] { r.LoadFromFile(dir / "src"); }),
              "TECLAdvCompressedStream.LoadFromStream - file is in read only mode.");
    EXPECT_EQ(ReadAll(dir / "c").size(), 128u);
    // A read-write open may write.
    TECLFileStream rw(dir / "c", fmOpenReadWrite, "", zlibMax, 0);
    EXPECT_FALSE(rw.ReadOnly());
    rw.WriteBuffer("abc", 3);
    EXPECT_EQ(rw.Size(), 3);
}

TEST(ECLStreamTest, LevelChangeRewritesThroughBackup) {
    TTempDir dir;
    const Bytes data = MixedData(2 * kFast + 17, 31);
    WriteAll(dir / "in", data);
    TECLFileStream s(dir / "c", fmCreate, "", zlibMax, 0);
    s.LoadFromFile(dir / "in");
    s.SetCompressionLevel(zlibFastest);
    EXPECT_EQ(s.CompressionLevel(), zlibFastest);
    EXPECT_FALSE(std::filesystem::exists(dir / "c.bak"));
    EXPECT_EQ(s.Size(), static_cast<std::int64_t>(data.size()));
    std::vector<RawBlock> blocks;
    EXPECT_EQ(IndependentRead(ReadAll(dir / "c"), &blocks), data);
    EXPECT_EQ(blocks.size(), 3u);
    EXPECT_EQ(U32At(ReadAll(dir / "c"), 4), static_cast<std::uint32_t>(kFast));
    // To plain and back.
    s.SetCompressionLevel(eclNone);
    EXPECT_EQ(ReadAll(dir / "c"), data);
    s.SetCompressionLevel(zlibNormal);
    EXPECT_EQ(IndependentRead(ReadAll(dir / "c")), data);
    // Encrypted cannot stick: no cipher exists, the file is only packed anew.
    EXPECT_FALSE(s.GetEncrypted());
    s.SetEncrypted(true);
    EXPECT_FALSE(s.GetEncrypted());
    EXPECT_EQ(IndependentRead(ReadAll(dir / "c")), data);
    // Mode 0 never rewrites.
    TECLFileStream ro(dir / "c", fmOpenRead, "", zlibMax, 0);
    ro.SetCompressionLevel(zlibMax);
    EXPECT_EQ(ro.CompressionLevel(), zlibNormal);
}

TEST(ECLStreamTest, EncMethodIsIgnoredOnRead) {
    MemContainer c(MixedData(5000, 3));
    Bytes f = c.mem.Data();
    f[22] = 7;  // EncMethod
    auto m = InMemory(f);
    TECLStream s(m.get(), false, "secret", zlibMax, 0);
    EXPECT_FALSE(s.GetEncrypted());
    Bytes out(5000);
    s.ReadBuffer(out.data(), 5000);
    EXPECT_EQ(out, MixedData(5000, 3));
}

TEST(ECLStreamTest, WritesBehindTheEngineAreNoticed) {
    MemContainer c(MixedData(3000, 4));
    // Rewrite the container wholesale through the wrapped data stream.
    MemContainer other(MixedData(9000, 5));
    TStream* raw = c.s->GetCompressedDataStream();
    raw->SetPosition(0);
    raw->WriteBuffer(other.mem.Data().data(), other.mem.Size());
    EXPECT_EQ(c.s->Size(), 9000);
    EXPECT_EQ(c.Plain(), MixedData(9000, 5));
}

}  // namespace
}  // namespace docadmin
