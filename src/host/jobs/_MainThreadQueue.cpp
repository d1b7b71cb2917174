#include "_MainThreadQueue.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>

#include "_Dialogs.h"
#include "_SysUtils.h"

namespace docadmin {

namespace {

struct TMainQueue {
    std::mutex Lock;
    std::condition_variable Arrived;
    std::deque<TThreadProcedure> Calls;  // guarded by Lock
    TThreadProcedure Wake;               // guarded by Lock
};

TMainQueue& MainQueue() {
    static TMainQueue* q = new TMainQueue;  // never freed: threads may queue during exit
    return *q;
}

}  // namespace

void Queue(TThreadProcedure AProc) {
    TMainQueue& q = MainQueue();
    TThreadProcedure wake;
    {
        std::lock_guard lock(q.Lock);
        q.Calls.push_back(std::move(AProc));
        wake = q.Wake;
    }
    q.Arrived.notify_all();
    if (wake) wake();
}

void Synchronize(const TThreadProcedure& AProc) {
    if (IsMainThread()) {
        AProc();
        return;
    }
    struct TWait {
        std::mutex Lock;
        std::condition_variable Done;
        bool Ran = false;
        std::exception_ptr Error;
    };
    auto w = std::make_shared<TWait>();
    Queue([w, &AProc] {
        std::exception_ptr error;
        try {
            AProc();
        } catch (...) {
            error = std::current_exception();
        }
        std::lock_guard lock(w->Lock);
        w->Error = error;
        w->Ran = true;
        w->Done.notify_all();
    });
    std::unique_lock lock(w->Lock);
    w->Done.wait(lock, [&] { return w->Ran; });
    if (w->Error) std::rethrow_exception(w->Error);
}

bool CheckSynchronize(int ATimeoutMs) {
    if (!IsMainThread()) throw EAssertionFailed("CheckSynchronize called off the main thread");
    TMainQueue& q = MainQueue();
    std::deque<TThreadProcedure> calls;
    {
        std::unique_lock lock(q.Lock);
        if (q.Calls.empty() && ATimeoutMs > 0)
            q.Arrived.wait_for(lock, std::chrono::milliseconds(ATimeoutMs),
                               [&] { return !q.Calls.empty(); });
        calls.swap(q.Calls);
    }
    if (calls.empty()) return false;
    while (!calls.empty()) {
        TThreadProcedure call = std::move(calls.front());
        calls.pop_front();
        try {
            call();
        } catch (...) {
            // The calls not yet run go back in front of those queued meanwhile.
            std::lock_guard lock(q.Lock);
            q.Calls.insert(q.Calls.begin(), std::make_move_iterator(calls.begin()),
                           std::make_move_iterator(calls.end()));
            throw;
        }
    }
    return true;
}

TThreadProcedure SetWakeMainThread(TThreadProcedure AWake) {
    TMainQueue& q = MainQueue();
    std::lock_guard lock(q.Lock);
    std::swap(q.Wake, AWake);
    return AWake;
}

}  // namespace docadmin
