#include "_TBaseDocFileLoader.h"

#include <zlib.h>

#include <cmath>
#include <vector>

#include "_GZTools.h"
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
    if (!bad) return;
    // Shown to a user: a NUL would cut the text short, so it is written as "\0".
    std::string shown;
    for (char c : RemoteFile)
        shown += c == '\0' ? std::string("\\0") : std::string(1, c);
    throw EKRUserMessageException("Invalid remote file name \"" + shown + "\"!");
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

bool TBaseDocFileLoader::CompressFile(const std::string& Source, const std::string& Dest,
                                      TCompressMode AMode) {
    FCompressionFile = Source;
    FCompressionMode = AMode;
    auto progress = [this](TObject* Sender, double PercentDone) {
        CompressProgress(Sender, PercentDone);
    };
    if (AMode == cmCompress) {
        TECLFileStream stream(Dest, fmCreate, "", zlibMax, 0);
        stream.SetSyncOnClose(FSyncCompressedFiles);
        stream.OnProgress = progress;
        stream.LoadFromFile(Source);
        return true;
    }
    // Opening reads the level from the file: anything but a container reports eclNone.
    TECLFileStream stream(Source, fmOpenRead | fmShareDenyWrite, "", zlibMax, 0);
    stream.OnProgress = progress;
    stream.InnerStream()->Seek(0, TSeekOrigin::soBeginning);
    if (stream.InnerStream()->CompressionLevel() != eclNone)
        stream.SaveToFile(Dest);
    else if (IsGZFile(Source))
        InflateLegacyFile(Source, Dest);  // no compress events on this path
    else
        stream.SaveToFile(Dest);  // plain: a byte-for-byte copy with the same events
    return true;
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
