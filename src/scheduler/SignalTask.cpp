#include "Velik/SignalTask.h"

#include "Velik/Errno.h"
#include "Velik/Exception.h"
#include "Velik/PlatformSelection.h"

#include <fmt/format.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Velik {

namespace {

sigset_t signalSet(const int* begin, const int* end) {
    sigset_t set;
    sigemptyset(&set);
    for (const int* signal = begin; signal != end; ++signal) {
        if (sigaddset(&set, *signal) != 0) {
            RuntimeException::throwException(fmt::format("invalid signal {}", *signal));
        }
    }
    return set;
}

sigset_t signalSet(const std::vector<int>& signals) {
    return signalSet(signals.data(), signals.data() + signals.size());
}

int newSignalFd(const std::vector<int>& signals) {
    const sigset_t set = signalSet(signals);
    const int fd = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd < 0) {
        RuntimeException::throwException(fmt::format("signalfd: {}", Velik::strerror(errno)));
    }
    return fd;
}

}  // namespace

void blockSignals(std::initializer_list<int> signals) {
    blockSignals(std::vector<int>(signals));
}

void blockSignals(const std::vector<int>& signals) {
    const sigset_t set = signalSet(signals);
    const int rc = pthread_sigmask(SIG_BLOCK, &set, nullptr);
    if (rc != 0) {
        RuntimeException::throwException(fmt::format("pthread_sigmask: {}", Velik::strerror(rc)));
    }
}

SignalTask::SignalTask(TaskScheduler* scheduler, TaskPriority priority, std::string_view name,
                       const std::vector<int>& signals, Handler handler)
    : Task(scheduler, priority, name), handler_(std::move(handler)), fd_(newSignalFd(signals)) {
    watch();
}

SignalTask::SignalTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                       std::string_view name, const std::vector<int>& signals, Handler handler)
    : Task(std::move(scheduler), priority, name),
      handler_(std::move(handler)),
      fd_(newSignalFd(signals)) {
    watch();
}

void SignalTask::watch() {
    try {
        control_ = Platform::getFdControl(this);
        control_->setReads(true);
        control_->setFd(fd_);
    } catch (...) {
        control_.reset();
        ::close(fd_);
        throw;
    }
}

SignalTask::~SignalTask() {
    control_.reset();
    ::close(fd_);
}

void SignalTask::readFdEvent(int fd) {
    signalfd_siginfo infos[16];
    for (;;) {
        const ssize_t got = ::read(fd, infos, sizeof(infos));
        if (got <= 0) {
            break;  // EAGAIN: all read
        }
        const auto n = static_cast<std::size_t>(got) / sizeof(signalfd_siginfo);
        count_ += n;
        last_ = static_cast<int>(infos[n - 1].ssi_signo);
    }
    if (count_ > 0 && !taskScheduled()) {
        scheduleTask();
    }
}

void SignalTask::taskExecute() {
    if (count_ == 0) {
        return;
    }
    const std::uint64_t count = std::exchange(count_, 0);
    total_ += count;
    taskWorkCountInc(count);
    handler_(count, last_);
}

}  // namespace Velik
