// The host's log: one spdlog logger named "docadmin", written to stderr (in colour on a
// terminal). The module itself logs nothing; the host reports here what goes wrong around it
// (plug-ins that don't load, hooks that fail).
//
// Made on first use and registered with spdlog, so spdlog::get("docadmin") finds it too. Safe
// from any thread; tests may add a sink of their own to read what was logged.
#pragma once

#include <spdlog/spdlog.h>

#include <memory>

namespace docadmin {

std::shared_ptr<spdlog::logger> HostLog();

}  // namespace docadmin
