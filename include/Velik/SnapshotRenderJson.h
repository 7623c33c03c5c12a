// Writing JSON snapshots to a descriptor without blocking the scheduler.
//
// `TaskScheduler::snapshotRenderJsonAsync` hands snapshots to two tasks of
// the scheduler: a `SnapshotRenderJsonTask`, which renders one snapshot per
// run into memory, and a `SnapshotWriteJsonTask`, a descriptor task that
// writes the text whenever the descriptor is writable, a slice per run,
// yielding like any other task. A daemon can thus answer "dump your
// statistics" on a pipe or socket while it keeps working:
//
//   root->snapshotRenderJsonAsync(clientFd, root->snapshot(false, true, true),
//                                 [clientFd] { close(clientFd); });
//
// The descriptor (a pipe, a socket, or a regular file) is switched to
// non-blocking mode. A reader that reads
// slowly only makes the writer wait for writability; a reader that goes
// away (EPIPE, EBADF, ECONNRESET) makes it drop the rest quietly and finish, without a
// SIGPIPE and without touching the application's handling of SIGPIPE. The
// tasks keep themselves alive until the document is written; both run on the
// scheduler's thread at low priority.
#pragma once

#include <Velik/FileDescriptorTask.h>
#include <Velik/Task.h>
#include <Velik/TaskSchedulerPrintContext.h>
#include <Velik/TaskSchedulerSnapshot.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Velik {

// "<text>-fd:<fd>": the name of the render task ("TaskSchedulerRenderJson")
// and, with ":FdWrite" added, of its write task.
std::string makeJsonTaskName(int fd, std::string_view text);

// Writes one string at a time to its descriptor.
class SnapshotWriteJsonTask : public FileDescriptorTask {
  public:
    static constexpr const char* traceClassName = "SnapshotWriteJsonTask";

    // Watches `fd` (unless a regular file) for writability only;
    // `completion` is called each time a string has been written (or
    // dropped, the reader being gone).
    SnapshotWriteJsonTask(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                          std::string name, int fd, std::function<void()> completion);

    // Starts writing `str` from its beginning, once `requestWritable` is
    // called. The previous string must be complete.
    void writeStrIs(std::string str);
    // Waits for the descriptor to be writable (a regular file always is:
    // the write side is simply scheduled).
    void requestWritable();
    int fd() const { return fd_; }
    const std::string& writeStr() const { return str_; }
    // The next byte to write; never beyond the string's size.
    std::uint32_t writeOffset() const { return offset_; }
    bool writeComplete() const { return offset_ == str_.size(); }
    // Asserts "Previous write not complete, at offset <o> of <size>".
    void assertWriteComplete() const;

    // Asserts "We never register for readable events".
    void taskExecuteReadable() override;
    // Writes until done, until the descriptor would block (then waits for
    // writability), or until the quantum is used up (then yields). EINTR
    // retries at once; EPIPE, EBADF and ECONNRESET drop the rest and
    // complete; any other
    // error asserts "Write to fd <fd> failed <text>(<errno>)".
    void taskExecuteWritable() override;

  private:
    void complete();

    int fd_;
    bool watched_ = true;
    std::string str_;
    std::uint32_t offset_ = 0;
    std::function<void()> completion_;
};

// Renders snapshots into memory, one per run, and feeds the write task.
class SnapshotRenderJsonTask : public Task {
  public:
    static constexpr const char* traceClassName = "SnapshotRenderJsonTask";
    using Snapshots = std::vector<std::shared_ptr<const TaskSchedulerSnapshot>>;

    // Opens the document and makes the write task on `fd`; `done` (may be
    // empty) is called once everything is written. Not yet scheduled.
    SnapshotRenderJsonTask(TaskScheduler* scheduler, int fd, Snapshots snapshots,
                           std::function<void()> done);

    // One step: render the next snapshot and hand it to the writer; or close
    // the document and hand over the closing text; or, all written, stop
    // watching the descriptor and call `done`. Asserts "Executing before
    // previous write completed." while a write is still under way.
    void taskExecute() override;

    // Hands what was rendered since the last call to the write task.
    void writeOstrToFileDescriptor();
    // Closes the "schedulers" object and the document.
    void closeJson();

    // Keeps the task alive until the document is written.
    void keepAliveUntilDone() {
        self_ = std::static_pointer_cast<SnapshotRenderJsonTask>(shared_from_this());
    }
    bool done() const { return finished_; }
    const std::shared_ptr<SnapshotWriteJsonTask>& writeTask() const { return writeTask_; }

  private:
    int fd_;
    Snapshots snapshots_;
    std::size_t next_ = 0;
    std::ostringstream ostr_;
    std::unique_ptr<TaskSchedulerPrintContext> context_;
    std::shared_ptr<SnapshotWriteJsonTask> writeTask_;
    std::function<void()> done_;
    std::shared_ptr<SnapshotRenderJsonTask> self_;
    bool finished_ = false;
};

}  // namespace Velik
