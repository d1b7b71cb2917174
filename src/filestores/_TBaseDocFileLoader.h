// The abstract file store: the one seam between the document tree and the place where file
// contents live. A store moves whole files between a local path and a flat repository addressed
// by remote file names.
#pragma once

#include <string>

#include "_PluginIntf.h"

namespace docadmin {

enum TUploadMode { upmChange = 0, upmNew = 1 };

// Completion of a non-blocking download, reported by a store.
class IDocAdminDownloderCallBack : public IInterface {
  public:
    DOCADMIN_IID("{432E661E-0350-459D-8B14-460A8659FBCC}");
    virtual void DownloadDone(const std::string& DestFileName) = 0;
    virtual void DownloadFailed(const std::string& DestFileName,
                                const std::string& ErrorMessage) = 0;
};

class TBaseDocFileLoader : public TPluginBaseComponent {
  public:
    explicit TBaseDocFileLoader(TComponent* AOwner) : TPluginBaseComponent(AOwner) {}

    // Virtual operations in their fixed order.
    virtual void LoadSettings(bool Offline);
    // Stores a local file; with upmNew under a new generated name, with upmChange under
    // RemoteFileName. Answers the remote name used.
    virtual std::string UploadFile(const std::string& LocalFileName,
                                   const std::string& RemoteFileName, TUploadMode Mode) = 0;
    virtual void DownloadFile(const std::string& RemoteFile, const std::string& DestFileName) = 0;
    virtual void RemoveFile(const std::string& RemoteFile, const std::string& ADescription) = 0;
    // Blocking by default: downloads in the call and reports through the callback before it
    // returns. A failure goes to DownloadFailed and is not raised.
    virtual void DownloadFileNonBlocked(const std::string& RemoteFile,
                                        const std::string& DestFileName,
                                        IDocAdminDownloderCallBack* ACallBack);

    // 32 upper-case hexadecimal digits of a new GUID.
    static std::string GenerateNewFileName();
};

}  // namespace docadmin
