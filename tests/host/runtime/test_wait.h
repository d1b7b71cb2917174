// Waiting in tests for what other threads do, with or without running the main thread's queue.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include "_MainThreadQueue.h"

namespace docadmin::test {

// Runs the main thread's queue until the condition holds; false after the timeout.
inline bool PumpUntil(const std::function<bool()>& ACondition,
                      std::chrono::milliseconds ATimeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + ATimeout;
    while (!ACondition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        CheckSynchronize(5);
    }
    return true;
}

// Waits without running the main thread's queue.
inline bool WaitUntil(const std::function<bool()>& ACondition,
                      std::chrono::milliseconds ATimeout = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + ATimeout;
    while (!ACondition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace docadmin::test
