// docadmin: the host with the document module, and the administrator's tools as verbs.
#include <iostream>

#include "_SysUtils.h"
#include "_Tools.h"
#include "commands.h"

namespace docadmin::app {

std::vector<CommandInstaller>& CommandInstallers() {
    static std::vector<CommandInstaller> installers;
    return installers;
}

}  // namespace docadmin::app

int main(int argc, char** argv) {
    using namespace docadmin::app;
    CLI::App app{"docadmin - document administration: stores, containers and document trees"};
    app.set_version_flag("--version", std::string("docadmin ") + DOCADMIN_VERSION);
    app.require_subcommand(0, 1);
    for (auto& install : CommandInstallers())
        install(app);

    // Verbs run in their callbacks. A verb ends with a code by throwing CLI::RuntimeError(code);
    // failures of the system arrive here with their text.
    try {
        app.parse(argc, argv);
    } catch (const CLI::RuntimeError& e) {
        return e.get_exit_code();  // a verb's own exit code
    } catch (const CLI::ParseError& e) {
        // Help and version end with 0; any mistake in the command line is a usage error.
        return app.exit(e) == 0 ? kExitOk : kExitUsage;
    } catch (const std::exception& e) {
        // Names in a message may hold control characters; none reaches the terminal raw.
        std::cerr << "docadmin: " << docadmin::PrintableText(e.what()) << "\n";
        return kExitFailure;
    }
    if (app.get_subcommands().empty()) std::cout << app.help();
    return kExitOk;
}
