// Tasks on the thread's root, run by the platform's own event loop, on both
// platforms: the framework on the main thread, libevent on a thread with
// thread-local singletons.
#include <Velik/PlatformSelection.h>
#include <unistd.h>

#include <latch>
#include <thread>

#include "platform/Families.h"
#include "platform/Pipe.h"
#include "scheduler/SchedulerFixture.h"

namespace {

using Velik::TaskPriority;
using VelikTest::Family;
using VelikTest::ProbeTask;

using EndToEnd = testing::TestWithParam<Family>;

// Counts its events; a descriptor is served once.
struct LoggingHandler : Velik::Platform::TimeoutHandler, Velik::Platform::FdEventHandler {
    void timeout() override { ++timeouts; }
    void readFdEvent(int) override { ++reads, control->setReads(false); }
    void writeFdEvent(int) override {}
    int timeouts = 0, reads = 0;
    std::shared_ptr<Velik::Platform::FdControl> control;
};

TEST_P(EndToEnd, TasksInterleaveWithTimersAndDescriptors) {
    VelikTest::onFamily(GetParam(), [] {
        auto root = Velik::schedulerRootVelik();
        LoggingHandler handler;
        auto task = std::make_shared<ProbeTask>(root.get(), TaskPriority::normal, "t");
        // The task keeps rescheduling itself until the timer and the
        // descriptor have both been served, so neither may be starved by it;
        // the cap only stops a broken loop (descriptors wait at most about a
        // millisecond while callbacks keep coming).
        constexpr int cap = 2'000'000;
        int slices = 0;
        task->body = [&](ProbeTask& self) {
            if (++slices < cap && handler.timeouts + handler.reads < 2) {
                self.scheduleTask();
            }
        };

        auto timer = Velik::Platform::getTimerControl(&handler);
        VelikTest::Pipe pipe;
        handler.control = Velik::Platform::getFdControl(&handler);
        handler.control->setFd(pipe.fds[0]);
        handler.control->setReads(true);
        pipe.put();

        task->scheduleTask();
        timer->setTimeout(0.0);
        Velik::Platform::doEventLoop();

        EXPECT_LT(slices, cap) << "the task starved the timer or the descriptor";
        EXPECT_EQ(std::pair(handler.timeouts, handler.reads), std::pair(1, 1));
        handler.control->delFd();
    });
}

INSTANTIATE_TEST_SUITE_P(BothPlatforms, EndToEnd,
                         testing::Values(Family::framework, Family::libevent),
                         VelikTest::familyName);

// Each thread its own root: a shared one would fail the thread check.
TEST(EndToEndThreads, SeveralThreadsEachWithItsOwnRootRunAtOnce) {
    constexpr int threads = 3, runsPerThread = 2000;
    std::latch ready(threads);
    std::vector<int> runs(threads, 0);
    std::vector<std::jthread> pool;
    for (int i = 0; i < threads; ++i) {
        pool.emplace_back([&, i] {
            VelikTest::onLoopThread([&] {
                auto root = Velik::schedulerRootVelik();
                auto task = std::make_shared<ProbeTask>(root.get(), TaskPriority::normal, "w");
                task->body = [&](ProbeTask& self) {
                    if (++runs[i] < runsPerThread) {
                        self.scheduleTask();
                    }
                };
                ready.arrive_and_wait();  // start together so the loops really overlap
                task->scheduleTask();
                Velik::Platform::doEventLoop();
            });
        });
    }
    pool.clear();  // joins
    EXPECT_EQ(runs, std::vector<int>(threads, runsPerThread));
}

}  // namespace
