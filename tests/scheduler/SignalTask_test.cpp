// Signals read as tasks, on a thread that has them blocked.
#include "platform/LoopThread.h"

#include <Velik/PlatformSelection.h>
#include <Velik/SignalTask.h>
#include <Velik/TaskSchedulerRoot.h>

#include <gtest/gtest.h>

#include <csignal>

namespace {

using namespace Velik;

// Standard signals coalesce while pending, real-time ones queue: a burst of
// two standard signals and three real-time ones counts five, in one run,
// with the real-time one last (read in signal-number order).
TEST(SignalTask, CountsABurstInOneRunAndStartsAfreshAfter) {
    VelikTest::onLoopThread([] {
        const int rt = SIGRTMIN;
        blockSignals({SIGUSR1, SIGUSR2, rt});
        using Runs = std::vector<std::pair<std::uint64_t, int>>;
        Runs runs;
        auto task = std::make_shared<SignalTask>(schedulerRootVelik().get(), TaskPriority::high,
                                                 "signals", std::vector<int>{SIGUSR1, SIGUSR2, rt},
                                                 [&](std::uint64_t count, int last) {
                                                     runs.emplace_back(count, last);
                                                     Platform::stopEventLoop();
                                                 });
        for (int signal : {SIGUSR1, SIGUSR2, rt, rt, rt}) {
            ASSERT_EQ(raise(signal), 0);
        }
        Platform::doEventLoop();
        EXPECT_EQ(task->signalCount(), 0u);
        raise(SIGUSR2);
        Platform::doEventLoop();
        EXPECT_EQ(runs, (Runs{{5, rt}, {1, SIGUSR2}}));
        EXPECT_EQ(task->signalCountTotal(), 6u);
    });
}

}  // namespace
