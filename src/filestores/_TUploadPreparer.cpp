#include "_TUploadPreparer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <atomic>
#include <cstdio>
#include <filesystem>

#include "_TBaseDocFileLoader.h"
#include "_TECLFileStream.h"

namespace docadmin {

namespace fs = std::filesystem;

namespace {

bool SameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

}  // namespace

TUploadPreparer::TUploadPreparer(std::string AFolder, std::size_t AWindow)
    : FFolder(std::move(AFolder)), FWindow(AWindow == 0 ? 1 : AWindow) {}

TUploadPreparer::~TUploadPreparer() {
    Stop();
}

void TUploadPreparer::Start(const std::vector<std::string>& LocalFiles) {
    Stop();
    std::lock_guard<std::mutex> lock(FLock);
    FEntries.clear();
    FEntries.reserve(LocalFiles.size());
    for (const std::string& f : LocalFiles) {
        TEntry e;
        e.Source = f;
        FEntries.push_back(std::move(e));
    }
    FNext = 0;
    FCursor = 0;
    FStopping = false;
    if (!FEntries.empty()) FWorker = std::thread([this] { Work(); });
}

void TUploadPreparer::Stop() {
    {
        std::lock_guard<std::mutex> lock(FLock);
        FStopping = true;
    }
    FChanged.notify_all();
    if (FWorker.joinable()) FWorker.join();
    std::lock_guard<std::mutex> lock(FLock);
    for (TEntry& e : FEntries)
        if (e.State == EState::Done) Drop(e);
    FEntries.clear();
    FNext = FCursor = 0;
}

void TUploadPreparer::Work() {
    std::unique_lock<std::mutex> lock(FLock);
    for (;;) {
        FChanged.wait(lock, [this] {
            return FStopping || FNext >= FEntries.size() || FNext < FCursor + FWindow;
        });
        if (FStopping || FNext >= FEntries.size()) return;
        TEntry& e = FEntries[FNext++];
        if (e.State != EState::Queued) continue;  // claimed by the uploads meanwhile
        e.State = EState::Running;
        const std::string source = e.Source;
        lock.unlock();
        Prepare(e, source);
        lock.lock();
        FChanged.notify_all();
    }
}

void TUploadPreparer::Drop(TEntry& AEntry) {
    if (AEntry.Fd >= 0) {
        ::close(AEntry.Fd);  // an unnamed file goes with its last descriptor
        AEntry.Fd = -1;
    }
    AEntry.Named.reset();  // removes the named file
    AEntry.Progress.clear();
}

// Runs without the lock; only this thread touches the entry while it is Running.
void TUploadPreparer::Prepare(TEntry& AEntry, const std::string& ASource) {
    bool ok = false;
    try {
        struct stat before {};
        if (::stat(ASource.c_str(), &before) == 0 && S_ISREG(before.st_mode)) {
            auto progress = [&AEntry](TObject*, double PercentDone) {
                AEntry.Progress.push_back(PercentDone);
            };
            AEntry.Fd = ::open(FFolder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0644);
            if (AEntry.Fd >= 0) {
                // The same engine and level as CompressFile, on the unnamed file.
                THandleStream file(AEntry.Fd);
                TECLStream stream(&file, true, "", zlibMax, 0);
                stream.OnProgress = progress;
                stream.LoadFromFile(ASource);
            } else {
                AEntry.Named = std::make_unique<TTempFile>(FFolder, "prepared");
                TECLFileStream stream(AEntry.Named->Path(), fmCreate, "", zlibMax, 0);
                stream.SetSyncOnClose(false);  // the store flushes when it takes the file
                stream.OnProgress = progress;
                stream.LoadFromFile(ASource);
            }
            struct stat after {};
            ok = ::stat(ASource.c_str(), &after) == 0 && SameFile(before, after);
            AEntry.Stat = before;
        }
    } catch (const std::exception&) {
        ok = false;  // the upload does the work again and reports the failure itself
    }
    std::lock_guard<std::mutex> lock(FLock);
    if (!ok) Drop(AEntry);
    AEntry.State = ok ? EState::Done : EState::Failed;
}

bool TUploadPreparer::Take(const std::string& LocalFile, TPrepared& AResult) {
    std::unique_lock<std::mutex> lock(FLock);
    std::size_t i = FCursor;
    while (i < FEntries.size() &&
           !(FEntries[i].Source == LocalFile && FEntries[i].State != EState::Taken))
        ++i;
    if (i >= FEntries.size()) return false;
    // Files the uploads passed over (ignored, or left out by the caller) are not prepared now.
    for (std::size_t j = FCursor; j < i; ++j)
        if (FEntries[j].State == EState::Queued) FEntries[j].State = EState::Taken;
    FCursor = i + 1;
    FChanged.notify_all();
    TEntry& e = FEntries[i];
    if (e.State == EState::Queued) {
        e.State = EState::Taken;
        return false;
    }
    FChanged.wait(lock, [&e] { return e.State != EState::Running; });
    const bool done = e.State == EState::Done;
    e.State = EState::Taken;
    if (!done) return false;
    struct stat now {};
    if (::stat(LocalFile.c_str(), &now) != 0 || !SameFile(now, e.Stat)) {
        Drop(e);
        return false;
    }
    AResult.Fd = e.Fd;
    AResult.Named = std::move(e.Named);
    AResult.Progress = std::move(e.Progress);
    e.Fd = -1;
    return true;
}

TUploadPreparer::TPrepared::~TPrepared() {
    if (Fd >= 0) ::close(Fd);
}

void TUploadPreparer::TPrepared::LinkAs(const std::string& APath) {
    if (Named) {
        // A second name that never replaces an existing file; the temporary name goes with
        // Named.
        if (::link(Named->Path().c_str(), APath.c_str()) != 0)
            throw EInOutError("link " + APath + ": " + std::strerror(errno));
        return;
    }
    // Linking a descriptor by its name in /proc needs no privilege, unlike AT_EMPTY_PATH.
    const std::string self = "/proc/self/fd/" + std::to_string(Fd);
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, APath.c_str(), AT_SYMLINK_FOLLOW) != 0)
        throw EInOutError("link " + APath + ": " + std::strerror(errno));
}

void TUploadPreparer::TPrepared::CommitAs(const std::string& APath) {
    if (Named) {
        Named->CommitAs(APath);
        return;
    }
    // Named like any upload in progress, and locked before it has the name, then renamed over
    // the old content.
    if (::flock(Fd, LOCK_EX) != 0) throw EInOutError(std::string("lock: ") + std::strerror(errno));
    const std::string temp = NewTemporaryPath(fs::path(APath).parent_path().string(), "prepared");
    LinkAs(temp);
    if (::rename(temp.c_str(), APath.c_str()) != 0) {
        const int err = errno;
        ::unlink(temp.c_str());
        throw EInOutError("rename " + temp + ": " + std::strerror(err));
    }
}

void TUploadPreparer::TPrepared::Flush() {
    if (Named) {
        Named->Flush();
        return;
    }
    if (::fsync(Fd) != 0) throw EInOutError(std::string("flush: ") + std::strerror(errno));
}

}  // namespace docadmin
