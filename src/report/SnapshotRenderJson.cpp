// Asynchronous snapshot output: the render task and its write task.
#include "Velik/SnapshotRenderJson.h"

#include "Velik/Assert.h"
#include "Velik/Errno.h"
#include "Velik/Fmtrace.h"
#include "Velik/TaskScheduler.h"
#include "report/WriteNoSigpipe.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Velik {

namespace {

// A statistics dump gives way to the application's own work.
constexpr TaskPriority snapshotTaskPriority = TaskPriority::low;

void makeNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0 && (flags & O_NONBLOCK) == 0) {
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }
}

// Whether an event loop can watch `fd`: both platforms poll with epoll,
// which refuses descriptors that are always ready. A descriptor that is not
// open counts as pollable, so that watching it reports the error.
bool pollable(int fd) {
    const int probe = epoll_create1(EPOLL_CLOEXEC);
    if (probe < 0) {
        return true;
    }
    epoll_event event{};
    event.events = EPOLLOUT;
    const bool refused = epoll_ctl(probe, EPOLL_CTL_ADD, fd, &event) != 0 && errno == EPERM;
    close(probe);
    return !refused;
}

}  // namespace

std::string makeJsonTaskName(int fd, std::string_view text) {
    return fmt::format("{}-fd:{}", text, fd);
}

// --- SnapshotWriteJsonTask ---

SnapshotWriteJsonTask::SnapshotWriteJsonTask(std::shared_ptr<TaskScheduler> scheduler,
                                             TaskPriority priority, std::string name, int fd,
                                             std::function<void()> completion)
    : FileDescriptorTask(std::move(scheduler), priority, std::move(name)),
      fd_(fd),
      completion_(std::move(completion)) {
    taskWatchReadableIs(false);
    // A descriptor the loops cannot poll (a regular file, /dev/null) is
    // always writable: it is simply written at every run.
    watched_ = pollable(fd);
    if (watched_) {
        taskWatchFdIs(fd);
    }
}

void SnapshotWriteJsonTask::requestWritable() {
    if (watched_) {
        taskWatchWritableIs(true);
    } else {
        scheduleTaskWritable();
    }
}

void SnapshotWriteJsonTask::writeStrIs(std::string str) {
    assertWriteComplete();
    str_ = std::move(str);
    offset_ = 0;
}

void SnapshotWriteJsonTask::assertWriteComplete() const {
    VELIK_CLASS_ASSERT(writeComplete(), "Previous write not complete, at offset {} of {}", offset_,
                       str_.size());
}

void SnapshotWriteJsonTask::taskExecuteReadable() {
    VELIK_CLASS_ASSERT(false, "{}", "We never register for readable events");
}

void SnapshotWriteJsonTask::taskExecuteWritable() {
    const int fd = fd_;
    for (;;) {
        const std::size_t size = str_.size();
        if (offset_ == size) {
            break;
        }
        VELIK_CLASS_ASSERT(offset_ < size, "invalid offset {} size {}", offset_, size);
        const ssize_t n = Impl::writeNoSigpipe(fd, str_.data() + offset_, size - offset_);
        if (n >= 0) {
            const std::uint32_t at = offset_;
            offset_ += static_cast<std::uint32_t>(n);
            const std::size_t remaining = size - offset_;
            const bool yield = remaining != 0 && taskShouldYield();
            VELIK_TRACE(VELIK_DEFAULT_HANDLE, 3,
                        "Writing to fd {} at offset {} of {} wrote {} bytes of {} remaining{}", fd,
                        at, size, n, remaining, yield ? " yielding" : "");
            taskWorkCountWritableInc(static_cast<std::uint64_t>(n));
            if (yield) {
                taskWorkPendingIs(static_cast<std::uint32_t>(remaining));
                scheduleTaskWritable();
                return;
            }
            continue;
        }
        const int error = errno;
        if (error == EAGAIN || error == EINTR) {
            VELIK_TRACE(VELIK_DEFAULT_HANDLE, 3, "Writing to fd {} at offset {} of {} got {}", fd,
                        offset_, size, Velik::strerror(error));
            taskWorkPendingIs(static_cast<std::uint32_t>(size - offset_));
            if (error == EAGAIN) {
                requestWritable();  // wait for the reader
            } else {
                scheduleTaskWritable();  // retry at once
            }
            return;
        }
        // A socket's peer may also leave by a reset.
        VELIK_CLASS_ASSERT(error == EBADF || error == EPIPE || error == ECONNRESET,
                           "Write to fd {} failed {}({})", fd, Velik::strerror(error), error);
        // The reader went away: the rest is dropped.
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 2, "Writing to fd {} at offset {} of {} failed {}", fd,
                    offset_, size, Velik::strerror(error));
        taskWorkPendingIs(0);
        offset_ = static_cast<std::uint32_t>(size);
        break;
    }
    complete();
}

void SnapshotWriteJsonTask::complete() {
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 3, "Completed writing to fd {}", fd_);
    assertWriteComplete();
    taskWorkPendingIs(0);
    completion_();
}

// --- SnapshotRenderJsonTask ---

SnapshotRenderJsonTask::SnapshotRenderJsonTask(TaskScheduler* scheduler, int fd,
                                               Snapshots snapshots, std::function<void()> done)
    : Task(scheduler, snapshotTaskPriority, makeJsonTaskName(fd, "TaskSchedulerRenderJson")),
      fd_(fd),
      snapshots_(std::move(snapshots)),
      context_(TaskScheduler::PrintContextIs(ostr_)),
      done_(std::move(done)) {
    makeNonBlocking(fd);
    writeTask_ = std::make_shared<SnapshotWriteJsonTask>(
        scheduler->shared_from_this(), snapshotTaskPriority, taskName().str() + ":FdWrite", fd,
        [this] { scheduleTask(); });  // the write task lives no longer than this one
}

void SnapshotRenderJsonTask::taskExecute() {
    VELIK_CLASS_ASSERT(writeTask_->writeComplete(), "{}",
                       "Executing before previous write completed.");
    if (next_ < snapshots_.size()) {
        snapshots_[next_++]->renderJson(*context_);
        writeOstrToFileDescriptor();
        taskWorkCountInc(1);
        taskWorkPendingIs(static_cast<std::uint32_t>(snapshots_.size() - next_));
    } else if (!context_->jsonClosed()) {
        taskWorkPendingIs(0);
        closeJson();
        writeOstrToFileDescriptor();
    } else {
        finished_ = true;
        writeTask_->taskWatchFdDel();
        if (done_) {
            done_();
        }
        self_.reset();  // the scheduler's run still holds the task
    }
}

void SnapshotRenderJsonTask::closeJson() {
    context_->closeJson();
}

void SnapshotRenderJsonTask::writeOstrToFileDescriptor() {
    context_->flush();
    std::string text = std::move(ostr_).str();
    ostr_.str(std::string());
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 5, "Request write to fd {} of {} bytes", fd_, text.size());
    writeTask_->writeStrIs(std::move(text));
    writeTask_->requestWritable();
}

// --- TaskScheduler ---

std::shared_ptr<SnapshotRenderJsonTask> TaskScheduler::snapshotRenderJsonAsync(
    int fd, std::shared_ptr<const TaskSchedulerSnapshot> snapshot, std::function<void()> done) {
    return snapshotRenderJsonAsync(
        fd, std::vector<std::shared_ptr<const TaskSchedulerSnapshot>>{std::move(snapshot)},
        std::move(done));
}

std::shared_ptr<SnapshotRenderJsonTask> TaskScheduler::snapshotRenderJsonAsync(
    int fd, std::vector<std::shared_ptr<const TaskSchedulerSnapshot>> snapshots,
    std::function<void()> done) {
    auto task =
        std::make_shared<SnapshotRenderJsonTask>(this, fd, std::move(snapshots), std::move(done));
    task->keepAliveUntilDone();
    task->scheduleTask();
    return task;
}

}  // namespace Velik
