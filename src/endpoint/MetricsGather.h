// The figures of every thread for one scrape, each read on its own thread.
#pragma once

#include <Velik/MetricsEndpoint.h>
#include <Velik/PrometheusExposition.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace Velik::Impl {

// Lives on the endpoint's thread. `start` reads the calling thread's figures
// at once and posts a task to every other thread's inbox, which reads that
// thread's root and posts the figures back; `done` is called (on the
// endpoint's thread, from a task run) once all have come. A thread whose
// inbox is closed counts as answered, with nothing. Dropping the gather
// drops the answers still on their way.
class MetricsGather : public std::enable_shared_from_this<MetricsGather> {
  public:
    MetricsGather(const std::vector<MetricsThread>& threads, TaskPriority priority,
                  std::function<void()> done);

    void start();
    bool complete() const { return pending_ == 0; }
    // What has come so far, in the order of the threads; the rest is left
    // out.
    std::vector<MetricsThreadFigures> take();

  private:
    void arrived(std::size_t index, std::optional<MetricsThreadFigures> figures);

    std::vector<MetricsThread> threads_;
    TaskPriority priority_;
    std::function<void()> done_;
    std::vector<std::optional<MetricsThreadFigures>> figures_;
    std::size_t pending_ = 0;
    bool started_ = false;
};

// The calling thread's root as thread `name` (empty: the root's name).
MetricsThreadFigures metricsFiguresOfThisThread(const std::string& name);

}  // namespace Velik::Impl
