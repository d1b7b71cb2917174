#include "_Tools.h"
#include "_JsonText.h"

#include <fcntl.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace docadmin {

namespace fs = std::filesystem;

// ---- File versions

TFileVersion TFileVersion::Increment() const {
    TFileVersion r = *this;
    std::uint16_t* parts[4] = {&r.Build, &r.Release, &r.Minor, &r.Major};
    for (std::uint16_t* p : parts) {
        if (*p != 0xFFFF) {
            ++*p;
            break;
        }
        *p = 0;
    }
    return r;
}

std::string FileVersionToStr(const TFileVersion& v) {
    return std::to_string(v.Major) + "." + std::to_string(v.Minor) + "." +
           std::to_string(v.Release) + "." + std::to_string(v.Build);
}

namespace {

bool ParseFileVersion(const std::string& text, int partCount, TFileVersion& out) {
    std::uint16_t parts[4] = {0, 0, 0, 0};
    partCount = std::clamp(partCount, 1, 4);
    const char* p = text.data();
    const char* end = p + text.size();
    if (p == end) return false;
    for (int i = 0; i < partCount && p < end; ++i) {
        unsigned value = 0;
        auto [next, ec] = std::from_chars(p, end, value);
        if (ec != std::errc() || next == p || value > 0xFFFF) return false;
        parts[i] = static_cast<std::uint16_t>(value);
        p = next;
        if (p < end) {
            if (*p != '.') return false;
            ++p;
        }
    }
    out = {parts[0], parts[1], parts[2], parts[3]};
    return true;
}

}  // namespace

TFileVersion StrToFileVersion(const std::string& AText, int APartCount) {
    TFileVersion v = verNULL;
    return ParseFileVersion(AText, APartCount, v) ? v : verNULL;
}

TFileVersion StrToFileVersion(const std::string& AText, const TFileVersion& ADefault) {
    TFileVersion v;
    return ParseFileVersion(AText, 4, v) ? v : ADefault;
}

int CompareFileVersion(const TFileVersion& A, const TFileVersion& B) {
    const std::uint16_t a[4] = {A.Major, A.Minor, A.Release, A.Build};
    const std::uint16_t b[4] = {B.Major, B.Minor, B.Release, B.Build};
    for (int i = 0; i < 4; ++i)
        if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
    return 0;
}

bool IsSameFileVersion(const TFileVersion& A, const TFileVersion& B) {
    return A == B;
}

TFileVersion GetFileVersion(const std::string& /*AFileName*/) {
    return verNULL;
}

// ---- Identifiers

bool IsGuid(const std::string& s) {
    if (s.size() != 38 || s.front() != '{' || s.back() != '}') return false;
    for (size_t i = 1; i < 37; ++i) {
        if (i == 9 || i == 14 || i == 19 || i == 24) {
            if (s[i] != '-') return false;
        } else if (!std::isxdigit(static_cast<unsigned char>(s[i]))) {
            return false;
        }
    }
    return true;
}

// ---- Paths and files

std::string IncludeTrailingDirSeparator(const std::string& APath, char ASeparator) {
    if (APath.empty() || APath.back() == ASeparator) return APath;
    return APath + ASeparator;
}

std::string ExtractDirName(const std::string& APath) {
    std::string p = APath;
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    const size_t slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string ExtractFileName(const std::string& APath) {
    const size_t slash = APath.rfind('/');
    return slash == std::string::npos ? APath : APath.substr(slash + 1);
}

std::string ExtractFileExt(const std::string& APath) {
    const size_t dot = APath.rfind('.');
    const size_t slash = APath.rfind('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
    return APath.substr(dot);
}

std::string ChangeFileExt(const std::string& APath, const std::string& AExt) {
    const std::string ext = ExtractFileExt(APath);
    return APath.substr(0, APath.size() - ext.size()) + AExt;
}

namespace {

// Cuts a UTF-8 text to at most n bytes without splitting a sequence.
std::string CutUtf8(const std::string& s, size_t n) {
    if (s.size() <= n) return s;
    while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80)
        --n;
    return s.substr(0, n);
}

}  // namespace

std::string ConvertToFileName(const std::string& AText, bool AAllowPathDelim, int AMaxLength) {
    std::string r = AText;
    for (char& c : r) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 32 || c == '\\' || c == ':' || c == '*' || c == '?' || c == '"' || c == '<' ||
            c == '>' || c == '|' || (c == '/' && !AAllowPathDelim))
            c = '_';
    }
    if (AMaxLength > 0 && r.size() > static_cast<size_t>(AMaxLength)) {
        std::string ext = ExtractFileExt(r);
        if (ext.size() >= static_cast<size_t>(AMaxLength)) ext.clear();
        const std::string stem = r.substr(0, r.size() - ExtractFileExt(r).size());
        r = CutUtf8(stem, static_cast<size_t>(AMaxLength) - ext.size()) + ext;
    }
    return r;
}

// ---- Names from and to the file system

namespace {

// The length of the valid UTF-8 sequence at APos, or 0 when the byte there starts none.
size_t Utf8SequenceLength(const std::string& s, size_t APos) {
    const size_t n = s.size();
    auto at = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    auto cont = [&](size_t i, unsigned lo = 0x80, unsigned hi = 0xBF) {
        return i < n && at(i) >= lo && at(i) <= hi;
    };
    const unsigned c = at(APos);
    if (c < 0x80) return 1;
    if (c >= 0xC2 && c <= 0xDF) return cont(APos + 1) ? 2 : 0;
    if (c >= 0xE0 && c <= 0xEF) {
        const unsigned lo = c == 0xE0 ? 0xA0 : 0x80, hi = c == 0xED ? 0x9F : 0xBF;
        return cont(APos + 1, lo, hi) && cont(APos + 2) ? 3 : 0;
    }
    if (c >= 0xF0 && c <= 0xF4) {
        const unsigned lo = c == 0xF0 ? 0x90 : 0x80, hi = c == 0xF4 ? 0x8F : 0xBF;
        return cont(APos + 1, lo, hi) && cont(APos + 2) && cont(APos + 3) ? 4 : 0;
    }
    return 0;
}

int UpperHexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The byte that the escape at APos stands for, or -1 when there is none: "%" and two upper-case
// hex digits of a value from 80 to FF, or "%25".
int EscapeAt(const std::string& s, size_t APos) {
    if (s[APos] != '%' || APos + 2 >= s.size()) return -1;
    const int hi = UpperHexDigit(s[APos + 1]), lo = UpperHexDigit(s[APos + 2]);
    if (hi < 0 || lo < 0) return -1;
    const int v = hi * 16 + lo;
    return v >= 0x80 || v == 0x25 ? v : -1;
}

void AppendHexByte(std::string& AOut, const char* APrefix, unsigned char AByte) {
    static const char digits[] = "0123456789ABCDEF";
    AOut += APrefix;
    AOut += digits[AByte >> 4];
    AOut += digits[AByte & 15];
}

}  // namespace

bool IsValidUtf8(const std::string& AText) {
    for (size_t i = 0; i < AText.size();) {
        const size_t len = Utf8SequenceLength(AText, i);
        if (len == 0) return false;
        i += len;
    }
    return true;
}

namespace {

bool IsJsonDigit(char c) {
    return c >= '0' && c <= '9';
}

int JsonHexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The four hex digits of a \u escape starting at APos (at the 'u'), or -1.
int JsonEscapeUnit(const std::string& s, size_t APos) {
    if (APos + 4 >= s.size()) return -1;
    int v = 0;
    for (size_t k = 1; k <= 4; ++k) {
        const int d = JsonHexDigit(s[APos + k]);
        if (d < 0) return -1;
        v = v * 16 + d;
    }
    return v;
}

// Moves APos past the string that starts there (at its quote); false when it isn't one.
bool SkipJsonString(const std::string& s, size_t& APos) {
    const size_t n = s.size();
    size_t i = APos + 1;
    while (i < n) {
        // Runs of plain characters (printable ASCII other than the quote and the backslash) are
        // skipped sixteen or eight at a time: long texts such as Base64 are nothing else.
#if defined(__SSE2__)
        while (i + 16 <= n) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s.data() + i));
            // Signed: below 0x20 also holds every byte from 0x80 up.
            const __m128i special =
                _mm_or_si128(_mm_cmplt_epi8(v, _mm_set1_epi8(0x20)),
                             _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('"')),
                                          _mm_cmpeq_epi8(v, _mm_set1_epi8('\\'))));
            if (_mm_movemask_epi8(special) != 0) break;
            i += 16;
        }
#endif
        while (i + 8 <= n) {
            std::uint64_t w;
            std::memcpy(&w, s.data() + i, 8);
            constexpr std::uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
            const auto hasZero = [&](std::uint64_t v) { return (v - kOnes) & ~v & kHigh; };
            if (((w | (w - kOnes * 0x20)) & kHigh) != 0 || hasZero(w ^ (kOnes * '"')) != 0 ||
                hasZero(w ^ (kOnes * '\\')) != 0)
                break;
            i += 8;
        }
        if (i >= n) break;
        const auto c = static_cast<unsigned char>(s[i]);
        if (c == '"') {
            APos = i + 1;
            return true;
        }
        if (c < 0x20) return false;
        if (c >= 0x80) {
            const size_t len = Utf8SequenceLength(s, i);
            if (len == 0) return false;
            i += len;
            continue;
        }
        if (c != '\\') {
            ++i;
            continue;
        }
        if (++i >= n) return false;
        const char e = s[i];
        if (e != 'u') {
            if (e != '"' && e != '\\' && e != '/' && e != 'b' && e != 'f' && e != 'n' && e != 'r' &&
                e != 't')
                return false;
            ++i;
            continue;
        }
        const int unit = JsonEscapeUnit(s, i);
        if (unit < 0 || (unit >= 0xDC00 && unit <= 0xDFFF)) return false;
        i += 5;
        if (unit >= 0xD800 && unit <= 0xDBFF) {  // a high surrogate needs its low half
            if (i + 1 >= n || s[i] != '\\' || s[i + 1] != 'u') return false;
            const int low = JsonEscapeUnit(s, i + 1);
            if (low < 0xDC00 || low > 0xDFFF) return false;
            i += 6;
        }
    }
    return false;
}

bool SkipJsonNumber(const std::string& s, size_t& APos) {
    const size_t n = s.size();
    size_t i = APos;
    if (s[i] == '-') ++i;
    if (i < n && s[i] == '0')
        ++i;
    else if (i < n && s[i] >= '1' && s[i] <= '9')
        while (i < n && IsJsonDigit(s[i]))
            ++i;
    else
        return false;
    if (i < n && s[i] == '.') {
        if (++i >= n || !IsJsonDigit(s[i])) return false;
        while (i < n && IsJsonDigit(s[i]))
            ++i;
    }
    if (i < n && (s[i] == 'e' || s[i] == 'E')) {
        if (++i < n && (s[i] == '+' || s[i] == '-')) ++i;
        if (i >= n || !IsJsonDigit(s[i])) return false;
        while (i < n && IsJsonDigit(s[i]))
            ++i;
    }
    APos = i;
    return true;
}

}  // namespace

bool IsValidJsonText(const std::string& s) {
    const size_t n = s.size();
    size_t i = 0;
    auto space = [&] {
        while (i < n && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r'))
            ++i;
    };
    // A member's key and colon, with the space after them.
    auto key = [&] {
        if (i >= n || s[i] != '"' || !SkipJsonString(s, i)) return false;
        space();
        if (i >= n || s[i] != ':') return false;
        ++i;
        space();
        return true;
    };
    std::string open;  // the containers around the current value, '{' or '['
    space();
    for (;;) {
        // A value starts at i.
        if (i >= n) return false;
        const char c = s[i];
        if (c == '{' || c == '[') {
            ++i;
            space();
            if (i < n && s[i] == (c == '{' ? '}' : ']')) {
                ++i;
            } else {
                open.push_back(c);
                if (c == '{' && !key()) return false;
                continue;
            }
        } else if (c == '"') {
            if (!SkipJsonString(s, i)) return false;
        } else if (c == '-' || IsJsonDigit(c)) {
            if (!SkipJsonNumber(s, i)) return false;
        } else {
            bool literal = false;
            for (const char* word : {"true", "false", "null"}) {
                const size_t len = std::char_traits<char>::length(word);
                if (s.compare(i, len, word) == 0) {
                    i += len;
                    literal = true;
                    break;
                }
            }
            if (!literal) return false;
        }
        // After a value: close what ends here, then a comma leads to the next value.
        for (;;) {
            space();
            if (open.empty()) return i == n;
            if (i >= n) return false;
            if (s[i] == ',') {
                ++i;
                space();
                if (open.back() == '{' && !key()) return false;
                break;
            }
            if (s[i] != (open.back() == '{' ? '}' : ']')) return false;
            ++i;
            open.pop_back();
        }
    }
}

std::string NameFromFileSystem(const std::string& ABytes) {
    std::string r;
    r.reserve(ABytes.size());
    for (size_t i = 0; i < ABytes.size();) {
        if (ABytes[i] == '%') {
            r += EscapeAt(ABytes, i) >= 0 ? "%25" : "%";
            ++i;
            continue;
        }
        const size_t len = Utf8SequenceLength(ABytes, i);
        if (len == 0) {
            AppendHexByte(r, "%", static_cast<unsigned char>(ABytes[i]));
            ++i;
        } else {
            r.append(ABytes, i, len);
            i += len;
        }
    }
    return r;
}

std::string NameToFileSystem(const std::string& AName) {
    std::string r;
    r.reserve(AName.size());
    for (size_t i = 0; i < AName.size();) {
        const int byte = EscapeAt(AName, i);
        if (byte >= 0) {
            r += static_cast<char>(byte);
            i += 3;
        } else {
            r += AName[i++];
        }
    }
    return r;
}

std::string PrintableText(const std::string& AText) {
    std::string r;
    r.reserve(AText.size());
    for (size_t i = 0; i < AText.size();) {
        const auto c = static_cast<unsigned char>(AText[i]);
        const size_t len = Utf8SequenceLength(AText, i);
        // C1 controls are U+0080 to U+009F: C2 80 to C2 9F.
        const bool c1 = len == 2 && c == 0xC2 && static_cast<unsigned char>(AText[i + 1]) < 0xA0;
        if (len == 0 || (len == 1 && (c < 0x20 || c == 0x7F))) {
            AppendHexByte(r, "\\x", c);
            ++i;
        } else if (c1) {
            AppendHexByte(r, "\\u00", static_cast<unsigned char>(AText[i + 1]));
            i += 2;
        } else {
            r.append(AText, i, len);
            i += len;
        }
    }
    return r;
}

std::string SafeFileName(const std::string& AName, int AMaxLength) {
    std::string r = NameToFileSystem(ConvertToFileName(AName, false, AMaxLength));
    if (r.empty()) return "_";
    if (r == "." || r == "..") return "_" + r;
    return r;
}

// ---- Folders held open

namespace {

std::string ErrnoText(int AErrno) {
    return std::strerror(AErrno);
}

}  // namespace

TDirHandle::~TDirHandle() {
    if (FHandle >= 0) ::close(FHandle);
}

TDirHandle::TDirHandle(TDirHandle&& AOther) noexcept : FHandle(AOther.FHandle) {
    AOther.FHandle = -1;
}

TDirHandle& TDirHandle::operator=(TDirHandle&& AOther) noexcept {
    if (this != &AOther) {
        if (FHandle >= 0) ::close(FHandle);
        FHandle = AOther.FHandle;
        AOther.FHandle = -1;
    }
    return *this;
}

TDirHandle TDirHandle::Open(const std::string& APath) {
    const int fd = ::open(APath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) throw EInOutError("Cannot open folder '" + APath + "': " + ErrnoText(errno));
    return TDirHandle(fd);
}

TDirHandle TDirHandle::OpenChild(const std::string& AName, bool ACreate,
                                 const std::string& ADisplayPath) const {
    if (ACreate && ::mkdirat(FHandle, AName.c_str(), 0777) != 0 && errno != EEXIST)
        throw EInOutError("Cannot create folder '" + ADisplayPath + "': " + ErrnoText(errno));
    const int fd =
        ::openat(FHandle, AName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) return TDirHandle(fd);
    const int err = errno;
    struct stat st {};
    if (::fstatat(FHandle, AName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISLNK(st.st_mode))
            throw EInOutError("'" + ADisplayPath + "' is a symbolic link; links are not followed");
        if (!S_ISDIR(st.st_mode))
            throw EInOutError("'" + ADisplayPath + "' exists and is no folder");
    }
    throw EInOutError("Cannot open folder '" + ADisplayPath + "': " + ErrnoText(err));
}

TDirHandle TDirHandle::Duplicate() const {
    const int fd = ::fcntl(FHandle, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) throw EInOutError("Cannot keep a folder open: " + ErrnoText(errno));
    return TDirHandle(fd);
}

std::string TDirHandle::EntryPath(const std::string& AName) const {
    static const bool hasProcFd = ::access("/proc/self/fd", X_OK) == 0;
    if (!hasProcFd || FHandle < 0) return {};
    return "/proc/self/fd/" + std::to_string(FHandle) + "/" + AName;
}

int GetFileList(const std::string& AMask, TStringList& AList, int AAttr, bool AFullPath) {
    const size_t slash = AMask.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : AMask.substr(0, slash + 1);
    const std::string pattern = slash == std::string::npos ? AMask : AMask.substr(slash + 1);
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) return 0;
    std::vector<std::string> names;
    if (AAttr != 1 && StrLike(".", pattern)) {
        names.emplace_back(".");
        names.emplace_back("..");
    }
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        const bool isDir = it->is_directory(ec);
        if ((AAttr == 1 && isDir) || (AAttr == 2 && !isDir)) continue;
        if (StrLike(name, pattern)) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    const std::string prefix = IncludeTrailingDirSeparator(dir);
    for (const std::string& n : names)
        AList.Add(AFullPath ? prefix + n : n);
    return static_cast<int>(names.size());
}

std::int64_t GetFileSize(const std::string& AFileName) {
    std::error_code ec;
    const auto size = fs::file_size(AFileName, ec);
    return ec ? -1 : static_cast<std::int64_t>(size);
}

TDateTime GetFileDate(const std::string& AFileName) {
    std::error_code ec;
    const auto t = fs::last_write_time(AFileName, ec);
    return ec ? 0.0 : FileTimeToDateTime(t);
}

bool SetFileDateTime(const std::string& AFileName, TDateTime /*ACreation*/, TDateTime AAccess,
                     TDateTime AModification) {
    // The creation time of a Linux file can't be set; access and modification times can.
    const double access = DateTimeToUnix(AAccess);
    const double modification = DateTimeToUnix(AModification);
    auto toTimespec = [](double seconds) {
        timespec ts{};
        double whole = 0;
        const double frac = std::modf(seconds, &whole);
        ts.tv_sec = static_cast<time_t>(whole);
        ts.tv_nsec = static_cast<long>(frac * 1e9);
        if (ts.tv_nsec < 0) {
            ts.tv_nsec += 1000000000L;
            --ts.tv_sec;
        }
        return ts;
    };
    const timespec times[2] = {toTimespec(access), toTimespec(modification)};
    return ::utimensat(AT_FDCWD, AFileName.c_str(), times, 0) == 0;
}

bool ForceDirectories(const std::string& APath) {
    if (APath.empty()) return false;
    std::error_code ec;
    fs::create_directories(APath, ec);
    return fs::is_directory(APath, ec);
}

std::string GetTempPath() {
    std::error_code ec;
    std::string p = fs::temp_directory_path(ec).string();
    if (ec || p.empty()) p = "/tmp";
    return IncludeTrailingDirSeparator(p);
}

std::string GetTempFileName() {
    std::string g = CreateGUIDString();
    std::string hex;
    for (char c : g)
        if (c != '{' && c != '}' && c != '-') hex += c;
    return "tmp" + hex + ".tmp";
}

std::string GetNewTempFileName(const std::string& APath, const std::string& AName, bool ACreate) {
    const std::string dir = IncludeTrailingDirSeparator(APath.empty() ? GetTempPath() : APath);
    const std::string name = AName.empty() ? GetTempFileName() : AName;
    const std::string ext = ExtractFileExt(name);
    const std::string stem = name.substr(0, name.size() - ext.size());
    std::string candidate = dir + name;
    std::error_code ec;
    for (int n = 2; fs::exists(candidate, ec); ++n)
        candidate = dir + stem + "_" + std::to_string(n) + ext;
    if (ACreate) std::ofstream(candidate, std::ios::binary);
    return candidate;
}

std::string GetUserDocumentsDataDirectory() {
    if (const char* x = std::getenv("XDG_DATA_HOME"); x && *x)
        return IncludeTrailingDirSeparator(x);
    const char* home = std::getenv("HOME");
    return IncludeTrailingDirSeparator(std::string(home && *home ? home : "/tmp") +
                                       "/.local/share");
}

bool FileMoveToRecycle(const std::string& AFileName) {
    std::error_code ec;
    if (!fs::exists(AFileName, ec)) return false;
    const std::string trash = GetUserDocumentsDataDirectory() + "Trash/files";
    if (fs::is_directory(trash, ec)) {
        const std::string target = GetNewTempFileName(trash, ExtractFileName(AFileName), false);
        fs::rename(AFileName, target, ec);
        if (!ec) return true;
    }
    return fs::remove(AFileName, ec);
}

void SaveStrToFile(const std::string& AFileName, const std::string& ABytes, bool AAppend) {
    std::ofstream out(AFileName, std::ios::binary | (AAppend ? std::ios::app : std::ios::trunc));
    if (!out) throw EFCreateError("Cannot create file \"" + AFileName + "\".");
    out.write(ABytes.data(), static_cast<std::streamsize>(ABytes.size()));
    if (!out) throw EWriteError("Stream write error");
}

// ---- Text

namespace {

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The two characters of each 12-bit value, in the order they are written.
const std::array<std::uint16_t, 4096> kBase64Pairs = [] {
    std::array<std::uint16_t, 4096> t{};
    for (int v = 0; v < 4096; ++v) {
        const char pair[2] = {kBase64[v >> 6], kBase64[v & 63]};
        std::memcpy(&t[static_cast<std::size_t>(v)], pair, 2);
    }
    return t;
}();

// The 12-bit value of each pair of characters, read as one 16-bit number the same way as the
// decoder reads them; -1 for a pair with a character outside the alphabet.
const std::array<std::int16_t, 65536> kBase64PairValues = [] {
    std::array<std::int16_t, 65536> t{};
    t.fill(-1);
    for (int a = 0; a < 64; ++a)
        for (int b = 0; b < 64; ++b) {
            const char pair[2] = {kBase64[a], kBase64[b]};
            std::uint16_t key;
            std::memcpy(&key, pair, 2);
            t[key] = static_cast<std::int16_t>(a << 6 | b);
        }
    return t;
}();

// The value of each character in the alphabet, -1 for all others.
constexpr std::array<signed char, 256> kBase64Values = [] {
    std::array<signed char, 256> t{};
    t.fill(-1);
    for (int i = 0; i < 64; ++i)
        t[static_cast<unsigned char>(kBase64[i])] = static_cast<signed char>(i);
    return t;
}();

// Writes the Base64 of n bytes to out, which has room for (n + 2) / 3 * 4 characters.
void Base64EncodeTo(const std::uint8_t* data, size_t n, char* out) {
    size_t i = 0;
    // Six bytes at a time through the table of character pairs: four 12-bit lookups.
    for (; i + 8 <= n; i += 6) {
        std::uint64_t w;
        std::memcpy(&w, data + i, 8);
        static_assert(std::endian::native == std::endian::little);
        w = __builtin_bswap64(w) >> 16;  // the six bytes, first byte highest
        std::memcpy(out, &kBase64Pairs[(w >> 36) & 0xFFF], 2);
        std::memcpy(out + 2, &kBase64Pairs[(w >> 24) & 0xFFF], 2);
        std::memcpy(out + 4, &kBase64Pairs[(w >> 12) & 0xFFF], 2);
        std::memcpy(out + 6, &kBase64Pairs[w & 0xFFF], 2);
        out += 8;
    }
    for (; i + 2 < n; i += 3) {
        const std::uint32_t v =
            (std::uint32_t{data[i]} << 16) | (std::uint32_t{data[i + 1]} << 8) | data[i + 2];
        *out++ = kBase64[v >> 18];
        *out++ = kBase64[(v >> 12) & 63];
        *out++ = kBase64[(v >> 6) & 63];
        *out++ = kBase64[v & 63];
    }
    if (i < n) {
        std::uint32_t v = std::uint32_t{data[i]} << 16;
        if (i + 1 < n) v |= std::uint32_t{data[i + 1]} << 8;
        *out++ = kBase64[v >> 18];
        *out++ = kBase64[(v >> 12) & 63];
        *out++ = i + 1 < n ? kBase64[(v >> 6) & 63] : '=';
        *out++ = '=';
    }
}

}  // namespace

void MIMEEncodeAppend(TStream& AStream, std::int64_t ACount, std::string& AOut) {
    const std::int64_t rest = std::max<std::int64_t>(0, AStream.Size() - AStream.Position());
    const std::int64_t n = ACount < 0 ? rest : std::min(ACount, rest);
    if (n <= 0) return;
    // Read in blocks of whole triples and encoded piece by piece through a small buffer that stays
    // in the cache: the bytes are never held in full beside their text, and the text is written
    // once (a resize first would write it twice, zeros and then the text).
    constexpr std::int64_t kBlock = 3 * 64 * 1024;
    constexpr std::size_t kPiece = 3 * 1024;
    AOut.reserve(AOut.size() + static_cast<std::size_t>((n + 2) / 3 * 4));
    std::vector<std::uint8_t> buf(static_cast<std::size_t>(std::min(n, kBlock)));
    char text[kPiece / 3 * 4];
    for (std::int64_t done = 0; done < n;) {
        const std::int64_t len = std::min(kBlock, n - done);
        AStream.ReadBuffer(buf.data(), len);
        for (std::size_t at = 0; at < static_cast<std::size_t>(len); at += kPiece) {
            const std::size_t piece = std::min(kPiece, static_cast<std::size_t>(len) - at);
            Base64EncodeTo(buf.data() + at, piece, text);
            AOut.append(text, (piece + 2) / 3 * 4);
        }
        done += len;
    }
}

std::string MIMEEncodeRawByteStr(TStream& AStream, std::int64_t ACount) {
    std::string r;
    MIMEEncodeAppend(AStream, ACount, r);
    return r;
}

std::string MIMEDecodeRawByteStr(const std::string& AText) {
    std::string r;
    r.reserve(AText.size() / 4 * 3);
    std::uint32_t acc = 0;
    int bits = 0;
    for (const char c : AText) {
        const int v = kBase64Values[static_cast<unsigned char>(c)];
        if (v < 0) continue;  // padding, line breaks and other noise
        acc = (acc << 6) | static_cast<std::uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            r += static_cast<char>((acc >> bits) & 0xFF);
        }
    }
    return r;
}

void Base64DecodeStrict(const char* AText, std::size_t ALength, std::string& AOut) {
    if (ALength % 4 != 0) throw EConvertError("Base64 text of a length that is no multiple of 4");
    std::size_t pad = 0;
    if (ALength > 0 && AText[ALength - 1] == '=') ++pad;
    if (ALength > 1 && AText[ALength - 2] == '=') ++pad;
    AOut.resize(ALength / 4 * 3 - pad);
    char* o = AOut.data();
    const auto* in = reinterpret_cast<const unsigned char*>(AText);
    // Whole quadruples first; the last one may be padded.
    const std::size_t whole = ALength == 0 ? 0 : ALength - 4;
    for (std::size_t i = 0; i < whole; i += 4) {
        std::uint16_t first, second;
        std::memcpy(&first, in + i, 2);
        std::memcpy(&second, in + i + 2, 2);
        const int hi = kBase64PairValues[first], lo = kBase64PairValues[second];
        if ((hi | lo) < 0) throw EConvertError("A character outside the Base64 alphabet");
        const std::uint32_t v =
            static_cast<std::uint32_t>(hi) << 12 | static_cast<std::uint32_t>(lo);
        o[0] = static_cast<char>(v >> 16);
        o[1] = static_cast<char>((v >> 8) & 0xFF);
        o[2] = static_cast<char>(v & 0xFF);
        o += 3;
    }
    if (ALength == 0) return;
    const std::size_t i = whole;
    const int a = kBase64Values[in[i]], b = kBase64Values[in[i + 1]],
              c = pad >= 2 ? 0 : kBase64Values[in[i + 2]],
              d = pad >= 1 ? 0 : kBase64Values[in[i + 3]];
    if ((a | b | c | d) < 0) throw EConvertError("A character outside the Base64 alphabet");
    const std::uint32_t v = (static_cast<std::uint32_t>(a) << 18) |
                            (static_cast<std::uint32_t>(b) << 12) |
                            (static_cast<std::uint32_t>(c) << 6) | static_cast<std::uint32_t>(d);
    *o++ = static_cast<char>(v >> 16);
    if (pad < 2) *o++ = static_cast<char>((v >> 8) & 0xFF);
    if (pad < 1) *o = static_cast<char>(v & 0xFF);
}

std::string HexToBin(const std::string& AText) {
    if (AText.size() % 2) throw EConvertError("'" + AText + "' is not a valid hexadecimal text");
    std::string r;
    r.reserve(AText.size() / 2);
    auto nibble = [&](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        throw EConvertError("'" + AText + "' is not a valid hexadecimal text");
    };
    for (size_t i = 0; i < AText.size(); i += 2)
        r += static_cast<char>(nibble(AText[i]) * 16 + nibble(AText[i + 1]));
    return r;
}

std::string FastReplace(const std::string& AText, const std::string& AOld, const std::string& ANew,
                        bool AIgnoreCase) {
    if (AOld.empty()) return AText;
    auto lower = [](std::string s) {
        for (char& c : s)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return s;
    };
    const std::string hay = AIgnoreCase ? lower(AText) : AText;
    const std::string needle = AIgnoreCase ? lower(AOld) : AOld;
    std::string r;
    size_t pos = 0;
    for (size_t hit; (hit = hay.find(needle, pos)) != std::string::npos; pos = hit + needle.size())
        r.append(AText, pos, hit - pos).append(ANew);
    r.append(AText, pos, std::string::npos);
    return r;
}

bool StrLike(const std::string& AText, const std::string& AMask) {
    auto eq = [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) ==
               std::tolower(static_cast<unsigned char>(b));
    };
    // Greedy match with backtracking to the last '*'.
    size_t t = 0, m = 0, starM = std::string::npos, starT = 0;
    while (t < AText.size()) {
        if (m < AMask.size() && (AMask[m] == '?' || (AMask[m] != '*' && eq(AMask[m], AText[t])))) {
            ++t;
            ++m;
        } else if (m < AMask.size() && AMask[m] == '*') {
            starM = m++;
            starT = t;
        } else if (starM != std::string::npos) {
            m = starM + 1;
            t = ++starT;
        } else {
            return false;
        }
    }
    while (m < AMask.size() && AMask[m] == '*')
        ++m;
    return m == AMask.size();
}

// ---- Integer lists

int TSortedIntegerList::Add(std::int64_t AValue) {
    auto it = std::lower_bound(FItems.begin(), FItems.end(), AValue);
    if (it == FItems.end() || *it != AValue) it = FItems.insert(it, AValue);
    return static_cast<int>(it - FItems.begin());
}

int TSortedIntegerList::IndexOf(std::int64_t AValue) const {
    auto it = std::lower_bound(FItems.begin(), FItems.end(), AValue);
    return it != FItems.end() && *it == AValue ? static_cast<int>(it - FItems.begin()) : -1;
}

std::string TSortedIntegerList::GetAsCommaText() const {
    std::string r;
    for (size_t i = 0; i < FItems.size(); ++i) {
        if (i) r += ',';
        r += std::to_string(FItems[i]);
    }
    return r;
}

// ---- Temporary files

namespace {

std::string TempName(const std::string& name) {
    return name.empty() ? GetTempPath() + GetTempFileName() : name;
}

}  // namespace

TTempFileStream::TTempFileStream(const std::string& AFileName, std::uint16_t AMode)
    : TFileStream(TempName(AFileName), AMode) {}

TTempFileStream::~TTempFileStream() {
    CloseFileHandle();
    std::error_code ec;
    fs::remove(FileName(), ec);
}

void TTempFileStream::CloseFileHandle() {
    if (FHandle >= 0) {
        ::close(FHandle);
        FHandle = -1;
    }
}

}  // namespace docadmin
