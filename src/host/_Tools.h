// Small tools of the host: file versions, file and path helpers, text helpers, sorted integer
// lists, a lock and a self-deleting temporary file stream.
//
// Nothing here keeps shared state; all functions are safe to call from any thread. The classes
// are not internally synchronised (except TCriticalSection, which is the lock).
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "_Classes.h"

namespace docadmin {

// ---- File versions

// A four-part version "Major.Minor.Release.Build".
struct TFileVersion {
    std::uint16_t Major = 0;
    std::uint16_t Minor = 0;
    std::uint16_t Release = 0;
    std::uint16_t Build = 0;

    // The next version: the build number goes up by one, carrying into the parts before it.
    TFileVersion Increment() const;

    friend constexpr bool operator==(const TFileVersion&, const TFileVersion&) = default;
};

// No version at all.
inline constexpr TFileVersion verNULL{0, 0, 0, 0};
// The version of a new document.
inline constexpr TFileVersion verFIRST{1, 0, 0, 0};

// "1.0.0.0"; the form stored in the tables.
std::string FileVersionToStr(const TFileVersion& AVersion);
// Reads up to APartCount dot-separated numbers; missing parts are 0. Text that isn't a version
// (a part that is no number or doesn't fit 16 bits) gives verNULL.
TFileVersion StrToFileVersion(const std::string& AText, int APartCount = 4);
// The same with a caller's default for text that isn't a version.
TFileVersion StrToFileVersion(const std::string& AText, const TFileVersion& ADefault);
// -1, 0 or 1 as A is lower, equal or higher, part by part.
int CompareFileVersion(const TFileVersion& A, const TFileVersion& B);
bool IsSameFileVersion(const TFileVersion& A, const TFileVersion& B);
// The version resource of a file. Files on this platform carry none: always verNULL.
TFileVersion GetFileVersion(const std::string& AFileName);

// ---- Identifiers

// The all-zero GUID in braces.
inline const std::string EmptyUID = "{00000000-0000-0000-0000-000000000000}";
// True when the text has the braced GUID form "{8-4-4-4-12}" of hexadecimal digits.
bool IsGuid(const std::string& AText);

// ---- Paths and files

// Appends the separator when the path doesn't end with it already (an empty path stays empty).
std::string IncludeTrailingDirSeparator(const std::string& APath, char ASeparator = '/');
// The last directory of a path: "/a/b/c/" and "/a/b/c" both give "c".
std::string ExtractDirName(const std::string& APath);
// The file-name part of a path ("/a/b.txt" gives "b.txt").
std::string ExtractFileName(const std::string& APath);
// The extension with its dot ("a/b.tar.gz" gives ".gz"; none gives "").
std::string ExtractFileExt(const std::string& APath);
// The path without its extension.
std::string ChangeFileExt(const std::string& APath, const std::string& AExt);
// Replaces the characters not allowed in a file name (control characters and \ / : * ? " < > |)
// by '_'. With AAllowPathDelim a '/' is kept. A text longer than AMaxLength bytes is shortened
// before its extension, never inside a UTF-8 sequence; AMaxLength <= 0 means no limit.
std::string ConvertToFileName(const std::string& AText, bool AAllowPathDelim, int AMaxLength);

// ---- Names from and to the file system
//
// A file name on disk is a sequence of bytes; a name in the tree is UTF-8 text. Names that are
// valid UTF-8 are taken as they are. In a name that isn't, each byte that is no part of a valid
// UTF-8 sequence becomes "%XX" (two upper-case hex digits, always 80 to FF). For the mapping to
// be lossless a '%' of the original is written as "%25" where it would otherwise read as such an
// escape: when it is followed by two upper-case hex digits of a value from 80 to FF, or by "25".
// Every other '%' stays as it is, so "report%20final.txt" is stored unchanged.
// NameToFileSystem(NameFromFileSystem(x)) == x for every byte string x. A name typed into the
// tree by hand that happens to hold "%E9" comes back from NameToFileSystem as the byte E9.

// True when the text is well-formed UTF-8 (no overlong forms, surrogates or values past U+10FFFF).
bool IsValidUtf8(const std::string& AText);
// The tree's text form of a name read from the file system (see above).
std::string NameFromFileSystem(const std::string& ABytes);
// The bytes of a name on the file system for a name of the tree; the inverse of the above.
std::string NameToFileSystem(const std::string& AName);
// Text for a terminal or a message: control characters (C0, DEL, C1) and bytes that aren't
// valid UTF-8 are shown as "\xNN" and never written raw. Not reversible; only for display.
std::string PrintableText(const std::string& AText);
// The name under which a folder title or document name is written into a folder on disk: the
// characters not allowed in a file name replaced (ConvertToFileName, so no separator survives),
// escapes mapped back to the original bytes, cut to AMaxLength bytes, and the names that would
// step out of the folder made harmless: an empty name becomes "_", "." becomes "_." and ".."
// becomes "_..". The result is always one path component that names an entry of the folder.
std::string SafeFileName(const std::string& AName, int AMaxLength = 255);

// A folder held open by its descriptor, so that entries are made and read relative to it and
// no path is walked again: a symbolic link put in the way later isn't followed, and depth is
// not bounded by PATH_MAX. Moves, doesn't copy; closes on destruction.
class TDirHandle {
  public:
    TDirHandle() = default;
    ~TDirHandle();
    TDirHandle(TDirHandle&& AOther) noexcept;
    TDirHandle& operator=(TDirHandle&& AOther) noexcept;
    TDirHandle(const TDirHandle&) = delete;
    TDirHandle& operator=(const TDirHandle&) = delete;

    // Opens a folder by path (a link as the path's last part is followed: the caller named it).
    // Raises EInOutError naming the folder and the reason.
    static TDirHandle Open(const std::string& APath);
    // Opens the child folder AName without following a link; with ACreate it is made first when
    // missing. Raises EInOutError naming ADisplayPath when the entry is a link, no folder, or
    // can't be opened or made.
    TDirHandle OpenChild(const std::string& AName, bool ACreate,
                         const std::string& ADisplayPath) const;
    // A copy of the descriptor that stays open as long as the copy lives.
    TDirHandle Duplicate() const;
    // Takes over an open folder descriptor; Release gives it up without closing it.
    static TDirHandle Adopt(int AHandle) { return TDirHandle(AHandle); }
    int Release() {
        const int h = FHandle;
        FHandle = -1;
        return h;
    }

    bool IsOpen() const { return FHandle >= 0; }
    int Handle() const { return FHandle; }
    // A path by which others reach the entry AName of this folder through the descriptor
    // ("/proc/self/fd/N/name"), whatever the folder's own path; empty where the system has no
    // such paths.
    std::string EntryPath(const std::string& AName) const;

  private:
    explicit TDirHandle(int AHandle) : FHandle(AHandle) {}
    int FHandle = -1;
};

// Names in the folder of AMask that match its last part (wildcards * and ?), sorted; "." and
// ".." are included as the host's directory listing has them. AAttr: 0 all entries, 1 files
// only, 2 folders only. Answers the number added to AList.
int GetFileList(const std::string& AMask, TStringList& AList, int AAttr = 0,
                bool AFullPath = false);

// Size in bytes; -1 when the file doesn't exist.
std::int64_t GetFileSize(const std::string& AFileName);
// Modification date; 0 when the file doesn't exist.
TDateTime GetFileDate(const std::string& AFileName);
// Sets creation (where the file system keeps one), access and modification dates.
bool SetFileDateTime(const std::string& AFileName, TDateTime ACreation, TDateTime AAccess,
                     TDateTime AModification);
// Creates a folder with all missing parents; true when it exists afterwards.
bool ForceDirectories(const std::string& APath);
// The folder for temporary files, with a trailing separator.
std::string GetTempPath();
// A fresh file name without a folder ("tmp" + 32 hex digits + ".tmp").
std::string GetTempFileName();
// A name in APath that is not taken: AName itself, or AName with "_2", "_3", ... before its
// extension. With ACreate an empty file of that name is made to reserve it.
std::string GetNewTempFileName(const std::string& APath, const std::string& AName, bool ACreate);
// The per-user data folder ($XDG_DATA_HOME or ~/.local/share), with a trailing separator.
std::string GetUserDocumentsDataDirectory();
// Removes a file: moved into the user's trash folder where one exists, deleted otherwise.
bool FileMoveToRecycle(const std::string& AFileName);
// Writes bytes to a file; with AAppend they go to its end, otherwise the file is replaced.
void SaveStrToFile(const std::string& AFileName, const std::string& ABytes, bool AAppend);

// ---- Text

// Base64 of up to ACount bytes read from the stream's position (all the rest when negative);
// the position moves past them.
std::string MIMEEncodeRawByteStr(TStream& AStream, std::int64_t ACount);
// The same Base64 appended to AOut, encoded straight into it: a caller that keeps AOut's capacity
// between calls encodes chunk after chunk with no new allocation.
void MIMEEncodeAppend(TStream& AStream, std::int64_t ACount, std::string& AOut);
// Strict Base64 into AOut (replacing its content, keeping its capacity): the length must be a
// multiple of 4, "=" may only pad the end, and any other character outside the alphabet raises
// EConvertError.
void Base64DecodeStrict(const char* AText, std::size_t ALength, std::string& AOut);
// Base64 to bytes; characters outside the alphabet are skipped, so line breaks are fine.
std::string MIMEDecodeRawByteStr(const std::string& AText);
// Hexadecimal text to bytes; raises EConvertError on an odd length or a non-hex character.
std::string HexToBin(const std::string& AText);
// Replaces all occurrences of AOld; with AIgnoreCase the search ignores ASCII case.
std::string FastReplace(const std::string& AText, const std::string& AOld, const std::string& ANew,
                        bool AIgnoreCase = false);
// Mask match, ignoring ASCII case: '*' any run of characters, '?' one character.
bool StrLike(const std::string& AText, const std::string& AMask);

// ---- Integer lists

// Integers kept in ascending order without duplicates.
class TSortedIntegerList : public TObject {
  public:
    // Inserts the value in order; answers its index (the existing one for a duplicate).
    int Add(std::int64_t AValue);
    // Index of the value, or -1.
    int IndexOf(std::int64_t AValue) const;
    void Delete(int AIndex) { FItems.erase(FItems.begin() + AIndex); }
    void Clear() { FItems.clear(); }
    int Count() const { return static_cast<int>(FItems.size()); }
    std::int64_t operator[](int AIndex) const { return FItems.at(static_cast<size_t>(AIndex)); }
    // "1,2,3"; empty for an empty list.
    std::string GetAsCommaText() const;

  private:
    std::vector<std::int64_t> FItems;
};

class IIntegerListData : public IInterface {
  public:
    DOCADMIN_IID("{6C1B0A4D-5E2F-4B7A-9D3C-2A8E4F1B7C90}");
    virtual TSortedIntegerList* Get_List() = 0;
};

// An integer list behind an interface; with AOwnsList the list is freed with the wrapper.
class TIntegerListData : public TInterfacedImpl<IIntegerListData> {
  public:
    explicit TIntegerListData(TSortedIntegerList* AList, bool AOwnsList = true)
        : FList(AList), FOwnsList(AOwnsList) {}
    ~TIntegerListData() override {
        if (FOwnsList) delete FList;
    }
    TSortedIntegerList* Get_List() override { return FList; }

  private:
    TSortedIntegerList* FList;
    bool FOwnsList;
};

// ---- Locks and temporary files

// A mutual-exclusion lock; the same thread may enter it again.
class TCriticalSection : public TObject {
  public:
    void Enter() { FMutex.lock(); }
    void Leave() { FMutex.unlock(); }
    bool TryEnter() { return FMutex.try_lock(); }
    // For std::lock_guard.
    void lock() { Enter(); }
    void unlock() { Leave(); }

  private:
    std::recursive_mutex FMutex;
};

// A stream on a temporary file that is deleted when the stream is freed. With an empty name a
// fresh name in the temporary folder is taken.
class TTempFileStream : public TFileStream {
  public:
    explicit TTempFileStream(const std::string& AFileName = std::string(),
                             std::uint16_t AMode = fmCreate);
    ~TTempFileStream() override;
    // Closes the file early (so that others may open it); it is still deleted when freed.
    void CloseFileHandle();
};

}  // namespace docadmin
