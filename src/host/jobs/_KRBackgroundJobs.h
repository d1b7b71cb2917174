// Background jobs: units of work that run on the host's thread pool.
//
// A job is made with a finished event, a cancel event and a flag for where they are delivered:
// with the flag on the host's main thread (through the main-thread queue, see
// _MainThreadQueue.h), without it on the pool thread that ran the job. Scheduling hands the job
// to a TBackgroundJobScheduler, which owns it from then on: it waits for the job's start delay,
// runs Execute on a pool thread, delivers one end event and frees the job, announcing that with
// the free event just before. The owner may keep the job's pointer until the free event (or
// until its own TerminateAndDisconnect) and call the job's operations from any thread.
//
// How a job ends:
// - finished: Execute ran (at least once) and the job was not cancelled. Terminate only asks a
//   running Execute to stop early (it polls Terminated); the end is still "finished".
// - cancelled: Cancel was called, or the job was terminated before its first run (also by the
//   scheduler's shutdown). Execute never starts after that.
// A repeating job runs again after each round, its start delay later, until it is terminated or
// cancelled; an exception in a round is kept (FatalExceptionMessage) and the next round comes.
// An exception ends a one-shot job as finished, with the message kept.
//
// Groups: each job is scheduled into a group (a number). A group may have a limit on the jobs of
// it that run at once (1 makes a group run its jobs one after another, in scheduling order);
// TerminateGroup ends all jobs of a group and WaitForGroup waits until all are freed.
//
// Thread-safety: all public operations of jobs and schedulers are safe from any thread. Each job
// has one lock (FLock) for its state, events and delay; each scheduler one lock (in its shared
// state) for the waiting list and the group counters. The scheduler's lock may be held while a
// job's lock is taken, never the other way round. No event and no Execute runs under a lock. An
// owner that calls a job from another thread than the one its free event comes on must not race
// with that event (with ASyncEvents and an owner on the main thread there is no such race);
// TerminateAndDisconnect while the job's end event runs is safe, as the free waits for it. An
// exception of an event delivered on a pool thread is dropped; on the main thread it leaves
// CheckSynchronize. A job's Execute must not shut down or wait for its own scheduler.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "_Classes.h"
#include "_PluginIntf.h"

namespace docadmin {

DOCADMIN_DECLARE_EXCEPTION(EKRBackgroundJobError, Exception);

// A group of jobs on a scheduler; 0 is the default group.
using TBackgroundJobGroup = std::int32_t;

struct TBackgroundJobSchedulerState;

class TKRCustomBackgroundJob : public TObject {
  public:
    // With ASyncEvents the finished, cancel and free events are delivered on the main thread.
    TKRCustomBackgroundJob(TNotifyEvent AFinishedEvent, TNotifyEvent ACancelEvent,
                           bool ASyncEvents);
    ~TKRCustomBackgroundJob() override;

    // Milliseconds from scheduling (for a repeating job: from the end of the previous round) to
    // the start. A job that waits already is due at its new delay, counted from the start of
    // its wait; a negative delay counts as 0.
    void SetStartDelay(std::int64_t AMilliseconds);
    std::int64_t StartDelay() const;

    // The work, on a pool thread. Long work polls Terminated. The base does nothing.
    virtual void Execute() {}

    // Asks the job to end: it doesn't start (again), and a running Execute should return soon.
    void Terminate();
    bool Terminated() const;
    // Terminates the job and detaches its finished, cancel and free events, also an end already
    // on its way to the main thread; when it returns, no event of this job is running (unless
    // called from inside one) and none will come, so the owner may go. The owner must not touch
    // the job afterwards: the scheduler frees it.
    void TerminateAndDisconnect();
    // Terminates the job and makes its end "cancelled": the cancel event comes instead of the
    // finished event. A job that has ended already keeps its end.
    void Cancel();
    bool Cancelled() const;
    // True once the job has ended for good (in its end and free events, for instance).
    bool Finished() const;

    // Whether the end delivers that event; the base answers whether one is assigned.
    virtual bool NeedFinishedEvent();
    virtual bool NeedCancelEvent();

    // Fired on the freeing thread (the main thread with ASyncEvents) just before the job is freed.
    void SetOnFreeJob(TNotifyEvent AOnFreeJob);
    bool SyncEvents() const { return FSyncEvents; }
    std::string Title() const;
    void SetTitle(const std::string& ATitle);
    // The message of the exception that ended the last failed round; empty when none failed.
    std::string FatalExceptionMessage() const;

  private:
    friend class TBackgroundJobScheduler;
    friend struct TBackgroundJobSchedulerState;
    enum class TState { New, Waiting, Running, Ended };

    void WakeScheduler();
    // Delivers the end event (if still connected) on the calling thread.
    void FireEnd(bool ACancelled);
    void FireEvent(TNotifyEvent TKRCustomBackgroundJob::*AEvent);

    const bool FSyncEvents;
    mutable std::mutex FLock;
    std::condition_variable FEventDone;  // signalled when an event call returns
    // Guarded by FLock:
    TNotifyEvent FOnFinished, FOnCancel, FOnFreeJob;
    bool FConnected = true;
    int FEventCalls = 0;           // events running right now
    int FCallers = 0;              // TerminateAndDisconnect calls in progress; the free waits
    std::thread::id FEventThread;  // the thread of the running event
    std::string FTitle;
    std::int64_t FStartDelay = 0;
    bool FTerminated = false;
    bool FCancelled = false;
    bool FRan = false;  // Execute has run at least once
    TState FState = TState::New;
    std::string FFatalMessage;
    std::shared_ptr<TBackgroundJobSchedulerState> FScheduler;  // set while scheduled
    TBackgroundJobGroup FGroup = 0;
    bool FRepeat = false;
    std::chrono::steady_clock::time_point FWaitStart;
};

// The scheduler as a plug-in meets it through the main interface.
class IKRBackgroundJobScheduler : public IInterface {
  public:
    DOCADMIN_IID("{5C3E7506-E264-4290-B10B-12F3E472DFE9}");
    // Takes the job into the scheduler's care (it owns the job from here on, also when this
    // raises for another reason than the one below) and starts it after its start delay. Raises
    // EKRBackgroundJobError for a job that was scheduled before (which stays where it is).
    virtual void ScheduleJob(TKRCustomBackgroundJob* AJob, TBackgroundJobGroup AGroup,
                             bool ARepeat) = 0;
};

// The scheduler that the main interface offers (by QueryInterface), or null.
IKRBackgroundJobScheduler* GetBackgroundJobScheduler(IMainInterface* AMainInterface);

// A job with the plug-in context: the main interface, a work step for subclasses and scheduling.
class TCustomPluginComponentBackgroundJob : public TKRCustomBackgroundJob {
  public:
    explicit TCustomPluginComponentBackgroundJob(const std::string& ATitle,
                                                 TNotifyEvent AFinishedEvent = {},
                                                 TNotifyEvent ACancelEvent = {},
                                                 bool ASyncEvents = false);

    void SetMainInterface(IMainInterface* AMainInterface) { FMainInterface = AMainInterface; }
    IMainInterface* GetMainInterface() const { return FMainInterface.get(); }

    // Hands the job to the main interface's scheduler, or to the process's default one when the
    // main interface offers none, in group AGroup; with ARepeat it runs round after round.
    void Schedule(TBackgroundJobGroup AGroup, bool ARepeat = false);

    // The inherited Execute, then InternalExcute unless the job was terminated meanwhile.
    void Execute() override;

  protected:
    // The work step that subclasses fill. The base does nothing.
    virtual void InternalExcute() {}

  private:
    IPtr<IMainInterface> FMainInterface;  // set before scheduling, read by the pool thread
};

// A pool of threads that runs background jobs.
class TBackgroundJobScheduler : public TObject, public IKRBackgroundJobScheduler {
  public:
    // AThreadCount 0 takes the number of cores (at least 2).
    explicit TBackgroundJobScheduler(int AThreadCount = 0);
    // Shuts down (see Shutdown).
    ~TBackgroundJobScheduler() override;

    // The process's scheduler, made on first use, shut down at exit.
    static TBackgroundJobScheduler& Default();

    // IInterface: references don't count; the scheduler lives as long as its owner says.
    HRESULT QueryInterface(const TGUID& iid, void** obj) override;
    std::int32_t _AddRef() override { return -1; }
    std::int32_t _Release() override { return -1; }

    // After shutdown the job is not run: it ends as cancelled at once.
    void ScheduleJob(TKRCustomBackgroundJob* AJob, TBackgroundJobGroup AGroup,
                     bool ARepeat = false) override;

    int ThreadCount() const { return static_cast<int>(FThreads.size()); }
    // How many jobs of the group may run at once; 0 (the default) sets no limit below the pool.
    void SetGroupLimit(TBackgroundJobGroup AGroup, int AMaxRunning);
    // Terminates every job of the group.
    void TerminateGroup(TBackgroundJobGroup AGroup);
    // Jobs of the group that are scheduled and not yet freed.
    int JobCount(TBackgroundJobGroup AGroup) const;
    // Waits until no job of the group is left; false after ATimeoutMs (negative: no limit). On the
    // main thread it runs the main-thread queue meanwhile, so that jobs with events delivered
    // there can end.
    bool WaitForGroup(TBackgroundJobGroup AGroup, int ATimeoutMs = -1);

    // Takes no new work, terminates every job (waiting ones end as cancelled, running ones are
    // asked to stop) and waits for the pool threads. On the main thread it then delivers the
    // ends queued there, so that every job is freed; elsewhere they wait for CheckSynchronize.
    void Shutdown();

  private:
    void Work();

    std::shared_ptr<TBackgroundJobSchedulerState> FState;
    std::vector<std::thread> FThreads;
};

}  // namespace docadmin
