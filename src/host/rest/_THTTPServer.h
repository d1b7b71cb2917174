// THTTPServer: the host's HTTP/1.1 server (Boost.Beast over Asio, plain or TLS).
//
// Accept, read and write are asynchronous on a few I/O threads, so an idle keep-alive connection
// costs no thread. Each connection reads one request at a time and reads the next only when the
// answer is written (back-pressure). A complete request goes to the handler on an I/O thread; the
// handler must not block: it hands the work to the worker pool (Workers()) and answers through the
// responder, which may be called once from any thread.
//
// Limits, each with a clear answer before the connection closes: a header above MaxHeaderBytes
// gets 431, a body above MaxBodyBytes 413, a request not complete within ReadTimeout after its
// first byte 408 (so a slow client holds no worker), a malformed request 400. A connection beyond
// MaxConnections gets 503 and is closed. An idle keep-alive connection closes after IdleTimeout.
//
// Shutdown: stop accepting, close idle connections, let requests in flight finish and be written
// (with "Connection: close") until ShutdownDeadline, then close what is left and stop the threads.
//
// The server's own state is guarded as written beside the members; everything else lives on the
// strand of its connection.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace docadmin {

struct THTTPServerOptions {
    std::string Address = "127.0.0.1";
    std::uint16_t Port = 8080;  // 0 picks a free port (see THTTPServer::Port)
    int IOThreads = 2;
    int WorkerThreads = 8;
    // Requests waiting for a worker beyond this get 503.
    int MaxQueuedRequests = 4096;
    std::size_t MaxHeaderBytes = 16 * 1024;
    std::uint64_t MaxBodyBytes = 64ull * 1024 * 1024;
    std::chrono::milliseconds ReadTimeout{10000};
    std::chrono::milliseconds IdleTimeout{75000};
    std::chrono::milliseconds ShutdownDeadline{10000};
    int MaxConnections = 10000;
    // PEM files; both set switches TLS on.
    std::string TLSCertFile;
    std::string TLSKeyFile;
    // Access log: "" none, "-" standard output, otherwise a file that lines are appended to.
    std::string AccessLog;
};

struct THTTPHeader {
    std::string Name;
    std::string Value;
};

struct THTTPRequest {
    std::string Method;  // "GET", "POST", ...
    std::string Target;  // as sent: path and query
    std::string Path;    // percent-decoded path without the query
    std::string Query;   // the raw query text after "?"
    std::vector<THTTPHeader> Headers;
    std::string Body;
    std::string RemoteAddress;
    bool Secure = false;

    // The first header of that name (case-insensitive); "" when absent.
    std::string Header(const std::string& AName) const;
    // A query parameter, percent-decoded; false when absent.
    bool QueryParam(const std::string& AName, std::string& AValue) const;
    // A cookie of the Cookie header; "" when absent.
    std::string Cookie(const std::string& AName) const;
};

struct THTTPResponse {
    int Status = 200;
    std::string ContentType = "application/json";
    std::string Body;
    std::vector<THTTPHeader> Headers;
};

// Percent-decoding ("+" stays "+" in paths, becomes a space in queries when AForm is true).
std::string PercentDecode(const std::string& AText, bool AForm);

using THTTPResponder = std::function<void(THTTPResponse)>;
using THTTPHandler = std::function<void(THTTPRequest&&, THTTPResponder)>;

// A fixed set of threads that run posted tasks in order of arrival.
class TWorkerPool {
  public:
    TWorkerPool(int AThreads, int AMaxQueued);
    ~TWorkerPool();
    // False when the queue is full or the pool stopped; the task then doesn't run.
    bool Post(std::function<void()> ATask);
    // Runs what is queued, then ends the threads.
    void Stop();

  private:
    void Run();
    const std::size_t FMaxQueued;
    std::mutex FLock;
    std::condition_variable FWake;
    std::deque<std::function<void()>> FTasks;  // guarded by FLock
    bool FStopping = false;                    // guarded by FLock
    std::vector<std::thread> FThreads;
};

class THTTPServer {
  public:
    THTTPServer(THTTPServerOptions AOptions, THTTPHandler AHandler);
    // Shuts down when still running.
    ~THTTPServer();
    THTTPServer(const THTTPServer&) = delete;
    THTTPServer& operator=(const THTTPServer&) = delete;

    // Binds and starts the threads. Raises Exception when the address can't be bound or the TLS
    // files can't be read.
    void Start();
    // The bound port (after Start).
    std::uint16_t Port() const { return FPort; }
    bool Secure() const;
    const THTTPServerOptions& Options() const { return FOptions; }

    TWorkerPool& Workers() { return *FWorkers; }
    // Runs AFunc on an I/O thread after the delay (for answers that must wait without a worker).
    void RunAfter(std::chrono::milliseconds ADelay, std::function<void()> AFunc);

    // Graceful stop as described above; safe to call from any thread but a worker or I/O thread,
    // and more than once.
    void Shutdown();

    // Connections open now.
    int ConnectionCount() const { return FConnections.load(); }

    struct TImpl;

  private:
    THTTPServerOptions FOptions;
    THTTPHandler FHandler;
    std::unique_ptr<TWorkerPool> FWorkers;
    std::unique_ptr<TImpl> FImpl;
    std::vector<std::thread> FIOThreads;
    std::uint16_t FPort = 0;
    std::atomic<int> FConnections{0};
    std::mutex FShutdownLock;  // serialises Start and Shutdown
    bool FRunning = false;     // guarded by FShutdownLock
};

}  // namespace docadmin
