// Stopping the loop from inside it: from a task, from a handler and, through
// the inbox, from another thread, on both platform families. A stopped loop
// keeps everything it had, and the next run carries on with it.
#include "platform/Families.h"
#include "platform/Recorder.h"

#include <Velik/Inbox.h>
#include <Velik/PlatformSelection.h>
#include <Velik/Task.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/Time.h>

#include <atomic>
#include <functional>
#include <thread>

namespace {

using namespace Velik;
using VelikTest::Family;
using Log = std::vector<std::string>;

class LoggingTask : public Task {
  public:
    LoggingTask(Log& log, std::string name, std::function<void()> then = {})
        : Task(schedulerRootVelik().get(), TaskPriority::normal, name),
          log_(log),
          name_(std::move(name)),
          then_(std::move(then)) {}
    void taskExecute() override {
        log_.push_back(name_);
        if (then_) {
            then_();
        }
    }

  private:
    Log& log_;
    std::string name_;
    std::function<void()> then_;
};

using StopEventLoop = VelikTest::FamilyTest;

INSTANTIATE_TEST_SUITE_P(Families, StopEventLoop,
                         testing::Values(Family::framework, Family::libevent),
                         VelikTest::familyName);

// Under virtual time a run jumps from timer to timer: a stop must end the
// jumping too, and leave the tasks and timers not reached for the next run.
TEST_P(StopEventLoop, FromATaskOrAHandlerEndsTheRunAndTheNextRunCarriesOn) {
    run([] {
        Log log;
        auto first = std::make_shared<LoggingTask>(log, "first", [] { Platform::stopEventLoop(); });
        auto second = std::make_shared<LoggingTask>(log, "second");
        // Two timers due at once, each stopping the loop: a run ends after
        // the first of them, whichever the platform takes first.
        VelikTest::Recorder early;
        VelikTest::Recorder alsoEarly;
        VelikTest::Recorder late;
        early.inside = [&] {
            log.push_back("early");
            Platform::stopEventLoop();
        };
        alsoEarly.inside = [&] {
            log.push_back("early");
            Platform::stopEventLoop();
        };
        late.inside = [&] { log.push_back("late"); };
        auto earlyTimer = Platform::getTimerControl(&early);
        auto alsoEarlyTimer = Platform::getTimerControl(&alsoEarly);
        auto lateTimer = Platform::getTimerControl(&late);
        const double start = Velik::time();
        earlyTimer->setTimeoutAt(start + 5.0);
        alsoEarlyTimer->setTimeoutAt(start + 5.0);
        lateTimer->setTimeout(50.0);
        first->scheduleTask();
        second->scheduleTask();

        Platform::doEventLoop(100.0);
        EXPECT_EQ(log, Log{"first"});
        EXPECT_TRUE(second->taskScheduled());
        EXPECT_LT(Velik::time() - start, 1.0);
        EXPECT_FALSE(Platform::eventLoopRunning());

        Platform::doEventLoop(100.0);
        EXPECT_EQ(log, (Log{"first", "second", "early"}));
        EXPECT_GE(Velik::time() - start, 4.99);
        EXPECT_LT(Velik::time() - start, 50.0);
        EXPECT_GT(lateTimer->remainingTimeout(), 40.0);

        Platform::doEventLoop(100.0);
        EXPECT_EQ(log, (Log{"first", "second", "early", "early"}));
        EXPECT_LT(Velik::time() - start, 50.0);

        Platform::doEventLoopInWaitfor(100.0);
        EXPECT_EQ(log, (Log{"first", "second", "early", "early", "late"}));
    });
}

// No loop is running: the request is dropped, it does not end the next run.
TEST_P(StopEventLoop, WithNoLoopRunningIsIgnored) {
    run([] {
        VelikTest::Recorder handler;
        auto timer = Platform::getTimerControl(&handler);
        timer->setTimeout(1.0);
        EXPECT_FALSE(Platform::eventLoopRunning());
        Platform::stopEventLoop();
        Platform::doEventLoop(10.0);
        EXPECT_EQ(handler.log, Log{"t"});
    });
}

using StopFromAnotherThread = testing::TestWithParam<Family>;

INSTANTIATE_TEST_SUITE_P(Families, StopFromAnotherThread,
                         testing::Values(Family::framework, Family::libevent),
                         VelikTest::familyName);

// In real time, with nothing due for a long while: the loop sleeps until the
// post wakes it.
TEST_P(StopFromAnotherThread, PostedStopWakesTheLoopAndEndsIt) {
    VelikTest::onFamily(GetParam(), [] {
        std::shared_ptr<Inbox> box = inbox();
        Log log;
        std::atomic<bool> running{false};
        auto started = std::make_shared<LoggingTask>(log, "started", [&] { running = true; });
        started->scheduleTask();
        VelikTest::Recorder handler;
        auto timer = Platform::getTimerControl(&handler);
        timer->setTimeout(3600.0);
        std::thread stopper([&] {
            while (!running) {
                std::this_thread::yield();
            }
            EXPECT_TRUE(stopEventLoop(box));
        });
        Kiv::activityManager()->config()->executionTimeIs(std::numeric_limits<double>::infinity());
        Platform::doEventLoop();
        stopper.join();
        EXPECT_EQ(log, Log{"started"});
        EXPECT_TRUE(handler.log.empty());
        EXPECT_GT(timer->remainingTimeout(), 3000.0);
        EXPECT_EQ(box->runCount(), 1u);
        closeInbox();
    });
}

}  // namespace
