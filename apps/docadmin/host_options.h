// The host for a verb: "--config FILE" on the verb, and the host opened from it.
//
//     HostOptions opts;
//     auto* cmd = app.add_subcommand("list", "...");
//     AddHostOptions(cmd, opts);
//     cmd->callback([&opts] { auto host = OpenHost(opts); ... });
//
// Without --config the configuration is looked up as TDocAdminConfig::Locate describes
// (DOCADMIN_CONFIG, then docadmin.toml in the data folder, then defaults).
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <memory>
#include <string>

#include "_THost.h"

namespace docadmin::app {

struct HostOptions {
    std::string ConfigFile;
};

void AddHostOptions(CLI::App* app, HostOptions& options);

// Opens the host: reads the configuration and opens (creating or upgrading) its selected
// database. Failures raise with their text.
std::unique_ptr<THost> OpenHost(const HostOptions& options, std::uint8_t runMode = rmTool);

}  // namespace docadmin::app
