// docadmin store put|get|rm: one file in or out of the store that the configuration selects, so
// that an operator can check a store by hand.
#include <iostream>
#include <memory>

#include "_DocFileLoaderChoice.h"
#include "_TDocFileLoaderLocFile.h"
#include "commands.h"
#include "host_options.h"

namespace docadmin::app {
namespace {

struct StoreOptions {
    HostOptions host;
    bool server = false;   // run as the multi-user server would: its store and settings
    bool offline = false;  // the store of the offline database
    bool plain = false;    // upload uncompressed, as the user setting "NoCompression" does
};

// The store that the module would use for this host, configured.
std::unique_ptr<TBaseDocFileLoader> OpenStore(THost& host, const StoreOptions& o) {
    return CreateConfiguredDocFileLoader(&host, o.offline);
}

void AddCommon(CLI::App* cmd, StoreOptions& o) {
    AddHostOptions(cmd, o.host);
    cmd->add_flag("--server", o.server, "use the server's store (DOCSRV FileRoot, compressed)");
    cmd->add_flag("--offline", o.offline, "use the store of the offline database");
}

std::unique_ptr<THost> Host(const StoreOptions& o) {
    return OpenHost(o.host, o.server ? rmServer : rmTool);
}

}  // namespace

static CommandRegistrar reg([](CLI::App& app) {
    auto* store = app.add_subcommand("store", "Put, get and remove files of the document store");
    store->require_subcommand(1);
    static StoreOptions opts;
    static std::string file, remote, dest;
    static std::int64_t expectSize = -1;

    auto* put = store->add_subcommand("put", "Store a file; prints its remote name");
    put->add_option("FILE", file, "local file to store")->required();
    put->add_option("--remote", remote, "replace the content of this remote name");
    put->add_flag("--no-compression", opts.plain,
                  "store the file as it is, whatever the user setting NoCompression says");
    AddCommon(put, opts);
    put->callback([] {
        if (opts.plain && opts.server)
            throw Exception("the server's store always compresses; --no-compression can't apply");
        auto host = Host(opts);
        auto s = OpenStore(*host, opts);
        if (opts.plain) {
            auto* local = dynamic_cast<TDocFileLoaderLocFile*>(s.get());
            if (!local) throw Exception("--no-compression applies to the local store only");
            local->SetUseCompression(false);
        }
        std::cout << s->UploadFile(file, remote, remote.empty() ? upmNew : upmChange) << "\n";
    });

    auto* get = store->add_subcommand("get", "Write the plain content of a remote file");
    get->add_option("REMOTE", remote, "remote name")->required();
    get->add_option("DEST", dest, "local file to write")->required();
    get->add_option("--expect-size", expectSize,
                    "fail, leaving DEST untouched, unless the content has this many bytes");
    AddCommon(get, opts);
    get->callback([] {
        auto host = Host(opts);
        OpenStore(*host, opts)->DownloadFileOfSize(remote, dest, expectSize);
    });

    auto* rm = store->add_subcommand(
        "rm", "Remove a remote file (one that is already gone is no failure)");
    rm->add_option("REMOTE", remote, "remote name")->required();
    AddCommon(rm, opts);
    rm->callback([] {
        auto host = Host(opts);
        OpenStore(*host, opts)->RemoveFile(remote, remote);
    });
});

}  // namespace docadmin::app
