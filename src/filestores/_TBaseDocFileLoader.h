// The abstract file store: the one seam between the document tree and the place where file
// contents live. A store moves whole files between a local path and a flat repository addressed
// by remote file names, optionally through the compressed container.
//
// Remote names are 32 upper-case hexadecimal digits (a GUID without "{", "}" and "-"). Names that
// were not generated here are passed through as they come, but a name that could leave the flat
// repository or that has the form of the store's own temporaries (see CheckRemoteFileName) is
// refused before it is used.
//
// Downloads never repair and never leave a partial file: a damaged container fails, and the
// destination is replaced only by complete content.
//
// A store reads three generations of files side by side, told apart by content alone:
// containers (signature "AACS"), legacy compressed files (a zlib stream with gzip or zlib
// wrapper) and plain files. Its compression setting steers only what uploads write.
//
// Not thread-safe: one store instance runs one transfer at a time. Events run on the thread that
// performs the transfer.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "_PluginIntf.h"
#include "_TECLStream.h"

namespace docadmin {

enum TUploadMode { upmChange = 0, upmNew = 1 };
enum TTransferMode { tmDownload = 0, tmUpload = 1, tmDelete = 2 };
enum TCompressMode { cmCompress = 0, cmUnCompress = 1 };

using TOnTransferStartEvent =
    std::function<void(TObject* Sender, const std::string& FileName, TTransferMode aTransferMode)>;
using TOnTransferEvent = std::function<void(TObject* Sender, std::int64_t BytesTransferred,
                                            std::int64_t TotalBytes, std::int32_t Percentage)>;
using TOnTransferEndEvent = std::function<void(TObject* Sender, std::int64_t TotalBytes)>;
using TOnCompressEvent = std::function<void(TObject* Sender, std::int32_t PercentDone)>;
using TOnComressStartEndEvent =
    std::function<void(TObject* Sender, const std::string& FileName, TCompressMode ACompressMode)>;

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

    // Reads the store's settings; called once, right after creation and before any transfer.
    // Offline selects the store of the user's offline database.
    virtual void LoadSettings(bool Offline);
    // Stores a local file; with upmNew under a new generated name (RemoteFileName is ignored),
    // with upmChange under RemoteFileName, overwriting. Answers the remote name used.
    virtual std::string UploadFile(const std::string& LocalFileName,
                                   const std::string& RemoteFileName, TUploadMode Mode) = 0;
    // Writes the plain content of a remote file to DestFileName, replacing what stands there.
    // A missing remote file raises EFileNotFoundInRepositoryException.
    virtual void DownloadFile(const std::string& RemoteFile, const std::string& DestFileName) = 0;
    // Deletes a remote file; ADescription is the text reported by OnTransferStart.
    virtual void RemoveFile(const std::string& RemoteFile, const std::string& ADescription) = 0;
    // Blocking by default: downloads in the call and reports through the callback before it
    // returns. A failure (also one of DownloadDone) goes to DownloadFailed and is not raised.
    virtual void DownloadFileNonBlocked(const std::string& RemoteFile,
                                        const std::string& DestFileName,
                                        IDocAdminDownloderCallBack* ACallBack);

    // A hint before a batch of uploads: the local files that the caller will upload next, in
    // this order. A store may prepare their transfer ahead; the uploads themselves, their order
    // and their failures stay as without the hint. The base does nothing.
    virtual void PrepareUploads(const std::vector<std::string>& LocalFiles);
    // Ends the batch: what was prepared and not uploaded is dropped.
    virtual void EndPreparedUploads();

    // DownloadFile that also fails, leaving DestFileName untouched, when the plain content is
    // not ExpectedSize bytes long (a negative size checks nothing).
    void DownloadFileOfSize(const std::string& RemoteFile, const std::string& DestFileName,
                            std::int64_t ExpectedSize);

    // 32 upper-case hexadecimal digits of a new GUID.
    static std::string GenerateNewFileName();

    // Raises EKRUserMessageException for a remote name that could leave the flat repository
    // (empty, ".", "..", or containing "/", "\" or a NUL character) or that has the form of
    // the store's temporaries (starting with ".~").
    static void CheckRemoteFileName(const std::string& RemoteFile);

    // Whether a reader would take the file for something other than plain content if it were
    // stored as it is: it starts with the container signature, or passes the legacy test.
    static bool WouldBeMisreadAsPlain(const std::string& FileName);

    TOnCompressEvent OnCompress;
    TOnComressStartEndEvent OnCompressStart;
    TOnComressStartEndEvent OnCompressEnd;
    TOnTransferEndEvent OnTransferEnd;
    TOnTransferEvent OnTransfer;
    TOnTransferStartEvent OnTransferStart;

  protected:
    void DoTransferStart(const std::string& FileName, TTransferMode aTransferMode);
    void DoTransfer(std::int64_t BytesTransferred, std::int64_t TotalBytes,
                    std::int32_t Percentage);
    void DoTransferEnd(std::int64_t TotalBytes);
    void DoCompress(std::int32_t PercentDone);
    void DoCompressStart(const std::string& FileName, TCompressMode ACompressMode);
    void DoCompressEnd(const std::string& FileName, TCompressMode ACompressMode);

    // Compresses Source into a new container at Dest (cmCompress), or writes the plain content
    // of Source to Dest (cmUnCompress), whichever of the three generations Source is. Always
    // answers true; failures raise. Dest of cmCompress is a temporary of the caller; with
    // cmUnCompress, Dest is replaced only by complete content of the expected size (see
    // DownloadFileOfSize), and a damaged container fails. Source and Dest naming the same
    // file is refused. A container that would outgrow its format raises EECLSizeLimit.
    bool CompressFile(const std::string& Source, const std::string& Dest, TCompressMode AMode);
    // The legacy test of the host for a stored file.
    static bool IsGZFile(const std::string& FileName);
    // Progress of the container stream: 0 is the start, 100 the end, anything else a step.
    void CompressProgress(TObject* Sender, double PercentDone);

    // Reports the progress values of a compress step that ran elsewhere for Source, as if
    // CompressFile had run it now.
    void ReplayCompressProgress(const std::string& Source, const std::vector<double>& Values);

    // Whether CompressFile flushes the container it writes to the disk before it returns.
    bool FSyncCompressedFiles = true;
    // The plain size the download now running must have; -1 when unknown.
    std::int64_t FExpectedSize = -1;

  private:
    std::string FCompressionFile;  // source of the compress step now running
    TCompressMode FCompressionMode = cmCompress;
};

// The class reference by which the repository creates a store.
using TBaseDocFileLoaderClass = TBaseDocFileLoader* (*)(TComponent* AOwner);

template <class T>
TBaseDocFileLoader* CreateDocFileLoader(TComponent* AOwner) {
    return new T(AOwner);
}

// Inflates a legacy compressed file (gzip or zlib wrapper, detected from the header; several
// members one after the other form one file) into Dest through 32 KiB buffers. Raises EReadError
// when the data is damaged or cut short.
void InflateLegacyFile(const std::string& Source, const std::string& Dest);

// Writes the plain content of Source (a container, a legacy compressed or a plain file) to Dest,
// in full or not at all: through a temporary in Dest's folder that replaces Dest when complete.
// A damaged container fails and is left as it is. With ExpectedSize >= 0, content of another
// size fails too. Progress is reported by the container stream (not for legacy files). Refuses
// Source and Dest naming the same file. Failures name Source and Dest and say why.
void UnpackStoredFile(const std::string& Source, const std::string& Dest,
                      const TECLProgressEvent& Progress, std::int64_t ExpectedSize = -1);

// Appends to a failure's message what was being done, and the system's reason for the bare
// stream texts ("Stream write error: No space left on device"). SavedErrno is errno as it stood
// when the failure was caught.
void AddFailureContext(Exception& E, const std::string& Doing, int SavedErrno);

}  // namespace docadmin
