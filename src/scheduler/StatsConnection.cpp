// One stats endpoint client: the request line, the deadline, the reply.
#include "scheduler/StatsConnection.h"

#include "Velik/Fmtrace.h"
#include "Velik/StatsEndpoint.h"
#include "Velik/TaskSchedulerRoot.h"
#include "scheduler/StatsRequest.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace Velik::Impl {

StatsConnection::Deadline::Deadline(StatsConnection& connection, TaskScheduler* scheduler,
                                    TaskPriority priority)
    : TimerTask(scheduler, priority, "StatsEndpoint:deadline"), connection_(connection) {}

StatsConnection::StatsConnection(StatsEndpoint& endpoint, int fd)
    : FileDescriptorTask(&endpoint.root(), endpoint.options().priority, "StatsEndpoint:client"),
      endpoint_(endpoint),
      fd_(fd),
      deadline_(std::make_shared<Deadline>(*this, &endpoint.root(), endpoint.options().priority)) {
    request_.reserve(StatsEndpoint::maxRequestSize);
    taskWatchFdIs(fd);
    deadline_->scheduleTaskDelay(endpoint.options().requestTimeout);
}

StatsConnection::~StatsConnection() = default;

void StatsConnection::taskExecuteReadable() {
    // Never more than the longest request: what follows it is not read.
    char buffer[StatsEndpoint::maxRequestSize];
    const std::size_t room = StatsEndpoint::maxRequestSize - request_.size();
    const ssize_t n = recv(fd_, buffer, room, MSG_DONTWAIT);
    if (n < 0) {
        if (errno != EAGAIN && errno != EINTR) {
            end();  // reset by the peer
        }
        return;
    }
    if (n == 0) {
        // The peer stopped sending; it may still read.
        if (request_.empty()) {
            end();
        } else {
            reply(statsErrorLine("malformed request, the line has no end"));
        }
        return;
    }
    const std::size_t searchFrom = request_.size();
    request_.append(buffer, static_cast<std::size_t>(n));
    const std::size_t newline = request_.find('\n', searchFrom);
    if (newline != std::string::npos) {
        requestComplete(std::string_view(request_).substr(0, newline));
    } else if (request_.size() == StatsEndpoint::maxRequestSize) {
        reply(statsErrorLine("request too long, at most 256 bytes"));
    }
}

void StatsConnection::requestComplete(std::string_view line) {
    const StatsRequest request = parseStatsRequest(line);
    if (!request.verb) {
        reply(statsErrorLine(request.error));
        return;
    }
    reply(renderStatsReply(endpoint_.root(), *request.verb, endpoint_.options().includeNoRuns));
}

void StatsConnection::reply(std::string text) {
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 5, "fd {} reply of {} bytes", fd_, text.size());
    // One request per connection: from here on only the write task watches.
    taskWatchFdDel();
    deadline_->scheduleTaskDelay(endpoint_.options().replyTimeout);
    writer_ =
        std::make_shared<SnapshotWriteJsonTask>(scheduler()->shared_from_this(), taskPriority(),
                                                "StatsEndpoint:reply", fd_, [this] { end(); });
    writer_->writeStrIs(std::move(text));
    writer_->requestWritable();
}

void StatsConnection::deadlinePassed() {
    if (replying()) {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 2,
                    "fd {} dropped: reply not taken, {} of {} bytes written", fd_,
                    writer_->writeOffset(), writer_->writeStr().size());
        end();
        return;
    }
    reply(statsErrorLine("request timed out"));
}

void StatsConnection::stopWatching() {
    taskWatchFdDel();
    if (writer_) {
        writer_->taskWatchFdDel();
    }
    deadline_->stopTimerTask();
}

void StatsConnection::end() {
    endpoint_.connectionEnded(fd_);  // may release this connection: nothing after it
}

}  // namespace Velik::Impl
