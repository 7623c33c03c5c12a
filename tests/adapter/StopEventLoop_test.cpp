// Stopping the loop from inside it, on both platform families: from a task,
// from a handler and, through the inbox, from another thread. A stopped loop
// keeps everything it had, and the next run carries on with it.
#include "platform/Families.h"
#include "platform/Recorder.h"
#include "scheduler/SchedulerFixture.h"

#include <Velik/Inbox.h>
#include <Velik/PlatformSelection.h>

#include <atomic>
#include <thread>

namespace {

using namespace Velik;
using VelikTest::Family;
using Log = std::vector<std::string>;

// A scheduled task on the thread's root that logs its run and then does `body`.
std::shared_ptr<VelikTest::ProbeTask> scheduled(
    Log& log, const char* name, std::function<void()> body = [] {}) {
    auto task = std::make_shared<VelikTest::ProbeTask>(schedulerRootVelik().get(),
                                                       TaskPriority::normal, name, &log);
    task->body = [body = std::move(body)](VelikTest::ProbeTask&) { body(); };
    task->scheduleTask();
    return task;
}

using StopEventLoop = VelikTest::FamilyTest;

INSTANTIATE_TEST_SUITE_P(Families, StopEventLoop,
                         testing::Values(Family::framework, Family::libevent),
                         VelikTest::familyName);

// Under virtual time a run jumps from timer to timer: a stop must end the
// jumping too, and leave the tasks and timers not reached for the next run.
// A stop asked with no loop running is dropped, not kept for the next run.
TEST_P(StopEventLoop, FromATaskOrAHandlerEndsTheRunAndTheNextRunCarriesOn) {
    run([] {
        Log log;
        Platform::stopEventLoop();
        auto first = scheduled(log, "first", [] { Platform::stopEventLoop(); });
        auto second = scheduled(log, "second");
        // Two timers due at once, each stopping the loop: a run ends after
        // the first of them, whichever the platform takes first.
        VelikTest::Recorder early[2], late;
        std::vector<std::shared_ptr<Platform::TimerControl>> timers;
        const double start = Velik::time();
        for (VelikTest::Recorder& each : early) {
            each.inside = [&] { log.push_back("early"), Platform::stopEventLoop(); };
            timers.push_back(Platform::getTimerControl(&each));
            timers.back()->setTimeoutAt(start + 5.0);
        }
        late.inside = [&] { log.push_back("late"); };
        auto lateTimer = Platform::getTimerControl(&late);
        lateTimer->setTimeout(50.0);

        Platform::doEventLoop(100.0);
        EXPECT_EQ(log, Log{"first"});
        EXPECT_TRUE(second->taskScheduled());
        EXPECT_LT(Velik::time() - start, 1.0);
        EXPECT_FALSE(Platform::eventLoopRunning());

        Platform::doEventLoop(100.0);
        EXPECT_EQ(log, (Log{"first", "second", "early"}));
        EXPECT_GE(Velik::time() - start, 4.99);
        EXPECT_GT(lateTimer->remainingTimeout(), 40.0);
        Platform::doEventLoop(100.0);
        EXPECT_EQ(log, (Log{"first", "second", "early", "early"}));
        EXPECT_LT(Velik::time() - start, 50.0);
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
        auto started = scheduled(log, "started", [&] { running = true; });
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
        EXPECT_EQ(box->runCount(), 1u);
        closeInbox();
    });
}

}  // namespace
