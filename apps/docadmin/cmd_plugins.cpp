// docadmin plugins: loads the plug-ins of the configured folder as the server does and lists
// them: GUID, name, path and state (loaded, or failed with the reason). Exits 1 when a plug-in
// failed to load, so that a script can check an installation.
#include <iostream>

#include "_TPluginLoader.h"
#include "commands.h"
#include "host_options.h"

namespace docadmin::app {
namespace {

struct TPluginsOptions {
    HostOptions Host;
};

void RunPlugins(const TPluginsOptions& o) {
    auto host = OpenHost(o.Host);
    host->LoadPlugins();
    const std::vector<TPluginInfo> plugins = host->Plugins().Plugins();
    host->UnloadPlugins();
    std::cout << FormatPluginList(plugins);
    for (const TPluginInfo& p : plugins)
        if (!p.Loaded) throw CLI::RuntimeError(kExitFailure);
}

CommandRegistrar reg([](CLI::App& app) {
    static TPluginsOptions o;
    auto* cmd = app.add_subcommand("plugins", "load the plug-ins and list them with their state");
    AddHostOptions(cmd, o.Host);
    cmd->callback([] { RunPlugins(o); });
});

}  // namespace
}  // namespace docadmin::app
