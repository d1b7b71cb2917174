#include "_TECLStream.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <deque>
#include <future>
#include <thread>

#include "_ECLZlib.h"

namespace docadmin {

namespace {

// Packed blocks up to this size go to the file together with their header in one write.
constexpr std::size_t kSmallBlock = 16 << 10;
constexpr const char* kDecompressionError = "TECLStream.LoadBlock - decompression error.";
constexpr const char* kInvalidSizeError =
    "TECLStream.LoadBlock - decompression error, invalid size.";
constexpr const char* kCrcError = "TECLStream.LoadBlock - decompression crc error.";
constexpr const char* kCompressionError =
    "TECLStream.PrepareBufferForWriting - compression error in PrepareBuffer.";

void PutU32(std::uint8_t* p, std::uint32_t v) {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
    p[2] = static_cast<std::uint8_t>(v >> 16);
    p[3] = static_cast<std::uint8_t>(v >> 24);
}

std::uint32_t GetU32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

struct LevelInfo {
    const char* name;
    std::int32_t blockSize;
    int zlevel;
};

constexpr LevelInfo kLevels[] = {
    {"eclNone", 1048576, -1},   {"zlibFastest", 524288, 1},  {"zlibNormal", 1048576, 5},
    {"ppmNormal", 1048576, -1}, {"ppmMax", 1572864, -1},     {"zlibMax", 1572864, 9},
    {"ppmFastest", 524288, -1}, {"bzipFastest", 524288, -1}, {"bzipNormal", 1048576, -1},
    {"bzipMax", 1572864, -1},
};

}  // namespace

std::int32_t ECLBlockSizeOf(TECLCompressionLevel level) {
    return level < std::size(kLevels) ? kLevels[level].blockSize : 0;
}

int ECLZlibLevelOf(TECLCompressionLevel level) {
    return level < std::size(kLevels) ? kLevels[level].zlevel : -1;
}

std::string ECLLevelName(TECLCompressionLevel level) {
    if (level < std::size(kLevels)) return kLevels[level].name;
    return "level" + std::to_string(static_cast<int>(level));
}

bool ECLLevelFromName(const std::string& name, TECLCompressionLevel& level) {
    for (std::size_t i = 0; i < std::size(kLevels); ++i)
        if (name == kLevels[i].name) {
            level = static_cast<TECLCompressionLevel>(i);
            return true;
        }
    return false;
}

// ---- headers

void TECLStreamHeader::Encode(std::uint8_t (&out)[kECLStreamHeaderSize]) const {
    std::memset(out, 0, sizeof out);
    std::memcpy(out, signature, 4);
    PutU32(out + 4, static_cast<std::uint32_t>(BlockSize));
    PutU32(out + 8, static_cast<std::uint32_t>(Crc32));
    PutU32(out + 12, static_cast<std::uint32_t>(NumBlocks));
    std::uint32_t v;
    static_assert(sizeof v == sizeof version);
    std::memcpy(&v, &version, sizeof v);
    PutU32(out + 16, v);
    out[20] = compressionLevel;
    out[21] = CrcMode;
    out[22] = EncMethod;
    PutU32(out + 23, static_cast<std::uint32_t>(CustomHeaderSize));
    out[27] = reserved;
    std::memcpy(out + 28, controlBlock, sizeof controlBlock);
}

void TECLStreamHeader::Decode(const std::uint8_t (&in)[kECLStreamHeaderSize]) {
    std::memcpy(signature, in, 4);
    BlockSize = static_cast<std::int32_t>(GetU32(in + 4));
    Crc32 = static_cast<std::int32_t>(GetU32(in + 8));
    NumBlocks = static_cast<std::int32_t>(GetU32(in + 12));
    const std::uint32_t v = GetU32(in + 16);
    std::memcpy(&version, &v, sizeof v);
    compressionLevel = in[20];
    CrcMode = in[21];
    EncMethod = in[22];
    CustomHeaderSize = static_cast<std::int32_t>(GetU32(in + 23));
    reserved = in[27];
    std::memcpy(controlBlock, in + 28, sizeof controlBlock);
}

bool TECLStreamHeader::HasSignature() const {
    return std::memcmp(signature, "AACS", 4) == 0;
}

void TECLHeader::Encode(std::uint8_t (&out)[kECLBlockHeaderSize]) const {
    PutU32(out, packedSize);
    PutU32(out + 4, trueSize);
    PutU32(out + 8, Crc32);
    PutU32(out + 12, nextHeaderNo);
}

void TECLHeader::Decode(const std::uint8_t (&in)[kECLBlockHeaderSize]) {
    packedSize = GetU32(in);
    trueSize = GetU32(in + 4);
    Crc32 = GetU32(in + 8);
    nextHeaderNo = GetU32(in + 12);
}

// ---- TECLHeadersArray

void TECLHeadersArray::SetSize(std::int32_t newSize) {
    if (newSize <= 0) {
        Items.clear();
        Positions.clear();
        AllocItemCount = 0;
        ItemCount = 0;
        return;
    }
    if (AllocItemCount < newSize) {
        AllocBy = std::min(AllocBy * 2, MaxAllocBy);
        AllocItemCount = AllocItemCount + AllocBy > newSize ? AllocItemCount + AllocBy : newSize;
        Items.resize(static_cast<std::size_t>(AllocItemCount));
        Positions.resize(static_cast<std::size_t>(AllocItemCount));
    } else if (ItemCount > newSize && AllocItemCount - newSize > DeAllocBy) {
        DeAllocBy = std::min(DeAllocBy * 2, MaxAllocBy);
        AllocItemCount = newSize;
        Items.resize(static_cast<std::size_t>(newSize));
        Positions.resize(static_cast<std::size_t>(newSize));
    }
    // Entries beyond the old count start out empty.
    for (std::int32_t i = ItemCount; i < newSize; ++i) {
        Items[static_cast<std::size_t>(i)] = TECLHeader{};
        Positions[static_cast<std::size_t>(i)] = 0;
    }
    ItemCount = newSize;
}

void TECLHeadersArray::AppendItem(const TECLHeader& value, std::uint32_t pos) {
    SetSize(ItemCount + 1);
    Items[static_cast<std::size_t>(ItemCount - 1)] = value;
    Positions[static_cast<std::size_t>(ItemCount - 1)] = pos;
}

std::int32_t TECLHeadersArray::FindPosition(std::int64_t pos) const {
    if (ItemCount <= 0) return 0;
    std::int32_t lo = 0, hi = ItemCount - 1;
    while (lo < hi) {
        const std::int32_t mid = lo + (hi - lo + 1) / 2;
        if (Positions[static_cast<std::size_t>(mid)] <= pos)
            lo = mid;
        else
            hi = mid - 1;
    }
    return lo;
}

// ---- TECLBaseStream

TECLBaseStream::TECLBaseStream(TStream* Stream) : FStream(Stream) {
    if (!Stream) throw Exception("TECLBaseStream.Create - Stream = nil.");
}

std::int64_t TECLBaseStream::GetSize() {
    return FStream->Size();
}

void TECLBaseStream::SetSize(std::int64_t NewSize) {
    FStream->SetSize(NewSize);
    FModified = true;
}

std::int32_t TECLBaseStream::Read(void* Buffer, std::int32_t Count) {
    return FStream->Read(Buffer, Count);
}

std::int32_t TECLBaseStream::Write(const void* Buffer, std::int32_t Count) {
    const std::int32_t n = FStream->Write(Buffer, Count);
    if (n > 0) FModified = true;
    return n;
}

std::int64_t TECLBaseStream::Seek(std::int64_t Offset, TSeekOrigin Origin) {
    return FStream->Seek(Offset, Origin);
}

void TECLBaseStream::DoProgress(double PercentDone) {
    if (OnProgress && !FNoProgress) OnProgress(this, PercentDone);
}

void TECLBaseStream::SaveToStream(TStream& Target) {
    const std::int64_t ownPos = Position();
    const std::int64_t targetPos = Target.Position();
    Seek(0, TSeekOrigin::soBeginning);
    FNoProgress = false;
    DoProgress(0);
    const std::int64_t size = Size();
    std::vector<std::uint8_t> buf(
        static_cast<std::size_t>(std::min<std::int64_t>(FBlockSize, size)));
    std::int64_t copied = 0;
    while (copied < size) {
        const auto n = static_cast<std::int32_t>(std::min<std::int64_t>(FBlockSize, size - copied));
        FNoProgress = true;
        ReadBuffer(buf.data(), n);
        Target.WriteBuffer(buf.data(), n);
        FNoProgress = false;
        copied += n;
        DoProgress(static_cast<double>(copied) / static_cast<double>(size) * 100.0);
    }
    Seek(ownPos, TSeekOrigin::soBeginning);
    Target.Seek(targetPos, TSeekOrigin::soBeginning);
    DoProgress(100);
}

TECLBaseStream::TLoadFrame TECLBaseStream::BeginLoad(TStream& Source) {
    FModified = true;
    const TLoadFrame frame{Position(), Source.Position()};
    Source.Seek(0, TSeekOrigin::soBeginning);
    SetSize(0);
    Seek(0, TSeekOrigin::soBeginning);
    FNoProgress = false;
    DoProgress(0);
    return frame;
}

void TECLBaseStream::EndLoad(TStream& Source, const TLoadFrame& Frame) {
    Seek(Frame.ownPos, TSeekOrigin::soBeginning);
    Source.Seek(Frame.sourcePos, TSeekOrigin::soBeginning);
    DoProgress(100);
    FModified = true;
}

void TECLBaseStream::LoadFromStream(TStream& Source) {
    const TLoadFrame frame = BeginLoad(Source);
    const std::int64_t size = Source.Size();
    std::vector<std::uint8_t> buf(static_cast<std::size_t>(
        std::max<std::int64_t>(1, std::min<std::int64_t>(FBlockSize, size))));
    while (Source.Position() < size) {
        const std::int32_t n = Source.Read(buf.data(), static_cast<std::int32_t>(buf.size()));
        if (n <= 0) break;
        FNoProgress = true;
        WriteBuffer(buf.data(), n);
        FNoProgress = false;
        DoProgress(static_cast<double>(Source.Position()) / static_cast<double>(size) * 100.0);
    }
    EndLoad(Source, frame);
}

void TECLBaseStream::SaveToFile(const std::string& FileName) {
    TFileStream f(FileName, fmCreate);
    SaveToStream(f);
}

void TECLBaseStream::LoadFromFile(const std::string& FileName) {
    TFileStream f(FileName, fmOpenRead | fmShareDenyWrite);
    LoadFromStream(f);
}

// ---- TECLStream

TECLStream::TECLStream(TStream* dataStream, bool bCreate, const std::string& Password,
                       TECLCompressionLevel compressLevel, std::int32_t CustomHeaderSize)
    : TECLBaseCompressedStream(NoStreamTag{}) {
    if (!dataStream) throw Exception("TECLStream.Create - data stream = nil.");
    FStream = dataStream;
    FFile = std::make_unique<TECLBaseStream>(dataStream);
    // Asked once: the library reads it from the file system on each call.
    static const unsigned threads = std::max(1u, std::thread::hardware_concurrency());
    FThreads = threads;
    if (bCreate) {
        // A fresh file is left alone: truncating it costs a call, and on ext4 it also makes the
        // close start writeback of the file at once.
        if (FFile->Size() != 0) FFile->SetSize(0);
        if (compressLevel > eclNone) {
            FHeader = TECLStreamHeader{};
            FHeader.BlockSize = ECLBlockSizeOf(compressLevel);
            FHeader.compressionLevel = compressLevel;
            FHeader.CustomHeaderSize = std::max(0, CustomHeaderSize);
            std::uint8_t raw[kECLStreamHeaderSize];
            FHeader.Encode(raw);
            FFile->Seek(0, TSeekOrigin::soBeginning);
            std::int32_t written = FFile->Write(raw, kECLStreamHeaderSize);
            // The custom header belongs to the creator; it starts out zeroed.
            if (written == kECLStreamHeaderSize && FHeader.CustomHeaderSize > 0) {
                const std::vector<std::uint8_t> custom(
                    static_cast<std::size_t>(FHeader.CustomHeaderSize));
                if (FFile->Write(custom.data(), FHeader.CustomHeaderSize) !=
                    FHeader.CustomHeaderSize)
                    written = 0;
            }
            if (written != kECLStreamHeaderSize)
                throw Exception(
                    "TECLStream.Create - error writing to data stream. May be data stream in "
                    "read only mode.");
        }
    }
    FPassword = Password;
    FFile->Seek(0, TSeekOrigin::soBeginning);
    if (bCreate && compressLevel > eclNone) {
        // What ReadHeaders would find in the header just written: no blocks yet.
        headers.SetSize(0);
        FTrueSize = 0;
        FHeader.EncMethod = 0;
        FCompressionLevel = compressLevel;
        CalcRate();
        FFile->SetModified(false);
    } else {
        ReadHeaders();
    }
    Seek(0, TSeekOrigin::soBeginning);
    FBlockSize = FHeader.BlockSize;
}

TECLStream::~TECLStream() = default;

bool TECLStream::HasBlocks() const {
    return FCompressionLevel != eclNone;
}

void TECLStream::ReadHeaders() {
    headers.SetSize(0);
    FTrueSize = 0;
    const std::int64_t savedPos = FFile->Position();
    const std::int64_t fileSize = FFile->Size();

    bool container = false;
    if (fileSize >= kECLStreamHeaderSize) {
        std::uint8_t raw[kECLStreamHeaderSize];
        FFile->Seek(0, TSeekOrigin::soBeginning);
        if (FFile->Read(raw, kECLStreamHeaderSize) == kECLStreamHeaderSize) {
            TECLStreamHeader h;
            h.Decode(raw);
            if (h.HasSignature()) {
                FHeader = h;
                container = true;
            }
        }
    }
    if (!container) FHeader = TECLStreamHeader{};
    FHeader.EncMethod = 0;  // no cipher exists; the data is read as it stands
    FCompressionLevel = static_cast<TECLCompressionLevel>(FHeader.compressionLevel);

    FDamage.clear();
    FDeclaredBlocks = FHeader.NumBlocks;
    if (FCompressionLevel == eclNone) {
        // Plain data, or a signed file at level 0: every byte of the file is content.
        FTrueSize = fileSize;
    } else {
        // Values that no writer produces and that the file cannot hold are refused here, so
        // that nothing later allocates or loops by them.
        const std::int64_t dataStart =
            static_cast<std::int64_t>(kECLStreamHeaderSize) + FHeader.CustomHeaderSize;
        if (FHeader.BlockSize <= 0 || FHeader.BlockSize > kECLMaxBlockSize ||
            FHeader.CustomHeaderSize < 0 || FHeader.NumBlocks < 0 || dataStart > fileSize) {
            FFile->Seek(savedPos, TSeekOrigin::soBeginning);
            throw Exception(
                std::string(kDecompressionError) + " The stream header is damaged (block size " +
                std::to_string(FHeader.BlockSize) + ", " + std::to_string(FHeader.NumBlocks) +
                " blocks, custom header " + std::to_string(FHeader.CustomHeaderSize) + " bytes).");
        }
        // The chain is walked and checked, never repaired here: the file is cut short, or a
        // pointer leads astray, when the blocks found differ from what the header announces.
        const std::int32_t n = FHeader.NumBlocks;
        auto of = [n](std::int32_t i) {
            return std::to_string(i + 1) + " of " + std::to_string(n);
        };
        auto note = [this](std::string text) {
            if (FDamage.empty()) FDamage = std::move(text);
        };
        std::int64_t pos = dataStart;
        for (std::int32_t i = 0; i < n; ++i) {
            if (fileSize - pos < kECLBlockHeaderSize) {
                note("The header announces " + std::to_string(n) + " blocks, but the file ends " +
                     (i == 0 ? std::string("before the first")
                             : "after block " + std::to_string(i)) +
                     " (" + std::to_string(fileSize) + " bytes).");
                break;
            }
            std::uint8_t raw[kECLBlockHeaderSize];
            FFile->Seek(pos, TSeekOrigin::soBeginning);
            if (FFile->Read(raw, kECLBlockHeaderSize) != kECLBlockHeaderSize) {
                note("Block " + of(i) + " can't be read.");
                break;
            }
            TECLHeader h;
            h.Decode(raw);
            headers.AppendItem(h, static_cast<std::uint32_t>(pos));
            FTrueSize += h.trueSize;
            const std::int64_t dataEnd = pos + kECLBlockHeaderSize + h.packedSize;
            const bool last = i + 1 == n;
            if (h.trueSize == 0 || h.trueSize > static_cast<std::uint32_t>(FHeader.BlockSize) ||
                (!last && h.trueSize != static_cast<std::uint32_t>(FHeader.BlockSize)))
                note("Block " + of(i) + " claims " + std::to_string(h.trueSize) +
                     " plain bytes in blocks of " + std::to_string(FHeader.BlockSize) + ".");
            if (dataEnd > fileSize) {
                note("Block " + of(i) + " reaches past the end of the file (" +
                     std::to_string(fileSize) + " bytes).");
                break;
            }
            // A chain that doesn't move forward would never end or would read blocks twice.
            if (!last && h.nextHeaderNo < dataEnd) {
                note("The chain pointer of block " + of(i) + " points back into the file.");
                break;
            }
            pos = h.nextHeaderNo;
        }
    }
    FFile->Seek(savedPos, TSeekOrigin::soBeginning);
    CalcRate();
    FFile->SetModified(false);
}

void TECLStream::CalcRate() {
    if (FCompressionLevel == eclNone) {
        FPackedSize = FTrueSize;
        FCompressionRate = 0;
        FHeader.BlockSize = kECLDefaultBlockSize;
        return;
    }
    std::int64_t packed = kECLStreamHeaderSize;
    for (std::int32_t i = 0; i < headers.ItemCount; ++i)
        packed += headers.Items[static_cast<std::size_t>(i)].packedSize;
    FPackedSize = packed;
    FCompressionRate =
        FTrueSize == 0
            ? 0.0
            : 100.0 * (1.0 - static_cast<double>(packed) / static_cast<double>(FTrueSize));
}

void TECLStream::CheckModified() {
    if (FFile->Modified()) ReadHeaders();
}

void TECLStream::CheckIntact() const {
    if (!FDamage.empty()) throw Exception(std::string(kDecompressionError) + " " + FDamage);
}

std::string TECLStream::BlockNote(std::int32_t n) const {
    const std::int32_t total = std::max(headers.ItemCount, FDeclaredBlocks);
    return " Block " + std::to_string(n + 1) + " of " + std::to_string(total) + " is damaged.";
}

std::uint32_t TECLStream::OffsetBehind(std::uint64_t At, std::uint32_t Packed) {
    const std::uint64_t next = At + kECLBlockHeaderSize + Packed;
    if (next > MaxFileOffset)
        throw EECLSizeLimit("The container would grow beyond " + std::to_string(MaxFileOffset) +
                            " bytes, the largest offset its format can hold.");
    return static_cast<std::uint32_t>(next);
}

std::int32_t TECLStream::Repair() {
    CheckModified();
    if (!HasBlocks()) return 0;
    // The longest run of blocks from the start that read back; a short block ends it, since
    // only the last block may be short.
    std::int32_t keep = 0;
    while (keep < headers.ItemCount) {
        try {
            UnpackBlock(keep, ReadPackedBlock(keep), true);
        } catch (const Exception&) {
            break;
        }
        const bool shortBlock = headers.Items[static_cast<std::size_t>(keep)].trueSize <
                                static_cast<std::uint32_t>(FHeader.BlockSize);
        ++keep;
        if (shortBlock) break;
    }
    if (FDamage.empty() && keep == headers.ItemCount) return keep;
    std::uint32_t cutAt =
        static_cast<std::uint32_t>(kECLStreamHeaderSize + FHeader.CustomHeaderSize);
    if (keep > 0) {
        TECLHeader& h = headers.Items[static_cast<std::size_t>(keep - 1)];
        cutAt = OffsetBehind(headers.Positions[static_cast<std::size_t>(keep - 1)], h.packedSize);
        h.nextHeaderNo = cutAt;
        std::uint8_t raw[kECLBlockHeaderSize];
        h.Encode(raw);
        FFile->Seek(headers.Positions[static_cast<std::size_t>(keep - 1)],
                    TSeekOrigin::soBeginning);
        FFile->WriteBuffer(raw, kECLBlockHeaderSize);
    }
    headers.SetSize(keep);
    FFile->SetSize(cutAt);
    WriteStreamHeader();
    FFile->SetModified(false);
    ReadHeaders();
    Seek(0, TSeekOrigin::soBeginning);
    return keep;
}

void TECLStream::WriteStreamHeader() {
    FHeader.NumBlocks = headers.ItemCount;
    FDeclaredBlocks = FHeader.NumBlocks;
    std::uint8_t raw[kECLStreamHeaderSize];
    FHeader.Encode(raw);
    FFile->Seek(0, TSeekOrigin::soBeginning);
    FFile->WriteBuffer(raw, kECLStreamHeaderSize);
}

std::int64_t TECLStream::GetPackedSize() {
    CheckModified();
    return FPackedSize;
}

double TECLStream::GetCompressionRate() {
    CheckModified();
    return FCompressionRate;
}

bool TECLStream::GetEncrypted() {
    return FCompressionLevel > eclNone && FHeader.EncMethod != 0;
}

void TECLStream::PrepareBufferForWriting(const std::uint8_t* Buffer, std::int32_t Count,
                                         TECLHeader& Header,
                                         std::vector<std::uint8_t>& Packed) const {
    Header.trueSize = static_cast<std::uint32_t>(Count);
    Header.Crc32 = Count > 0 ? ECLBlockCrc(Buffer, static_cast<std::size_t>(Count)) : 0;
    try {
        const int zlevel = ECLZlibLevelOf(FCompressionLevel);
        if (zlevel < 0 || Count <= 0) throw ECompressionError("error");
        ZCompressBuf(Buffer, static_cast<std::size_t>(Count), zlevel, Packed);
    } catch (const EZlibError&) {
        Packed.clear();
        throw Exception(kCompressionError);
    }
    Header.packedSize = static_cast<std::uint32_t>(Packed.size());
}

std::vector<std::uint8_t> TECLStream::ReadPackedBlock(std::int32_t n) {
    if (n < 0 || n >= headers.ItemCount) throw Exception(kDecompressionError + BlockNote(n));
    const TECLHeader& h = headers.Items[static_cast<std::size_t>(n)];
    const std::int64_t dataPos =
        static_cast<std::int64_t>(headers.Positions[static_cast<std::size_t>(n)]) +
        kECLBlockHeaderSize;
    // A short read fails instead of leaving the caller without data; checking against the
    // file's size first keeps a lying packedSize from allocating what the file cannot hold.
    if (h.packedSize == 0 || dataPos + h.packedSize > FFile->Size())
        throw Exception(kDecompressionError + BlockNote(n));
    std::vector<std::uint8_t> packed(h.packedSize);
    FFile->Seek(dataPos, TSeekOrigin::soBeginning);
    if (FFile->Read(packed.data(), static_cast<std::int32_t>(h.packedSize)) !=
        static_cast<std::int32_t>(h.packedSize))
        throw Exception(kDecompressionError + BlockNote(n));
    return packed;
}

std::vector<std::uint8_t> TECLStream::UnpackBlock(std::int32_t n,
                                                  const std::vector<std::uint8_t>& packed,
                                                  bool isLast, bool checkStreamSum) {
    const TECLHeader& h = headers.Items[static_cast<std::size_t>(n)];
    if (ECLZlibLevelOf(FCompressionLevel) < 0 || h.trueSize == 0)
        throw Exception(kDecompressionError + BlockNote(n));
    // Every block but the last holds BlockSize bytes, and none holds more.
    if (h.trueSize > static_cast<std::uint32_t>(FHeader.BlockSize) ||
        (!isLast && h.trueSize != static_cast<std::uint32_t>(FHeader.BlockSize)))
        throw Exception(kInvalidSizeError + BlockNote(n));
    std::vector<std::uint8_t> plain(h.trueSize);
    std::size_t produced = 0;
    TZInflateResult r;
    try {
        r = ZDecompressBuf(packed.data(), packed.size(), plain.data(), plain.size(), produced,
                           checkStreamSum);
    } catch (const EZlibError&) {
        throw Exception(kDecompressionError + BlockNote(n));
    }
    if (r != TZInflateResult::Exact) throw Exception(kInvalidSizeError + BlockNote(n));
    if (ECLBlockCrc(plain.data(), plain.size()) != h.Crc32)
        throw Exception(kCrcError + BlockNote(n));
    return plain;
}

std::vector<std::uint8_t> TECLStream::LoadBlock(std::int32_t n) {
    CheckModified();
    return UnpackBlock(n, ReadPackedBlock(n), n == headers.ItemCount - 1);
}

void TECLStream::WriteBlock(std::int32_t n, const std::vector<std::uint8_t>& packed) {
    std::uint8_t raw[kECLBlockHeaderSize];
    headers.Items[static_cast<std::size_t>(n)].Encode(raw);
    FFile->Seek(headers.Positions[static_cast<std::size_t>(n)], TSeekOrigin::soBeginning);
    if (packed.size() <= kSmallBlock) {
        // One write instead of two for a small block: the copy costs less than the call.
        std::uint8_t joined[kECLBlockHeaderSize + kSmallBlock];
        std::memcpy(joined, raw, kECLBlockHeaderSize);
        if (!packed.empty())
            std::memcpy(joined + kECLBlockHeaderSize, packed.data(), packed.size());
        FFile->WriteBuffer(joined, static_cast<std::int64_t>(kECLBlockHeaderSize + packed.size()));
        return;
    }
    FFile->WriteBuffer(raw, kECLBlockHeaderSize);
    FFile->WriteBuffer(packed.data(), static_cast<std::int64_t>(packed.size()));
}

std::int64_t TECLStream::GetSize() {
    CheckModified();
    if (!HasBlocks()) return FFile->Size();
    return FTrueSize;
}

std::int64_t TECLStream::Seek(std::int64_t Offset, TSeekOrigin Origin) {
    CheckModified();
    if (!HasBlocks()) return FFile->Seek(Offset, Origin);
    const std::int64_t base = Origin == TSeekOrigin::soBeginning ? 0
                              : Origin == TSeekOrigin::soCurrent ? FCurrentPos
                                                                 : FTrueSize;
    FCurrentPos = std::max<std::int64_t>(0, base + Offset);
    FCurrentHeader = FCurrentPos == 0 || FTrueSize == 0 ? 0 : headers.FindPosition(FCurrentPos);
    return FCurrentPos;
}

std::int32_t TECLStream::Read(void* Buffer, std::int32_t Count) {
    CheckModified();
    if (!HasBlocks()) {
        DoProgress(0);
        const std::int32_t n = FFile->Read(Buffer, Count);
        DoProgress(100);
        return n;
    }
    CheckIntact();
    DoProgress(0);
    if (FCurrentPos > FTrueSize) return 0;
    const std::int64_t bs = FHeader.BlockSize;
    if (FCurrentPos < FTrueSize) {
        // Sizes that a damaged table claims can put the position beyond the last block.
        if (FCurrentPos / bs >= headers.ItemCount) throw Exception(kInvalidSizeError);
        FCurrentHeader = static_cast<std::int32_t>(FCurrentPos / bs);
    }
    // A read never takes more than remains.
    const std::int64_t want = std::min<std::int64_t>(std::max(Count, 0), FTrueSize - FCurrentPos);
    const std::int32_t steps = std::max(1, headers.ItemCount - FCurrentHeader);
    double progress = 0;
    std::int64_t done = 0;
    auto* out = static_cast<std::uint8_t*>(Buffer);
    while (FCurrentPos < FTrueSize && done < want) {
        DoProgress(progress);
        progress += 100.0 / steps;
        const std::vector<std::uint8_t> block = LoadBlock(FCurrentHeader);
        const std::int64_t offset = FCurrentPos % bs;
        const std::int64_t n = std::min(bs - offset, want - done);
        if (offset + n > static_cast<std::int64_t>(block.size()))
            throw Exception(kInvalidSizeError);
        std::memcpy(out + done, block.data() + offset, static_cast<std::size_t>(n));
        done += n;
        if (done < want) ++FCurrentHeader;
        FCurrentPos += n;
    }
    DoProgress(100);
    return static_cast<std::int32_t>(done);
}

std::int32_t TECLStream::Write(const void* Buffer, std::int32_t Count) {
    CheckModified();
    if (!HasBlocks()) {
        DoProgress(0);
        const std::int32_t n = FFile->Write(Buffer, Count);
        DoProgress(100);
        return n;
    }
    if (Count <= 0) return 0;
    CheckIntact();
    DoProgress(0);
    if (FCurrentPos > FTrueSize) {
        const std::int64_t pos = FCurrentPos;
        Seek(0, TSeekOrigin::soBeginning);
        SetSize(pos);
        if (Seek(pos, TSeekOrigin::soBeginning) != pos) return 0;
    }
    const std::int64_t bs = FHeader.BlockSize;
    const std::int64_t Start = FCurrentPos;
    const std::int64_t End = Start + Count - 1;
    const auto First = static_cast<std::int32_t>(Start / bs);
    const auto Last = static_cast<std::int32_t>(End / bs);
    const std::int32_t OldLast = headers.ItemCount - 1;
    bool Grown = false;
    if (Last > OldLast) {
        Grown = true;
        headers.SetSize(Last + 1);
    }
    const std::uint32_t dataStart =
        static_cast<std::uint32_t>(kECLStreamHeaderSize + FHeader.CustomHeaderSize);
    if (FTrueSize <= 0) headers.Positions[0] = dataStart;
    FTrueSize = std::max(FTrueSize, Start + Count);
    FCurrentPos += Count;

    const auto* src = static_cast<const std::uint8_t*>(Buffer);
    const std::int32_t lastIndex = headers.ItemCount - 1;
    std::vector<std::vector<std::uint8_t>> packedList;
    const std::int32_t steps = std::max(1, headers.ItemCount - First);
    double progress = 0;
    std::int32_t i = First;
    for (; i <= lastIndex && (i <= Last || Grown); ++i) {
        DoProgress(progress);
        progress += 50.0 / steps;
        std::int64_t trueSize = bs;
        if (i == lastIndex) {
            trueSize = FTrueSize % bs;
            if (trueSize == 0) trueSize = bs;
        }
        // The block's plain bytes, no more than it will hold: a short last block doesn't pay
        // for a whole block of zeros.
        std::vector<std::uint8_t> plain;
        if (i <= OldLast) plain = UnpackBlock(i, ReadPackedBlock(i), i == OldLast);
        plain.resize(static_cast<std::size_t>(trueSize), 0);
        if (i <= Last) {
            // The part of the written range that falls into this block, taken from the same
            // distance into the caller's buffer.
            const std::int64_t blockStart = static_cast<std::int64_t>(i) * bs;
            const std::int64_t from = std::max(Start, blockStart);
            const std::int64_t to = std::min(End, blockStart + bs - 1);
            std::memcpy(plain.data() + (from - blockStart), src + (from - Start),
                        static_cast<std::size_t>(to - from + 1));
        }
        TECLHeader& h = headers.Items[static_cast<std::size_t>(i)];
        const std::uint32_t oldPacked = i <= OldLast ? h.packedSize : 0;
        std::vector<std::uint8_t> packed;
        PrepareBufferForWriting(plain.data(), static_cast<std::int32_t>(trueSize), h, packed);
        const std::uint32_t prevNext =
            i == 0 ? dataStart : headers.Items[static_cast<std::size_t>(i - 1)].nextHeaderNo;
        if (i == lastIndex || h.packedSize > oldPacked || Grown)
            h.nextHeaderNo = OffsetBehind(prevNext, h.packedSize);
        if (h.packedSize > oldPacked) Grown = true;
        packedList.push_back(std::move(packed));
    }
    if (Grown && headers.ItemCount > 1)
        for (std::int32_t k = 1; k < headers.ItemCount; ++k)
            headers.Positions[static_cast<std::size_t>(k)] =
                headers.Items[static_cast<std::size_t>(k - 1)].nextHeaderNo;
    for (std::int32_t k = 0; k < static_cast<std::int32_t>(packedList.size()); ++k) {
        DoProgress(progress);
        progress += 50.0 / steps;
        WriteBlock(First + k, packedList[static_cast<std::size_t>(k)]);
    }
    WriteStreamHeader();
    packedList.clear();
    CalcRate();
    DoProgress(100);
    FFile->SetModified(false);
    return Count;
}

void TECLStream::SetSize(std::int64_t NewSize) {
    CheckModified();
    if (!HasBlocks()) {
        FFile->SetSize(NewSize);
        return;
    }
    NewSize = std::max<std::int64_t>(0, NewSize);
    // Emptying a damaged container replaces it whole; any other change needs it intact.
    if (NewSize != 0) CheckIntact();
    if (NewSize == FTrueSize && FDamage.empty()) return;
    const std::int64_t bs = FHeader.BlockSize;
    if (NewSize > FTrueSize) {
        // Zeros up to the new size, written block by block so that a large gap needs no more
        // memory than one block.
        const std::int64_t extSize = NewSize - FTrueSize;
        const bool noProgress = FNoProgress;
        FNoProgress = true;
        Seek(0, TSeekOrigin::soEnd);
        const std::vector<std::uint8_t> zeros(static_cast<std::size_t>(bs), 0);
        std::int64_t left = extSize;
        try {
            while (left > 0) {
                const std::int64_t n = std::min(left, bs - FCurrentPos % bs);
                if (Write(zeros.data(), static_cast<std::int32_t>(n)) != n) break;
                left -= n;
            }
        } catch (...) {
            FNoProgress = noProgress;
            throw;
        }
        FNoProgress = noProgress;
        if (left > 0)
            throw Exception("TECLStream.SetSize - error extending file. NewSize = " +
                            std::to_string(NewSize) + ", extSize = " + std::to_string(extSize));
        return;
    }
    const auto Blocks = static_cast<std::int32_t>(NewSize / bs);
    const auto Rest = static_cast<std::int32_t>(NewSize % bs);
    TECLHeader h;
    std::vector<std::uint8_t> packed;
    if (Rest > 0) {
        const std::vector<std::uint8_t> plain = LoadBlock(Blocks);
        PrepareBufferForWriting(plain.data(), Rest, h, packed);
    }
    const std::uint32_t pos = Rest > 0 ? headers.Positions[static_cast<std::size_t>(Blocks)] : 0;
    headers.SetSize(Blocks + (Rest > 0 ? 1 : 0));
    WriteStreamHeader();
    if (Rest > 0) {
        FFile->SetSize(pos);
        FFile->Seek(0, TSeekOrigin::soEnd);
        h.nextHeaderNo = OffsetBehind(pos, h.packedSize);
        headers.Items[static_cast<std::size_t>(Blocks)] = h;
        headers.Positions[static_cast<std::size_t>(Blocks)] = pos;
        WriteBlock(Blocks, packed);
    }
    FTrueSize = NewSize;
    FDamage.clear();
    if (FCurrentPos > FTrueSize) Seek(0, TSeekOrigin::soEnd);
    CalcRate();
    FFile->SetModified(false);
}

void TECLStream::SaveToStream(TStream& Target) {
    CheckModified();
    CheckIntact();
    if (HasBlocks() && FThreads > 1 && ECLZlibLevelOf(FCompressionLevel) > 0 &&
        headers.ItemCount > 1) {
        ParallelSaveToStream(Target);
        return;
    }
    TECLBaseStream::SaveToStream(Target);
}

void TECLStream::LoadFromStream(TStream& Source) {
    CheckModified();
    // Worker threads pay off only from the second block on; a small file is deflated inline.
    if (HasBlocks() && FThreads > 1 && ECLZlibLevelOf(FCompressionLevel) > 0 &&
        Source.Size() > FHeader.BlockSize) {
        ParallelLoadFromStream(Source);
        return;
    }
    TECLBaseStream::LoadFromStream(Source);
}

void TECLStream::SaveToFile(const std::string& FileName) {
    CheckModified();
    CheckIntact();
    auto* source = HasBlocks() ? nullptr : dynamic_cast<THandleStream*>(FStream);
    if (!source) {
        TECLBaseStream::SaveToFile(FileName);
        return;
    }
    TFileStream f(FileName, fmCreate);
    if (!CopyPlainFile(*source, f))
        TECLBaseStream::SaveToStream(f);  // the kernel copied nothing: the plain loop
}

// A plain file copied in the kernel, chunk by chunk with the progress of SaveToStream: no pass
// through user memory. False, with nothing reported yet, when the file systems can't do it.
bool TECLStream::CopyPlainFile(THandleStream& Source, THandleStream& Target) {
    const std::int64_t size = Source.Size();
    loff_t in = 0, out = 0;
    bool first = true;
    FNoProgress = false;
    while (in < size) {
        const std::int64_t chunkEnd = std::min<std::int64_t>(in + FBlockSize, size);
        while (in < chunkEnd) {
            const auto want = static_cast<std::size_t>(chunkEnd - in);
            const ssize_t n =
                ::copy_file_range(Source.Handle(), &in, Target.Handle(), &out, want, 0);
            if (n > 0) continue;
            if (n < 0 && errno == EINTR) continue;
            if (in == 0 && (n == 0 || errno == EXDEV || errno == ENOSYS || errno == EINVAL ||
                            errno == EOPNOTSUPP))
                return false;
            if (n == 0) throw EReadError("Stream read error");
            throw EWriteError(std::string("Stream write error: ") + std::strerror(errno));
        }
        // Reported per chunk, as SaveToStream does; the start only once the kernel has copied.
        if (first) DoProgress(0);
        first = false;
        DoProgress(static_cast<double>(in) / static_cast<double>(size) * 100.0);
    }
    if (size == 0) DoProgress(0);
    DoProgress(100);
    return true;
}

void TECLStream::LoadFromFile(const std::string& FileName) {
    CheckModified();
    TECLBaseStream::LoadFromFile(FileName);
}

// Loading from a stream empties this one and then appends block after block, each a Write of one
// whole block at a block boundary. Such a Write deflates that block alone and puts it right
// behind the previous one, so the blocks can be deflated ahead on worker threads and appended in
// order: the file gets the same bytes, header rewrites included, as the sequential loop writes.
void TECLStream::ParallelLoadFromStream(TStream& Source) {
    const TLoadFrame frame = BeginLoad(Source);
    const std::int64_t size = Source.Size();
    const std::int32_t bs = FHeader.BlockSize;
    const std::uint32_t dataStart =
        static_cast<std::uint32_t>(kECLStreamHeaderSize + FHeader.CustomHeaderSize);

    struct Packed {
        TECLHeader header;
        std::vector<std::uint8_t> data;
        std::int64_t sourcePos = 0;
    };
    // Bounded look-ahead: a few blocks in flight keep every worker busy while memory stays
    // independent of the stream's length.
    const std::size_t maxInFlight = FThreads + 1;
    std::deque<std::future<Packed>> inFlight;
    bool sourceDone = false;

    auto readChunk = [&](std::vector<std::uint8_t>& buf) -> std::int32_t {
        std::int32_t got = 0;
        const auto want = static_cast<std::int32_t>(buf.size());
        while (got < want) {
            const std::int32_t n = Source.Read(buf.data() + got, want - got);
            if (n <= 0) break;
            got += n;
        }
        return got;
    };
    auto fill = [&] {
        while (!sourceDone && inFlight.size() < maxInFlight) {
            if (Source.Position() >= size) {
                sourceDone = true;
                break;
            }
            // The last block may be short: its buffer is no larger than what is left.
            const std::int64_t left = size - Source.Position();
            auto buf = std::make_shared<std::vector<std::uint8_t>>(
                static_cast<std::size_t>(std::min<std::int64_t>(bs, left)));
            const std::int32_t got = readChunk(*buf);
            if (got <= 0) {
                sourceDone = true;
                break;
            }
            const std::int64_t at = Source.Position();
            inFlight.push_back(std::async(std::launch::async, [this, buf, got, at] {
                Packed p;
                p.sourcePos = at;
                PrepareBufferForWriting(buf->data(), got, p.header, p.data);
                return p;
            }));
        }
    };

    try {
        fill();
        while (!inFlight.empty()) {
            Packed p = inFlight.front().get();
            inFlight.pop_front();
            fill();
            const std::int32_t i = headers.ItemCount;
            const std::uint32_t prevNext =
                i == 0 ? dataStart : headers.Items[static_cast<std::size_t>(i - 1)].nextHeaderNo;
            p.header.nextHeaderNo = OffsetBehind(prevNext, p.header.packedSize);
            headers.AppendItem(p.header, prevNext);
            FTrueSize += p.header.trueSize;
            FCurrentPos = FTrueSize;
            WriteBlock(i, p.data);
            WriteStreamHeader();
            CalcRate();
            FFile->SetModified(false);
            DoProgress(static_cast<double>(p.sourcePos) / static_cast<double>(size) * 100.0);
        }
    } catch (...) {
        // Let the workers finish before the buffers they use go away.
        for (auto& f : inFlight)
            if (f.valid()) f.wait();
        throw;
    }
    EndLoad(Source, frame);
}

// Saving the whole stream reads the blocks in order; inflating them ahead on worker threads gives
// the same bytes and the same progress reports as the block-by-block loop.
void TECLStream::ParallelSaveToStream(TStream& Target) {
    const std::int64_t ownPos = FCurrentPos;
    const std::int64_t targetPos = Target.Position();
    FNoProgress = false;
    DoProgress(0);
    const std::int64_t size = FTrueSize;
    const std::size_t maxInFlight = FThreads + 1;
    std::deque<std::future<std::vector<std::uint8_t>>> inFlight;
    std::int32_t next = 0;
    std::int64_t copied = 0;
    auto fill = [&] {
        while (next < headers.ItemCount && inFlight.size() < maxInFlight) {
            auto packed = std::make_shared<std::vector<std::uint8_t>>(ReadPackedBlock(next));
            const std::int32_t n = next++;
            inFlight.push_back(std::async(std::launch::async,
                                          [this, n, packed, last = n == headers.ItemCount - 1] {
                                              return UnpackBlock(n, *packed, last, false);
                                          }));
        }
    };
    try {
        fill();
        while (!inFlight.empty()) {
            const std::vector<std::uint8_t> plain = inFlight.front().get();
            inFlight.pop_front();
            fill();
            Target.WriteBuffer(plain.data(), static_cast<std::int64_t>(plain.size()));
            copied += static_cast<std::int64_t>(plain.size());
            DoProgress(static_cast<double>(copied) / static_cast<double>(size) * 100.0);
        }
    } catch (...) {
        for (auto& f : inFlight)
            if (f.valid()) f.wait();
        throw;
    }
    Seek(ownPos, TSeekOrigin::soBeginning);
    Target.Seek(targetPos, TSeekOrigin::soBeginning);
    DoProgress(100);
}

}  // namespace docadmin
