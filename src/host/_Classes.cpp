#include "_Classes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace docadmin {

// ---- TComponent

TComponent::TComponent(TComponent* AOwner) : FOwner(AOwner) {
    if (FOwner) FOwner->Insert(this);
}

TComponent::~TComponent() {
    // Owned components go last to first; each one leaves this list in its own destructor.
    while (!FComponents.empty())
        delete FComponents.back();
    if (FOwner) FOwner->Remove(this);
}

void TComponent::Insert(TComponent* c) {
    FComponents.push_back(c);
}

void TComponent::Remove(TComponent* c) {
    auto it = std::find(FComponents.begin(), FComponents.end(), c);
    if (it != FComponents.end()) FComponents.erase(it);
}

// ---- TStream

std::int64_t TStream::GetSize() {
    const std::int64_t pos = Seek(0, TSeekOrigin::soCurrent);
    const std::int64_t size = Seek(0, TSeekOrigin::soEnd);
    Seek(pos, TSeekOrigin::soBeginning);
    return size;
}

void TStream::ReadBuffer(void* Buffer, std::int64_t Count) {
    auto* p = static_cast<std::uint8_t*>(Buffer);
    while (Count > 0) {
        const auto chunk = static_cast<std::int32_t>(std::min<std::int64_t>(Count, 1 << 30));
        const std::int32_t n = Read(p, chunk);
        if (n <= 0) throw EReadError("Stream read error");
        p += n;
        Count -= n;
    }
}

void TStream::WriteBuffer(const void* Buffer, std::int64_t Count) {
    const auto* p = static_cast<const std::uint8_t*>(Buffer);
    while (Count > 0) {
        const auto chunk = static_cast<std::int32_t>(std::min<std::int64_t>(Count, 1 << 30));
        const std::int32_t n = Write(p, chunk);
        if (n <= 0) throw EWriteError("Stream write error");
        p += n;
        Count -= n;
    }
}

std::int64_t TStream::CopyFrom(TStream& Source, std::int64_t Count) {
    if (Count == 0) {
        Source.SetPosition(0);
        Count = Source.Size();
    }
    constexpr std::int32_t kBuf = 1 << 20;
    std::vector<std::uint8_t> buf(static_cast<size_t>(std::min<std::int64_t>(Count, kBuf)));
    const std::int64_t total = Count;
    while (Count > 0) {
        const auto n = static_cast<std::int32_t>(std::min<std::int64_t>(Count, kBuf));
        Source.ReadBuffer(buf.data(), n);
        WriteBuffer(buf.data(), n);
        Count -= n;
    }
    return total;
}

// ---- THandleStream

THandleStream::THandleStream(int handle) : FHandle(handle) {
    if (FHandle >= 0) {
        const off_t pos = ::lseek(FHandle, 0, SEEK_CUR);
        FSeekable = pos >= 0;
        FPos = FSeekable ? pos : 0;
    }
}

std::int64_t THandleStream::GetSize() {
    struct stat st {};
    if (::fstat(FHandle, &st) != 0) return -1;
    return st.st_size;
}

void THandleStream::SetSize(std::int64_t NewSize) {
    const std::int64_t pos = Position();
    if (::ftruncate(FHandle, NewSize) != 0)
        throw EStreamError(std::string("Stream size change failed: ") + std::strerror(errno));
    if (pos > NewSize) Seek(NewSize, TSeekOrigin::soBeginning);
}

std::int32_t THandleStream::Read(void* Buffer, std::int32_t Count) {
    if (Count <= 0) return 0;
    std::int32_t done = 0;
    while (done < Count) {
        char* at = static_cast<char*>(Buffer) + done;
        const auto want = static_cast<size_t>(Count - done);
        const ssize_t n = FSeekable ? ::pread(FHandle, at, want, FPos) : ::read(FHandle, at, want);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::int32_t>(n);
        FPos += n;
    }
    return done;
}

std::int32_t THandleStream::Write(const void* Buffer, std::int32_t Count) {
    if (Count <= 0) return 0;
    std::int32_t done = 0;
    while (done < Count) {
        const char* at = static_cast<const char*>(Buffer) + done;
        const auto want = static_cast<size_t>(Count - done);
        const ssize_t n =
            FSeekable ? ::pwrite(FHandle, at, want, FPos) : ::write(FHandle, at, want);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::int32_t>(n);
        FPos += n;
    }
    return done;
}

std::int64_t THandleStream::Seek(std::int64_t Offset, TSeekOrigin Origin) {
    if (!FSeekable) {
        const int whence = Origin == TSeekOrigin::soBeginning ? SEEK_SET
                           : Origin == TSeekOrigin::soCurrent ? SEEK_CUR
                                                              : SEEK_END;
        return ::lseek(FHandle, Offset, whence);
    }
    const std::int64_t base = Origin == TSeekOrigin::soBeginning ? 0
                              : Origin == TSeekOrigin::soCurrent ? FPos
                                                                 : GetSize();
    if (base + Offset < 0) return -1;
    FPos = base + Offset;
    return FPos;
}

// ---- TFileStream

namespace {
int OpenFlags(std::uint16_t mode) {
    if (mode == fmCreate || (mode & 0xFF00) == 0xFF00) return O_RDWR | O_CREAT | O_TRUNC;
    switch (mode & 0x3) {
        case fmOpenWrite:
            return O_WRONLY;
        case fmOpenReadWrite:
            return O_RDWR;
        default:
            return O_RDONLY;
    }
}
}  // namespace

TFileStream::TFileStream(const std::string& FileName, std::uint16_t Mode)
    : THandleStream(-1), FFileName(FileName) {
    FHandle = ::open(FileName.c_str(), OpenFlags(Mode) | O_CLOEXEC, 0644);
    if (FHandle < 0) {
        const std::string reason = std::strerror(errno);
        if ((Mode & 0xFF00) == 0xFF00)
            throw EFCreateError("Cannot create file \"" + FileName + "\". " + reason);
        throw EFOpenError("Cannot open file \"" + FileName + "\". " + reason);
    }
}

TFileStream::~TFileStream() {
    if (FHandle >= 0) ::close(FHandle);
}

void TFileStream::Flush() {
    if (::fsync(FHandle) != 0)
        throw EWriteError("Cannot flush file \"" + FFileName + "\". " + std::strerror(errno));
}

// ---- TMemoryStream

void TMemoryStream::SetSize(std::int64_t NewSize) {
    FData.resize(static_cast<size_t>(NewSize));
    if (FPosition > NewSize) FPosition = NewSize;
}

std::int32_t TMemoryStream::Read(void* Buffer, std::int32_t Count) {
    if (Count <= 0 || FPosition >= GetSize()) return 0;
    const auto n = static_cast<std::int32_t>(std::min<std::int64_t>(Count, GetSize() - FPosition));
    std::memcpy(Buffer, FData.data() + FPosition, static_cast<size_t>(n));
    FPosition += n;
    return n;
}

std::int32_t TMemoryStream::Write(const void* Buffer, std::int32_t Count) {
    if (Count <= 0) return 0;
    if (FPosition + Count > GetSize()) FData.resize(static_cast<size_t>(FPosition + Count));
    std::memcpy(FData.data() + FPosition, Buffer, static_cast<size_t>(Count));
    FPosition += Count;
    return Count;
}

std::int64_t TMemoryStream::Seek(std::int64_t Offset, TSeekOrigin Origin) {
    std::int64_t base = Origin == TSeekOrigin::soBeginning ? 0
                        : Origin == TSeekOrigin::soCurrent ? FPosition
                                                           : GetSize();
    FPosition = std::max<std::int64_t>(0, base + Offset);
    return FPosition;
}

void TMemoryStream::LoadFromFile(const std::string& FileName) {
    TFileStream f(FileName, fmOpenRead | fmShareDenyWrite);
    SetSize(f.Size());
    FPosition = 0;
    if (!FData.empty()) f.ReadBuffer(FData.data(), static_cast<std::int64_t>(FData.size()));
}

void TMemoryStream::SaveToFile(const std::string& FileName) {
    TFileStream f(FileName, fmCreate);
    if (!FData.empty()) f.WriteBuffer(FData.data(), static_cast<std::int64_t>(FData.size()));
}

// ---- TStringList

int TStringList::IndexOf(const std::string& s) const {
    auto it = std::find(FItems.begin(), FItems.end(), s);
    return it == FItems.end() ? -1 : static_cast<int>(it - FItems.begin());
}

std::string TStringList::DelimitedText() const {
    if (FItems.size() == 1 && FItems[0].empty()) return std::string(2, QuoteChar);
    std::string result;
    for (size_t i = 0; i < FItems.size(); ++i) {
        const std::string& s = FItems[i];
        bool quote = false;
        for (char c : s) {
            const auto u = static_cast<unsigned char>(c);
            if (c == QuoteChar || c == Delimiter || (!StrictDelimiter && u <= ' ')) {
                quote = true;
                break;
            }
        }
        if (i) result += Delimiter;
        if (!quote) {
            result += s;
            continue;
        }
        result += QuoteChar;
        for (char c : s) {
            if (c == QuoteChar) result += QuoteChar;
            result += c;
        }
        result += QuoteChar;
    }
    return result;
}

void TStringList::SetDelimitedText(const std::string& text) {
    FItems.clear();
    size_t p = 0;
    const size_t n = text.size();
    auto isSpace = [](char c) { return c != 0 && static_cast<unsigned char>(c) <= ' '; };
    auto skipSpaces = [&] {
        if (!StrictDelimiter)
            while (p < n && isSpace(text[p]))
                ++p;
    };
    skipSpaces();
    while (p < n) {
        std::string item;
        if (text[p] == QuoteChar) {
            // A quoted item ends at a single quote; doubled quotes stand for one.
            ++p;
            while (p < n) {
                if (text[p] == QuoteChar) {
                    if (p + 1 < n && text[p + 1] == QuoteChar) {
                        item += QuoteChar;
                        p += 2;
                        continue;
                    }
                    ++p;
                    break;
                }
                item += text[p++];
            }
        } else {
            const size_t start = p;
            while (p < n && text[p] != Delimiter && (StrictDelimiter || !isSpace(text[p])))
                ++p;
            item = text.substr(start, p - start);
        }
        FItems.push_back(std::move(item));
        skipSpaces();
        if (p < n && text[p] == Delimiter) {
            if (p + 1 == n) FItems.emplace_back();
            ++p;
            skipSpaces();
        }
    }
}

std::string TStringList::CommaText() const {
    TStringList copy;
    copy.FItems = FItems;
    copy.StrictDelimiter = StrictDelimiter;
    return copy.DelimitedText();
}

void TStringList::SetCommaText(const std::string& text) {
    const char d = Delimiter, q = QuoteChar;
    Delimiter = ',';
    QuoteChar = '"';
    SetDelimitedText(text);
    Delimiter = d;
    QuoteChar = q;
}

std::vector<std::string> SplitStrictCommaText(const std::string& text) {
    TStringList l;
    l.StrictDelimiter = true;
    l.SetDelimitedText(text);
    return std::move(l.Items());
}

std::vector<std::string> ParseStrictCommaText(const std::string& text) {
    std::vector<std::string> items;
    if (text.empty()) return items;
    auto fail = [&](size_t APos, const std::string& AWhat) {
        throw EConvertError("Malformed folder path '" + text + "': " + AWhat + " at position " +
                            std::to_string(APos + 1));
    };
    size_t p = 0;
    const size_t n = text.size();
    while (true) {
        std::string item;
        if (p < n && text[p] == '"') {
            const size_t open = p++;
            bool closed = false;
            while (p < n && !closed) {
                if (text[p] != '"') {
                    item += text[p++];
                } else if (p + 1 < n && text[p + 1] == '"') {
                    item += '"';
                    p += 2;
                } else {
                    closed = true;
                    ++p;
                }
            }
            if (!closed) fail(open, "unclosed quote");
            if (p < n && text[p] != ',') fail(p, "text after a closing quote");
        } else {
            const size_t end = std::min(text.find(',', p), n);
            item = text.substr(p, end - p);
            const size_t quote = item.find('"');
            if (quote != std::string::npos) fail(p + quote, "quote inside an unquoted name");
            p = end;
        }
        items.push_back(std::move(item));
        if (p >= n) break;
        ++p;  // the comma; a comma at the end leaves one more, empty item
    }
    return items;
}

}  // namespace docadmin
