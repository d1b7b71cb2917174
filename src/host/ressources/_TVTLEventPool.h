// TVTLEventPool: the pool through which changes of resources are announced. Whoever changes a
// resource fires the pool with the resource's id; every listener added to the pool is called with
// it, in the order of adding, on the firing thread.
//
// Thread-safe: listeners may be added, removed and fired from any thread. A listener is called
// without the pool's lock held, so it may add or remove listeners; one removed while a firing
// runs may still be called by that firing.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "_RessourceIntf.h"

namespace docadmin {

using TVTLEventPoolListener = std::function<void(std::int64_t AID)>;

class TVTLEventPool : public TInterfacedImpl<IVTLEventPool> {
  public:
    // Answers a handle for RemoveListener.
    std::int32_t AddListener(TVTLEventPoolListener AListener);
    void RemoveListener(std::int32_t AHandle);
    void Do_FireEvent(std::int64_t AID) override;

  private:
    struct TEntry {
        std::int32_t Handle;
        TVTLEventPoolListener Listener;
    };
    std::mutex FLock;
    std::vector<TEntry> FListeners;  // guarded by FLock
    std::int32_t FNextHandle = 1;    // guarded by FLock
};

}  // namespace docadmin
