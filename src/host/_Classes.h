// Components, streams and string lists: the class basics every layer builds on.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "_Interfaces.h"

namespace docadmin {

using TNotifyEvent = std::function<void(TObject* Sender)>;

// A component frees the components it owns when it is destroyed; a component that is destroyed
// first leaves its owner's list.
class TComponent : public TObject {
  public:
    explicit TComponent(TComponent* AOwner);
    ~TComponent() override;

    TComponent* Owner() const { return FOwner; }
    int ComponentCount() const { return static_cast<int>(FComponents.size()); }
    TComponent* Components(int index) const { return FComponents.at(static_cast<size_t>(index)); }
    const std::string& Name() const { return FName; }
    void SetName(std::string name) { FName = std::move(name); }

  private:
    void Insert(TComponent* c);
    void Remove(TComponent* c);

    TComponent* FOwner = nullptr;
    std::vector<TComponent*> FComponents;  // owned
    std::string FName;
};

enum class TSeekOrigin { soBeginning, soCurrent, soEnd };

// The abstract byte stream. Read and Write move at most Count bytes and answer how many they
// moved; ReadBuffer and WriteBuffer raise when fewer moved.
class TStream : public TObject {
  public:
    virtual std::int64_t GetSize();
    virtual void SetSize(std::int64_t NewSize) = 0;
    virtual std::int32_t Read(void* Buffer, std::int32_t Count) = 0;
    virtual std::int32_t Write(const void* Buffer, std::int32_t Count) = 0;
    virtual std::int64_t Seek(std::int64_t Offset, TSeekOrigin Origin) = 0;

    std::int64_t Size() { return GetSize(); }
    std::int64_t Position() { return Seek(0, TSeekOrigin::soCurrent); }
    void SetPosition(std::int64_t pos) { Seek(pos, TSeekOrigin::soBeginning); }

    void ReadBuffer(void* Buffer, std::int64_t Count);  // raises EReadError "Stream read error"
    void WriteBuffer(const void* Buffer, std::int64_t Count);  // EWriteError "Stream write error"
    // Copies Count bytes from Source's position; Count 0 copies the whole of Source from its start.
    std::int64_t CopyFrom(TStream& Source, std::int64_t Count);
};

// File open modes: the create flag, access in the low bits and sharing in the next four.
inline constexpr std::uint16_t fmCreate = 0xFF00;
inline constexpr std::uint16_t fmOpenRead = 0x0000;
inline constexpr std::uint16_t fmOpenWrite = 0x0001;
inline constexpr std::uint16_t fmOpenReadWrite = 0x0002;
inline constexpr std::uint16_t fmShareExclusive = 0x0010;
inline constexpr std::uint16_t fmShareDenyWrite = 0x0020;
inline constexpr std::uint16_t fmShareDenyNone = 0x0040;

// A stream on an open file descriptor. The position is kept here and reads and writes go to it
// with pread/pwrite, so moving around costs no system call; a descriptor that cannot seek (a pipe)
// falls back to plain read and write.
class THandleStream : public TStream {
  public:
    explicit THandleStream(int handle);
    int Handle() const { return FHandle; }

    std::int64_t GetSize() override;
    void SetSize(std::int64_t NewSize) override;
    std::int32_t Read(void* Buffer, std::int32_t Count) override;
    std::int32_t Write(const void* Buffer, std::int32_t Count) override;
    std::int64_t Seek(std::int64_t Offset, TSeekOrigin Origin) override;

  protected:
    int FHandle = -1;
    std::int64_t FPos = 0;
    bool FSeekable = true;
};

// A stream on a named file. fmCreate creates or truncates; otherwise the file must exist.
// Failures raise EFCreateError "Cannot create file \"name\". reason" or EFOpenError
// "Cannot open file \"name\". reason".
class TFileStream : public THandleStream {
  public:
    TFileStream(const std::string& FileName, std::uint16_t Mode);
    ~TFileStream() override;
    const std::string& FileName() const { return FFileName; }
    // Flushes written data to the disk (fsync).
    void Flush();

  private:
    std::string FFileName;
};

// A growable stream in memory.
class TMemoryStream : public TStream {
  public:
    void SetSize(std::int64_t NewSize) override;
    std::int32_t Read(void* Buffer, std::int32_t Count) override;
    std::int32_t Write(const void* Buffer, std::int32_t Count) override;
    std::int64_t Seek(std::int64_t Offset, TSeekOrigin Origin) override;
    std::int64_t GetSize() override { return static_cast<std::int64_t>(FData.size()); }

    const std::vector<std::uint8_t>& Data() const { return FData; }
    std::string DataString() const { return std::string(FData.begin(), FData.end()); }
    void LoadFromFile(const std::string& FileName);
    void SaveToFile(const std::string& FileName);

  private:
    std::vector<std::uint8_t> FData;
    std::int64_t FPosition = 0;
};

// An ordered list of strings with the comma text of the host: items joined by the delimiter,
// quoted with double quotes where needed, doubled quotes inside quotes. With StrictDelimiter only
// the delimiter separates items (spaces are kept).
class TStringList : public TObject {
  public:
    int Count() const { return static_cast<int>(FItems.size()); }
    const std::string& operator[](int i) const { return FItems.at(static_cast<size_t>(i)); }
    std::string& operator[](int i) { return FItems.at(static_cast<size_t>(i)); }
    int Add(std::string s) {
        FItems.push_back(std::move(s));
        return Count() - 1;
    }
    void Insert(int index, std::string s) { FItems.insert(FItems.begin() + index, std::move(s)); }
    void Delete(int index) { FItems.erase(FItems.begin() + index); }
    void Clear() { FItems.clear(); }
    int IndexOf(const std::string& s) const;
    std::vector<std::string>& Items() { return FItems; }
    const std::vector<std::string>& Items() const { return FItems; }

    char Delimiter = ',';
    char QuoteChar = '"';
    bool StrictDelimiter = false;

    std::string DelimitedText() const;
    void SetDelimitedText(const std::string& text);
    // Comma text: delimiter ',' and quote '"' whatever the properties say.
    std::string CommaText() const;
    void SetCommaText(const std::string& text);

  private:
    std::vector<std::string> FItems;
};

// Splits a comma text with strict delimiter ("a","b,c",d) into its items.
std::vector<std::string> SplitStrictCommaText(const std::string& text);
// The same for text from a user, read strictly: an item is either quoted (ending at a single
// quote, doubled quotes inside, followed by a comma or the end) or unquoted without any quote.
// An unclosed quote, text after a closing quote or a quote inside an unquoted item raises
// EConvertError naming the text and the position. Empty items are passed on; whether they are
// allowed is the caller's decision.
std::vector<std::string> ParseStrictCommaText(const std::string& text);

}  // namespace docadmin
