// One client of the metrics endpoint: its request, the gathering of the
// figures, the reply in slices.
#pragma once

#include <Velik/FileDescriptorTask.h>
#include <Velik/PrometheusExposition.h>
#include <Velik/SnapshotRenderJson.h>
#include <Velik/TimerTask.h>

#include "endpoint/MetricsGather.h"
#include "endpoint/MetricsRequest.h"

#include <memory>
#include <optional>
#include <string>

namespace Velik {
class MetricsEndpoint;
}

namespace Velik::Impl {

// Reads the request without blocking and never beyond the limit, then stops
// reading. An error status is answered at once; a scrape first gathers the
// figures of every thread (MetricsGather.h), then renders the exposition a
// slice of samples per run, each slice written before the next is rendered.
// One deadline per phase: the request (408 when it passes), the gathering
// (the reply goes out with what has come), the reply (dropped). Its end, in
// every case, is `MetricsEndpoint::connectionEnded`.
class MetricsConnection : public FileDescriptorTask {
  public:
    static constexpr const char* traceClassName = "MetricsConnection";

    MetricsConnection(MetricsEndpoint& endpoint, int fd);
    ~MetricsConnection() override;

    void taskExecuteReadable() override;
    void taskExecuteWritable() override {}

    // Stops every watch, task and deadline; before the descriptor is closed.
    void stopWatching();

  private:
    enum class Phase { request, gather, reply };

    class Slicer : public Task {
      public:
        Slicer(MetricsConnection& connection, TaskScheduler* scheduler, TaskPriority priority,
               PrometheusRender render);
        void taskExecute() override;
        bool finished() const { return finished_; }

      private:
        MetricsConnection& connection_;
        PrometheusRender render_;
        bool first_ = true;
        bool finished_ = false;
    };

    class Deadline : public TimerTask {
      public:
        Deadline(MetricsConnection& connection, TaskScheduler* scheduler, TaskPriority priority);
        void taskExecute() override { connection_.deadlinePassed(); }

      private:
        MetricsConnection& connection_;
    };

    void decided();
    // Stops reading and makes the writer; the deadline becomes the reply's.
    void startReply();
    void reply(std::string text);
    void gathered();
    void write(std::string text);
    void written();
    void deadlinePassed();
    void end();

    MetricsEndpoint& endpoint_;
    int fd_;
    Phase phase_ = Phase::request;
    MetricsRequestReader reader_;
    std::shared_ptr<Deadline> deadline_;
    std::shared_ptr<MetricsGather> gather_;
    std::shared_ptr<SnapshotWriteJsonTask> writer_;
    std::shared_ptr<Slicer> slicer_;
};

}  // namespace Velik::Impl
