// Sessions of the REST server and their caches.
//
// A client logs in and gets a session: a user, one of the four session kinds and a cache. The
// cache is a dictionary from string to object that the session owns: an entry is freed when it is
// removed or replaced and when the session ends. The server runs at most one request of a session
// at a time, so the cache takes no lock; the session's end runs on a host thread after the last
// request of the session.
//
// TSessionCacheValueHelper<T> keeps one interface value in a cache; TSessionCacheTempFileHelper
// keeps a temporary file (its name, the document's display name and dates) and deletes the file
// when it is freed.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "_Classes.h"
#include "_Interfaces.h"
#include "_SysUtils.h"

namespace docadmin {

// The kinds of session a client can open; a TConnectorSessionTypes set has bit (1 << kind).
enum TConnectorSessionType : std::uint8_t {
    cstBrowser = 0,
    cstAPIClient = 1,
    cstDevice = 2,
    cstService = 3,
};
using TConnectorSessionTypes = std::uint8_t;
inline constexpr TConnectorSessionTypes AllConnectorSessionTypes = 0x0F;
const char* ConnectorSessionTypeName(TConnectorSessionType AType);

// A key that is already in a session cache.
DOCADMIN_DECLARE_EXCEPTION(ESessionCacheDuplicate, Exception);

class TSessionCache {
  public:
    TSessionCache() = default;
    TSessionCache(const TSessionCache&) = delete;
    TSessionCache& operator=(const TSessionCache&) = delete;
    ~TSessionCache() { Clear(); }

    // Takes the object; raises ESessionCacheDuplicate (and frees the object) when the key exists.
    void Add(const std::string& AKey, std::unique_ptr<TObject> AValue);
    // The entry, or nullptr. The cache keeps it.
    TObject* Find(const std::string& AKey) const;
    bool TryGetValue(const std::string& AKey, TObject*& AValue) const;
    bool ContainsKey(const std::string& AKey) const { return Find(AKey) != nullptr; }
    // Frees the entry; a missing key has no effect.
    void Remove(const std::string& AKey);
    // Frees every entry, newest first.
    void Clear();
    int Count() const { return static_cast<int>(FItems.size()); }

  private:
    std::map<std::string, std::unique_ptr<TObject>> FItems;
};

class ISession : public IInterface {
  public:
    DOCADMIN_IID("{6F0C3B9E-1D2A-4E57-9B84-2C7A5E1D0F36}");
    virtual TSessionCache& GetSessionCache() = 0;
    virtual std::int64_t GetUserID() = 0;
    virtual std::string GetUserName() = 0;
    virtual TConnectorSessionType GetSessionType() = 0;
};

template <class T>
class TSessionCacheValueHelper : public TObject {
  public:
    explicit TSessionCacheValueHelper(IPtr<T> AValue) : FValue(std::move(AValue)) {}
    const IPtr<T>& Value() const { return FValue; }

  protected:
    IPtr<T> FValue;
};

class TSessionCacheTempFileHelper : public TObject {
  public:
    // Chooses a fresh name in the temporary folder; the file itself is made by GetStream.
    TSessionCacheTempFileHelper();
    // Closes the stream and deletes the file.
    ~TSessionCacheTempFileHelper() override;

    // Opens the file on first call (creating it when missing) and keeps it open.
    TStream* GetStream();
    // Renames the file on disk to the extension (".pdf" or "pdf").
    void ChangeFileExt(const std::string& AExt);

    std::string FileName;
    std::string DisplayName;
    TDateTime CreationDate = 0;
    TDateTime ModificationDate = 0;
    bool Converted = false;

  private:
    std::unique_ptr<TFileStream> FStream;
};

// One logged-in client. The run queue makes sure that at most one task of the session runs at a
// time: Enqueue hands the task to ASubmit when the session is free and keeps it otherwise; the
// end of a task submits the next one.
class TRestSession : public TInterfacedImpl<ISession> {
  public:
    using TSubmit = std::function<void(std::function<void()>)>;

    TRestSession(std::string AToken, std::int64_t AUserID, std::string AUserName,
                 TConnectorSessionType AType);
    ~TRestSession() override;

    TSessionCache& GetSessionCache() override { return FCache; }
    std::int64_t GetUserID() override { return FUserID; }
    std::string GetUserName() override { return FUserName; }
    TConnectorSessionType GetSessionType() override { return FType; }

    const std::string& Token() const { return FToken; }
    // Runs ATask through ASubmit once no other task of this session runs.
    void Enqueue(std::function<void()> ATask, const TSubmit& ASubmit);
    // Whether a task of this session runs or waits.
    bool Busy();

    std::chrono::steady_clock::time_point LastUse();
    void Touch();
    // Frees the cache's entries (with the temporary files they hold).
    void EndSession() { FCache.Clear(); }

  private:
    void RunNext(const TSubmit& ASubmit);

    const std::string FToken;
    const std::int64_t FUserID;
    const std::string FUserName;
    const TConnectorSessionType FType;
    TSessionCache FCache;  // used only by the one task that runs

    std::mutex FLock;
    bool FRunning = false;                           // guarded by FLock
    std::deque<std::function<void()>> FPending;      // guarded by FLock
    std::chrono::steady_clock::time_point FLastUse;  // guarded by FLock
};

}  // namespace docadmin
