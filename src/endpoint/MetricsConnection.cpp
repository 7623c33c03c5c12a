// One metrics endpoint client: the request, the gathering, the reply.
#include "endpoint/MetricsConnection.h"

#include "Velik/Fmtrace.h"
#include "Velik/MetricsEndpoint.h"
#include "Velik/TaskSchedulerRoot.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace Velik::Impl {

MetricsConnection::Deadline::Deadline(MetricsConnection& connection, TaskScheduler* scheduler,
                                      TaskPriority priority)
    : TimerTask(scheduler, priority, "MetricsEndpoint:deadline"), connection_(connection) {}

MetricsConnection::Slicer::Slicer(MetricsConnection& connection, TaskScheduler* scheduler,
                                  TaskPriority priority, PrometheusRender render)
    : Task(scheduler, priority, "MetricsEndpoint:render"),
      connection_(connection),
      render_(std::move(render)) {}

void MetricsConnection::Slicer::taskExecute() {
    std::string text;
    if (std::exchange(first_, false)) {
        text = metricsOkHead();
    }
    finished_ = !render_.renderSlice(text, connection_.endpoint_.options().samplesPerSlice);
    taskWorkCountInc(1);
    connection_.write(std::move(text));
}

MetricsConnection::MetricsConnection(MetricsEndpoint& endpoint, int fd)
    : FileDescriptorTask(&endpoint.root(), endpoint.options().priority, "MetricsEndpoint:client"),
      endpoint_(endpoint),
      fd_(fd),
      reader_({endpoint.options().maxRequestBytes, endpoint.options().maxHeaders}),
      deadline_(std::make_shared<Deadline>(*this, &endpoint.root(), endpoint.options().priority)) {
    taskWatchFdIs(fd);
    deadline_->scheduleTaskDelay(endpoint.options().requestTimeout);
}

MetricsConnection::~MetricsConnection() = default;

void MetricsConnection::taskExecuteReadable() {
    char buffer[4096];
    const ssize_t n = recv(fd_, buffer, std::min(sizeof buffer, reader_.room()), MSG_DONTWAIT);
    if (n < 0) {
        if (errno != EAGAIN && errno != EINTR) {
            end();  // reset by the peer
        }
        return;
    }
    if (n == 0) {
        // The peer stopped sending (it may still read). Nothing at all: it
        // only connected, and gets nothing.
        if (reader_.room() == endpoint_.options().maxRequestBytes) {
            end();
            return;
        }
        reader_.endOfInput();
    } else {
        reader_.feed(std::string_view(buffer, static_cast<std::size_t>(n)));
    }
    if (reader_.decided()) {
        decided();
    }
}

void MetricsConnection::decided() {
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 5, "fd {} request: {}", fd_, reader_.status());
    if (reader_.status() != 200) {
        reply(metricsErrorReply(reader_.status()));
        return;
    }
    if (reader_.headOnly()) {
        reply(std::string(metricsOkHead()));
        return;
    }
    taskWatchFdDel();  // one request per connection
    phase_ = Phase::gather;
    deadline_->scheduleTaskDelay(endpoint_.options().gatherTimeout);
    gather_ = std::make_shared<MetricsGather>(endpoint_.threads(), endpoint_.options().priority,
                                              [this] { gathered(); });
    gather_->start();
}

void MetricsConnection::gathered() {
    if (phase_ != Phase::gather) {
        return;  // the deadline went first; the late answer has no one to go to
    }
    startReply();
    slicer_ = std::make_shared<Slicer>(*this, scheduler(), taskPriority(),
                                       PrometheusRender(gather_->take()));
    slicer_->scheduleTask();
}

void MetricsConnection::startReply() {
    taskWatchFdDel();
    phase_ = Phase::reply;
    deadline_->scheduleTaskDelay(endpoint_.options().replyTimeout);
    writer_ = std::make_shared<SnapshotWriteJsonTask>(scheduler()->shared_from_this(),
                                                      taskPriority(), "MetricsEndpoint:reply", fd_,
                                                      [this] { written(); });
}

void MetricsConnection::reply(std::string text) {
    startReply();
    write(std::move(text));
}

void MetricsConnection::write(std::string text) {
    writer_->writeStrIs(std::move(text));
    writer_->requestWritable();
}

namespace {

// Whether the peer has gone entirely: the rest would be rendered for nobody.
bool peerGone(int fd) {
    pollfd p{fd, POLLOUT, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & (POLLHUP | POLLERR)) != 0;
}

}  // namespace

void MetricsConnection::written() {
    if (slicer_ && !slicer_->finished() && !peerGone(fd_)) {
        slicer_->scheduleTask();
        return;
    }
    end();
}

void MetricsConnection::deadlinePassed() {
    switch (phase_) {
        case Phase::request:
            reply(metricsErrorReply(408));
            return;
        case Phase::gather:
            VELIK_TRACE(VELIK_DEFAULT_HANDLE, 1, "fd {}: not every thread answered in time", fd_);
            gathered();  // with what has come
            return;
        case Phase::reply:
            VELIK_TRACE(VELIK_DEFAULT_HANDLE, 2, "fd {} dropped: reply not taken in time", fd_);
            end();
            return;
    }
}

void MetricsConnection::stopWatching() {
    taskWatchFdDel();
    if (writer_) {
        writer_->taskWatchFdDel();
    }
    if (slicer_) {
        slicer_->unscheduleTask();
    }
    deadline_->stopTimerTask();
    gather_.reset();  // answers still on their way are dropped
}

void MetricsConnection::end() {
    endpoint_.connectionEnded(fd_);  // may release this connection: nothing after it
}

}  // namespace Velik::Impl
