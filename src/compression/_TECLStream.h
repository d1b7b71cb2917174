// The compressed container: one logical byte stream cut into fixed-size blocks, each deflated on
// its own with zlib and checked by its own CRC, chained through a 16-byte header in front of it.
//
// File layout (all integers little-endian):
//   128-byte stream header ("AACS", BlockSize, NumBlocks, version 3.0, level, custom header size)
//   custom header of CustomHeaderSize bytes
//   blocks: 16-byte block header (packedSize, trueSize, Crc32, nextHeaderNo) + packedSize bytes
// nextHeaderNo is the absolute offset of the next block header; the last one points just behind
// its data. Blocks need not touch: a block that shrank on rewrite leaves a gap behind it.
//
// A file that is shorter than the stream header, or lacks the signature, is plain data: the
// stream classes then read and write it as it stands (level eclNone).
//
// The stream classes are not thread-safe; one thread uses an object at a time. LoadFromStream
// deflates independent blocks on worker threads but writes exactly the bytes a sequential run
// writes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "_Classes.h"

namespace docadmin {

enum TECLCompressionLevel : std::uint8_t {
    eclNone = 0,
    zlibFastest = 1,
    zlibNormal = 2,
    ppmNormal = 3,
    ppmMax = 4,
    zlibMax = 5,
    ppmFastest = 6,
    bzipFastest = 7,
    bzipNormal = 8,
    bzipMax = 9,
};

inline constexpr std::int32_t kECLStreamHeaderSize = 128;
inline constexpr std::int32_t kECLBlockHeaderSize = 16;
inline constexpr std::int32_t kECLMaxBlockSize = 1572864;
inline constexpr std::int32_t kECLDefaultBlockSize = 1048576;

// A write that would need a file offset beyond what the format's 32-bit chain pointers hold.
// The stream is unusable afterwards; its file is to be discarded.
DOCADMIN_DECLARE_EXCEPTION(EECLSizeLimit, Exception);

// Plain bytes per block at a level; levels beyond the table answer 0.
std::int32_t ECLBlockSizeOf(TECLCompressionLevel level);
// The zlib level (1, 5 or 9) of a level that has a compressor here, else -1.
int ECLZlibLevelOf(TECLCompressionLevel level);
// The level's name ("zlibMax", ...); "level<n>" for values beyond the table.
std::string ECLLevelName(TECLCompressionLevel level);
// Parses a level name; false when unknown.
bool ECLLevelFromName(const std::string& name, TECLCompressionLevel& level);

struct TECLStreamHeader {
    char signature[4] = {'A', 'A', 'C', 'S'};
    std::int32_t BlockSize = 0;
    std::int32_t Crc32 = 0;
    std::int32_t NumBlocks = 0;
    float version = 3.0f;
    std::uint8_t compressionLevel = 0;
    std::uint8_t CrcMode = 0;
    std::uint8_t EncMethod = 0;
    std::int32_t CustomHeaderSize = 0;  // stored unaligned at offset 23
    std::uint8_t reserved = 0;
    std::uint8_t controlBlock[100] = {};

    void Encode(std::uint8_t (&out)[kECLStreamHeaderSize]) const;
    void Decode(const std::uint8_t (&in)[kECLStreamHeaderSize]);
    bool HasSignature() const;
};

struct TECLHeader {
    std::uint32_t packedSize = 0;
    std::uint32_t trueSize = 0;
    std::uint32_t Crc32 = 0;
    std::uint32_t nextHeaderNo = 0;

    void Encode(std::uint8_t (&out)[kECLBlockHeaderSize]) const;
    void Decode(const std::uint8_t (&in)[kECLBlockHeaderSize]);
};

// The in-memory table of blocks: the header of each block and the file offset of that header.
// Grows and shrinks in steps so that appending block after block doesn't reallocate each time.
class TECLHeadersArray : public TObject {
  public:
    std::int32_t AllocBy = 100;
    std::int32_t DeAllocBy = 100;
    std::int32_t MaxAllocBy = 10000;
    std::int32_t AllocItemCount = 0;
    std::vector<TECLHeader> Items;
    std::vector<std::uint32_t> Positions;
    std::int32_t ItemCount = 0;

    void SetSize(std::int32_t newSize);
    void AppendItem(const TECLHeader& value, std::uint32_t pos);
    // The last entry whose position is not above pos, clamped to the table.
    std::int32_t FindPosition(std::int64_t pos) const;
};

using TECLProgressEvent = std::function<void(TObject* Sender, double PercentDone)>;

// A pass-through stream over another (not owned) that notes whether it was written, plus the
// copy loops to and from other streams and files, which report progress.
class TECLBaseStream : public TStream {
  public:
    // Raises "TECLBaseStream.Create - Stream = nil." without a stream.
    explicit TECLBaseStream(TStream* Stream);

    std::int64_t GetSize() override;
    void SetSize(std::int64_t NewSize) override;
    std::int32_t Read(void* Buffer, std::int32_t Count) override;
    std::int32_t Write(const void* Buffer, std::int32_t Count) override;
    std::int64_t Seek(std::int64_t Offset, TSeekOrigin Origin) override;

    virtual void SaveToStream(TStream& Stream);
    virtual void LoadFromStream(TStream& Stream);
    virtual void SaveToFile(const std::string& FileName);
    virtual void LoadFromFile(const std::string& FileName);

    bool Modified() const { return FModified; }
    void SetModified(bool value) { FModified = value; }
    std::int32_t BlockSize() const { return FBlockSize; }

    TECLProgressEvent OnProgress;

  protected:
    struct NoStreamTag {};
    explicit TECLBaseStream(NoStreamTag) {}
    void DoProgress(double PercentDone);

    // The frame of LoadFromStream: both positions are kept, this stream is emptied, Source is
    // read from its start, and progress 0 is reported; EndLoad puts both positions back and
    // reports 100.
    struct TLoadFrame {
        std::int64_t ownPos, sourcePos;
    };
    TLoadFrame BeginLoad(TStream& Source);
    void EndLoad(TStream& Source, const TLoadFrame& Frame);

    std::int32_t FBlockSize = kECLDefaultBlockSize;
    TStream* FStream = nullptr;  // not owned
    bool FModified = false;
    bool FNoProgress = false;
};

// Adds the properties of a compressed stream. The accessors are virtual; these defaults answer the
// fields, store the level, answer false for Encrypted and ignore setting it.
class TECLBaseCompressedStream : public TECLBaseStream {
  public:
    using TECLBaseStream::TECLBaseStream;

    virtual std::int64_t GetPackedSize() { return FPackedSize; }
    virtual double GetCompressionRate() { return FCompressionRate; }
    virtual void SetCompressionLevel(TECLCompressionLevel level) { FCompressionLevel = level; }
    virtual bool GetEncrypted() { return false; }
    virtual void SetEncrypted(bool) {}
    virtual TStream* GetCompressedDataStream() { return nullptr; }

    TECLCompressionLevel CompressionLevel() const { return FCompressionLevel; }

  protected:
    std::int64_t FPackedSize = 0;
    TECLCompressionLevel FCompressionLevel = eclNone;
    double FCompressionRate = 0;
    std::string FPassword;
};

// The container engine over a data stream (not owned). Each Write leaves a complete, readable
// container with a current stream header; there is no separate flush. Reads decompress whole
// blocks; there is no block cache.
class TECLStream : public TECLBaseCompressedStream {
  public:
    // With bCreate the data stream is emptied and, for a level above eclNone, a new header is
    // written at once. Then the headers are read from the content, which sets the level.
    TECLStream(TStream* dataStream, bool bCreate, const std::string& Password,
               TECLCompressionLevel compressLevel, std::int32_t CustomHeaderSize = 0);
    ~TECLStream() override;

    std::int64_t GetSize() override;
    void SetSize(std::int64_t NewSize) override;
    std::int32_t Read(void* Buffer, std::int32_t Count) override;
    std::int32_t Write(const void* Buffer, std::int32_t Count) override;
    std::int64_t Seek(std::int64_t Offset, TSeekOrigin Origin) override;

    void SaveToStream(TStream& Stream) override;
    void LoadFromStream(TStream& Stream) override;
    // A plain file on a file handle is copied in the kernel where it can be.
    void SaveToFile(const std::string& FileName) override;
    void LoadFromFile(const std::string& FileName) override;

    std::int64_t GetPackedSize() override;
    double GetCompressionRate() override;
    bool GetEncrypted() override;
    TStream* GetCompressedDataStream() override { return FFile.get(); }

    std::int32_t CustomHeaderSize() const { return FHeader.CustomHeaderSize; }
    const TECLStreamHeader& StreamHeader() const { return FHeader; }
    const TECLHeadersArray& Headers() const { return headers; }

    // The plain bytes of block n, checked against its size and CRC. Raises the LoadBlock texts,
    // followed by which block of how many is damaged.
    std::vector<std::uint8_t> LoadBlock(std::int32_t n);

    // What is wrong with the block chain, in words; empty for an intact container. A damaged
    // container (cut short, a chain pointer that leads astray, sizes that don't add up) is never
    // read or written as a whole: Read, Write, SetSize and the copy loops raise the
    // decompression error with this text, so that no reader takes part of a file for all of it.
    // LoadBlock still reads single blocks, for inspection.
    const std::string& Damage() const { return FDamage; }
    // The block count that the stream header announces.
    std::int32_t DeclaredBlocks() const { return FDeclaredBlocks; }
    // Cuts a damaged container behind the longest run of blocks from the start that read back
    // intact and rewrites its header, so that it reads as that shorter content. Answers the
    // blocks kept. Only on request: no read repairs anything.
    std::int32_t Repair();

    // The largest file offset a chain pointer can hold; a write beyond it raises EECLSizeLimit.
    // Tests lower it to exercise the limit without writing gigabytes.
    static inline std::uint64_t MaxFileOffset = 0xFFFFFFFFu;

    // Worker threads for LoadFromStream and SaveToStream; 1 keeps everything on the caller's
    // thread. Defaults to the number of processors.
    void SetThreads(unsigned n) { FThreads = n == 0 ? 1 : n; }

  protected:
    void ReadHeaders();
    // Raises the decompression error with the damage text for a damaged container.
    void CheckIntact() const;
    // "Block n+1 of N is damaged.", appended to the LoadBlock texts.
    std::string BlockNote(std::int32_t n) const;
    // The offset behind a block of Packed bytes whose header stands at At; raises EECLSizeLimit
    // beyond MaxFileOffset.
    static std::uint32_t OffsetBehind(std::uint64_t At, std::uint32_t Packed);
    void CalcRate();
    void CheckModified();
    void WriteStreamHeader();
    bool HasBlocks() const;
    // Sets trueSize, Crc32 and packedSize of Header and deflates Count bytes into Packed.
    void PrepareBufferForWriting(const std::uint8_t* Buffer, std::int32_t Count, TECLHeader& Header,
                                 std::vector<std::uint8_t>& Packed) const;
    // Reads block n's compressed data; raises the decompression error when the file can't hold it.
    std::vector<std::uint8_t> ReadPackedBlock(std::int32_t n);
    // Inflates and checks block n from its compressed data.
    // isLast allows a block shorter than BlockSize. Without checkStreamSum zlib's own Adler-32 is
    // skipped, leaving the block's CRC-32 over the same plain bytes (whole-stream copies, where
    // the sum costs more than the inflate; reads of single blocks and verify keep both checks).
    std::vector<std::uint8_t> UnpackBlock(std::int32_t n, const std::vector<std::uint8_t>& packed,
                                          bool isLast, bool checkStreamSum = true);
    void WriteBlock(std::int32_t n, const std::vector<std::uint8_t>& packed);
    void ParallelLoadFromStream(TStream& Source);
    void ParallelSaveToStream(TStream& Target);
    bool CopyPlainFile(THandleStream& Source, THandleStream& Target);

    std::unique_ptr<TECLBaseStream> FFile;
    TECLHeadersArray headers;
    std::int64_t FTrueSize = 0;
    std::int32_t FCurrentHeader = 0;
    std::int64_t FCurrentPos = 0;
    TECLStreamHeader FHeader;
    std::string FDamage;               // empty when the chain is intact
    std::int32_t FDeclaredBlocks = 0;  // NumBlocks as the file's header states it
    unsigned FThreads = 1;
};

}  // namespace docadmin
