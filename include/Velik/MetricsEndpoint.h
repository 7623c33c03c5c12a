// `/metrics` over HTTP: a daemon's statistics for a Prometheus server.
//
// `serveMetrics` listens on a TCP address (loopback by default) and answers
// `GET /metrics` with the Prometheus exposition (PrometheusExposition.h) of
// the threads it was given. It is served with descriptor tasks of the calling
// thread's root, like the stats endpoint: the listener and each connection
// are descriptor tasks, the reply is rendered a slice of samples at a time,
// each slice written before the next is rendered, so neither many tasks nor a
// slow client holds the thread.
//
//   // main thread: itself, and the worker through the worker's inbox
//   auto metrics = Velik::serveMetrics({{nullptr, "main"}, {workerInbox, "worker"}});
//   Velik::Platform::doEventLoop();
//
//   $ curl -s http://127.0.0.1:9464/metrics
//
// Threads. A root's figures are read on the root's own thread: for each
// scrape the endpoint posts a small task to every other thread's inbox
// (Inbox.h), which takes a snapshot there and turns it into plain figures,
// and the figures come back to the endpoint's thread as a posted completion;
// the calling thread's own figures (a null inbox, or its own) are read at
// once. When every thread has answered, or `gatherTimeout` has passed (a
// thread busy for that long is left out of that scrape rather than holding
// it), the reply is rendered. One endpoint thus serves every thread on one
// port, which is what a scrape configuration wants, and no thread's objects
// are ever touched from another.
//
// HTTP. One request per connection, read with http_parser from our own
// reads: GET or HEAD of "/metrics" (any query ignored) gets "200 OK" with
// "Content-Type: text/plain; version=0.0.4; charset=utf-8" and the
// exposition; another path "404 Not Found"; another method on "/metrics"
// "405 Method Not Allowed" (with "Allow: GET, HEAD"); a malformed or
// truncated request "400 Bad Request"; a request line and headers beyond
// `maxRequestBytes` or more than `maxHeaders` headers "431 Request Header
// Fields Too Large"; a request not complete within `requestTimeout` "408
// Request Timeout"; a client beyond `maxClients` "503 Service Unavailable".
// Every reply says "Connection: close" and the connection is closed after
// it, whatever the client asked for: the body of a 200 reply has no length
// and ends with the connection, and a client wanting another scrape connects
// again (Prometheus does that anyway between scrapes a second apart). A reply
// not taken within `replyTimeout` is dropped with its connection.
//
// An endpoint belongs to the calling thread: create and destroy it there.
#pragma once

#include <Velik/TaskPriority.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Velik {

class Inbox;
class TaskSchedulerRoot;
namespace Impl {
class MetricsConnection;
class MetricsListener;
}  // namespace Impl

// One thread whose figures the endpoint serves.
struct MetricsThread {
    // Its inbox; null for the calling thread.
    std::shared_ptr<Inbox> inbox;
    // The `thread` label; empty: the inbox's root name (for a null inbox,
    // the calling thread's root name).
    std::string name;
};

struct MetricsOptions {
    // Connections served at once; the next one gets 503.
    std::size_t maxClients = 8;
    // The request line, headers and any body together, in bytes.
    std::size_t maxRequestBytes = 8192;
    std::size_t maxHeaders = 64;
    // Seconds a client has to send its whole request.
    double requestTimeout = 5.0;
    // Seconds the other threads have to hand in their figures.
    double gatherTimeout = 2.0;
    // Seconds a reply may take to be read; then the connection is dropped.
    double replyTimeout = 30.0;
    // Samples rendered per slice (per task run).
    std::size_t samplesPerSlice = 500;
    // Of the endpoint's tasks, and of the gathering tasks on other threads.
    TaskPriority priority = TaskPriority::low;
};

class MetricsEndpoint {
  public:
    static constexpr const char* traceClassName = "MetricsEndpoint";

    // Use `serveMetrics`.
    MetricsEndpoint(std::vector<MetricsThread> threads, std::string_view address,
                    MetricsOptions options);
    MetricsEndpoint(const MetricsEndpoint&) = delete;
    MetricsEndpoint& operator=(const MetricsEndpoint&) = delete;
    // Closes every connection, replies half written included, and the socket.
    ~MetricsEndpoint();

    // The port listened on (the one chosen when the address asked for 0).
    std::uint16_t port() const { return port_; }
    const std::vector<MetricsThread>& threads() const { return threads_; }
    const MetricsOptions& options() const { return options_; }
    TaskSchedulerRoot& root() const { return *root_; }

    // Connections being served.
    std::size_t clientCount() const { return connections_.size(); }
    // Connections accepted so far, refused ones included.
    std::uint64_t acceptedCount() const { return acceptedCount_; }
    // Connections refused for too many clients.
    std::uint64_t refusedCount() const { return refusedCount_; }

    // The listener's entry for a new connection.
    void accepted(int fd);
    // A connection's end: releases it and closes its descriptor.
    void connectionEnded(int fd);

  private:
    std::vector<MetricsThread> threads_;
    MetricsOptions options_;
    std::shared_ptr<TaskSchedulerRoot> root_;
    int listenFd_ = -1;
    std::uint16_t port_ = 0;
    std::shared_ptr<Impl::MetricsListener> listener_;
    std::map<int, std::shared_ptr<Impl::MetricsConnection>> connections_;
    std::uint64_t acceptedCount_ = 0;
    std::uint64_t refusedCount_ = 0;
};

// Serves `/metrics` for `threads` on `address`, "host:port" with a numeric
// IPv4 host or a bracketed IPv6 one ("[::1]:9464"); port 0 picks a free one
// (see `port()`). Call it on a thread with a root, and keep the result for as
// long as it should answer. Throws `RuntimeException` when the address
// cannot be read, or the socket cannot be made, bound (address in use) or
// listened on, with the system's error text.
std::unique_ptr<MetricsEndpoint> serveMetrics(std::vector<MetricsThread> threads,
                                              std::string_view address = "127.0.0.1:9464",
                                              MetricsOptions options = {});

}  // namespace Velik
