// A root driven by hand: its callback control only counts requests, the
// steady clock is a variable the test moves, and tasks log their runs.
#pragma once

#include <Velik/FileDescriptorTask.h>
#include <Velik/TaskSchedulerHistory.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/Time.h>
#include <Velik/TimerTask.h>

#include "foundation/ThrowingAsserts.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <numeric>

// The assertion raised by `statement` carries `text` in its message.
#define EXPECT_ASSERT_TEXT(statement, text) \
    EXPECT_THAT(VelikTest::assertMessageOf([&] { statement; }), ::testing::HasSubstr(text))

namespace VelikTest {

class CountingCallbackControl : public Velik::Platform::CallbackControl {
  public:
    void requestCallback() override { ++requests, pending = true; }
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
        if (alwaysReschedule) {
            scheduleTask();
        }
        body(*this);
    }

    std::function<void(ProbeTask&)> body = [](ProbeTask&) {};
    bool alwaysReschedule = false;

  private:
    std::vector<std::string>* log_;
};

// Notes the library time of each run and does whatever `body` says.
class ProbeTimer : public Velik::TimerTask {
  public:
    using TimerTask::TimerTask;
    void taskExecute() override {
        runsAt.push_back(Velik::time());
        body(*this);
    }
    std::vector<double> runsAt;
    std::function<void(ProbeTimer&)> body = [](ProbeTimer&) {};
};

// A normal descriptor task that logs its handler runs ("read", "write")
// when given a log, and does what its bodies say.
class ProbeFd : public Velik::FileDescriptorTask {
  public:
    template <typename Scheduler>  // a shared or a plain pointer: both forms
    ProbeFd(Scheduler scheduler, const std::string& name, std::vector<std::string>* log = nullptr)
        : FileDescriptorTask(scheduler, Velik::TaskPriority::normal, name), log_(log) {}
    void taskExecuteReadable() override { handle("read", onRead); }
    void taskExecuteWritable() override { handle("write", onWrite); }
    std::function<void(ProbeFd&)> onRead = [](ProbeFd&) {}, onWrite = onRead;

  private:
    void handle(const char* side, const std::function<void(ProbeFd&)>& body) {
        if (log_) {
            log_->push_back(side);
        }
        body(*this);
    }
    std::vector<std::string>* log_;
};

class SchedulerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeNowNs = 1'000'000'000;
        Velik::Impl::taskSteadyClockForTestIs(fakeNow);
        newRoot();
    }
    void TearDown() override { Velik::Impl::taskSteadyClockForTestIs(nullptr); }

    void newRoot() {
        root = std::make_shared<Velik::TaskSchedulerRoot>(
            "testRoot", [this](Velik::Platform::CallbackHandler*) {
                control = std::make_shared<CountingCallbackControl>();
                return control;
            });
    }

    std::shared_ptr<ProbeTask> task(Velik::TaskPriority priority, const std::string& name) {
        return std::make_shared<ProbeTask>(root.get(), priority, name, &log);
    }

    // Delivers the pending callback `n` times, as the event loop would.
    void runOnce(int n = 1) {
        for (int i = 0; i < n; ++i) {
            control->pending = false;
            root->callback();
        }
    }
    void runUntilIdle() {
        for (int runs = 0; control->pending && runs < 1000; ++runs) {
            runOnce();
        }
    }

    // The run log as one string of first letters: "HHHN...".
    std::string letters() const {
        return std::accumulate(
            log.begin(), log.end(), std::string(),
            [](std::string out, const std::string& name) { return out + name[0]; });
    }

    // The history, newest first, as "type name".
    std::vector<std::string> historyLines() const {
        std::vector<std::string> lines;
        for (const auto& event : root->history()->events()) {
            lines.push_back(std::string(event.eventTypeDisplay()) + " " + event.displayName());
        }
        return lines;
    }

    // Whether the history, oldest first, holds `events` in this order; other
    // events may come between them. On failure, names the first one missing.
    ::testing::AssertionResult historyHasInOrder(const std::vector<std::string>& events) const {
        const std::vector<std::string> lines = historyLines();
        auto at = lines.rbegin();
        for (const std::string& event : events) {
            at = std::find(at, lines.rend(), event);
            if (at == lines.rend()) {
                return ::testing::AssertionFailure() << event << " missing or out of order in "
                                                     << ::testing::PrintToString(lines);
            }
            ++at;
        }
        return ::testing::AssertionSuccess();
    }
    // How many times `event` is in the history.
    long historyCount(const std::string& event) const {
        return std::ranges::count(historyLines(), event);
    }

    std::shared_ptr<CountingCallbackControl> control;
    std::shared_ptr<Velik::TaskSchedulerRoot> root;
    std::vector<std::string> log;
};

}  // namespace VelikTest
