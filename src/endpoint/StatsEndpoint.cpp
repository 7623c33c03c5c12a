// The stats endpoint: its socket, its listener and its connections.
#include "Velik/StatsEndpoint.h"

#include "Velik/Errno.h"
#include "Velik/FileDescriptorTask.h"
#include "Velik/Fmtrace.h"
#include "Velik/StallSentinel.h"
#include "Velik/TaskSchedulerRoot.h"
#include "endpoint/AcceptingListener.h"
#include "endpoint/StatsConnection.h"
#include "endpoint/StatsSideServer.h"
#include "endpoint/StatsSocket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <utility>

namespace Velik {

namespace Impl {

// The stats socket's listener; traces why it pauses.
class StatsListener : public AcceptingListener {
  public:
    static constexpr const char* traceClassName = "StatsListener";

    StatsListener(StatsEndpoint& endpoint, int fd)
        : AcceptingListener(&endpoint.root(), endpoint.options().priority, "StatsEndpoint", fd),
          endpoint_(endpoint) {}

  protected:
    void accepted(int fd) override { endpoint_.accepted(fd); }
    void acceptFailed(int error) override {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 1, "accept on {} failed: {}; pausing {} s",
                    endpoint_.socketPath(), Velik::strerror(error), pauseAfterFailure);
    }

  private:
    StatsEndpoint& endpoint_;
};

// Takes the connections the side server hands back once the root is free.
class StatsHandOver : public FileDescriptorTask {
  public:
    static constexpr const char* traceClassName = "StatsHandOver";

    StatsHandOver(StatsEndpoint& endpoint, SideEndpoint& side)
        : FileDescriptorTask(&endpoint.root(), endpoint.options().priority,
                             "StatsEndpoint:handOver"),
          endpoint_(endpoint),
          side_(side) {
        taskWatchFdIs(side.handOverFd());
    }

    void taskExecuteReadable() override {
        std::vector<SideEndpoint::Handed> handed = side_.takeHanded();
        for (const SideEndpoint::Handed& connection : handed) {
            endpoint_.handedOver(connection.fd, connection.line);
        }
        taskWorkCountInc(handed.size());
    }
    void taskExecuteWritable() override {}

  private:
    StatsEndpoint& endpoint_;
    SideEndpoint& side_;
};

}  // namespace Impl

namespace {

// For the traces of the free functions here.
constexpr const char* traceClassName = StatsEndpoint::traceClassName;

// Connections the kernel holds for the listener between two of its runs.
constexpr int listenBacklog = 64;

}  // namespace

StatsEndpoint::StatsEndpoint(TaskSchedulerRoot& root, std::string socketPath,
                             StatsEndpointOptions options)
    : root_(root), socketPath_(std::move(socketPath)), options_(std::move(options)) {
    root_.sanityCheckCurrentRunningThread();
    const Impl::ListeningSocket socket = Impl::listenOwnerOnly(socketPath_, listenBacklog);
    listenFd_ = socket.fd;
    socketDev_ = socket.dev;
    socketIno_ = socket.ino;
    lockFd_ = socket.lockFd;
    try {
        listener_ = std::make_shared<Impl::StatsListener>(*this, listenFd_);
        side_ = std::make_shared<Impl::SideEndpoint>(listenFd_, root_.runPublication(), socketPath_,
                                                     options_);
        handOver_ = std::make_shared<Impl::StatsHandOver>(*this, *side_);
        Impl::sideServerRegister(side_);
    } catch (...) {
        if (handOver_) {
            handOver_->taskWatchFdDel();
        }
        if (listener_) {
            listener_->taskWatchFdDel();
        }
        Impl::closeListening(socketPath_, socket);
        throw;
    }
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 4, "serving {} on {}", root_.schedulerName(), socketPath_);
}

StatsEndpoint::~StatsEndpoint() {
    // First, so that nothing of the side server uses the listener or hands
    // over a connection from here on.
    Impl::sideServerUnregister(side_.get());
    handOver_->taskWatchFdDel();
    handOver_.reset();
    side_.reset();  // closes the connections still queued for the root
    while (!connections_.empty()) {
        connectionEnded(connections_.begin()->first);
    }
    listener_->taskWatchFdDel();
    listener_.reset();
    Impl::closeListening(socketPath_, {listenFd_, socketDev_, socketIno_, lockFd_});
}

bool StatsEndpoint::peerAllowed(int fd) const {
    const std::optional<uid_t> uid =
        options_.peerUidForTest ? options_.peerUidForTest : Impl::peerUid(fd);
    return uid && (*uid == geteuid() || *uid == 0);
}

std::uint64_t StatsEndpoint::acceptedCount() const {
    return acceptedCount_ + side_->acceptedCount.load(std::memory_order_relaxed);
}

std::uint64_t StatsEndpoint::refusedCount() const {
    return refusedCount_ + side_->refusedCount.load(std::memory_order_relaxed);
}

namespace {

void refuse(const std::string& socketPath, int fd, const char* refusal) {
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 5, "{} refused fd {}: {}", socketPath, fd, refusal);
    Impl::sendAndClose(fd, refusal);
}

}  // namespace

void StatsEndpoint::accepted(int fd) {
    ++acceptedCount_;
    if (!peerAllowed(fd)) {
        ++refusedCount_;
        refuse(socketPath_, fd, "error: permission denied\n");
        return;
    }
    serve(fd);
}

void StatsEndpoint::handedOver(int fd, std::string_view line) {
    if (Impl::StatsConnection* connection = serve(fd)) {
        connection->requestRead(line);  // may end the connection at once
    }
}

Impl::StatsConnection* StatsEndpoint::serve(int fd) {
    if (connections_.size() >= options_.maxClients) {
        ++refusedCount_;
        refuse(socketPath_, fd, "error: too many clients\n");
        return nullptr;
    }
    try {
        auto connection = std::make_shared<Impl::StatsConnection>(*this, fd);
        connections_.emplace(fd, connection);
        return connection.get();
    } catch (const std::exception& e) {
        // Out of resources: this client goes, the daemon carries on.
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 1, "{} dropped fd {}: {}", socketPath_, fd, e.what());
        ::close(fd);
        return nullptr;
    }
}

void StatsEndpoint::connectionEnded(int fd) {
    auto it = connections_.find(fd);
    if (it == connections_.end()) {
        return;
    }
    std::shared_ptr<Impl::StatsConnection> connection = std::move(it->second);
    connections_.erase(it);
    connection->stopWatching();
    connection.reset();  // a connection in its own run lives to the run's end
    Impl::closeDrained(fd);
}

std::unique_ptr<StatsEndpoint> serveStats(TaskSchedulerRoot& root, std::string socketPath,
                                          StatsEndpointOptions options) {
    if (options.watchStalls) {
        try {
            watchStallsUnlessWatching();
        } catch (const std::exception& e) {
            // The application holds the signal: stats are served all the
            // same, without stall records.
            VELIK_TRACE(VELIK_DEFAULT_HANDLE, 1, "{}: stall sentinel not started: {}", socketPath,
                        e.what());
        }
    }
    return std::make_unique<StatsEndpoint>(root, std::move(socketPath), std::move(options));
}

}  // namespace Velik
