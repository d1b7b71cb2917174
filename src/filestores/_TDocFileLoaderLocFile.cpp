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

#include "_StoreFiles.h"

namespace docadmin {

namespace fs = std::filesystem;

namespace {

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
    if (fs::is_directory(FFilePath, ec)) {
        // The store starts here: what killed processes left of their uploads goes.
        RemoveDeadTemporaries(FFilePath);
        return;
    }
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
        if (!it->is_regular_file(ec) || IsTemporaryName(name)) continue;
        std::error_code copyError;  // an existing name or a failed copy is skipped
        fs::copy_file(it->path(), fs::path(FFilePath) / name, fs::copy_options::none, copyError);
    }
}

// ---- transfers

void TDocFileLoaderLocFile::CommitUpload(TTempFile& Temp, const std::string& Target) {
    Temp.CommitAs(Target);
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

    errno = 0;
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
                prepared.CommitAs(target);
                FlushFolderEntry();
            }
            ++FPreparedTaken;
        } else {
            TTempFile temp(FFilePath, result);
            WriteUpload(LocalFileName, temp);
            if (!FDeferFlush) temp.Flush();
            CommitUpload(temp, target);
        }
    } catch (Exception& e) {
        const int err = errno;
        AddFailureContext(e, "while storing \"" + LocalFileName + "\" as \"" + target + "\"", err);
        throw;
    }
    DoTransferEnd(0);
    return result;
}

// Plain files go as they are, unless a reader would take them for a container or a legacy
// compressed file: those always go into a container, so that every upload comes back byte for
// byte. A container that would outgrow its format gives way to the plain file, where that is
// safe.
void TDocFileLoaderLocFile::WriteUpload(const std::string& LocalFileName, TTempFile& Temp) {
    if (FUseCompression || WouldBeMisreadAsPlain(LocalFileName)) {
        try {
            CompressFile(LocalFileName, Temp.Path(), cmCompress);
            return;
        } catch (const EECLSizeLimit& e) {
            if (WouldBeMisreadAsPlain(LocalFileName))
                throw EKRUserMessageException(
                    "Local file " + LocalFileName +
                    " can't be stored: it is too large for a container, and stored as it is it "
                    "would read back as a compressed file. " +
                    e.Message());
        }
        if (::ftruncate(Temp.Handle(), 0) != 0) ThrowErrno("truncate " + Temp.Path());
    }
    Fd in(::open(LocalFileName.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (in.fd < 0 || ::fstat(in.fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        const std::string why = in.fd < 0 ? SystemErrorText(errno) : "not a regular file";
        throw EKRUserMessageException("Local file " + LocalFileName +
                                      " not found. Can't save to repository! (" + why + ")");
    }
    // Blocks reserved up front make the writeback cheaper; the size still comes from what is
    // copied. Only a hint: a file system without it just copies.
    if (st.st_size > 0) (void)::fallocate(Temp.Handle(), FALLOC_FL_KEEP_SIZE, 0, st.st_size);
    CopyAll(in.fd, Temp.Handle());
}

void TDocFileLoaderLocFile::PrepareUploads(const std::vector<std::string>& LocalFiles) {
    // Worth it only with a second core and something to deflate.
    static const unsigned cores = std::thread::hardware_concurrency();
    if (!FUseCompression || cores < 2 || LocalFiles.size() < 2 || FFilePath.empty()) return;
    if (!FPreparer) FPreparer = std::make_unique<TUploadPreparer>(FFilePath);
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
    CompressFile(source, DestFileName, cmUnCompress);  // names the file when it fails
    DoTransferEnd(0);
}

void TDocFileLoaderLocFile::RemoveFile(const std::string& RemoteFile,
                                       const std::string& ADescription) {
    CheckRemoteFileName(RemoteFile);
    DoTransferStart(ADescription, tmDelete);
    const std::string target = RemotePath(RemoteFile);
    // A file that is already gone is what the caller wants; one that stays is a failure.
    if (::unlink(target.c_str()) != 0 && errno != ENOENT)
        throw EKRUserMessageException(
            "File " + target + " can't be removed from the repository: " + SystemErrorText(errno));
    DoTransferEnd(0);
}

}  // namespace docadmin
