// docadmin: the host with the document module, and the administrator's tools as verbs.
#include <sys/stat.h>

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
    // What this program creates (databases, store folders and files, settings that may hold
    // account keys, copies of documents) is readable by its owner only: the documents are
    // guarded by rights in the database, and a copy on disk must not be open to every local
    // user. A stricter mask of the caller stays.
    ::umask(::umask(0) | 077);
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
