// The local file store: one folder of a local or network file system, one file per remote name.
// TDocFileLoaderLocServer is the same store on the server's own file root.
//
// An upload never leaves a half-written file under a remote name: the content goes to a
// temporary file in the same folder, is flushed to disk and then renamed over the target, so a
// reader sees either the old or the new content, also when an upmChange is cut short. The
// temporaries of processes that died are removed when a store starts on the folder.
//
// Departures from the plain store for the safety of the data: with compression off, a file that
// would read back as a container or a legacy compressed file is still stored as a container; a
// file too large for a container is stored as it is, or refused when it would then be misread;
// removing a file that is already gone is no failure, while one that can't be removed raises.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "_StoreFiles.h"
#include "_TBaseDocFileLoader.h"
#include "_TUploadPreparer.h"

namespace docadmin {

class TDocFileLoaderLocFile : public TBaseDocFileLoader {
  public:
    explicit TDocFileLoaderLocFile(TComponent* AOwner) : TBaseDocFileLoader(AOwner) {}

    // Compression from the user setting "NoCompression" of section "DocAdmin"; the folder from
    // "DocumentsPath" of the selected database (seeded once from the old root when it is new),
    // or, offline, of the offline database ("$UserDocuments$offlinedocroot" when there is none).
    void LoadSettings(bool Offline) override;
    std::string UploadFile(const std::string& LocalFileName, const std::string& RemoteFileName,
                           TUploadMode Mode) override;
    void DownloadFile(const std::string& RemoteFile, const std::string& DestFileName) override;
    void RemoveFile(const std::string& RemoteFile, const std::string& ADescription) override;
    // With compression on, compresses the files ahead on a worker thread into hidden temporaries
    // of the folder; UploadFile then renames a prepared container into place when it was made
    // from the file as it stands.
    void PrepareUploads(const std::vector<std::string>& LocalFiles) override;
    void EndPreparedUploads() override;
    // Uploads that were served from a prepared container, since the store was made.
    std::size_t PreparedUploadsTaken() const { return FPreparedTaken; }

    // "DocumentsPath" of the repository's selected database; when empty, the default docroot
    // folder of the repository.
    static std::string SelectedDatabaseLocalDocPath(
        IVantrelDatabaseRepository* ADatabaseRepository);

    // Sets the repository folder: path macros expanded (with a main interface), a trailing
    // separator dropped, the folder created with its parents when missing. With AMigrate, a
    // folder that is created here is seeded from the old default root: every file of it is
    // copied, never over an existing one; failed copies are skipped.
    void SetFilePath(const std::string& AFilePath, bool AMigrate);

    const std::string& FilePath() const { return FFilePath; }
    void SetFilePath(const std::string& Value) { SetFilePath(Value, false); }
    bool UseCompression() const { return FUseCompression; }
    void SetUseCompression(bool Value) { FUseCompression = Value; }

    // Batched durability for bulk work: with ADefer set, uploads still go through a temporary
    // file and a rename, but skip their own flushes to disk; FlushUploads then flushes all that
    // was written since, in one sync of the file system. A caller that commits rows naming the
    // uploaded files calls FlushUploads before its commit, so that no row reaches the disk before
    // its file. (A killed process loses nothing either way: only a power loss can.)
    void SetDeferFlush(bool ADefer) {
        FDeferFlush = ADefer;
        FSyncCompressedFiles = !ADefer;
    }
    bool DeferFlush() const { return FDeferFlush; }
    void FlushUploads();

  protected:
    std::string RemotePath(const std::string& RemoteFile) const {
        return FFilePath + "/" + RemoteFile;
    }
    // Copies every file of AOldRoot into the repository folder, never over an existing name;
    // a failed copy is skipped. The old files stay where they are.
    void SeedFromOldRoot(const std::string& AOldRoot);
    // Puts the finished temporary file in place of Target (an atomic rename in one folder).
    virtual void CommitUpload(TTempFile& Temp, const std::string& Target);
    // Writes the content of an upload to Temp: a container or the plain bytes.
    void WriteUpload(const std::string& LocalFileName, TTempFile& Temp);
    // Makes a new folder entry durable now, or at FlushUploads when flushing is deferred.
    void FlushFolderEntry();

    std::string FFilePath;
    std::unique_ptr<TUploadPreparer> FPreparer;  // the batch of PrepareUploads, if any
    std::size_t FPreparedTaken = 0;
    bool FUseCompression = true;
    bool FDeferFlush = false;
    bool FUnflushed = false;  // uploads since the last flush when FDeferFlush is set
};

class TDocFileLoaderLocServer : public TDocFileLoaderLocFile {
  public:
    explicit TDocFileLoaderLocServer(TComponent* AOwner) : TDocFileLoaderLocFile(AOwner) {}

    // The folder from "FileRoot" of the server's local section "DOCSRV", else the selected
    // database's; always compresses, whatever "NoCompression" says, and ignores Offline.
    void LoadSettings(bool Offline) override;
};

}  // namespace docadmin
