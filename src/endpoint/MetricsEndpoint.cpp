// The metrics endpoint: its TCP socket, its listener and its connections.
#include "Velik/MetricsEndpoint.h"

#include "Velik/Errno.h"
#include "Velik/Exception.h"
#include "Velik/Fmtrace.h"
#include "Velik/TaskSchedulerRoot.h"
#include "endpoint/AcceptingListener.h"
#include "endpoint/MetricsConnection.h"
#include "endpoint/StatsSocket.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <exception>
#include <utility>

namespace Velik {

namespace Impl {

// The metrics socket's listener; traces why it pauses.
class MetricsListener : public AcceptingListener {
  public:
    static constexpr const char* traceClassName = "MetricsListener";

    MetricsListener(MetricsEndpoint& endpoint, int fd)
        : AcceptingListener(&endpoint.root(), endpoint.options().priority, "MetricsEndpoint", fd),
          endpoint_(endpoint) {}

  protected:
    void accepted(int fd) override { endpoint_.accepted(fd); }
    void acceptFailed(int error) override {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 1, "accept failed: {}; pausing {} s",
                    Velik::strerror(error), pauseAfterFailure);
    }

  private:
    MetricsEndpoint& endpoint_;
};

namespace {

constexpr int listenBacklog = 64;

[[noreturn]] void fail(std::string_view address, std::string_view what) {
    RuntimeException::throwException(fmt::format("metrics address {}: {}", address, what));
}

// "host:port" or "[v6host]:port" into its two parts.
std::pair<std::string, std::string> splitAddress(std::string_view address) {
    const std::size_t colon = address.rfind(':');
    if (colon == std::string_view::npos || colon + 1 == address.size()) {
        fail(address, "expected host:port");
    }
    std::string_view host = address.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    } else if (host.find(':') != std::string_view::npos) {
        fail(address, "an IPv6 host goes in brackets, [::1]:9464");
    }
    return {std::string(host), std::string(address.substr(colon + 1))};
}

// A non-blocking, close-on-exec socket listening on `address`, and its port.
std::pair<int, std::uint16_t> listenTcp(std::string_view address) {
    const auto [host, port] = splitAddress(address);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (const int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &found); rc != 0) {
        fail(address, gai_strerror(rc));
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> guard(found, freeaddrinfo);
    const int fd = socket(found->ai_family, found->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        fail(address, fmt::format("socket failed: {}", Velik::strerror(errno)));
    }
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, found->ai_addr, found->ai_addrlen) != 0 || listen(fd, listenBacklog) != 0) {
        const int error = errno;
        ::close(fd);
        fail(address, fmt::format("bind or listen failed: {}", Velik::strerror(error)));
    }
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
    const in_port_t boundPort = bound.ss_family == AF_INET6
                                    ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                    : reinterpret_cast<sockaddr_in*>(&bound)->sin_port;
    return {fd, ntohs(boundPort)};
}

}  // namespace

}  // namespace Impl

MetricsEndpoint::MetricsEndpoint(std::vector<MetricsThread> threads, std::string_view address,
                                 MetricsOptions options)
    : threads_(std::move(threads)), options_(std::move(options)), root_(schedulerRootVelik()) {
    std::tie(listenFd_, port_) = Impl::listenTcp(address);
    try {
        listener_ = std::make_shared<Impl::MetricsListener>(*this, listenFd_);
    } catch (...) {
        ::close(listenFd_);
        throw;
    }
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 4, "serving /metrics on {} (port {})", address, port_);
}

MetricsEndpoint::~MetricsEndpoint() {
    while (!connections_.empty()) {
        connectionEnded(connections_.begin()->first);
    }
    listener_->taskWatchFdDel();
    listener_.reset();
    ::close(listenFd_);
}

void MetricsEndpoint::accepted(int fd) {
    ++acceptedCount_;
    if (connections_.size() >= options_.maxClients) {
        ++refusedCount_;
        Impl::sendAndClose(fd, Impl::metricsErrorReply(503));
        return;
    }
    try {
        connections_.emplace(fd, std::make_shared<Impl::MetricsConnection>(*this, fd));
    } catch (const std::exception& e) {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 1, "metrics: dropped fd {}: {}", fd, e.what());
        ::close(fd);
    }
}

void MetricsEndpoint::connectionEnded(int fd) {
    auto it = connections_.find(fd);
    if (it == connections_.end()) {
        return;
    }
    std::shared_ptr<Impl::MetricsConnection> connection = std::move(it->second);
    connections_.erase(it);
    connection->stopWatching();
    connection.reset();  // a connection in its own run lives to the run's end
    Impl::closeDrained(fd);
}

std::unique_ptr<MetricsEndpoint> serveMetrics(std::vector<MetricsThread> threads,
                                              std::string_view address, MetricsOptions options) {
    return std::make_unique<MetricsEndpoint>(std::move(threads), address, std::move(options));
}

}  // namespace Velik
