// docadmin serve: the host as the multi-user server (run mode 3) with its REST interface.
//
// Loads the plug-ins of the configured folder once the host is open, before it listens (their
// APIs are published at start). Listens until SIGTERM or SIGINT, then stops gracefully: no new
// connections, requests in flight finish within the configured deadline, every session ends (its
// cache and temporary files go), the server goes, the plug-ins are unloaded (background jobs end
// between their BeforeUnInit and their destruction), and the program exits 0. Meanwhile the main
// thread runs the host's main-thread queue (job events, Synchronize calls of other threads).
#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <thread>

#include "_BufferPool.h"
#include "_DBBackend.h"
#include "_MainThreadQueue.h"
#include "_TVTLBIAPIClient.h"
#include "_TVTLRestServer.h"
#include "_Tools.h"
#include "commands.h"
#include "host_options.h"

namespace docadmin::app {
namespace {

struct TServeOptions {
    HostOptions Host;
    std::string Listen;
    std::string TLSCert;
    std::string TLSKey;
    std::string AccessLog;
    bool AccessLogGiven = false;
};

// The host's own small API under "host": a ping that answers who is calling, the cheapest
// authenticated call there is (health checks of clients, benchmarks).
class THostInfoService : public TVTLCustomRestService {
  public:
    void Ping(const std::string& AText, std::string& AEcho, std::string& AUser) {
        CheckAndSimulateMethodeError();
        AEcho = AText;
        AUser = CurrentSession() ? CurrentSession()->GetUserName() : std::string();
    }
    // Statements sent to the database by this process so far (what a call costs), the bytes its
    // heaps hand out and SQLite's share of them: figures for benches.
    void Statistics(std::int64_t& AStatements, std::int64_t& AHeapInUse,
                    std::int64_t& ASQLiteMemory) {
        CheckAndSimulateMethodeError();
        AStatements = static_cast<std::int64_t>(DBStatementCount());
        AHeapInUse = static_cast<std::int64_t>(HeapBytesInUse());
        ASQLiteMemory = static_cast<std::int64_t>(DBSQLiteMemoryUsed());
    }
};

const TAPIInterfaceType& HostInfoInterface() {
    static const TAPIInterfaceType intf{
        "IHostInfo",
        TGUID::Parse("{8B1D5E2A-7C44-4F0B-A3E9-61D2C5F08A17}"),
        {{"Ping",
          {{"Text", TAPIParamKind::pkString, false},
           {"Echo", TAPIParamKind::pkString, true},
           {"User", TAPIParamKind::pkString, true}},
          [](TVTLCustomRestService& s, TAPICallArgs& a) {
              static_cast<THostInfoService&>(s).Ping(a.Str("Text"), a.OutStr("Echo"),
                                                     a.OutStr("User"));
          }},
         {"Statistics",
          {{"Statements", TAPIParamKind::pkInt64, true},
           {"HeapInUse", TAPIParamKind::pkInt64, true},
           {"SQLiteMemory", TAPIParamKind::pkInt64, true}},
          [](TVTLCustomRestService& s, TAPICallArgs& a) {
              static_cast<THostInfoService&>(s).Statistics(
                  a.OutInt("Statements"), a.OutInt("HeapInUse"), a.OutInt("SQLiteMemory"));
          }}}};
    return intf;
}

std::string DefaultWebRoot() {
    if (const char* d = std::getenv("DOCADMIN_WEB_DIR"); d && *d) return d;
    std::error_code ec;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string() : (program.parent_path() / "web").string();
}

// Runs the main-thread queue once, waiting up to ATimeoutMs for work. A failing call has no
// caller to go back to: it is reported and the loop goes on.
void RunMainThreadQueue(int ATimeoutMs) {
    try {
        CheckSynchronize(ATimeoutMs);
    } catch (const std::exception& e) {
        std::cerr << "docadmin serve: a call on the main thread failed: " << e.what() << std::endl;
    }
}

void RunServe(const TServeOptions& o) {
    UseServerHeapSettings();
    // The signals are taken by sigtimedwait below; every thread started from here (the host's,
    // the plug-ins' and their jobs') inherits the mask, so none of them is ended by a signal.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    auto host = OpenHost(o.Host, rmServer);
    // A plug-in that fails is logged and left out; the server runs with the others.
    host->LoadPlugins();
    TRestServerOptions options = RestServerOptionsFromConfig(host->Config());
    if (!o.Listen.empty()) {
        const std::size_t colon = o.Listen.rfind(':');
        std::int64_t port = -1;
        if (colon == std::string::npos || !TryStrToInt64(o.Listen.substr(colon + 1), port) ||
            port < 0 || port > 65535)
            throw Exception("--listen must read ADDRESS:PORT");
        options.HTTP.Address = o.Listen.substr(0, colon);
        options.HTTP.Port = static_cast<std::uint16_t>(port);
    }
    if (!o.TLSCert.empty() || !o.TLSKey.empty()) {
        if (o.TLSCert.empty() || o.TLSKey.empty())
            throw Exception("--tls-cert and --tls-key go together");
        options.HTTP.TLSCertFile = o.TLSCert;
        options.HTTP.TLSKeyFile = o.TLSKey;
    }
    if (o.AccessLogGiven) options.HTTP.AccessLog = o.AccessLog;
    // The page's files: [server] web_root, else $DOCADMIN_WEB_DIR, else "web" beside the program.
    if (options.WebRoot.empty()) options.WebRoot = DefaultWebRoot();

    TVTLBIAPIClient hostAPI(nullptr);
    hostAPI.AddItem("Host", "{0F3C6A8E-2B51-4D7A-9E14-7A5B3C2D1E90}", "host");
    hostAPI.OnGetAPIService = [](TVTLBIAPIClient*, const TVTLBIAPIItem& item,
                                 TRestServiceClass& cls, TInterfaceTypeList& intfs) {
        intfs.clear();
        if (item.Index != 0) return;
        cls = [] { return std::make_unique<THostInfoService>(); };
        intfs.push_back(&HostInfoInterface());
    };

    // The server holds sessions and services that may be the plug-ins' objects: it goes before
    // they are unloaded (and, on a failure, before the host).
    auto server = std::make_unique<TVTLRestServer>(*host, options);
    server->Start();
    std::cerr << "docadmin serve: listening on "
              << (server->HTTP().Secure() ? "https://" : "http://") << options.HTTP.Address << ":"
              << server->Port() << std::endl;
    // Queued calls run as soon as they come; a signal is noticed within the wait's 100 ms.
    const timespec noWait{0, 0};
    while (sigtimedwait(&signals, nullptr, &noWait) < 0)
        RunMainThreadQueue(100);
    std::cerr << "docadmin serve: stopping" << std::endl;
    // Requests in flight may wait for the main thread (Synchronize): the server drains on another
    // thread while this one keeps running the queue.
    std::atomic<bool> drained{false};
    std::exception_ptr stopError;
    std::thread stopper([&] {
        try {
            server->Shutdown();
        } catch (...) {
            stopError = std::current_exception();
        }
        drained = true;
        Queue([] {});  // wakes the loop below
    });
    while (!drained)
        RunMainThreadQueue(100);
    stopper.join();
    if (stopError) std::rethrow_exception(stopError);
    server.reset();
    // On this thread, so that the events of ending jobs are delivered here, and before the host
    // (and with it the database) goes.
    host->UnloadPlugins();
    host->ShutdownJobs();
    TBackgroundJobScheduler::Default().Shutdown();
    std::cerr << "docadmin serve: stopped" << std::endl;
}

CommandRegistrar reg([](CLI::App& app) {
    static TServeOptions o;
    auto* cmd = app.add_subcommand("serve", "run the multi-user server with its REST interface");
    AddHostOptions(cmd, o.Host);
    cmd->add_option("--listen", o.Listen, "ADDRESS:PORT to listen on (default from [server])");
    cmd->add_option("--tls-cert", o.TLSCert, "PEM certificate chain; with --tls-key serves HTTPS");
    cmd->add_option("--tls-key", o.TLSKey, "PEM private key");
    cmd->add_option("--access-log", o.AccessLog, "access log: - for standard output, \"\" none")
        ->each([](const std::string&) { o.AccessLogGiven = true; });
    cmd->callback([] { RunServe(o); });
});

}  // namespace
}  // namespace docadmin::app
