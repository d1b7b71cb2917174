// The shells over the container engine: TECLAdvCompressedStream forwards to a TECLStream and
// guards writes when read-only; TECLFileStream binds it to a named file. These are what the file
// stores use (LoadFromFile to pack, SaveToFile to unpack, CompressionLevel to tell a container
// from a plain file).
#pragma once

#include <memory>
#include <string>

#include "_TECLStream.h"

namespace docadmin {

class TECLAdvCompressedStream : public TECLBaseCompressedStream {
  public:
    // A shell over a data stream that is not owned. With bCreate the data stream is emptied.
    TECLAdvCompressedStream(TStream* dataStream, bool bCreate, bool ReadOnly,
                            const std::string& Password, TECLCompressionLevel compressLevel,
                            std::int32_t CustomHeaderSize = 0);
    ~TECLAdvCompressedStream() override;

    std::int64_t GetSize() override;
    void SetSize(std::int64_t NewSize) override;
    std::int32_t Read(void* Buffer, std::int32_t Count) override;
    std::int32_t Write(const void* Buffer, std::int32_t Count) override;
    std::int64_t Seek(std::int64_t Offset, TSeekOrigin Origin) override;

    void SaveToStream(TStream& Stream) override;
    void LoadFromStream(TStream& Stream) override;
    void SaveToFile(const std::string& FileName) override;
    void LoadFromFile(const std::string& FileName) override;

    std::int64_t GetPackedSize() override;
    double GetCompressionRate() override;
    bool GetEncrypted() override;
    TStream* GetCompressedDataStream() override;

    bool ReadOnly() const { return bReadOnly; }
    // The engine inside; its CompressionLevel is read from the content.
    TECLStream* InnerStream() const { return cStream.get(); }

  protected:
    TECLAdvCompressedStream() : TECLBaseCompressedStream(NoStreamTag{}) {}
    void CheckWritable(const char* operation) const;

    bool bReadOnly = false;
    std::unique_ptr<TECLStream> cStream;
};

// A container on a named file. Mode fmCreate (0xFF00) creates it anew at the given level; other
// modes open it as it is, and its level comes from its content (eclNone for a plain file). A mode
// whose two low bits are 0, like fmOpenRead or fmShareDenyWrite (0x0020), gives a read-only shell.
class TECLFileStream : public TECLAdvCompressedStream {
  public:
    TECLFileStream(const std::string& FileName, std::uint16_t Mode, const std::string& Password,
                   TECLCompressionLevel compressLevel, std::int32_t CustomHeaderSize = 0);
    // Flushes the file to the disk when it was opened for writing (unless SetSyncOnClose(false)).
    ~TECLFileStream() override;
    // False leaves the flush to the caller, who syncs many files at once.
    void SetSyncOnClose(bool AValue) { FSyncOnClose = AValue; }

    // Rewrites the file at the new level through FileName + ".bak"; nothing happens when the
    // level is the same or the file was opened with mode 0.
    void SetCompressionLevel(TECLCompressionLevel level) override;
    void SetEncrypted(bool value) override;

    const std::string& FileName() const { return FFileName; }
    std::uint16_t Mode() const { return FMode; }

  private:
    void Open(std::uint16_t Mode, const std::string& Password, TECLCompressionLevel level,
              std::int32_t CustomHeaderSize);
    void Rewrite(TECLCompressionLevel level, const std::string& newPassword);

    std::unique_ptr<TFileStream> fStream;
    std::uint16_t FMode = 0;
    std::string FFileName;
    bool FSyncOnClose = true;
};

}  // namespace docadmin
