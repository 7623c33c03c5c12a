// A small daemon on the scheduling runtime.
//
// Four workers at different priorities share one thread. Each does its work
// in slices: it works until `taskShouldYield()` says its quantum is used up,
// then schedules itself again and returns, so the others get their turn. A
// scavenge task soaks up whatever time is left, and a controller, woken by a
// timer every half second, suspends and resumes the indexer. After three
// seconds the daemon prints what each task did and the scheduler's history.
//
//   TRACE='Velik/0-5' build/examples/velik_priorities   # also trace the scheduler
#include <Velik/Velik.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Velik::TaskPriority;

// One unit of "work": hashing a small buffer.
uint64_t workUnit(uint64_t seed) {
    char buffer[256];
    for (size_t i = 0; i < sizeof buffer; ++i) {
        buffer[i] = static_cast<char>(seed + i);
    }
    return Velik::Util::hash64(buffer, sizeof buffer);
}

// Works through `total` units in slices of at most one quantum, or forever
// when `total` is 0.
class Worker : public Velik::Task {
  public:
    Worker(Velik::TaskScheduler* scheduler, TaskPriority priority, const char* name, uint64_t total)
        : Task(scheduler, priority, name), left_(total), forever_(total == 0) {}

    void taskExecute() override {
        uint64_t done = 0;
        while (forever_ || left_ > 0) {
            checksum_ ^= workUnit(checksum_ + done);
            ++done;
            left_ -= forever_ ? 0 : 1;
            if (taskShouldYield()) {
                scheduleTask();
                break;
            }
        }
        taskWorkCountInc(done);
        taskWorkPendingIs(static_cast<uint32_t>(std::min<uint64_t>(left_, UINT32_MAX)));
        unitsDone_ += done;
    }

    uint64_t unitsDone() const { return unitsDone_; }

  private:
    uint64_t left_;
    bool forever_;
    uint64_t checksum_ = 0;
    uint64_t unitsDone_ = 0;
};

// Toggles the suspension of another task each time its timer fires.
class Controller : public Velik::Task, public Velik::Platform::TimeoutHandler {
  public:
    Controller(Velik::TaskSchedulerRoot* root, Velik::TaskImpl* target)
        : Task(root, TaskPriority::high, "controller"),
          target_(target),
          timer_(Velik::Platform::getTimerControl(this, root->timerWheel())) {}

    void start() { timer_->setTimeout(0.5); }
    int toggles() const { return toggles_; }

    // The timer only asks for a run; the work happens in the task.
    void timeout() override { scheduleTask(); }

    void taskExecute() override {
        target_->taskSuspendedIs(!target_->taskSuspended());
        ++toggles_;
        timer_->setTimeout(0.5);
    }

  private:
    Velik::TaskImpl* target_;
    std::shared_ptr<Velik::Platform::TimerControl> timer_;
    int toggles_ = 0;
};

void report(const std::vector<std::shared_ptr<Worker>>& workers, const Controller& controller) {
    QoFmt::print("{:<10} {:>3} {:>8} {:>12} {:>10} {:>10} {:>6} {:>6}\n", "task", "pri", "runs",
                 "units", "total ms", "max us", "qv200", "qv500");
    for (const auto& w : workers) {
        QoFmt::print("{:<10} {:>3} {:>8} {:>12} {:>10.1f} {:>10.1f} {:>6} {:>6}\n",
                     w->taskName().str(), Velik::oneCharString(w->taskPriority()),
                     w->taskRunCount(), w->unitsDone(), w->taskTotalRunTime().count() / 1e6,
                     w->taskMaxRunTime().count() / 1e3, w->qv200(), w->qv500());
    }
    QoFmt::print("controller toggled the indexer's suspension {} times\n\n", controller.toggles());
}

}  // namespace

int main() {
    auto root = Velik::schedulerRootVelik();
    std::vector<std::shared_ptr<Worker>> workers = {
        std::make_shared<Worker>(root.get(), TaskPriority::high, "ingest", 200'000),
        std::make_shared<Worker>(root.get(), TaskPriority::normal, "index", 400'000),
        std::make_shared<Worker>(root.get(), TaskPriority::low, "compact", 300'000),
        std::make_shared<Worker>(root.get(), TaskPriority::scavenge, "scavenge", 0),
    };
    for (const auto& w : workers) {
        w->taskQuantumIs(2ms);
        w->scheduleTask();
    }
    auto controller = std::make_shared<Controller>(root.get(), workers[1].get());
    controller->start();

    QoFmt::print("running for 3 seconds...\n\n");
    Velik::Platform::doEventLoop(3.0);

    report(workers, *controller);
    root->historyRenderTextForDebug(std::cout);
    return 0;
}
