// One thread's share of the soak: work tasks, timer tasks and descriptor
// tasks on a root, and a churn timer that every 10 ms (platform time) does a
// batch of random operations on them: scheduling, suspending and resuming,
// re-arming and stopping timers, writing to sockets, and destroying and
// re-creating any of them.
#pragma once

#include <Velik/FileDescriptorTask.h>
#include <Velik/Task.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/TimerTask.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace VelikSoak {

struct Counts {
    size_t tasks = 0;
    size_t timers = 0;
    size_t descriptors = 0;
};

// What one thread's load did.
struct Totals {
    uint64_t churnRuns = 0;
    uint64_t operations = 0;
    uint64_t recreated = 0;
    uint64_t taskRuns = 0;
    uint64_t timerRuns = 0;
    uint64_t bytesRead = 0;

    std::string toString() const;
};

class ChurnTimer;

class Load {
  public:
    // Creates every object, arms the timers at random and starts the churn.
    Load(std::shared_ptr<Velik::TaskSchedulerRoot> root, Counts counts, uint64_t seed);
    // Destroys every object (on the thread that made them).
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    // One batch of random operations.
    void churn();
    const Totals& totals() const { return totals_; }

    struct Socket;
    class WorkTask;
    class SoakTimer;
    class SocketTask;

  private:
    void makeTask(size_t slot);
    void makeTimer(size_t slot);
    void makeSocket(size_t slot);
    void operate();
    size_t pick(size_t count) { return random_() % count; }
    double randomDelay() { return double(random_() % 5000) / 1000.0; }

    std::shared_ptr<Velik::TaskSchedulerRoot> root_;
    std::mt19937_64 random_;
    Totals totals_;
    std::vector<std::shared_ptr<WorkTask>> tasks_;
    std::vector<std::shared_ptr<SoakTimer>> timers_;
    std::vector<std::unique_ptr<Socket>> sockets_;
    std::shared_ptr<ChurnTimer> churn_;
};

}  // namespace VelikSoak
