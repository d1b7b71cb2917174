#include "_TVTLEventPool.h"

#include <algorithm>

namespace docadmin {

std::int32_t TVTLEventPool::AddListener(TVTLEventPoolListener AListener) {
    std::lock_guard lock(FLock);
    FListeners.push_back({FNextHandle, std::move(AListener)});
    return FNextHandle++;
}

void TVTLEventPool::RemoveListener(std::int32_t AHandle) {
    std::lock_guard lock(FLock);
    std::erase_if(FListeners, [AHandle](const TEntry& e) { return e.Handle == AHandle; });
}

void TVTLEventPool::Do_FireEvent(std::int64_t AID) {
    std::vector<TEntry> listeners;
    {
        std::lock_guard lock(FLock);
        listeners = FListeners;
    }
    for (const TEntry& e : listeners)
        e.Listener(AID);
}

}  // namespace docadmin
