// File handling that the stores and the container verbs share: temporaries that a later start can
// tell from those of a live process, outputs that appear complete or not at all, and the
// comparison of two paths by the file they name.
//
// A temporary is "<folder>/.~<stem>.<pid>.<token><n>.tmp". It is created exclusively and holds an
// advisory lock (flock) for as long as its owner has it open, so that a lock that can be taken
// marks the leftover of a process that died. Nothing else in a store folder starts with ".~".
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace docadmin {

// Whether a file name has the form of the store's temporaries (it starts with ".~").
bool IsTemporaryName(const std::string& FileName);

// A fresh temporary name in Folder, unique across processes and hosts sharing the folder.
std::string NewTemporaryPath(const std::string& Folder, const std::string& Stem);

// A new, empty, locked temporary in Folder; removed on destruction unless it was committed.
// Raises EInOutError naming the folder and the system's reason when it can't be created.
class TTempFile {
  public:
    TTempFile(const std::string& Folder, const std::string& Stem);
    ~TTempFile();
    TTempFile(const TTempFile&) = delete;
    TTempFile& operator=(const TTempFile&) = delete;

    const std::string& Path() const { return FPath; }
    int Handle() const { return FFd; }
    // Flushes the content to the disk. Raises EInOutError.
    void Flush();
    // Renames the file onto Target, replacing what stands there (atomic in one folder), and
    // releases the lock. Raises EInOutError.
    void CommitAs(const std::string& Target);
    // Gives the file the new name Target, which must not exist yet; stays a locked temporary.
    void MoveTo(const std::string& Target);

  private:
    std::string FPath;
    int FFd = -1;
    bool FCommitted = false;
};

// Removes from Folder the temporaries whose lock can be taken: their process is gone. A
// temporary that is still empty and younger than a minute is left, since its owner may be
// between creating and locking it. Failures are skipped. Answers how many were removed.
int RemoveDeadTemporaries(const std::string& Folder);

// Whether both paths name the same existing file (device and inode), also through links.
bool IsSameFile(const std::string& A, const std::string& B);
// Raises EKRUserMessageException when Input and Output name the same file: writing the output
// would destroy the input before it is read.
void RefuseSameFile(const std::string& Input, const std::string& Output);

// An output written in full or not at all: Path() is a locked temporary in the destination's
// folder, and Commit renames it onto the destination, keeping the mode of a file that stood
// there. Without Commit the destination stays untouched. A destination that exists and is no
// regular file (a device, a pipe) is written directly instead.
class TAtomicOutput {
  public:
    explicit TAtomicOutput(const std::string& Dest);
    const std::string& Path() const;
    // The size written so far to Path(); -1 when the destination is written directly.
    std::int64_t WrittenSize() const;
    void Commit();

  private:
    std::string FDest;
    std::unique_ptr<TTempFile> FTemp;
    unsigned FMode = 0;  // mode of the replaced file, 0 when there was none
};

// The system's text for an errno value ("No space left on device").
std::string SystemErrorText(int Error);

}  // namespace docadmin
