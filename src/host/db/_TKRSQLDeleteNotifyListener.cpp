#include "_TKRSQLDeleteNotifyListener.h"

#include <algorithm>
#include <mutex>

namespace docadmin {

namespace {

std::mutex& RegistryLock() {
    static std::mutex m;
    return m;
}

// Live listeners; guarded by RegistryLock.
std::vector<TKRSQLDeleteNotifyListener*>& Registry() {
    static std::vector<TKRSQLDeleteNotifyListener*> r;
    return r;
}

}  // namespace

TKRSQLDeleteNotifyListener::TKRSQLDeleteNotifyListener(TComponent* AOwner) : TComponent(AOwner) {
    std::lock_guard lock(RegistryLock());
    Registry().push_back(this);
}

TKRSQLDeleteNotifyListener::~TKRSQLDeleteNotifyListener() {
    std::lock_guard lock(RegistryLock());
    auto& r = Registry();
    r.erase(std::remove(r.begin(), r.end(), this), r.end());
}

void TKRSQLDeleteNotifyListener::NotifyAll(IKRSQLDeleteNotify* AEvent) {
    // Handlers run without the lock so that they may use the data layer; a listener must not be
    // destroyed while a delete runs.
    std::vector<TKRSQLDeleteNotifyListener*> listeners;
    {
        std::lock_guard lock(RegistryLock());
        listeners = Registry();
    }
    for (TKRSQLDeleteNotifyListener* l : listeners)
        if (l->OnExecute) l->OnExecute(l, AEvent);
}

}  // namespace docadmin
