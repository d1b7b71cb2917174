#include "_THTTPServer.h"

#include "_BufferPool.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <optional>
#include <set>

#include "_SysUtils.h"

namespace docadmin {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

// ---- Requests

namespace {

bool IEquals(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string PercentDecode(const std::string& AText, bool AForm) {
    std::string r;
    r.reserve(AText.size());
    for (std::size_t i = 0; i < AText.size(); ++i) {
        const char c = AText[i];
        if (c == '%' && i + 2 < AText.size() && HexValue(AText[i + 1]) >= 0 &&
            HexValue(AText[i + 2]) >= 0) {
            r += static_cast<char>(HexValue(AText[i + 1]) * 16 + HexValue(AText[i + 2]));
            i += 2;
        } else if (c == '+' && AForm) {
            r += ' ';
        } else {
            r += c;
        }
    }
    return r;
}

std::string THTTPRequest::Header(const std::string& AName) const {
    for (const auto& h : Headers)
        if (IEquals(h.Name, AName)) return h.Value;
    return {};
}

bool THTTPRequest::QueryParam(const std::string& AName, std::string& AValue) const {
    std::size_t pos = 0;
    while (pos <= Query.size()) {
        std::size_t end = Query.find('&', pos);
        if (end == std::string::npos) end = Query.size();
        const std::string part = Query.substr(pos, end - pos);
        const std::size_t eq = part.find('=');
        if (PercentDecode(part.substr(0, eq), true) == AName) {
            AValue =
                eq == std::string::npos ? std::string() : PercentDecode(part.substr(eq + 1), true);
            return true;
        }
        pos = end + 1;
    }
    return false;
}

std::string THTTPRequest::Cookie(const std::string& AName) const {
    for (const auto& h : Headers) {
        if (!IEquals(h.Name, "Cookie")) continue;
        std::size_t pos = 0;
        const std::string& v = h.Value;
        while (pos < v.size()) {
            std::size_t end = v.find(';', pos);
            if (end == std::string::npos) end = v.size();
            std::size_t b = pos;
            while (b < end && v[b] == ' ')
                ++b;
            const std::size_t eq = v.find('=', b);
            if (eq != std::string::npos && eq < end && v.compare(b, eq - b, AName) == 0)
                return v.substr(eq + 1, end - eq - 1);
            pos = end + 1;
        }
    }
    return {};
}

// ---- Worker pool

TWorkerPool::TWorkerPool(int AThreads, int AMaxQueued)
    : FMaxQueued(static_cast<std::size_t>(std::max(1, AMaxQueued))) {
    for (int i = 0; i < std::max(1, AThreads); ++i)
        FThreads.emplace_back([this] { Run(); });
}

TWorkerPool::~TWorkerPool() {
    Stop();
}

bool TWorkerPool::Post(std::function<void()> ATask) {
    {
        std::lock_guard lock(FLock);
        if (FStopping || FTasks.size() >= FMaxQueued) return false;
        FTasks.push_back(std::move(ATask));
    }
    FWake.notify_one();
    return true;
}

void TWorkerPool::Stop() {
    {
        std::lock_guard lock(FLock);
        FStopping = true;
    }
    FWake.notify_all();
    for (auto& t : FThreads)
        if (t.joinable()) t.join();
    FThreads.clear();
}

void TWorkerPool::Run() {
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock lock(FLock);
            FWake.wait(lock, [this] { return FStopping || !FTasks.empty(); });
            if (FTasks.empty()) return;
            task = std::move(FTasks.front());
            FTasks.pop_front();
        }
        try {
            task();
        } catch (...) {
            // A task answers its own failures; nothing may end a worker thread.
        }
    }
}

// ---- Connections

class TConnectionBase {
  public:
    virtual ~TConnectionBase() = default;
    // Closes the connection when it waits for a new request; a busy one closes after its answer.
    virtual void StopIfIdle() = 0;
    virtual void ForceClose() = 0;
};

struct THTTPServer::TImpl {
    asio::io_context Io;
    std::unique_ptr<asio::ssl::context> Ssl;
    std::unique_ptr<tcp::acceptor> Acceptor;
    std::shared_ptr<spdlog::logger> AccessLog;
    std::atomic<bool> Stopping{false};

    std::mutex InFlightLock;
    std::condition_variable InFlightDone;
    int InFlight = 0;  // guarded by InFlightLock

    std::mutex ConnLock;
    std::set<std::shared_ptr<TConnectionBase>> Conns;  // guarded by ConnLock

    void RequestDone() {
        std::lock_guard lock(InFlightLock);
        if (--InFlight == 0) InFlightDone.notify_all();
    }
};

namespace {

const char* ReasonOf(int AStatus) {
    return http::obsolete_reason(static_cast<http::status>(AStatus)).data();
}

template <class Stream>
class TConnection : public TConnectionBase,
                    public std::enable_shared_from_this<TConnection<Stream>> {
  public:
    TConnection(THTTPServer& AServer, THTTPServer::TImpl& AImpl, Stream&& AStream,
                const THTTPHandler& AHandler, std::atomic<int>& ACount)
        : FServer(AServer),
          FImpl(AImpl),
          FStream(std::move(AStream)),
          FHandler(AHandler),
          FCount(ACount),
          FTimer(FStream.get_executor()) {
        beast::error_code ec;
        auto ep = beast::get_lowest_layer(FStream).socket().remote_endpoint(ec);
        if (!ec) FRemote = ep.address().to_string();
    }
    ~TConnection() override { FCount.fetch_sub(1); }

    void Start() {
        asio::dispatch(FStream.get_executor(),
                       [self = this->shared_from_this()] { self->Begin(); });
    }

    void Begin() {
        if constexpr (kSecure) {
            beast::get_lowest_layer(FStream).expires_after(FServer.Options().ReadTimeout);
            FStream.async_handshake(asio::ssl::stream_base::server,
                                    [self = this->shared_from_this()](beast::error_code ec) {
                                        if (ec) return self->Close();
                                        self->WaitRequest();
                                    });
        } else {
            WaitRequest();
        }
    }

    void StopIfIdle() override {
        asio::post(FStream.get_executor(), [self = this->shared_from_this()] {
            if (self->FIdle) self->Close();
        });
    }
    void ForceClose() override {
        asio::post(FStream.get_executor(), [self = this->shared_from_this()] { self->Close(); });
    }

  private:
    static constexpr bool kSecure = !std::is_same_v<Stream, beast::tcp_stream>;

    // Waits for the first bytes of the next request under the idle timeout.
    void WaitRequest() {
        if (FImpl.Stopping) return Close();
        if (FBuffer.size() > 0) return ReadRequest();
        FIdle = true;
        beast::get_lowest_layer(FStream).expires_after(FServer.Options().IdleTimeout);
        FStream.async_read_some(FBuffer.prepare(4096), [self = this->shared_from_this()](
                                                           beast::error_code ec, std::size_t n) {
            self->FIdle = false;
            if (ec) return self->Close();
            self->FBuffer.commit(n);
            self->ReadRequest();
        });
    }

    // Reads the rest of the request; the whole of it must arrive within the read timeout.
    void ReadRequest() {
        FStarted = std::chrono::steady_clock::now();
        FParser.emplace();
        FParser->header_limit(static_cast<std::uint32_t>(FServer.Options().MaxHeaderBytes));
        FParser->body_limit(FServer.Options().MaxBodyBytes);
        beast::get_lowest_layer(FStream).expires_never();
        FTimedOut = false;
        FTimer.expires_after(FServer.Options().ReadTimeout);
        FTimer.async_wait([self = this->shared_from_this()](beast::error_code ec) {
            if (ec) return;  // cancelled: the request arrived
            self->FTimedOut = true;
            beast::error_code ignored;
            beast::get_lowest_layer(self->FStream).socket().cancel(ignored);
        });
        http::async_read(FStream, FBuffer, *FParser,
                         [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                             self->OnRead(ec);
                         });
    }

    void OnRead(beast::error_code ec) {
        FTimer.cancel();
        if (FTimedOut) return SendError(408);
        if (ec == http::error::end_of_stream || ec == asio::error::eof) return Close();
        if (ec == http::error::header_limit) return SendError(431);
        if (ec == http::error::body_limit) return SendError(413);
        if (ec && ec.category() == http::make_error_code(http::error::bad_version).category())
            return SendError(400);
        if (ec) return Close();

        auto& msg = FParser->get();
        THTTPRequest req;
        req.Method = std::string(msg.method_string());
        req.Target = std::string(msg.target());
        const std::size_t q = req.Target.find('?');
        req.Path = PercentDecode(req.Target.substr(0, q), false);
        if (q != std::string::npos) req.Query = req.Target.substr(q + 1);
        for (const auto& f : msg)
            req.Headers.push_back({std::string(f.name_string()), std::string(f.value())});
        req.Body = std::move(msg.body());
        req.RemoteAddress = FRemote;
        req.Secure = kSecure;
        FKeepAlive = msg.keep_alive();
        FMethod = req.Method;
        FTarget = req.Target;
        {
            std::lock_guard lock(FImpl.InFlightLock);
            ++FImpl.InFlight;
        }
        auto self = this->shared_from_this();
        auto once = std::make_shared<std::atomic<bool>>(false);
        FHandler(std::move(req), [self, once](THTTPResponse r) {
            if (once->exchange(true)) return;
            asio::post(self->FStream.get_executor(),
                       [self, r = std::move(r)]() mutable { self->Write(std::move(r), true); });
        });
    }

    void SendError(int AStatus) {
        THTTPResponse r;
        r.Status = AStatus;
        r.Body = std::string("{\"error\":{\"status\":") + std::to_string(AStatus) +
                 ",\"message\":\"" + ReasonOf(AStatus) + "\"}}";
        FKeepAlive = false;
        if (FMethod.empty()) FMethod = "-";
        Write(std::move(r), false);
    }

    void Write(THTTPResponse AResponse, bool AInFlight) {
        auto res = std::make_shared<http::response<http::string_body>>();
        res->version(11);
        res->result(static_cast<unsigned>(AResponse.Status));
        res->set(http::field::server, "docadmin");
        if (!AResponse.ContentType.empty())
            res->set(http::field::content_type, AResponse.ContentType);
        for (auto& h : AResponse.Headers)
            res->insert(h.Name, h.Value);
        res->body() = std::move(AResponse.Body);
        const bool keep = FKeepAlive && !FImpl.Stopping;
        res->keep_alive(keep);
        res->prepare_payload();
        beast::get_lowest_layer(FStream).expires_after(FServer.Options().ReadTimeout);
        http::async_write(FStream, *res,
                          [self = this->shared_from_this(), res, keep, AInFlight](
                              beast::error_code ec, std::size_t bytes) {
                              self->Log(res->result_int(), bytes);
                              GiveLargeBuffer(std::move(res->body()));
                              if (AInFlight) self->FImpl.RequestDone();
                              if (ec || !keep) return self->Close();
                              self->WaitRequest();
                          });
    }

    void Log(unsigned AStatus, std::size_t ABytes) {
        if (!FImpl.AccessLog) return;
        const double ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - FStarted)
                .count();
        FImpl.AccessLog->info("{} \"{} {}\" {} {} {:.1f}ms", FRemote, FMethod, FTarget, AStatus,
                              ABytes, ms);
        FMethod.clear();
    }

    void Close() {
        if (FClosed) return;
        FClosed = true;
        FTimer.cancel();
        beast::error_code ec;
        auto& sock = beast::get_lowest_layer(FStream).socket();
        sock.shutdown(tcp::socket::shutdown_both, ec);
        sock.close(ec);
        std::lock_guard lock(FImpl.ConnLock);
        FImpl.Conns.erase(std::static_pointer_cast<TConnectionBase>(this->shared_from_this()));
    }

    THTTPServer& FServer;
    THTTPServer::TImpl& FImpl;
    Stream FStream;
    const THTTPHandler& FHandler;
    std::atomic<int>& FCount;
    asio::steady_timer FTimer;
    beast::flat_buffer FBuffer;
    std::optional<http::request_parser<http::string_body>> FParser;
    std::string FRemote;
    std::string FMethod;
    std::string FTarget;
    std::chrono::steady_clock::time_point FStarted = std::chrono::steady_clock::now();
    bool FKeepAlive = false;
    bool FTimedOut = false;
    bool FIdle = false;
    bool FClosed = false;
};

}  // namespace

// ---- Server

THTTPServer::THTTPServer(THTTPServerOptions AOptions, THTTPHandler AHandler)
    : FOptions(std::move(AOptions)), FHandler(std::move(AHandler)) {}

THTTPServer::~THTTPServer() {
    Shutdown();
}

bool THTTPServer::Secure() const {
    return !FOptions.TLSCertFile.empty() && !FOptions.TLSKeyFile.empty();
}

void THTTPServer::RunAfter(std::chrono::milliseconds ADelay, std::function<void()> AFunc) {
    auto timer = std::make_shared<asio::steady_timer>(FImpl->Io, ADelay);
    timer->async_wait([timer, f = std::move(AFunc)](beast::error_code) { f(); });
}

namespace {

template <class Stream>
void LaunchConnection(THTTPServer& AServer, THTTPServer::TImpl& AImpl, const THTTPHandler& AHandler,
                      std::atomic<int>& ACount, Stream&& AStream) {
    auto c =
        std::make_shared<TConnection<Stream>>(AServer, AImpl, std::move(AStream), AHandler, ACount);
    {
        std::lock_guard lock(AImpl.ConnLock);
        AImpl.Conns.insert(c);
    }
    c->Start();
}

void StartConnection(THTTPServer& AServer, THTTPServer::TImpl& AImpl, const THTTPHandler& AHandler,
                     std::atomic<int>& ACount, tcp::socket ASocket) {
    beast::error_code ec;
    if (ACount.load() >= AServer.Options().MaxConnections) {
        static const std::string busy =
            "HTTP/1.1 503 Service Unavailable\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        ASocket.non_blocking(true, ec);
        ASocket.write_some(asio::buffer(busy), ec);
        ASocket.close(ec);
        return;
    }
    ACount.fetch_add(1);
    ASocket.set_option(tcp::no_delay(true), ec);
    if (AImpl.Ssl)
        LaunchConnection(AServer, AImpl, AHandler, ACount,
                         beast::ssl_stream<beast::tcp_stream>(beast::tcp_stream(std::move(ASocket)),
                                                              *AImpl.Ssl));
    else
        LaunchConnection(AServer, AImpl, AHandler, ACount, beast::tcp_stream(std::move(ASocket)));
}

void DoAccept(THTTPServer& AServer, THTTPServer::TImpl& AImpl, const THTTPHandler& AHandler,
              std::atomic<int>& ACount) {
    AImpl.Acceptor->async_accept(
        asio::make_strand(AImpl.Io),
        [&AServer, &AImpl, &AHandler, &ACount](beast::error_code ec, tcp::socket socket) {
            if (AImpl.Stopping || !AImpl.Acceptor->is_open()) return;
            if (!ec) StartConnection(AServer, AImpl, AHandler, ACount, std::move(socket));
            DoAccept(AServer, AImpl, AHandler, ACount);
        });
}

}  // namespace

void THTTPServer::Start() {
    std::lock_guard guard(FShutdownLock);
    if (FRunning) return;
    FImpl = std::make_unique<TImpl>();
    if (Secure()) {
        FImpl->Ssl = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_server);
        FImpl->Ssl->set_options(asio::ssl::context::default_workarounds |
                                asio::ssl::context::no_sslv2 | asio::ssl::context::no_sslv3 |
                                asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
        try {
            FImpl->Ssl->use_certificate_chain_file(FOptions.TLSCertFile);
            FImpl->Ssl->use_private_key_file(FOptions.TLSKeyFile, asio::ssl::context::pem);
        } catch (const std::exception& e) {
            throw Exception("TLS certificate or key cannot be used: " + std::string(e.what()));
        }
    }
    if (FOptions.AccessLog == "-") {
        FImpl->AccessLog = std::make_shared<spdlog::logger>(
            "access", std::make_shared<spdlog::sinks::stdout_sink_mt>());
    } else if (!FOptions.AccessLog.empty()) {
        FImpl->AccessLog = std::make_shared<spdlog::logger>(
            "access", std::make_shared<spdlog::sinks::basic_file_sink_mt>(FOptions.AccessLog));
    }
    if (FImpl->AccessLog) {
        FImpl->AccessLog->set_pattern("%Y-%m-%dT%H:%M:%S.%e %v");
        FImpl->AccessLog->flush_on(spdlog::level::info);
    }
    try {
        const tcp::endpoint ep(asio::ip::make_address(FOptions.Address), FOptions.Port);
        FImpl->Acceptor = std::make_unique<tcp::acceptor>(asio::make_strand(FImpl->Io));
        FImpl->Acceptor->open(ep.protocol());
        FImpl->Acceptor->set_option(asio::socket_base::reuse_address(true));
        FImpl->Acceptor->bind(ep);
        FImpl->Acceptor->listen(asio::socket_base::max_listen_connections);
        FPort = FImpl->Acceptor->local_endpoint().port();
    } catch (const std::exception& e) {
        throw Exception("cannot listen on " + FOptions.Address + ":" +
                        std::to_string(FOptions.Port) + ": " + e.what());
    }
    FWorkers = std::make_unique<TWorkerPool>(FOptions.WorkerThreads, FOptions.MaxQueuedRequests);
    DoAccept(*this, *FImpl, FHandler, FConnections);
    for (int i = 0; i < std::max(1, FOptions.IOThreads); ++i)
        FIOThreads.emplace_back([this] { FImpl->Io.run(); });
    FRunning = true;
}

void THTTPServer::Shutdown() {
    std::lock_guard guard(FShutdownLock);
    if (!FRunning) return;
    FRunning = false;
    FImpl->Stopping = true;
    asio::post(FImpl->Acceptor->get_executor(), [this] {
        beast::error_code ec;
        FImpl->Acceptor->close(ec);
    });
    auto each = [this](auto f) {
        std::vector<std::shared_ptr<TConnectionBase>> conns;
        {
            std::lock_guard lock(FImpl->ConnLock);
            conns.assign(FImpl->Conns.begin(), FImpl->Conns.end());
        }
        for (auto& c : conns)
            f(*c);
    };
    each([](TConnectionBase& c) { c.StopIfIdle(); });
    {
        std::unique_lock lock(FImpl->InFlightLock);
        FImpl->InFlightDone.wait_for(lock, FOptions.ShutdownDeadline,
                                     [this] { return FImpl->InFlight == 0; });
    }
    each([](TConnectionBase& c) { c.ForceClose(); });
    // Let the closes run, then stop the loop.
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    while (FConnections.load() > 0 && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    FImpl->Io.stop();
    for (auto& t : FIOThreads)
        if (t.joinable()) t.join();
    FIOThreads.clear();
    FWorkers->Stop();
    {
        std::lock_guard lock(FImpl->ConnLock);
        FImpl->Conns.clear();
    }
}

}  // namespace docadmin
