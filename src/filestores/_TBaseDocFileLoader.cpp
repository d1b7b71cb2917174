#include "_TBaseDocFileLoader.h"

namespace docadmin {

void TBaseDocFileLoader::LoadSettings(bool /*Offline*/) {}

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

}  // namespace docadmin
