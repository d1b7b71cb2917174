#include "_HostLog.h"

#include <spdlog/sinks/stdout_color_sinks.h>

namespace docadmin {

std::shared_ptr<spdlog::logger> HostLog() {
    static const std::shared_ptr<spdlog::logger> log = [] {
        if (auto existing = spdlog::get("docadmin")) return existing;
        auto l = spdlog::stderr_color_mt("docadmin");
        l->set_pattern("[%Y-%m-%d %T.%e] [%l] %v");
        return l;
    }();
    return log;
}

}  // namespace docadmin
