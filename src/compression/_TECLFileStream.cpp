#include "_TECLFileStream.h"

#include <filesystem>

namespace docadmin {

// ---- TECLAdvCompressedStream

TECLAdvCompressedStream::TECLAdvCompressedStream(TStream* dataStream, bool bCreate, bool ReadOnly,
                                                 const std::string& Password,
                                                 TECLCompressionLevel compressLevel,
                                                 std::int32_t CustomHeaderSize)
    : TECLBaseCompressedStream(dataStream), bReadOnly(ReadOnly) {
    cStream = std::make_unique<TECLStream>(dataStream, bCreate, Password, compressLevel,
                                           CustomHeaderSize);
    FPassword = Password;
    FCompressionLevel = cStream->CompressionLevel();
    FBlockSize = cStream->BlockSize();
}

TECLAdvCompressedStream::~TECLAdvCompressedStream() = default;

void TECLAdvCompressedStream::CheckWritable(const char* operation) const {
    if (bReadOnly)
        throw Exception(std::string("TECLAdvCompressedStream.") + operation +
                        " - file is in read only mode.");
}

std::int64_t TECLAdvCompressedStream::GetSize() {
    return cStream->Size();
}

void TECLAdvCompressedStream::SetSize(std::int64_t NewSize) {
    CheckWritable("SetSize");
    cStream->SetSize(NewSize);
}

std::int32_t TECLAdvCompressedStream::Read(void* Buffer, std::int32_t Count) {
    cStream->OnProgress = OnProgress;
    return cStream->Read(Buffer, Count);
}

std::int32_t TECLAdvCompressedStream::Write(const void* Buffer, std::int32_t Count) {
    CheckWritable("Write");
    cStream->OnProgress = OnProgress;
    return cStream->Write(Buffer, Count);
}

std::int64_t TECLAdvCompressedStream::Seek(std::int64_t Offset, TSeekOrigin Origin) {
    return cStream->Seek(Offset, Origin);
}

void TECLAdvCompressedStream::SaveToStream(TStream& Stream) {
    cStream->OnProgress = OnProgress;
    cStream->SaveToStream(Stream);
}

void TECLAdvCompressedStream::LoadFromStream(TStream& Stream) {
    CheckWritable("LoadFromStream");
    cStream->OnProgress = OnProgress;
    cStream->LoadFromStream(Stream);
}

void TECLAdvCompressedStream::SaveToFile(const std::string& FileName) {
    cStream->OnProgress = OnProgress;
    cStream->SaveToFile(FileName);
}

void TECLAdvCompressedStream::LoadFromFile(const std::string& FileName) {
    CheckWritable("LoadFromStream");
    cStream->OnProgress = OnProgress;
    cStream->LoadFromFile(FileName);
}

std::int64_t TECLAdvCompressedStream::GetPackedSize() {
    return cStream->GetPackedSize();
}

double TECLAdvCompressedStream::GetCompressionRate() {
    return cStream->GetCompressionRate();
}

bool TECLAdvCompressedStream::GetEncrypted() {
    return cStream->GetEncrypted();
}

TStream* TECLAdvCompressedStream::GetCompressedDataStream() {
    return cStream->GetCompressedDataStream();
}

// ---- TECLFileStream

TECLFileStream::TECLFileStream(const std::string& FileName, std::uint16_t Mode,
                               const std::string& Password, TECLCompressionLevel compressLevel,
                               std::int32_t CustomHeaderSize)
    : FMode(Mode), FFileName(FileName) {
    FPassword = Password;
    Open(Mode, Password, compressLevel, CustomHeaderSize);
}

TECLFileStream::~TECLFileStream() {
    if (fStream && !bReadOnly && FSyncOnClose) {
        try {
            fStream->Flush();
        } catch (const std::exception&) {
            // A destructor cannot report; the data was written, only its sync failed.
        }
    }
    cStream.reset();
    fStream.reset();
}

void TECLFileStream::Open(std::uint16_t Mode, const std::string& Password,
                          TECLCompressionLevel level, std::int32_t CustomHeaderSize) {
    fStream = std::make_unique<TFileStream>(FFileName, Mode);
    FStream = fStream.get();
    // fmCreate has its two low bits clear too, yet creating is writing.
    bReadOnly = Mode != fmCreate && (Mode & 0x3) == 0;
    cStream = std::make_unique<TECLStream>(fStream.get(), Mode == fmCreate, Password, level,
                                           CustomHeaderSize);
    FCompressionLevel = cStream->CompressionLevel();
    FBlockSize = cStream->BlockSize();
}

void TECLFileStream::Rewrite(TECLCompressionLevel level, const std::string& newPassword) {
    const std::int32_t customHeaderSize = cStream->CustomHeaderSize();
    const std::string bak = FFileName + ".bak";
    cStream.reset();
    fStream.reset();
    FStream = nullptr;
    std::filesystem::rename(FFileName, bak);
    {
        TFileStream oldFile(bak, fmOpenRead);
        TECLStream oldStream(&oldFile, false, FPassword, FCompressionLevel, 0);
        TFileStream newFile(FFileName, fmCreate);
        TECLStream newStream(&newFile, true, newPassword, level, customHeaderSize);
        newStream.OnProgress = OnProgress;
        newStream.LoadFromStream(oldStream);
    }
    // A created file is reopened for reading and writing: creating it again would empty it.
    Open(FMode == fmCreate ? static_cast<std::uint16_t>(fmOpenReadWrite) : FMode, FPassword, level,
         customHeaderSize);
    FCompressionLevel = level;
    std::filesystem::remove(bak);
}

void TECLFileStream::SetCompressionLevel(TECLCompressionLevel level) {
    if (level == FCompressionLevel || FMode == 0) return;
    Rewrite(level, "");
}

void TECLFileStream::SetEncrypted(bool value) {
    if (value == GetEncrypted() || FCompressionLevel == eclNone || FMode == 0) return;
    Rewrite(FCompressionLevel, value ? FPassword : std::string());
}

}  // namespace docadmin
