// Verb registration of the docadmin program. Each cmd_*.cpp defines a function that adds its
// subcommands to the application and registers it with a static CommandRegistrar, so that a new
// group of verbs needs no change to main.cpp.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <vector>

namespace docadmin::app {

using CommandInstaller = std::function<void(CLI::App& app)>;

std::vector<CommandInstaller>& CommandInstallers();

struct CommandRegistrar {
    explicit CommandRegistrar(CommandInstaller installer) {
        CommandInstallers().push_back(std::move(installer));
    }
};

// Exit codes of the verbs.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

}  // namespace docadmin::app
