// Compresses the local files of a batch of uploads ahead, on a worker thread, into hidden
// temporary containers in the store's folder, so that the saving thread mostly renames them into
// place. Nothing becomes visible under a remote name here: the store still does that, one upload
// after the other, in the order of its calls.
//
// Start gets the files in the order in which the caller will upload them; the worker keeps at
// most a small window of them prepared ahead of the uploads, so the disk space of unused
// temporaries stays bounded. Take hands out a container only when it was made from the file as
// it stands now (same size, modification and change time, inode); otherwise the caller does the
// work itself, so failures are raised by the store exactly as without preparation.
//
// Where the file system allows, a container is an unnamed file (O_TMPFILE) until the store links
// it into the folder: making it then takes no lock of the folder that the saving thread's renames
// wait for, and a process that dies leaves nothing behind. Elsewhere it is a locked temporary of
// the folder (see TTempFile), which the next start of a store removes if its process died.
//
// Thread-safe: the worker and the caller share the entries under one mutex. Stop (also called by
// the destructor) waits for the worker and drops every container that was not taken.
#pragma once

#include <sys/stat.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "_StoreFiles.h"

namespace docadmin {

class TUploadPreparer {
  public:
    // Temporaries go into AFolder; AWindow files at most are prepared ahead of the uploads.
    explicit TUploadPreparer(std::string AFolder, std::size_t AWindow = 16);
    ~TUploadPreparer();
    TUploadPreparer(const TUploadPreparer&) = delete;
    TUploadPreparer& operator=(const TUploadPreparer&) = delete;

    // Begins preparing LocalFiles, in this order. A batch still running is stopped first.
    void Start(const std::vector<std::string>& LocalFiles);
    // A container handed to the caller: an open unnamed file (Fd >= 0) or a named temporary.
    struct TPrepared {
        int Fd = -1;
        std::unique_ptr<TTempFile> Named;
        std::vector<double> Progress;  // what its compression reported
        TPrepared() = default;
        TPrepared(const TPrepared&) = delete;
        TPrepared& operator=(const TPrepared&) = delete;
        ~TPrepared();
        // Gives the container the name APath, which must not exist yet. Raises EInOutError.
        void LinkAs(const std::string& APath);
        // Puts the container in place of APath, replacing what stands there. Raises EInOutError.
        void CommitAs(const std::string& APath);
        // Flushes the content to the disk. Raises EInOutError.
        void Flush();
    };
    // The prepared container of LocalFile: true when one was made from the file as it stands
    // now; false when the caller must do the work.
    bool Take(const std::string& LocalFile, TPrepared& AResult);
    // Waits for the worker and removes the temporaries that were not taken.
    void Stop();

  private:
    enum class EState { Queued, Running, Done, Failed, Taken };
    struct TEntry {
        std::string Source;
        std::unique_ptr<TTempFile> Named;  // named fallback
        int Fd = -1;                       // unnamed container
        EState State = EState::Queued;
        std::vector<double> Progress;
        struct stat Stat {};
    };

    void Work();
    void Prepare(TEntry& AEntry, const std::string& ASource);
    static void Drop(TEntry& AEntry);

    const std::string FFolder;
    const std::size_t FWindow;
    std::thread FWorker;
    std::mutex FLock;  // guards everything below
    std::condition_variable FChanged;
    std::vector<TEntry> FEntries;
    std::size_t FNext = 0;    // next entry the worker looks at
    std::size_t FCursor = 0;  // entries before this were taken or passed by the uploads
    bool FStopping = false;
};

}  // namespace docadmin
