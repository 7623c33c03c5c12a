// One stats endpoint client: the request line, the deadline, the reply.
#include "endpoint/StatsConnection.h"

#include "Velik/Fmtrace.h"
#include "Velik/StatsEndpoint.h"
#include "Velik/TaskSchedulerRoot.h"
#include "endpoint/StatsRequest.h"
#include "endpoint/StatsRequestLine.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace Velik::Impl {

StatsConnection::Deadline::Deadline(StatsConnection& connection, TaskScheduler* scheduler,
                                    TaskPriority priority)
    : TimerTask(scheduler, priority, "StatsEndpoint:deadline"), connection_(connection) {}

StatsConnection::Slicer::Slicer(StatsConnection& connection, TaskScheduler* scheduler,
                                TaskPriority priority, std::unique_ptr<StatsReplySource> source)
    : Task(scheduler, priority, "StatsEndpoint:render"),
      connection_(connection),
      source_(std::move(source)) {}

void StatsConnection::Slicer::taskExecute() {
    std::string text;
    finished_ = !source_->renderSlice(text);
    taskWorkCountInc(1);
    connection_.write(std::move(text));
}

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
    const RequestLineRead read = readRequestLine(fd_, request_);
    switch (read.kind) {
        case RequestLineRead::more:
            return;
        case RequestLineRead::closed:
            end();
            return;
        case RequestLineRead::refused:
            reply(read.text);
            return;
        case RequestLineRead::complete:
            requestComplete(read.text);
            return;
    }
}

void StatsConnection::requestRead(std::string_view line) {
    requestComplete(line);
}

void StatsConnection::requestComplete(std::string_view line) {
    const StatsRequest request = parseStatsRequest(line);
    if (!request.verb) {
        reply(statsErrorLine(request.error));
    } else {
        replySliced(*request.verb);
    }
}

void StatsConnection::startReply() {
    // One request per connection: from here on only the write task watches.
    taskWatchFdDel();
    deadline_->scheduleTaskDelay(endpoint_.options().replyTimeout);
    writer_ =
        std::make_shared<SnapshotWriteJsonTask>(scheduler()->shared_from_this(), taskPriority(),
                                                "StatsEndpoint:reply", fd_, [this] { written(); });
}

void StatsConnection::reply(std::string text) {
    startReply();
    write(std::move(text));
}

void StatsConnection::replySliced(StatsVerb verb) {
    startReply();
    // Gathering the records is quick; rendering them is what takes slices.
    slicer_ = std::make_shared<Slicer>(
        *this, scheduler(), taskPriority(),
        makeStatsReplySource(endpoint_.root(), verb, endpoint_.options().includeNoRuns));
    slicer_->scheduleTask();
}

void StatsConnection::write(std::string text) {
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 5, "fd {} writing {} bytes", fd_, text.size());
    writer_->writeStrIs(std::move(text));
    writer_->requestWritable();
}

namespace {

// Whether the peer has closed its end entirely (not only its sending side):
// the rest of a reply would be rendered for nobody.
bool peerGone(int fd) {
    pollfd p{fd, POLLOUT, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & (POLLHUP | POLLERR)) != 0;
}

}  // namespace

void StatsConnection::written() {
    if (slicer_ && !slicer_->finished() && !peerGone(fd_)) {
        slicer_->scheduleTask();  // the next slice
        return;
    }
    end();
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
    if (slicer_) {
        slicer_->unscheduleTask();
    }
    deadline_->stopTimerTask();
}

void StatsConnection::end() {
    endpoint_.connectionEnded(fd_);  // may release this connection: nothing after it
}

}  // namespace Velik::Impl
