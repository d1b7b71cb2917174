#include "_TBaseDocFileLoader.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <vector>

#include "_GZTools.h"
#include "_StoreFiles.h"
#include "_TECLFileStream.h"

namespace docadmin {

void TBaseDocFileLoader::LoadSettings(bool /*Offline*/) {}

void TBaseDocFileLoader::PrepareUploads(const std::vector<std::string>& /*LocalFiles*/) {}

void TBaseDocFileLoader::EndPreparedUploads() {}

void TBaseDocFileLoader::ReplayCompressProgress(const std::string& Source,
                                                const std::vector<double>& Values) {
    FCompressionFile = Source;
    FCompressionMode = cmCompress;
    for (double v : Values)
        CompressProgress(this, v);
}

void TBaseDocFileLoader::DownloadFileNonBlocked(const std::string& RemoteFile,
                                                const std::string& DestFileName,
                                                IDocAdminDownloderCallBack* ACallBack) {
    IPtr<IDocAdminDownloderCallBack> hold(ACallBack);
    // A failure of DownloadDone itself is reported like a failed download: both run in the guard.
    try {
        DownloadFile(RemoteFile, DestFileName);
        if (hold) hold->DownloadDone(DestFileName);
    } catch (const std::exception& e) {
        if (hold) hold->DownloadFailed(DestFileName, e.what());
    }
}

void TBaseDocFileLoader::DownloadFileOfSize(const std::string& RemoteFile,
                                            const std::string& DestFileName,
                                            std::int64_t ExpectedSize) {
    FExpectedSize = ExpectedSize;
    TFinally reset{[this] { FExpectedSize = -1; }};
    DownloadFile(RemoteFile, DestFileName);
}

std::string TBaseDocFileLoader::GenerateNewFileName() {
    std::string s = CreateGUIDString();
    std::string r;
    r.reserve(32);
    for (char c : s)
        if (c != '{' && c != '}' && c != '-') r += c;
    return r;
}

void TBaseDocFileLoader::CheckRemoteFileName(const std::string& RemoteFile) {
    const bool bad = RemoteFile.empty() || RemoteFile == "." || RemoteFile == ".." ||
                     RemoteFile.find_first_of(std::string("/\\\0", 3)) != std::string::npos;
    const bool temporary = !bad && IsTemporaryName(RemoteFile);
    if (!bad && !temporary) return;
    // Shown to a user: a NUL would cut the text short, so it is written as "\0".
    std::string shown;
    for (char c : RemoteFile)
        shown += c == '\0' ? std::string("\\0") : std::string(1, c);
    throw EKRUserMessageException(
        "Invalid remote file name \"" + shown + "\"!" +
        (temporary ? " Names starting with \".~\" are the store's temporary files." : ""));
}

// ---- events

void TBaseDocFileLoader::DoTransferStart(const std::string& FileName, TTransferMode aTransferMode) {
    if (OnTransferStart) OnTransferStart(this, FileName, aTransferMode);
}

void TBaseDocFileLoader::DoTransfer(std::int64_t BytesTransferred, std::int64_t TotalBytes,
                                    std::int32_t Percentage) {
    if (OnTransfer) OnTransfer(this, BytesTransferred, TotalBytes, Percentage);
}

void TBaseDocFileLoader::DoTransferEnd(std::int64_t TotalBytes) {
    if (OnTransferEnd) OnTransferEnd(this, TotalBytes);
}

void TBaseDocFileLoader::DoCompress(std::int32_t PercentDone) {
    if (OnCompress) OnCompress(this, PercentDone);
}

void TBaseDocFileLoader::DoCompressStart(const std::string& FileName, TCompressMode ACompressMode) {
    if (OnCompressStart) OnCompressStart(this, FileName, ACompressMode);
}

void TBaseDocFileLoader::DoCompressEnd(const std::string& FileName, TCompressMode ACompressMode) {
    if (OnCompressEnd) OnCompressEnd(this, FileName, ACompressMode);
}

void TBaseDocFileLoader::CompressProgress(TObject* /*Sender*/, double PercentDone) {
    const auto value = static_cast<std::int32_t>(std::ceil(PercentDone));
    if (value == 0)
        DoCompressStart(FCompressionFile, FCompressionMode);
    else if (value == 100)
        DoCompressEnd(FCompressionFile, FCompressionMode);
    else
        DoCompress(value);
}

// ---- the compress step

bool TBaseDocFileLoader::IsGZFile(const std::string& FileName) {
    return IsCompressedGZFile(FileName);
}

bool TBaseDocFileLoader::WouldBeMisreadAsPlain(const std::string& FileName) {
    char head[4] = {};
    const int fd = ::open(FileName.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const ssize_t n = ::read(fd, head, sizeof head);
    ::close(fd);
    if (n == static_cast<ssize_t>(sizeof head) && std::memcmp(head, "AACS", 4) == 0) return true;
    return IsGZFile(FileName);
}

bool TBaseDocFileLoader::CompressFile(const std::string& Source, const std::string& Dest,
                                      TCompressMode AMode) {
    FCompressionFile = Source;
    FCompressionMode = AMode;
    auto progress = [this](TObject* Sender, double PercentDone) {
        CompressProgress(Sender, PercentDone);
    };
    if (AMode == cmUnCompress) {
        UnpackStoredFile(Source, Dest, progress, FExpectedSize);
        return true;
    }
    RefuseSameFile(Source, Dest);
    TECLFileStream stream(Dest, fmCreate, "", zlibMax, 0);
    stream.SetSyncOnClose(FSyncCompressedFiles);
    stream.OnProgress = progress;
    stream.LoadFromFile(Source);
    return true;
}

void AddFailureContext(Exception& E, const std::string& Doing, int SavedErrno) {
    std::string text = E.Message();
    if ((text == "Stream write error" || text == "Stream read error") && SavedErrno != 0)
        text += ": " + SystemErrorText(SavedErrno);
    E.SetMessage(text + " (" + Doing + ")");
}

void UnpackStoredFile(const std::string& Source, const std::string& Dest,
                      const TECLProgressEvent& Progress, std::int64_t ExpectedSize) {
    RefuseSameFile(Source, Dest);
    errno = 0;
    try {
        TAtomicOutput out(Dest);
        {
            // Opening reads the level from the file: anything but a container reports eclNone.
            TECLFileStream stream(Source, fmOpenRead | fmShareDenyWrite, "", zlibMax, 0);
            stream.OnProgress = Progress;
            stream.InnerStream()->Seek(0, TSeekOrigin::soBeginning);
            if (stream.InnerStream()->CompressionLevel() != eclNone)
                stream.SaveToFile(out.Path());  // fails on a damaged container, never repairs
            else if (IsCompressedGZFile(Source))
                InflateLegacyFile(Source, out.Path());  // no compress events on this path
            else
                stream.SaveToFile(out.Path());  // plain: a byte-for-byte copy, same events
        }
        const std::int64_t written = out.WrittenSize();
        if (ExpectedSize >= 0 && written >= 0 && written != ExpectedSize)
            throw EReadError("The content is " + std::to_string(written) + " bytes long, but " +
                             std::to_string(ExpectedSize) + " bytes were expected.");
        out.Commit();
    } catch (Exception& e) {
        const int err = errno;
        AddFailureContext(e, "while reading \"" + Source + "\" into \"" + Dest + "\"", err);
        throw;
    }
}

// ---- legacy files

void InflateLegacyFile(const std::string& Source, const std::string& Dest) {
    constexpr std::int32_t kBuffer = 32768;
    TFileStream in(Source, fmOpenRead | fmShareDenyWrite);
    TFileStream out(Dest, fmCreate);
    std::vector<unsigned char> inBuf(kBuffer), outBuf(kBuffer);

    z_stream zs{};
    if (inflateInit2(&zs, 15 + 32) != Z_OK)  // gzip or zlib wrapper, from the header
        throw EReadError("Cannot decompress \"" + Source + "\": out of memory");
    struct Guard {
        z_stream& z;
        ~Guard() { inflateEnd(&z); }
    } guard{zs};

    auto fail = [&](const char* why) {
        throw EReadError("Cannot decompress \"" + Source + "\": " + why);
    };
    int rc = Z_OK;
    bool ended = false;
    for (;;) {
        const std::int32_t got = in.Read(inBuf.data(), kBuffer);
        if (got <= 0) break;
        zs.next_in = inBuf.data();
        zs.avail_in = static_cast<uInt>(got);
        while (zs.avail_in > 0) {
            if (ended) {
                // Several gzip members one after the other form one file.
                if (inflateReset(&zs) != Z_OK) fail("stream error");
                ended = false;
            }
            zs.next_out = outBuf.data();
            zs.avail_out = kBuffer;
            rc = inflate(&zs, Z_NO_FLUSH);
            if (rc == Z_NEED_DICT || rc == Z_DATA_ERROR || rc == Z_MEM_ERROR ||
                rc == Z_STREAM_ERROR)
                fail(zs.msg ? zs.msg : "data error");
            out.WriteBuffer(outBuf.data(), kBuffer - static_cast<std::int32_t>(zs.avail_out));
            if (rc == Z_STREAM_END)
                ended = true;
            else if (rc == Z_BUF_ERROR)
                break;
        }
    }
    // Flush what inflate still holds for a stream whose input is used up.
    while (!ended) {
        zs.next_out = outBuf.data();
        zs.avail_out = kBuffer;
        rc = inflate(&zs, Z_NO_FLUSH);
        const auto n = kBuffer - static_cast<std::int32_t>(zs.avail_out);
        out.WriteBuffer(outBuf.data(), n);
        if (rc == Z_STREAM_END) ended = true;
        if (rc == Z_DATA_ERROR) fail(zs.msg ? zs.msg : "data error");
        if (!ended && n == 0) fail("unexpected end of data");
    }
}

}  // namespace docadmin
