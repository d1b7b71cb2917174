// docadmin cleanup-dead-links: the document module's dead-link cleanup. Below the folder of every
// loaded plug-in (with --all-plugins of every plug-in folder), the folders of records that no
// longer exist are removed with their documents, and what went is listed. Exits 0 when the
// cleanup ran through, 1 when it failed (nothing of a failed cleanup is saved).
#include <iostream>

#include "_Tools.h"
#include "commands.h"
#include "tree_session.h"

namespace docadmin::app {
namespace {

struct TCleanupOptions {
    HostOptions Host;
    bool AllPlugins = false;
};

void RunCleanup(const TCleanupOptions& o) {
    std::vector<std::string> removed;
    RunWithModule(o.Host, [&](TModuleSession& module) {
        removed = module.Tools().Do_DeleteDeadLinkPluginDocuments(!o.AllPlugins);
    });
    for (const std::string& path : removed)
        std::cout << "removed " << PrintableText(path) << "\n";
    std::cout << "removed " << removed.size() << " folder(s) of records that no longer exist\n";
}

CommandRegistrar reg([](CLI::App& app) {
    static TCleanupOptions o;
    auto* cmd = app.add_subcommand(
        "cleanup-dead-links",
        "Remove the document folders of records that no longer exist, below the folders of the "
        "loaded plug-ins");
    AddHostOptions(cmd, o.Host);
    cmd->add_flag("--all-plugins", o.AllPlugins,
                  "look below every plug-in folder, also those of plug-ins not loaded here");
    cmd->callback([] { RunCleanup(o); });
});

}  // namespace
}  // namespace docadmin::app
