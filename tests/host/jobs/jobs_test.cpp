// Background jobs: start delays, cancel and terminate, events on the main thread, groups,
// repeating jobs, shutdown, and the main thread's queue under them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "_Dialogs.h"
#include "_KRBackgroundJobs.h"
#include "_MainThreadQueue.h"
#include "host/runtime/test_main_interface.h"
#include "host/runtime/test_wait.h"

using namespace docadmin;
using docadmin::test::PumpUntil;
using docadmin::test::WaitUntil;
using namespace std::chrono_literals;
using TClock = std::chrono::steady_clock;

namespace {

// What the jobs of a test did: their events in order, with the thread each came on.
struct TLog {
    struct TEntry {
        std::string What;
        std::thread::id Thread;
    };
    std::mutex Lock;
    std::vector<TEntry> Entries;
    std::atomic<int> Runs{0};
    std::thread::id ExecuteThread;

    void Add(const std::string& AWhat) {
        std::lock_guard l(Lock);
        Entries.push_back({AWhat, std::this_thread::get_id()});
    }
    std::string Text() {
        std::lock_guard l(Lock);
        std::string s;
        for (auto& e : Entries)
            s += (s.empty() ? "" : ",") + e.What;
        return s;
    }
    size_t Count() {
        std::lock_guard l(Lock);
        return Entries.size();
    }
};

class TTestJob : public TKRCustomBackgroundJob {
  public:
    static inline std::atomic<int> Live{0};

    TTestJob(TLog& ALog, bool ASync, std::function<void(TTestJob&)> AWork = {})
        : TKRCustomBackgroundJob([&ALog](TObject*) { ALog.Add("finished"); },
                                 [&ALog](TObject*) { ALog.Add("cancelled"); }, ASync),
          FLog(ALog),
          FWork(std::move(AWork)) {
        SetOnFreeJob([&ALog](TObject*) { ALog.Add("freed"); });
        ++Live;
    }
    ~TTestJob() override { --Live; }
    void Execute() override {
        FLog.ExecuteThread = std::this_thread::get_id();
        ++FLog.Runs;
        if (FWork) FWork(*this);
    }

  private:
    TLog& FLog;
    std::function<void(TTestJob&)> FWork;
};

// A job's work that runs until the job is terminated (at most 5 s), announcing its start.
std::function<void(TTestJob&)> RunUntilTerminated(std::atomic<bool>& AStarted) {
    return [&AStarted](TTestJob& j) {
        AStarted = true;
        WaitUntil([&] { return j.Terminated(); });
    };
}

}  // namespace

TEST(JobsMainQueue, SynchronizeRunsOnTheMainThreadAndPassesExceptionsBack) {
    std::thread::id ranOn;
    std::string error;
    bool offMainRaised = false;
    std::atomic<bool> done{false};
    std::thread worker([&] {
        Synchronize([&] { ranOn = std::this_thread::get_id(); });
        try {
            Synchronize([] { throw EAbort("stopped there"); });
        } catch (const EAbort& e) {
            error = e.Message();
        }
        try {
            CheckSynchronize();
        } catch (const EAssertionFailed&) {
            offMainRaised = true;
        }
        done = true;
    });
    EXPECT_TRUE(PumpUntil([&] { return done.load(); }));
    worker.join();
    EXPECT_EQ(ranOn, MainThreadID);
    EXPECT_EQ(error, "stopped there");
    EXPECT_TRUE(offMainRaised);

    // A queued call's exception leaves CheckSynchronize; the call after it waits for the next.
    // The wake-up hook hears of each call.
    int later = 0, wakes = 0;
    SetWakeMainThread([&] { ++wakes; });
    Queue([] { throw EAbort("queued failure"); });
    Queue([&] { ++later; });
    SetWakeMainThread(nullptr);
    EXPECT_EQ(wakes, 2);
    EXPECT_THROW(CheckSynchronize(), EAbort);
    EXPECT_EQ(later, 0);
    EXPECT_TRUE(CheckSynchronize());
    EXPECT_EQ(later, 1);
    EXPECT_FALSE(CheckSynchronize());
}

class JobsEvents : public ::testing::TestWithParam<bool> {};

TEST_P(JobsEvents, EndAndFreeComeOnTheMainThreadOnlyWhenAsked) {
    const bool sync = GetParam();
    TBackgroundJobScheduler scheduler(2);
    TLog log;
    auto* job = new TTestJob(log, sync);
    scheduler.ScheduleJob(job, 0);
    if (sync) {
        // The job ends on the pool, but its events wait for the main thread to run its queue.
        ASSERT_TRUE(WaitUntil([&] { return job->Finished(); }));
        std::this_thread::sleep_for(20ms);
        EXPECT_EQ(log.Count(), 0u);
    }
    ASSERT_TRUE(scheduler.WaitForGroup(0, 5000));
    EXPECT_EQ(log.Text(), "finished,freed");
    EXPECT_NE(log.ExecuteThread, MainThreadID);
    for (auto& e : log.Entries)
        EXPECT_EQ(e.Thread, sync ? MainThreadID : log.ExecuteThread) << e.What;
    EXPECT_EQ(TTestJob::Live, 0);
}

INSTANTIATE_TEST_SUITE_P(SyncAndPool, JobsEvents, ::testing::Bool());

TEST(JobsDelay, StartsAfterItsDelayAndFollowsAChangeWhileWaiting) {
    TBackgroundJobScheduler scheduler(2);
    TLog log;
    TClock::time_point started;
    const auto scheduled = TClock::now();
    auto* delayed = new TTestJob(log, false, [&](TTestJob&) { started = TClock::now(); });
    delayed->SetStartDelay(200);
    scheduler.ScheduleJob(delayed, 1);
    ASSERT_TRUE(scheduler.WaitForGroup(1, 5000));
    EXPECT_GE(started - scheduled, 200ms);

    // An hour's delay shortened while the job waits: it runs now, not in an hour.
    auto* hourly = new TTestJob(log, false);
    hourly->SetStartDelay(3600000);
    scheduler.ScheduleJob(hourly, 2);
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(log.Runs, 1);
    hourly->SetStartDelay(0);
    EXPECT_TRUE(scheduler.WaitForGroup(2, 5000));
    EXPECT_EQ(log.Runs, 2);
    EXPECT_EQ(log.Text(), "finished,freed,finished,freed");
}

struct TStopCase {
    const char* Name;
    bool WhileRunning;
    bool Cancel;  // else Terminate
    const char* Events;
    int Runs;
};

void PrintTo(const TStopCase& c, std::ostream* os) {
    *os << c.Name;
}

class JobsStop : public ::testing::TestWithParam<TStopCase> {};

TEST_P(JobsStop, EndsWithTheRightEvent) {
    const TStopCase& c = GetParam();
    TBackgroundJobScheduler scheduler(2);
    TLog log;
    std::atomic<bool> started{false};
    auto* job = new TTestJob(log, true, RunUntilTerminated(started));
    if (!c.WhileRunning) job->SetStartDelay(3600000);
    scheduler.ScheduleJob(job, 0);
    if (c.WhileRunning) {
        ASSERT_TRUE(WaitUntil([&] { return started.load(); }));
    }
    if (c.Cancel)
        job->Cancel();
    else
        job->Terminate();
    ASSERT_TRUE(scheduler.WaitForGroup(0, 5000));
    EXPECT_EQ(log.Text(), c.Events);
    EXPECT_EQ(log.Runs, c.Runs);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, JobsStop,
    ::testing::Values(TStopCase{"CancelWaiting", false, true, "cancelled,freed", 0},
                      TStopCase{"TerminateWaiting", false, false, "cancelled,freed", 0},
                      TStopCase{"CancelRunning", true, true, "cancelled,freed", 1},
                      TStopCase{"TerminateRunning", true, false, "finished,freed", 1}),
    [](const auto& info) { return std::string(info.param.Name); });

TEST(JobsDisconnect, NoEventReachesTheOwnerAfterwardsAndTheJobIsStillFreed) {
    TBackgroundJobScheduler scheduler(2);
    TLog log;
    // Ended, its end queued for the main thread: disconnecting drops that delivery.
    auto* ended = new TTestJob(log, true);
    scheduler.ScheduleJob(ended, 0);
    ASSERT_TRUE(WaitUntil([&] { return ended->Finished(); }));
    ended->TerminateAndDisconnect();
    // Waiting for an hour: it ends at once, silently.
    auto* waiting = new TTestJob(log, true);
    waiting->SetStartDelay(3600000);
    scheduler.ScheduleJob(waiting, 0);
    waiting->TerminateAndDisconnect();
    ASSERT_TRUE(scheduler.WaitForGroup(0, 5000));
    EXPECT_EQ(log.Text(), "");
    EXPECT_EQ(log.Runs, 1);
    EXPECT_EQ(TTestJob::Live, 0);

    // An event running on a pool thread: disconnecting waits until it has returned.
    std::atomic<bool> inEvent{false}, eventDone{false};
    auto* slow = new TKRCustomBackgroundJob(
        [&](TObject*) {
            inEvent = true;
            std::this_thread::sleep_for(100ms);
            eventDone = true;
        },
        nullptr, false);
    scheduler.ScheduleJob(slow, 3);
    ASSERT_TRUE(WaitUntil([&] { return inEvent.load(); }));
    slow->TerminateAndDisconnect();
    EXPECT_TRUE(eventDone);
    EXPECT_TRUE(scheduler.WaitForGroup(3, 5000));
}

TEST(JobsGroups, ALimitOfOneRunsAGroupInOrderWhileOtherGroupsGoOn) {
    TBackgroundJobScheduler scheduler(4);
    scheduler.SetGroupLimit(1, 1);
    TLog log;
    std::atomic<int> inGroup{0}, maxInGroup{0};
    std::mutex orderLock;
    std::vector<int> order;
    std::atomic<bool> otherRan{false}, otherOverlapped{false};
    for (int i = 0; i < 4; ++i)
        scheduler.ScheduleJob(new TTestJob(log, false,
                                           [&, i](TTestJob&) {
                                               maxInGroup = std::max(maxInGroup.load(), ++inGroup);
                                               {
                                                   std::lock_guard l(orderLock);
                                                   order.push_back(i);
                                               }
                                               std::this_thread::sleep_for(30ms);
                                               --inGroup;
                                           }),
                              1);
    scheduler.ScheduleJob(new TTestJob(log, false,
                                       [&](TTestJob&) {
                                           otherOverlapped = inGroup.load() > 0;
                                           otherRan = true;
                                       }),
                          2);
    ASSERT_TRUE(scheduler.WaitForGroup(1, 5000));
    ASSERT_TRUE(scheduler.WaitForGroup(2, 5000));
    EXPECT_EQ(maxInGroup, 1);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_TRUE(otherRan);
    EXPECT_TRUE(otherOverlapped);  // it didn't queue behind the limited group
}

TEST(JobsGroups, TerminateGroupEndsOnlyThatGroupAndShutdownEndsTheRest) {
    TLog log, other;
    {
        TBackgroundJobScheduler scheduler(2);
        for (int i = 0; i < 2; ++i) {
            auto* j = new TTestJob(log, true);
            j->SetStartDelay(3600000);
            scheduler.ScheduleJob(j, 1);
        }
        auto* j2 = new TTestJob(other, true);
        j2->SetStartDelay(3600000);
        scheduler.ScheduleJob(j2, 2);
        scheduler.TerminateGroup(1);
        ASSERT_TRUE(scheduler.WaitForGroup(1, 5000));
        EXPECT_EQ(log.Text(), "cancelled,freed,cancelled,freed");
        EXPECT_EQ(scheduler.JobCount(2), 1);
        EXPECT_EQ(other.Count(), 0u);

        scheduler.Shutdown();
        EXPECT_EQ(other.Text(), "cancelled,freed");
        // After shutdown nothing runs: a new job ends as cancelled at once.
        scheduler.ScheduleJob(new TTestJob(other, true), 2);
        EXPECT_TRUE(scheduler.WaitForGroup(2, 5000));
        EXPECT_EQ(other.Text(), "cancelled,freed,cancelled,freed");
    }
    EXPECT_EQ(log.Runs + other.Runs, 0);
    EXPECT_EQ(TTestJob::Live, 0);
}

TEST(JobsRepeat, RunsRoundAfterRoundThroughFailuresUntilTerminated) {
    TBackgroundJobScheduler scheduler(2);
    TLog log;
    std::string messageAtEnd;
    auto* job = new TTestJob(log, true, [&](TTestJob& j) {
        if (log.Runs == 2) throw EDocAdminException("round two failed");
        if (log.Runs == 4) j.Terminate();
    });
    job->SetOnFreeJob([&](TObject* s) {
        messageAtEnd = static_cast<TTestJob*>(s)->FatalExceptionMessage();
        log.Add("freed");
    });
    job->SetStartDelay(5);
    scheduler.ScheduleJob(job, 0, true);
    ASSERT_TRUE(scheduler.WaitForGroup(0, 5000));
    EXPECT_EQ(log.Runs, 4);
    EXPECT_EQ(log.Text(), "finished,freed");  // one end, after the last round
    EXPECT_EQ(messageAtEnd, "round two failed");
}

namespace {

// A main interface that offers nothing but a scheduler.
class TSchedulerHost : public docadmin::test::TTestMainInterface {
  public:
    explicit TSchedulerHost(TBackgroundJobScheduler& AScheduler) : FScheduler(AScheduler) {}
    HRESULT QueryInterface(const TGUID& iid, void** obj) override {
        return FScheduler.QueryInterface(iid, obj);
    }
    std::uint8_t RunMode() override { return 3; }

  private:
    TBackgroundJobScheduler& FScheduler;
};

class TStepJob : public TCustomPluginComponentBackgroundJob {
  public:
    TStepJob(std::atomic<int>& ASteps, TNotifyEvent AFinished)
        : TCustomPluginComponentBackgroundJob("Step", std::move(AFinished), nullptr, true),
          FSteps(ASteps) {}

  protected:
    void InternalExcute() override { ++FSteps; }

  private:
    std::atomic<int>& FSteps;
};

}  // namespace

TEST(JobsPluginComponent, SchedulesOnTheMainInterfacesSchedulerAndRunsItsStep) {
    TBackgroundJobScheduler scheduler(2);
    TSchedulerHost host(scheduler);
    EXPECT_EQ(GetBackgroundJobScheduler(&host), &scheduler);
    EXPECT_EQ(GetBackgroundJobScheduler(nullptr), nullptr);

    std::atomic<int> steps{0};
    std::string title;
    auto* job =
        new TStepJob(steps, [&](TObject* s) { title = static_cast<TStepJob*>(s)->Title(); });
    job->SetMainInterface(&host);
    job->SetStartDelay(3600000);
    job->Schedule(7);
    EXPECT_EQ(scheduler.JobCount(7), 1);
    EXPECT_THROW(job->Schedule(7), EKRBackgroundJobError);  // once only; it stays scheduled
    job->SetStartDelay(0);
    ASSERT_TRUE(scheduler.WaitForGroup(7, 5000));
    EXPECT_EQ(steps, 1);
    EXPECT_EQ(title, "Step");
}
