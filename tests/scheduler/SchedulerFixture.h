// A root driven by hand: its callback control only counts requests, the
// steady clock is a variable the test moves, and tasks log their runs.
#pragma once

#include <Velik/Platform.h>
#include <Velik/Task.h>
#include <Velik/TaskScheduler.h>
#include <Velik/TaskSchedulerRoot.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace VelikTest {

class CountingCallbackControl : public Velik::Platform::CallbackControl {
  public:
    void requestCallback() override {
        ++requests;
        pending = true;
    }
    void cancelCallback() override { pending = false; }
    bool pendingCallback() const override { return pending; }

    int requests = 0;
    bool pending = false;
};

// The fake steady clock, in nanoseconds.
inline std::int64_t fakeNowNs = 1'000'000'000;
inline Velik::TaskTimePoint fakeNow() {
    return Velik::TaskTimePoint(Velik::TaskTimeDuration(fakeNowNs));
}
inline void advanceNs(std::int64_t ns) {
    fakeNowNs += ns;
}

// Logs its runs into a shared vector and does whatever `body` says.
class ProbeTask : public Velik::Task {
  public:
    ProbeTask(Velik::TaskScheduler* scheduler, Velik::TaskPriority priority,
              const std::string& name, std::vector<std::string>* log = nullptr)
        : Task(scheduler, priority, name), log_(log) {}

    void taskExecute() override {
        if (log_) {
            log_->push_back(taskName().str());
        }
        if (runTime.count() != 0) {
            advanceNs(runTime.count());
        }
        if (alwaysReschedule) {
            scheduleTask();
        }
        if (body) {
            body(*this);
        }
    }

    std::function<void(ProbeTask&)> body;
    bool alwaysReschedule = false;
    Velik::TaskTimeDuration runTime{0};

  private:
    std::vector<std::string>* log_;
};

class SchedulerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeNowNs = 1'000'000'000;
        Velik::Impl::taskSteadyClockForTestIs(fakeNow);
        root = std::make_shared<Velik::TaskSchedulerRoot>(
            "testRoot", [this](Velik::Platform::CallbackHandler*) {
                control = std::make_shared<CountingCallbackControl>();
                return control;
            });
    }
    void TearDown() override { Velik::Impl::taskSteadyClockForTestIs(nullptr); }

    std::shared_ptr<ProbeTask> task(Velik::TaskPriority priority, const std::string& name) {
        return std::make_shared<ProbeTask>(root.get(), priority, name, &log);
    }

    // Delivers the pending callback, as the event loop would.
    void runOnce() {
        control->pending = false;
        root->callback();
    }
    void runTimes(int n) {
        for (int i = 0; i < n; ++i) {
            runOnce();
        }
    }
    // Runs while callbacks are requested, at most `limit` times.
    int runUntilIdle(int limit = 1000) {
        int runs = 0;
        while (control->pending && runs < limit) {
            runOnce();
            ++runs;
        }
        return runs;
    }

    // The display names of the history, newest first, as "type name".
    std::vector<std::string> historyLines() const {
        std::vector<std::string> lines;
        for (const auto& event : root->history()->events()) {
            lines.push_back(std::string(event.eventTypeDisplay()) + " " + event.name.str());
        }
        return lines;
    }

    std::shared_ptr<CountingCallbackControl> control;
    std::shared_ptr<Velik::TaskSchedulerRoot> root;
    std::vector<std::string> log;
};

}  // namespace VelikTest
