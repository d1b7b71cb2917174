#include "host_options.h"

namespace docadmin::app {

void AddHostOptions(CLI::App* app, HostOptions& options) {
    app->add_option("--config", options.ConfigFile,
                    "configuration file (default: $DOCADMIN_CONFIG, else docadmin.toml in the "
                    "data folder, else built-in defaults)");
}

std::unique_ptr<THost> OpenHost(const HostOptions& options, std::uint8_t runMode) {
    return docadmin::OpenHost(options.ConfigFile, runMode);
}

}  // namespace docadmin::app
