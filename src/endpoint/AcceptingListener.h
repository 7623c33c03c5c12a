// A listening socket's task: accepts connections and hands each one on.
#pragma once

#include "Velik/FileDescriptorTask.h"

#include <memory>
#include <string>

namespace Velik::Impl {

// Accepts connections for as long as its quantum allows; a listening socket
// stays readable, so the rest is accepted on the next run. After the process
// ran out of descriptors or memory it pauses for `pauseAfterFailure` seconds
// rather than spin on that readable socket.
//
// The task is named "<prefix>:listen" and its pause timer "<prefix>:resume".
// Subclasses take each accepted descriptor (non-blocking, close-on-exec) in
// `accepted()` and say why they pause in `acceptFailed()`.
class AcceptingListener : public FileDescriptorTask {
  public:
    static constexpr double pauseAfterFailure = 1.0;

    AcceptingListener(TaskScheduler* scheduler, TaskPriority priority, const std::string& prefix,
                      int fd);

    void taskExecuteReadable() override;
    void taskExecuteWritable() override {}

  protected:
    // Owns `fd` from here on.
    virtual void accepted(int fd) = 0;
    // Called with accept's errno just before the pause; for tracing.
    virtual void acceptFailed(int error) = 0;

  private:
    class Resume;

    std::shared_ptr<Resume> resume_;
};

}  // namespace Velik::Impl
