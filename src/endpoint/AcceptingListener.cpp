// A listening socket's task: accepts connections and hands each one on.
#include "endpoint/AcceptingListener.h"

#include "Velik/TimerTask.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

namespace Velik::Impl {

// Watches the listening socket again once the pause is over.
class AcceptingListener::Resume : public TimerTask {
  public:
    Resume(AcceptingListener& listener, TaskScheduler* scheduler, TaskPriority priority,
           std::string name)
        : TimerTask(scheduler, priority, std::move(name)), listener_(listener) {}
    void taskExecute() override { listener_.taskWatchReadableIs(true); }

  private:
    AcceptingListener& listener_;
};

AcceptingListener::AcceptingListener(TaskScheduler* scheduler, TaskPriority priority,
                                     const std::string& prefix, int fd)
    : FileDescriptorTask(scheduler, priority, prefix + ":listen"),
      resume_(std::make_shared<Resume>(*this, scheduler, priority, prefix + ":resume")) {
    taskWatchFdIs(fd);
}

void AcceptingListener::taskExecuteReadable() {
    std::uint64_t count = 0;
    do {
        const int fd = accept4(taskWatchFd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (errno != EAGAIN) {
                acceptFailed(errno);
                taskWatchReadableIs(false);
                resume_->scheduleTaskDelay(pauseAfterFailure);
            }
            break;
        }
        ++count;
        accepted(fd);
    } while (!taskShouldYield());
    taskWorkCountInc(count);
}

}  // namespace Velik::Impl
