#include "plughost_test_api.h"

#include <mutex>

namespace plughost_test {

namespace {
std::mutex lock;
std::vector<std::string> events;
}  // namespace

void Record(const std::string& AEvent) {
    std::lock_guard guard(lock);
    events.push_back(AEvent);
}

std::vector<std::string> TakeEvents() {
    std::lock_guard guard(lock);
    return std::exchange(events, {});
}

std::atomic<int>& LiveObjects() {
    static std::atomic<int> live{0};
    return live;
}

}  // namespace plughost_test
