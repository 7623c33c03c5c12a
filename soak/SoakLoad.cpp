#include "SoakLoad.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace VelikSoak {

namespace {

// A few stats names shared by many objects, as a daemon's per-connection
// tasks share theirs: the completed records stay few however much churns.
constexpr size_t statsNames = 16;
constexpr size_t operationsPerChurn = 400;
constexpr double churnPeriod = 0.01;

std::string nameFor(const char* kind, size_t slot) {
    return fmt::format("{}-{}", kind, slot % statsNames);
}

Velik::TaskPriority priorityFor(size_t slot) {
    // absolute is the churn's own: it must run on time however deep the queues.
    return static_cast<Velik::TaskPriority>(1 + slot % 4);
}

}  // namespace

std::string Totals::toString() const {
    return fmt::format(
        "churn runs {}, operations {}, re-created {}, task runs {}, timer runs {}, bytes read {}",
        churnRuns, operations, recreated, taskRuns, timerRuns, bytesRead);
}

class Load::WorkTask : public Velik::Task {
  public:
    WorkTask(Velik::TaskScheduler* scheduler, size_t slot, Totals& totals)
        : Task(scheduler, priorityFor(slot), nameFor("work", slot)), totals_(totals) {}
    void taskExecute() override {
        ++totals_.taskRuns;
        taskWorkCountInc(1);
        // Some tasks have more to do and come back at once.
        if (totals_.taskRuns % 3 == 0) {
            scheduleTask();
        }
    }

  private:
    Totals& totals_;
};

class Load::SoakTimer : public Velik::TimerTask {
  public:
    SoakTimer(const std::shared_ptr<Velik::TaskScheduler>& scheduler, size_t slot, Totals& totals)
        : TimerTask(scheduler, priorityFor(slot), nameFor("timer", slot)), totals_(totals) {}
    void taskExecute() override {
        ++totals_.timerRuns;
        // Half of them are periodic, jittered like housekeeping timers.
        if (totals_.timerRuns % 2 == 0) {
            scheduleTaskJitterUp(2.0, 50);
        }
    }

  private:
    Totals& totals_;
};

class Load::SocketTask : public Velik::FileDescriptorTask {
  public:
    SocketTask(const std::shared_ptr<Velik::TaskScheduler>& scheduler, size_t slot, int fd,
               Totals& totals)
        : FileDescriptorTask(scheduler, priorityFor(slot), nameFor("socket", slot)),
          totals_(totals) {
        taskWatchFdIs(fd);
    }
    void taskExecuteReadable() override {
        char buffer[256];
        ssize_t n;
        while ((n = ::read(taskWatchFd(), buffer, sizeof buffer)) > 0) {
            totals_.bytesRead += size_t(n);
            taskWorkCountInc(size_t(n));
        }
    }
    void taskExecuteWritable() override {}

  private:
    Totals& totals_;
};

// A socket pair: the task watches one end, the churn writes to the other.
struct Load::Socket {
    int ends[2] = {-1, -1};
    std::shared_ptr<SocketTask> task;

    Socket(const std::shared_ptr<Velik::TaskScheduler>& scheduler, size_t slot, Totals& totals) {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
            throw std::runtime_error(fmt::format("socketpair: {}", std::strerror(errno)));
        }
        task = std::make_shared<SocketTask>(scheduler, slot, ends[0], totals);
    }
    ~Socket() {
        task.reset();  // stops watching before the descriptor goes
        ::close(ends[0]);
        ::close(ends[1]);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
};

class ChurnTimer : public Velik::TimerTask {
  public:
    ChurnTimer(const std::shared_ptr<Velik::TaskScheduler>& scheduler, Load& load)
        : TimerTask(scheduler, Velik::TaskPriority::absolute, "churn"), load_(load) {}
    void taskExecute() override {
        load_.churn();
        scheduleTaskDelay(churnPeriod);
    }

  private:
    Load& load_;
};

Load::Load(std::shared_ptr<Velik::TaskSchedulerRoot> root, Counts counts, uint64_t seed)
    : root_(std::move(root)),
      random_(seed),
      tasks_(counts.tasks),
      timers_(counts.timers),
      sockets_(counts.descriptors) {
    for (size_t i = 0; i < tasks_.size(); ++i) {
        makeTask(i);
    }
    for (size_t i = 0; i < timers_.size(); ++i) {
        makeTimer(i);
        timers_[i]->scheduleTaskDelay(randomDelay());
    }
    for (size_t i = 0; i < sockets_.size(); ++i) {
        makeSocket(i);
    }
    churn_ = std::make_shared<ChurnTimer>(root_, *this);
    churn_->scheduleTask();
}

Load::~Load() {
    churn_.reset();
    sockets_.clear();
    timers_.clear();
    tasks_.clear();
}

void Load::makeTask(size_t slot) {
    tasks_[slot] = std::make_shared<WorkTask>(root_.get(), slot, totals_);
}

void Load::makeTimer(size_t slot) {
    timers_[slot] = std::make_shared<SoakTimer>(root_, slot, totals_);
}

void Load::makeSocket(size_t slot) {
    sockets_[slot].reset();
    sockets_[slot] = std::make_unique<Socket>(root_, slot, totals_);
}

void Load::churn() {
    ++totals_.churnRuns;
    for (size_t i = 0; i < operationsPerChurn; ++i) {
        operate();
    }
}

void Load::operate() {
    ++totals_.operations;
    switch (random_() % 10) {
        case 0:
        case 1:
            tasks_[pick(tasks_.size())]->scheduleTask();
            break;
        case 2: {
            auto& task = tasks_[pick(tasks_.size())];
            task->taskSuspendedIs(!task->taskSuspended());
            break;
        }
        case 3:
            ++totals_.recreated;
            makeTask(pick(tasks_.size()));
            break;
        case 4:
            timers_[pick(timers_.size())]->scheduleTaskDelay(randomDelay());
            break;
        case 5:
            timers_[pick(timers_.size())]->stopTimerTask();
            break;
        case 6: {
            auto& timer = timers_[pick(timers_.size())];
            timer->taskSuspendedIs(!timer->taskSuspended());
            break;
        }
        case 7: {
            ++totals_.recreated;
            const size_t slot = pick(timers_.size());
            makeTimer(slot);
            timers_[slot]->scheduleTaskJitterDown(randomDelay(), 50);
            break;
        }
        case 8:
            if (!sockets_.empty()) {
                const char byte = 'x';
                (void)!::write(sockets_[pick(sockets_.size())]->ends[1], &byte, 1);
            }
            break;
        case 9:
            if (!sockets_.empty()) {
                ++totals_.recreated;
                makeSocket(pick(sockets_.size()));
            }
            break;
    }
}

}  // namespace VelikSoak
