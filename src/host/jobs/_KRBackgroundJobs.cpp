#include "_KRBackgroundJobs.h"

#include <algorithm>
#include <map>

#include "_Dialogs.h"
#include "_MainThreadQueue.h"

namespace docadmin {

using TClock = std::chrono::steady_clock;

struct TBackgroundJobSchedulerState {
    struct TEntry {
        std::shared_ptr<TKRCustomBackgroundJob> Job;
        std::uint64_t Seq;
    };

    std::mutex Lock;
    std::condition_variable Changed;  // work arrived, a delay or termination changed, a slot freed
    std::condition_variable Freed;    // a job was freed or a pool thread left
    // Guarded by Lock:
    std::vector<TEntry> Waiting;                      // in scheduling order
    std::vector<TKRCustomBackgroundJob*> Running;     // jobs in Execute
    std::map<TBackgroundJobGroup, int> RunningCount;  // per group, of Running
    std::map<TBackgroundJobGroup, int> Limit;         // per group; absent: no limit
    std::map<TBackgroundJobGroup, int> Live;          // per group, scheduled and not yet freed
    std::uint64_t NextSeq = 0;
    int Workers = 0;  // pool threads still in their loop
    bool Stopping = false;

    void Wake() {
        std::lock_guard lock(Lock);
        Changed.notify_all();
    }
    bool HasRoom(TBackgroundJobGroup AGroup) const {
        const auto l = Limit.find(AGroup);
        if (l == Limit.end()) return true;
        const auto r = RunningCount.find(AGroup);
        return r == RunningCount.end() || r->second < l->second;
    }
    int LiveCount(TBackgroundJobGroup AGroup) const {
        const auto l = Live.find(AGroup);
        return l == Live.end() ? 0 : l->second;
    }
    void JobFreed(TBackgroundJobGroup AGroup) {
        std::lock_guard lock(Lock);
        if (--Live[AGroup] <= 0) Live.erase(AGroup);
        Freed.notify_all();
    }
};

namespace {

// Delivers a job's end where its events belong; the last reference, and so the job, goes after
// the delivery, on the same thread.
void EndJob(std::shared_ptr<TKRCustomBackgroundJob> AJob, bool ACancelled,
            void (TKRCustomBackgroundJob::*AFire)(bool)) {
    if (AJob->SyncEvents()) {
        Queue([job = std::move(AJob), ACancelled, AFire] { (job.get()->*AFire)(ACancelled); });
        return;
    }
    try {
        (AJob.get()->*AFire)(ACancelled);
    } catch (...) {
        // Nowhere to report it on a pool thread.
    }
}

}  // namespace

// ---- TKRCustomBackgroundJob

TKRCustomBackgroundJob::TKRCustomBackgroundJob(TNotifyEvent AFinishedEvent,
                                               TNotifyEvent ACancelEvent, bool ASyncEvents)
    : FSyncEvents(ASyncEvents),
      FOnFinished(std::move(AFinishedEvent)),
      FOnCancel(std::move(ACancelEvent)) {}

TKRCustomBackgroundJob::~TKRCustomBackgroundJob() = default;

void TKRCustomBackgroundJob::SetStartDelay(std::int64_t AMilliseconds) {
    {
        std::lock_guard lock(FLock);
        FStartDelay = std::max<std::int64_t>(0, AMilliseconds);
    }
    WakeScheduler();
}

std::int64_t TKRCustomBackgroundJob::StartDelay() const {
    std::lock_guard lock(FLock);
    return FStartDelay;
}

void TKRCustomBackgroundJob::Terminate() {
    {
        std::lock_guard lock(FLock);
        FTerminated = true;
    }
    WakeScheduler();
}

bool TKRCustomBackgroundJob::Terminated() const {
    std::lock_guard lock(FLock);
    return FTerminated;
}

void TKRCustomBackgroundJob::TerminateAndDisconnect() {
    std::shared_ptr<TBackgroundJobSchedulerState> s;
    {
        // FCallers keeps the job from being freed until this call no longer touches it.
        std::unique_lock lock(FLock);
        ++FCallers;
        FTerminated = true;
        FConnected = false;
        FOnFinished = nullptr;
        FOnCancel = nullptr;
        FOnFreeJob = nullptr;
        const auto self = std::this_thread::get_id();
        FEventDone.wait(lock, [&] { return FEventCalls == 0 || FEventThread == self; });
        s = FScheduler;
        --FCallers;
        FEventDone.notify_all();
    }
    if (s) s->Wake();
}

void TKRCustomBackgroundJob::Cancel() {
    {
        std::lock_guard lock(FLock);
        if (FState != TState::Ended) FCancelled = true;
        FTerminated = true;
    }
    WakeScheduler();
}

bool TKRCustomBackgroundJob::Cancelled() const {
    std::lock_guard lock(FLock);
    return FCancelled;
}

bool TKRCustomBackgroundJob::Finished() const {
    std::lock_guard lock(FLock);
    return FState == TState::Ended;
}

bool TKRCustomBackgroundJob::NeedFinishedEvent() {
    std::lock_guard lock(FLock);
    return FConnected && FOnFinished;
}

bool TKRCustomBackgroundJob::NeedCancelEvent() {
    std::lock_guard lock(FLock);
    return FConnected && FOnCancel;
}

void TKRCustomBackgroundJob::SetOnFreeJob(TNotifyEvent AOnFreeJob) {
    std::lock_guard lock(FLock);
    FOnFreeJob = std::move(AOnFreeJob);
}

std::string TKRCustomBackgroundJob::Title() const {
    std::lock_guard lock(FLock);
    return FTitle;
}

void TKRCustomBackgroundJob::SetTitle(const std::string& ATitle) {
    std::lock_guard lock(FLock);
    FTitle = ATitle;
}

std::string TKRCustomBackgroundJob::FatalExceptionMessage() const {
    std::lock_guard lock(FLock);
    return FFatalMessage;
}

void TKRCustomBackgroundJob::WakeScheduler() {
    std::shared_ptr<TBackgroundJobSchedulerState> s;
    {
        std::lock_guard lock(FLock);
        s = FScheduler;
    }
    if (s) s->Wake();
}

void TKRCustomBackgroundJob::FireEnd(bool ACancelled) {
    if (ACancelled ? NeedCancelEvent() : NeedFinishedEvent())
        FireEvent(ACancelled ? &TKRCustomBackgroundJob::FOnCancel
                             : &TKRCustomBackgroundJob::FOnFinished);
}

void TKRCustomBackgroundJob::FireEvent(TNotifyEvent TKRCustomBackgroundJob::*AEvent) {
    TNotifyEvent event;
    {
        std::lock_guard lock(FLock);
        if (!FConnected || !(this->*AEvent)) return;
        event = this->*AEvent;
        ++FEventCalls;
        FEventThread = std::this_thread::get_id();
    }
    TFinally done{[this] {
        std::lock_guard lock(FLock);
        --FEventCalls;
        FEventDone.notify_all();
    }};
    event(this);
}

// ---- TCustomPluginComponentBackgroundJob

IKRBackgroundJobScheduler* GetBackgroundJobScheduler(IMainInterface* AMainInterface) {
    IPtr<IKRBackgroundJobScheduler> s;
    // The scheduler lives as long as the main interface that offers it.
    return Supports(AMainInterface, s) ? s.get() : nullptr;
}

TCustomPluginComponentBackgroundJob::TCustomPluginComponentBackgroundJob(
    const std::string& ATitle, TNotifyEvent AFinishedEvent, TNotifyEvent ACancelEvent,
    bool ASyncEvents)
    : TKRCustomBackgroundJob(std::move(AFinishedEvent), std::move(ACancelEvent), ASyncEvents) {
    SetTitle(ATitle);
}

void TCustomPluginComponentBackgroundJob::Schedule(TBackgroundJobGroup AGroup, bool ARepeat) {
    IKRBackgroundJobScheduler* s = GetBackgroundJobScheduler(GetMainInterface());
    if (!s) s = &TBackgroundJobScheduler::Default();
    s->ScheduleJob(this, AGroup, ARepeat);
}

void TCustomPluginComponentBackgroundJob::Execute() {
    TKRCustomBackgroundJob::Execute();
    if (!Terminated()) InternalExcute();
}

// ---- TBackgroundJobScheduler

TBackgroundJobScheduler::TBackgroundJobScheduler(int AThreadCount)
    : FState(std::make_shared<TBackgroundJobSchedulerState>()) {
    const int n = AThreadCount > 0
                      ? AThreadCount
                      : std::max(2, static_cast<int>(std::thread::hardware_concurrency()));
    FState->Workers = n;
    FThreads.reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        FThreads.emplace_back([this] { Work(); });
}

TBackgroundJobScheduler::~TBackgroundJobScheduler() {
    Shutdown();
}

TBackgroundJobScheduler& TBackgroundJobScheduler::Default() {
    static TBackgroundJobScheduler scheduler;
    return scheduler;
}

HRESULT TBackgroundJobScheduler::QueryInterface(const TGUID& iid, void** obj) {
    if (iid == IKRBackgroundJobScheduler::IID || iid == IInterface::IID) {
        *obj = static_cast<IKRBackgroundJobScheduler*>(this);
        return S_OK;
    }
    *obj = nullptr;
    return E_NOINTERFACE;
}

void TBackgroundJobScheduler::ScheduleJob(TKRCustomBackgroundJob* AJob, TBackgroundJobGroup AGroup,
                                          bool ARepeat) {
    if (!AJob) throw EArgumentException("No job to schedule");
    {
        std::lock_guard lock(AJob->FLock);
        if (AJob->FState != TKRCustomBackgroundJob::TState::New)
            throw EKRBackgroundJobError("The job \"" + AJob->FTitle + "\" is already scheduled");
        AJob->FState = TKRCustomBackgroundJob::TState::Waiting;
        AJob->FGroup = AGroup;
        AJob->FRepeat = ARepeat;
        AJob->FWaitStart = TClock::now();
        AJob->FScheduler = FState;
    }
    TBackgroundJobSchedulerState& s = *FState;
    {
        std::lock_guard lock(s.Lock);
        ++s.Live[AGroup];
    }
    std::shared_ptr<TKRCustomBackgroundJob> job(
        AJob, [state = FState, AGroup](TKRCustomBackgroundJob* j) {
            try {
                j->FireEvent(&TKRCustomBackgroundJob::FOnFreeJob);
            } catch (...) {
                // The job goes all the same.
            }
            {
                std::unique_lock jl(j->FLock);
                j->FEventDone.wait(jl, [j] { return j->FCallers == 0; });
            }
            delete j;
            state->JobFreed(AGroup);
        });
    std::unique_lock lock(s.Lock);
    if (s.Stopping) {
        {
            std::lock_guard jl(AJob->FLock);
            AJob->FTerminated = true;
            AJob->FState = TKRCustomBackgroundJob::TState::Ended;
            AJob->FScheduler.reset();
        }
        lock.unlock();
        EndJob(std::move(job), true, &TKRCustomBackgroundJob::FireEnd);
        return;
    }
    s.Waiting.push_back({std::move(job), s.NextSeq++});
    s.Changed.notify_all();
}

void TBackgroundJobScheduler::SetGroupLimit(TBackgroundJobGroup AGroup, int AMaxRunning) {
    TBackgroundJobSchedulerState& s = *FState;
    std::lock_guard lock(s.Lock);
    if (AMaxRunning > 0)
        s.Limit[AGroup] = AMaxRunning;
    else
        s.Limit.erase(AGroup);
    s.Changed.notify_all();
}

void TBackgroundJobScheduler::TerminateGroup(TBackgroundJobGroup AGroup) {
    TBackgroundJobSchedulerState& s = *FState;
    std::lock_guard lock(s.Lock);
    auto terminate = [&](TKRCustomBackgroundJob& j) {
        std::lock_guard jl(j.FLock);
        if (j.FGroup == AGroup) j.FTerminated = true;
    };
    for (auto& e : s.Waiting)
        terminate(*e.Job);
    for (TKRCustomBackgroundJob* j : s.Running)
        terminate(*j);
    s.Changed.notify_all();
}

int TBackgroundJobScheduler::JobCount(TBackgroundJobGroup AGroup) const {
    std::lock_guard lock(FState->Lock);
    return FState->LiveCount(AGroup);
}

bool TBackgroundJobScheduler::WaitForGroup(TBackgroundJobGroup AGroup, int ATimeoutMs) {
    TBackgroundJobSchedulerState& s = *FState;
    const auto deadline = ATimeoutMs < 0 ? TClock::time_point::max()
                                         : TClock::now() + std::chrono::milliseconds(ATimeoutMs);
    const bool main = IsMainThread();
    std::unique_lock lock(s.Lock);
    while (s.LiveCount(AGroup) > 0) {
        if (TClock::now() >= deadline) return false;
        if (main) {
            lock.unlock();
            CheckSynchronize(5);
            lock.lock();
        } else {
            s.Freed.wait_until(lock, deadline);
        }
    }
    return true;
}

void TBackgroundJobScheduler::Shutdown() {
    TBackgroundJobSchedulerState& s = *FState;
    {
        std::lock_guard lock(s.Lock);
        s.Stopping = true;
        for (auto& e : s.Waiting) {
            std::lock_guard jl(e.Job->FLock);
            e.Job->FTerminated = true;
        }
        for (TKRCustomBackgroundJob* j : s.Running) {
            std::lock_guard jl(j->FLock);
            j->FTerminated = true;
        }
        s.Changed.notify_all();
    }
    if (IsMainThread()) {
        // Jobs may wait for the main thread (Synchronize, or their end): keep it running until
        // the pool has left and every job is freed.
        for (;;) {
            {
                std::lock_guard lock(s.Lock);
                if (s.Workers == 0 && s.Live.empty()) break;
            }
            try {
                CheckSynchronize(5);
            } catch (...) {
                // An event's exception has nowhere to go at shutdown.
            }
        }
    }
    for (std::thread& t : FThreads)
        if (t.joinable()) t.join();
    FThreads.clear();
}

void TBackgroundJobScheduler::Work() {
    TBackgroundJobSchedulerState& s = *FState;
    std::unique_lock lock(s.Lock);
    for (;;) {
        const auto now = TClock::now();
        auto next = TClock::time_point::max();
        auto pick = s.Waiting.end();
        bool runIt = false;
        for (auto it = s.Waiting.begin(); it != s.Waiting.end(); ++it) {
            TKRCustomBackgroundJob& j = *it->Job;
            std::lock_guard jl(j.FLock);
            if (j.FTerminated) {  // ends at once, without running
                pick = it;
                break;
            }
            const auto due = j.FWaitStart + std::chrono::milliseconds(j.FStartDelay);
            if (due > now) {
                next = std::min(next, due);
            } else if (s.HasRoom(j.FGroup)) {
                pick = it;
                runIt = true;
                break;
            }
        }
        if (pick == s.Waiting.end()) {
            if (s.Stopping && s.Waiting.empty()) break;
            if (next == TClock::time_point::max())
                s.Changed.wait(lock);
            else
                s.Changed.wait_until(lock, next);
            continue;
        }
        std::shared_ptr<TKRCustomBackgroundJob> job = std::move(pick->Job);
        s.Waiting.erase(pick);
        TKRCustomBackgroundJob& j = *job;
        const TBackgroundJobGroup group = j.FGroup;
        if (runIt) {
            ++s.RunningCount[group];
            s.Running.push_back(&j);
            std::lock_guard jl(j.FLock);
            j.FState = TKRCustomBackgroundJob::TState::Running;
        }
        lock.unlock();

        if (runIt) {
            std::string failure;
            try {
                j.Execute();
            } catch (const std::exception& e) {
                failure = e.what();
                if (failure.empty()) failure = "Exception";
            } catch (...) {
                failure = "Unknown exception";
            }
            std::lock_guard jl(j.FLock);
            j.FRan = true;
            if (!failure.empty()) j.FFatalMessage = std::move(failure);
        }

        lock.lock();
        if (runIt) {
            --s.RunningCount[group];
            s.Running.erase(std::find(s.Running.begin(), s.Running.end(), &j));
        }
        bool again, cancelled;
        {
            std::lock_guard jl(j.FLock);
            again = j.FRepeat && !j.FTerminated;
            cancelled = j.FCancelled || !j.FRan;
            if (again) {
                j.FState = TKRCustomBackgroundJob::TState::Waiting;
                j.FWaitStart = TClock::now();
            } else {
                j.FState = TKRCustomBackgroundJob::TState::Ended;
                j.FScheduler.reset();
            }
        }
        s.Changed.notify_all();
        if (again) {
            s.Waiting.push_back({std::move(job), s.NextSeq++});
            continue;
        }
        lock.unlock();
        EndJob(std::move(job), cancelled, &TKRCustomBackgroundJob::FireEnd);
        lock.lock();
    }
    --s.Workers;
    s.Freed.notify_all();
}

}  // namespace docadmin
