#include "_StoreFiles.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "_TBaseDocFileLoader.h"

namespace docadmin {

namespace fs = std::filesystem;

namespace {

constexpr const char* kTempPrefix = ".~";
constexpr const char* kTempSuffix = ".tmp";
// An empty temporary younger than this may be one whose owner has not locked it yet.
constexpr auto kFreshEmpty = std::chrono::seconds(60);
// Stems are cut so that the whole name stays below the usual limit of 255 bytes.
constexpr std::size_t kMaxStem = 160;

std::string FolderOf(const std::string& path) {
    const fs::path parent = fs::path(path).parent_path();
    return parent.empty() ? std::string(".") : parent.string();
}

}  // namespace

std::string SystemErrorText(int Error) {
    return std::strerror(Error);
}

bool IsTemporaryName(const std::string& FileName) {
    return FileName.rfind(kTempPrefix, 0) == 0;
}

std::string NewTemporaryPath(const std::string& Folder, const std::string& Stem) {
    static const std::string token = TBaseDocFileLoader::GenerateNewFileName();
    static std::atomic<std::uint64_t> counter{0};
    const std::string stem = Stem.substr(0, kMaxStem);
    char tail[48];
    std::snprintf(tail, sizeof tail, ".%ld.", static_cast<long>(::getpid()));
    char count[24];
    std::snprintf(count, sizeof count, "%llX",
                  static_cast<unsigned long long>(counter.fetch_add(1) + 1));
    return Folder + "/" + kTempPrefix + stem + tail + token + count + kTempSuffix;
}

// ---- TTempFile

TTempFile::TTempFile(const std::string& Folder, const std::string& Stem)
    : FPath(NewTemporaryPath(Folder, Stem)) {
    FFd = ::open(FPath.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (FFd < 0)
        throw EInOutError("Cannot create a temporary file in \"" + Folder +
                          "\": " + SystemErrorText(errno));
    if (::flock(FFd, LOCK_EX) != 0) {
        const int err = errno;
        ::unlink(FPath.c_str());
        ::close(FFd);
        FFd = -1;
        throw EInOutError("Cannot lock \"" + FPath + "\": " + SystemErrorText(err));
    }
}

TTempFile::~TTempFile() {
    if (!FCommitted) ::unlink(FPath.c_str());
    if (FFd >= 0) ::close(FFd);
}

void TTempFile::Flush() {
    if (::fsync(FFd) != 0)
        throw EInOutError("Cannot flush \"" + FPath + "\" to disk: " + SystemErrorText(errno));
}

void TTempFile::MoveTo(const std::string& Target) {
    if (::rename(FPath.c_str(), Target.c_str()) != 0)
        throw EInOutError("Cannot rename \"" + FPath + "\" to \"" + Target +
                          "\": " + SystemErrorText(errno));
    FPath = Target;
}

void TTempFile::CommitAs(const std::string& Target) {
    if (::rename(FPath.c_str(), Target.c_str()) != 0)
        throw EInOutError("Cannot put \"" + FPath + "\" in place of \"" + Target +
                          "\": " + SystemErrorText(errno));
    FCommitted = true;
    FPath = Target;
    ::close(FFd);
    FFd = -1;
}

int RemoveDeadTemporaries(const std::string& Folder) {
    int removed = 0;
    std::error_code ec;
    const auto now = std::chrono::system_clock::now();
    for (fs::directory_iterator it(Folder, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (!IsTemporaryName(name) || name.size() < 6 ||
            name.compare(name.size() - 4, 4, kTempSuffix) != 0)
            continue;
        const std::string path = it->path().string();
        const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) continue;
        struct stat st {};
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
            const auto changed =
                std::chrono::system_clock::time_point(std::chrono::seconds(st.st_mtim.tv_sec));
            const bool maybeUnlocked = st.st_size == 0 && now - changed < kFreshEmpty;
            // The name must still lead to the file that was checked.
            struct stat byName {};
            if (!maybeUnlocked && ::lstat(path.c_str(), &byName) == 0 &&
                byName.st_dev == st.st_dev && byName.st_ino == st.st_ino &&
                ::unlink(path.c_str()) == 0)
                ++removed;
        }
        ::close(fd);
    }
    return removed;
}

bool IsSameFile(const std::string& A, const std::string& B) {
    struct stat a {
    }, b{};
    return ::stat(A.c_str(), &a) == 0 && ::stat(B.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

void RefuseSameFile(const std::string& Input, const std::string& Output) {
    if (IsSameFile(Input, Output))
        throw EKRUserMessageException("\"" + Output + "\" is the input file \"" + Input +
                                      "\" itself; writing it would destroy the input.");
}

// ---- TAtomicOutput

TAtomicOutput::TAtomicOutput(const std::string& Dest) : FDest(Dest) {
    struct stat st {};
    if (::stat(Dest.c_str(), &st) == 0) {
        if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) return;  // device or pipe: direct
        FMode = st.st_mode & 07777;
    }
    FTemp = std::make_unique<TTempFile>(FolderOf(Dest), fs::path(Dest).filename().string());
}

const std::string& TAtomicOutput::Path() const {
    return FTemp ? FTemp->Path() : FDest;
}

std::int64_t TAtomicOutput::WrittenSize() const {
    struct stat st {};
    if (!FTemp || ::fstat(FTemp->Handle(), &st) != 0) return -1;
    return st.st_size;
}

void TAtomicOutput::Commit() {
    if (!FTemp) return;
    if (FMode != 0) (void)::fchmod(FTemp->Handle(), FMode);  // best effort, as a copy would
    FTemp->CommitAs(FDest);
    FTemp.reset();
}

}  // namespace docadmin
