#include "_TDocFileLoaderLocFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

namespace docadmin {

namespace fs = std::filesystem;

namespace {

// Temporary files of unfinished uploads start with this; seeding skips them.
constexpr const char* kTempPrefix = ".~";
// Prepared containers older than this are left over from a process that ended without cleaning
// up; younger ones may belong to a batch that is still running.
constexpr double kStalePreparedSeconds = 3600;

std::string FileNamePart(const std::string& path) {
    return fs::path(path).filename().string();
}

std::string StripTrailingSeparator(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

IVantrelDatabaseRepository* RepositoryOf(const TPluginBaseComponent& c) {
    IMainInterface* mi = c.GetMainInterface();
    return mi ? mi->GetDatabaseRepository() : nullptr;
}

IVantrelDatabaseRepository* RequireRepository(const TPluginBaseComponent& c) {
    IVantrelDatabaseRepository* repo = RepositoryOf(c);
    if (!repo) throw EDocAdminException("The file store has no database repository.");
    return repo;
}

// A file descriptor closed on scope exit.
struct Fd {
    int fd = -1;
    explicit Fd(int f) : fd(f) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
};

[[noreturn]] void ThrowErrno(const std::string& what) {
    throw EInOutError(what + ": " + std::strerror(errno));
}

// Copies all of in to out: in the kernel where it can, else through a buffer. Writeback of each
// copied chunk starts at once, so that the flush at the end has little left to wait for.
void CopyAll(int in, int out) {
    constexpr size_t kChunk = 16 << 20;
    off_t written = 0;
    for (;;) {
        const ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, kChunk, 0);
        if (n == 0) return;
        if (n > 0) {
            ::sync_file_range(out, written, n, SYNC_FILE_RANGE_WRITE);  // a hint; errors later
            written += n;
            continue;
        }
        if (errno == EINTR) continue;
        if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP) break;
        ThrowErrno("copy");
    }
    std::vector<char> buf(1 << 20);
    for (;;) {
        const ssize_t n = ::read(in, buf.data(), buf.size());
        if (n == 0) return;
        if (n < 0) {
            if (errno == EINTR) continue;
            ThrowErrno("read");
        }
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::write(out, buf.data() + done, static_cast<size_t>(n - done));
            if (w < 0) {
                if (errno == EINTR) continue;
                ThrowErrno("write");
            }
            done += w;
        }
    }
}

void FlushPath(const std::string& path, int flags) {
    Fd f(::open(path.c_str(), flags | O_CLOEXEC));
    if (f.fd < 0) ThrowErrno("open " + path);
    if (::fsync(f.fd) != 0) ThrowErrno("flush " + path);
}

// A fresh name in the target's folder for the content of an upload in progress: a random token
// drawn once per process (unique across processes and hosts sharing the folder) and a counter.
std::string TempNameFor(const std::string& folder, const std::string& remote) {
    static const std::string token = TBaseDocFileLoader::GenerateNewFileName();
    static std::atomic<std::uint64_t> counter{0};
    char tail[24];
    std::snprintf(tail, sizeof tail, "%llX",
                  static_cast<unsigned long long>(counter.fetch_add(1) + 1));
    return folder + "/" + kTempPrefix + remote + "." + token + tail + ".tmp";
}

}  // namespace

// ---- settings

std::string TDocFileLoaderLocFile::SelectedDatabaseLocalDocPath(
    IVantrelDatabaseRepository* ADatabaseRepository) {
    std::string path = ADatabaseRepository->ReadDatabaseSetting(
        ADatabaseRepository->SelectedDatabaseIndex(), "DocumentsPath");
    if (path.empty()) path = ADatabaseRepository->DefaultDocRootFolder();
    return path;
}

void TDocFileLoaderLocFile::LoadSettings(bool Offline) {
    TBaseDocFileLoader::LoadSettings(Offline);
    IMainInterface* mi = GetMainInterface();
    ISettingsStorage* user = mi ? mi->GetUserSettings() : nullptr;
    FUseCompression = !(user && user->ReadBool("DocAdmin", "NoCompression", false));
    IVantrelDatabaseRepository* repo = RequireRepository(*this);
    if (!Offline) {
        SetFilePath(SelectedDatabaseLocalDocPath(repo), true);
        return;
    }
    std::string path;
    const int offline = repo->OfflineDatabaseIndex();
    if (offline >= 0) path = repo->ReadDatabaseSetting(offline, "DocumentsPath");
    if (path.empty()) path = "$UserDocuments$offlinedocroot";
    SetFilePath(path, false);
}

void TDocFileLoaderLocServer::LoadSettings(bool /*Offline*/) {
    ISettingsStorage* local = GetSaveSettings();
    std::string path = local ? local->ReadString("DOCSRV", "FileRoot", "") : std::string();
    if (path.empty()) path = SelectedDatabaseLocalDocPath(RequireRepository(*this));
    SetFilePath(path, false);
    FUseCompression = true;
}

void TDocFileLoaderLocFile::SetFilePath(const std::string& AFilePath, bool AMigrate) {
    IVantrelDatabaseRepository* repo = RepositoryOf(*this);
    FPreparer.reset();  // its temporaries belong to the old folder
    FFilePath = StripTrailingSeparator(repo ? repo->ExpandPathMacros(AFilePath) : AFilePath);

    std::error_code ec;
    if (fs::is_directory(FFilePath, ec)) return;
    if (FFilePath.empty() || !fs::create_directories(FFilePath, ec) || ec) {
        if (!ec) ec = std::make_error_code(std::errc::no_such_file_or_directory);
        throw EFCreateError("Error creating docroot \"" + FFilePath + "\"!\r\n" + ec.message());
    }
    if (!AMigrate || !repo) return;

    // Seed the new folder once from the old default root; the old files stay where they are.
    const std::string oldRoot = StripTrailingSeparator(repo->SeedDocRootFolder());
    if (oldRoot.empty() || !fs::is_directory(oldRoot, ec)) return;
    if (LowerCase(oldRoot) == LowerCase(FFilePath) || fs::equivalent(oldRoot, FFilePath, ec))
        return;
    SeedFromOldRoot(oldRoot);
}

void TDocFileLoaderLocFile::SeedFromOldRoot(const std::string& AOldRoot) {
    std::error_code ec;
    for (fs::directory_iterator it(AOldRoot, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (!it->is_regular_file(ec) || name.rfind(kTempPrefix, 0) == 0) continue;
        std::error_code copyError;  // an existing name or a failed copy is skipped
        fs::copy_file(it->path(), fs::path(FFilePath) / name, fs::copy_options::none, copyError);
    }
}

// ---- transfers

void TDocFileLoaderLocFile::CommitUpload(const std::string& TempFile, const std::string& Target) {
    if (::rename(TempFile.c_str(), Target.c_str()) != 0) ThrowErrno("rename " + TempFile);
    FlushFolderEntry();
}

void TDocFileLoaderLocFile::FlushFolderEntry() {
    if (FDeferFlush) {
        FUnflushed = true;
        return;
    }
    // Make the rename itself durable.
    FlushPath(FFilePath, O_RDONLY | O_DIRECTORY);
}

void TDocFileLoaderLocFile::FlushUploads() {
    if (!FUnflushed) return;
    Fd dir(::open(FFilePath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.fd < 0) ThrowErrno("open " + FFilePath);
    if (::syncfs(dir.fd) != 0) ThrowErrno("flush " + FFilePath);
    FUnflushed = false;
}

std::string TDocFileLoaderLocFile::UploadFile(const std::string& LocalFileName,
                                              const std::string& RemoteFileName, TUploadMode Mode) {
    if (Mode != upmNew) CheckRemoteFileName(RemoteFileName);
    const std::string result = Mode == upmNew ? GenerateNewFileName() : RemoteFileName;
    const std::string target = RemotePath(result);
    DoTransferStart(FileNamePart(LocalFileName), tmUpload);
    DoTransfer(0, 0, 0);

    std::string temp;
    try {
        TUploadPreparer::TPrepared prepared;
        if (FUseCompression && FPreparer && FPreparer->Take(LocalFileName, prepared)) {
            ReplayCompressProgress(LocalFileName, prepared.Progress);
            if (!FDeferFlush) prepared.Flush();
            if (Mode == upmNew) {
                // A complete container gets its new name in one step; a link never replaces
                // an existing file.
                prepared.LinkAs(target);
                FlushFolderEntry();
            } else {
                // Named like any upload in progress, then renamed over the old content.
                temp = TempNameFor(FFilePath, result);
                prepared.LinkAs(temp);
                CommitUpload(temp, target);
            }
            ++FPreparedTaken;
        } else if (FUseCompression) {
            temp = TempNameFor(FFilePath, result);
            CompressFile(LocalFileName, temp, cmCompress);
            if (!FDeferFlush) FlushPath(temp, O_RDONLY);
            CommitUpload(temp, target);
        } else {
            temp = TempNameFor(FFilePath, result);
            try {
                Fd in(::open(LocalFileName.c_str(), O_RDONLY | O_CLOEXEC));
                if (in.fd < 0) ThrowErrno("open " + LocalFileName);
                struct stat st {};
                if (::fstat(in.fd, &st) != 0 || !S_ISREG(st.st_mode)) ThrowErrno(LocalFileName);
                Fd out(::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
                if (out.fd < 0) ThrowErrno("create " + temp);
                // Blocks reserved up front make the writeback cheaper; the size still comes
                // from what is copied. Only a hint: a file system without it just copies.
                if (st.st_size > 0) (void)::fallocate(out.fd, FALLOC_FL_KEEP_SIZE, 0, st.st_size);
                CopyAll(in.fd, out.fd);
                if (!FDeferFlush && ::fsync(out.fd) != 0) ThrowErrno("flush " + temp);
            } catch (const std::exception&) {
                throw EKRUserMessageException("Local file " + LocalFileName +
                                              " not found. Can't save to repository!");
            }
            CommitUpload(temp, target);
        }
    } catch (...) {
        std::error_code ec;
        if (!temp.empty()) fs::remove(temp, ec);
        throw;
    }
    DoTransferEnd(0);
    return result;
}

void TDocFileLoaderLocFile::PrepareUploads(const std::vector<std::string>& LocalFiles) {
    // Worth it only with a second core and something to deflate.
    static const unsigned cores = std::thread::hardware_concurrency();
    if (!FUseCompression || cores < 2 || LocalFiles.size() < 2 || FFilePath.empty()) return;
    if (!FPreparer) {
        TUploadPreparer::RemoveStaleTemporaries(FFilePath, kStalePreparedSeconds);
        FPreparer = std::make_unique<TUploadPreparer>(FFilePath);
    }
    FPreparer->Start(LocalFiles);
}

void TDocFileLoaderLocFile::EndPreparedUploads() {
    if (FPreparer) FPreparer->Stop();
}

void TDocFileLoaderLocFile::DownloadFile(const std::string& RemoteFile,
                                         const std::string& DestFileName) {
    CheckRemoteFileName(RemoteFile);
    const std::string source = RemotePath(RemoteFile);
    std::error_code ec;
    if (!fs::exists(source, ec))
        throw EFileNotFoundInRepositoryException("File " + source + " not found in repository!");
    DoTransferStart(FileNamePart(DestFileName), tmDownload);
    DoTransfer(0, 0, 0);
    CompressFile(source, DestFileName, cmUnCompress);
    DoTransferEnd(0);
}

void TDocFileLoaderLocFile::RemoveFile(const std::string& RemoteFile,
                                       const std::string& ADescription) {
    CheckRemoteFileName(RemoteFile);
    DoTransferStart(ADescription, tmDelete);
    const std::string target = RemotePath(RemoteFile);
    std::error_code ec;
    if (!fs::exists(target, ec))
        throw EKRUserMessageException("File " + target + " not found in repository!");
    fs::remove(target, ec);  // the outcome is not looked at
    DoTransferEnd(0);
}

}  // namespace docadmin
