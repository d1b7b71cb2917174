// The host's main thread and its queue of calls.
//
// Any thread hands work to the main thread (MainThreadID, the thread that runs main()) with
// Queue, which returns at once, or Synchronize, which waits until the call has run there and
// passes its exception back to the caller. Nothing runs by itself: the main thread runs what is
// queued when it calls CheckSynchronize. The server's main loop does so all the time (it may
// install a WakeMainThread hook to learn that something is waiting); a tool that schedules jobs
// whose events are delivered on the main thread must call it too, or those events wait.
//
// Thread-safety: Queue, Synchronize and SetWakeMainThread are safe from any thread;
// CheckSynchronize runs on the main thread only. One internal lock guards the queue and the
// hook; no call runs under it, so a queued call may queue again (that call waits for the next
// CheckSynchronize).
#pragma once

#include <functional>

namespace docadmin {

using TThreadProcedure = std::function<void()>;

// Appends a call to the main thread's queue, also when called on the main thread itself.
void Queue(TThreadProcedure AProc);

// Runs a call on the main thread and waits for it; on the main thread it runs at once. An
// exception of the call is raised again here. Waits for ever if the main thread never calls
// CheckSynchronize.
void Synchronize(const TThreadProcedure& AProc);

// On the main thread: waits up to ATimeoutMs for queued calls when none are waiting, then runs
// those that were queued when it started, in order. Answers whether it ran any. An exception of a
// queued call leaves CheckSynchronize; the calls after it stay queued. Raises EAssertionFailed on
// any other thread.
bool CheckSynchronize(int ATimeoutMs = 0);

// A hook called (on the queuing thread, without the queue's lock) each time a call is queued, so
// that a main loop blocked elsewhere can wake up and run CheckSynchronize. Answers the previous
// hook; an empty function removes it.
TThreadProcedure SetWakeMainThread(TThreadProcedure AWake);

}  // namespace docadmin
