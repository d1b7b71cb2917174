#include "_TRestSession.h"

#include <filesystem>
#include <vector>

#include "_Tools.h"

namespace docadmin {

const char* ConnectorSessionTypeName(TConnectorSessionType AType) {
    switch (AType) {
        case cstBrowser:
            return "browser";
        case cstAPIClient:
            return "api_client";
        case cstDevice:
            return "device";
        case cstService:
            return "service";
    }
    return "unknown";
}

// ---- TSessionCache

void TSessionCache::Add(const std::string& AKey, std::unique_ptr<TObject> AValue) {
    if (FItems.count(AKey))
        throw ESessionCacheDuplicate("Duplicate session cache key \"" + AKey + "\"");
    FItems.emplace(AKey, std::move(AValue));
}

TObject* TSessionCache::Find(const std::string& AKey) const {
    auto it = FItems.find(AKey);
    return it == FItems.end() ? nullptr : it->second.get();
}

bool TSessionCache::TryGetValue(const std::string& AKey, TObject*& AValue) const {
    AValue = Find(AKey);
    return AValue != nullptr;
}

void TSessionCache::Remove(const std::string& AKey) {
    auto it = FItems.find(AKey);
    if (it == FItems.end()) return;
    // Take the entry out first: its destructor may use the cache.
    std::unique_ptr<TObject> gone = std::move(it->second);
    FItems.erase(it);
}

void TSessionCache::Clear() {
    while (!FItems.empty()) {
        auto it = std::prev(FItems.end());
        std::unique_ptr<TObject> gone = std::move(it->second);
        FItems.erase(it);
    }
}

// ---- TSessionCacheTempFileHelper

TSessionCacheTempFileHelper::TSessionCacheTempFileHelper()
    : FileName(GetTempPath() + GetTempFileName()) {}

TSessionCacheTempFileHelper::~TSessionCacheTempFileHelper() {
    FStream.reset();
    std::error_code ec;
    std::filesystem::remove(FileName, ec);
}

TStream* TSessionCacheTempFileHelper::GetStream() {
    if (!FStream) {
        const bool exists = std::filesystem::exists(FileName);
        FStream = std::make_unique<TFileStream>(FileName, exists ? fmOpenReadWrite : fmCreate);
    }
    return FStream.get();
}

void TSessionCacheTempFileHelper::ChangeFileExt(const std::string& AExt) {
    const std::string ext = AExt.empty() || AExt[0] == '.' ? AExt : "." + AExt;
    const std::string target = docadmin::ChangeFileExt(FileName, ext);
    if (target == FileName) return;
    if (std::filesystem::exists(FileName)) {
        std::error_code ec;
        std::filesystem::rename(FileName, target, ec);
        if (ec)
            throw EInOutError("Cannot rename \"" + FileName + "\" to \"" + target +
                              "\": " + ec.message());
    }
    // An open stream stays valid: the descriptor follows the renamed file.
    FileName = target;
}

// ---- TRestSession

TRestSession::TRestSession(std::string AToken, std::int64_t AUserID, std::string AUserName,
                           TConnectorSessionType AType)
    : FToken(std::move(AToken)),
      FUserID(AUserID),
      FUserName(std::move(AUserName)),
      FType(AType),
      FLastUse(std::chrono::steady_clock::now()) {}

TRestSession::~TRestSession() = default;

void TRestSession::Enqueue(std::function<void()> ATask, const TSubmit& ASubmit) {
    {
        std::lock_guard lock(FLock);
        FLastUse = std::chrono::steady_clock::now();
        if (FRunning) {
            FPending.push_back(std::move(ATask));
            return;
        }
        FRunning = true;
    }
    IPtr<TRestSession> self(this);
    ASubmit([self, task = std::move(ATask), ASubmit]() {
        task();
        self->RunNext(ASubmit);
    });
}

void TRestSession::RunNext(const TSubmit& ASubmit) {
    std::function<void()> next;
    {
        std::lock_guard lock(FLock);
        FLastUse = std::chrono::steady_clock::now();
        if (FPending.empty()) {
            FRunning = false;
            return;
        }
        next = std::move(FPending.front());
        FPending.pop_front();
    }
    IPtr<TRestSession> self(this);
    ASubmit([self, task = std::move(next), ASubmit]() {
        task();
        self->RunNext(ASubmit);
    });
}

bool TRestSession::Busy() {
    std::lock_guard lock(FLock);
    return FRunning;
}

std::chrono::steady_clock::time_point TRestSession::LastUse() {
    std::lock_guard lock(FLock);
    return FLastUse;
}

void TRestSession::Touch() {
    std::lock_guard lock(FLock);
    FLastUse = std::chrono::steady_clock::now();
}

}  // namespace docadmin
