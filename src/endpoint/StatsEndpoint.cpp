// The stats endpoint: its socket, its listener and its connections.
#include "Velik/StatsEndpoint.h"

#include "Velik/Errno.h"
#include "Velik/FileDescriptorTask.h"
#include "Velik/Fmtrace.h"
#include "Velik/TaskSchedulerRoot.h"
#include "Velik/TimerTask.h"
#include "endpoint/StatsConnection.h"
#include "endpoint/StatsSocket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <utility>

namespace Velik {

namespace Impl {

// Accepts connections for as long as its quantum allows; a listening socket
// stays readable, so the rest is accepted on the next run.
class StatsListener : public FileDescriptorTask {
  public:
    static constexpr const char* traceClassName = "StatsListener";
    // Seconds without accepting after the process ran out of descriptors or
    // memory, instead of spinning on a socket that stays readable.
    static constexpr double pauseAfterFailure = 1.0;

    StatsListener(StatsEndpoint& endpoint, int fd)
        : FileDescriptorTask(&endpoint.root(), endpoint.options().priority, "StatsEndpoint:listen"),
          endpoint_(endpoint),
          resume_(std::make_shared<Resume>(*this, &endpoint.root(), endpoint.options().priority)) {
        taskWatchFdIs(fd);
    }

    void taskExecuteReadable() override {
        std::uint64_t accepted = 0;
        do {
            const int fd = accept4(taskWatchFd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EINTR || errno == ECONNABORTED) {
                    continue;
                }
                if (errno != EAGAIN) {
                    pause(errno);
                }
                break;
            }
            ++accepted;
            endpoint_.accepted(fd);
        } while (!taskShouldYield());
        taskWorkCountInc(accepted);
    }
    void taskExecuteWritable() override {}

  private:
    class Resume : public TimerTask {
      public:
        Resume(StatsListener& listener, TaskScheduler* scheduler, TaskPriority priority)
            : TimerTask(scheduler, priority, "StatsEndpoint:resume"), listener_(listener) {}
        void taskExecute() override { listener_.taskWatchReadableIs(true); }

      private:
        StatsListener& listener_;
    };

    void pause(int error) {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 1, "accept on {} failed: {}; pausing {} s",
                    endpoint_.socketPath(), Velik::strerror(error), pauseAfterFailure);
        taskWatchReadableIs(false);
        resume_->scheduleTaskDelay(pauseAfterFailure);
    }

    StatsEndpoint& endpoint_;
    std::shared_ptr<Resume> resume_;
};

}  // namespace Impl

namespace {

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
    } catch (...) {
        Impl::closeListening(socketPath_, socket);
        throw;
    }
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 4, "serving {} on {}", root_.schedulerName(), socketPath_);
}

StatsEndpoint::~StatsEndpoint() {
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

void StatsEndpoint::accepted(int fd) {
    ++acceptedCount_;
    const char* refusal = nullptr;
    if (!peerAllowed(fd)) {
        refusal = "error: permission denied\n";
    } else if (connections_.size() >= options_.maxClients) {
        refusal = "error: too many clients\n";
    }
    if (refusal) {
        ++refusedCount_;
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 5, "{} refused fd {}: {}", socketPath_, fd, refusal);
        Impl::sendAndClose(fd, refusal);
        return;
    }
    try {
        connections_.emplace(fd, std::make_shared<Impl::StatsConnection>(*this, fd));
    } catch (const std::exception& e) {
        // Out of resources: this client goes, the daemon carries on.
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 1, "{} dropped fd {}: {}", socketPath_, fd, e.what());
        ::close(fd);
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
    return std::make_unique<StatsEndpoint>(root, std::move(socketPath), std::move(options));
}

}  // namespace Velik
