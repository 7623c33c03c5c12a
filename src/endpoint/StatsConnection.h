// One client of a stats endpoint: its request line, its deadline, its reply.
#pragma once

#include <Velik/FileDescriptorTask.h>
#include <Velik/SnapshotRenderJson.h>
#include <Velik/TimerTask.h>

#include "endpoint/StatsReplySource.h"

#include <memory>
#include <string>
#include <string_view>

namespace Velik {
class StatsEndpoint;
}

namespace Velik::Impl {

// Reads one request line without blocking and never more than the longest
// request, then stops reading and hands the reply (or one error line) to a
// write task of its own. Every reply is rendered and written a slice at a
// time (StatsReplySource.h), each slice written before the next is
// rendered, so that neither a large reply nor a slow reader holds the thread
// long. A deadline bounds each phase: a request not complete in time gets
// "error: request timed out", a reply not taken in time is dropped. Its end,
// in every case, is `StatsEndpoint::connectionEnded`.
class StatsConnection : public FileDescriptorTask {
  public:
    static constexpr const char* traceClassName = "StatsConnection";

    // Serves the accepted, non-blocking `fd`, which the endpoint owns.
    StatsConnection(StatsEndpoint& endpoint, int fd);
    // Stops watching; the endpoint closes the descriptor.
    ~StatsConnection() override;

    void taskExecuteReadable() override;
    // Serves a request line read elsewhere (by the side server while the
    // root was stuck): the reply starts at once.
    void requestRead(std::string_view line);
    // Replies go out through the write task, never through this side.
    void taskExecuteWritable() override {}

    // Stops watching the descriptor, here and in the write task, and stops
    // the deadline; before the descriptor is closed.
    void stopWatching();

    int fd() const { return fd_; }
    // Whether the request was read and the reply is being written.
    bool replying() const { return writer_ != nullptr; }

  private:
    // Renders the next slice of the reply and hands it to the writer.
    class Slicer : public Task {
      public:
        Slicer(StatsConnection& connection, TaskScheduler* scheduler, TaskPriority priority,
               std::unique_ptr<StatsReplySource> source);
        void taskExecute() override;
        // Everything, the reply's end included, has been handed over.
        bool finished() const { return finished_; }

      private:
        StatsConnection& connection_;
        std::unique_ptr<StatsReplySource> source_;
        bool finished_ = false;
    };

    class Deadline : public TimerTask {
      public:
        Deadline(StatsConnection& connection, TaskScheduler* scheduler, TaskPriority priority);
        void taskExecute() override { connection_.deadlinePassed(); }

      private:
        StatsConnection& connection_;
    };

    // The request line (without "\n") has arrived.
    void requestComplete(std::string_view line);
    // Stops reading and writes `text`; the connection ends once it is written.
    void reply(std::string text);
    // Stops reading and starts the sliced reply to `verb`.
    void replySliced(StatsVerb verb);
    // Stops reading, re-arms the deadline for the reply and makes the writer.
    void startReply();
    void write(std::string text);
    // The writer has written (or dropped) what it was given.
    void written();
    void deadlinePassed();
    void end();

    StatsEndpoint& endpoint_;
    int fd_;
    std::string request_;
    std::shared_ptr<Deadline> deadline_;
    std::shared_ptr<SnapshotWriteJsonTask> writer_;
    std::shared_ptr<Slicer> slicer_;
};

}  // namespace Velik::Impl
