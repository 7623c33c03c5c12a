#include <Velik/Thread.h>

#include "platform/LoopThread.h"
#include "scheduler/SchedulerFixture.h"

#include <pthread.h>

#include <thread>

namespace {

using Velik::TaskPriority;

class TaskSchedulerRootTest : public VelikTest::SchedulerTest {};

TEST_F(TaskSchedulerRootTest, SchedulerRegistryErrors) {
    EXPECT_EQ(root->findSchedulerForTest("testRoot").get(), root.get());
    EXPECT_ASSERT_TEXT(root->registerScheduler(root.get()), "insert failed for testRoot");
    root->unregisterScheduler(root.get());
    EXPECT_ASSERT_TEXT(root->unregisterScheduler(root.get()), "delete failed for testRoot");
    EXPECT_ASSERT_TEXT(root->taskGroupCount(), "");  // raises, whatever the text
    root->registerScheduler(root.get());
}

TEST_F(TaskSchedulerRootTest, SwitchesAreRecordedOnlyWhenTheyChange) {
    root->virtualTimeIs(true);
    root->virtualTimeIs(true);
    root->taskTestYieldRatioIs(4);
    root->taskTestYieldRatioIs(4);
    root->taskTestYieldRatioIs(0);
    root->virtualTimeIs(false);
    auto t = task(TaskPriority::normal, "t");
    root->suspendedIs(true);
    root->suspendedIs(true);
    t->scheduleTask();
    EXPECT_EQ(control->requests, 0);  // no callback while suspended
    runOnce();
    EXPECT_TRUE(log.empty());
    root->suspendedIs(false);
    EXPECT_EQ(control->requests, 1);
    // Each switch is recorded once, in order.
    const std::vector<std::string> switches = {
        "schedulerVirtualTimeOn testRoot",     "schedulerTestYieldRatioOn testRoot",
        "schedulerTestYieldRatioOff testRoot", "schedulerVirtualTimeOff testRoot",
        "schedulerSuspended testRoot",         "schedulerRunIgnoredWhileSuspended testRoot",
        "schedulerUnsuspended testRoot"};
    EXPECT_TRUE(historyHasInOrder(switches));
    for (const std::string& once : switches) {
        EXPECT_EQ(historyCount(once), 1) << once;
    }
    runUntilIdle();
    EXPECT_EQ(log, std::vector<std::string>{"t"});
    // Unsuspending requests a run even with nothing queued.
    root->suspendedIs(true);
    root->suspendedIs(false);
    EXPECT_EQ(control->requests, 3);
}

TEST_F(TaskSchedulerRootTest, OtherThreadsPassTheCheckOnlyWhenAllowed) {
    auto t = task(TaskPriority::normal, "x");
    root->threadSanityDisabledIs(true);
    std::thread([&] { t->scheduleTask(); }).join();
    t->unscheduleTask();
    root->threadSanityDisabledIs(false);

    Velik::auxThreadCountInc();
    std::thread([&] { t->scheduleTask(); }).join();
    Velik::auxThreadCountDec();
    EXPECT_TRUE(t->taskScheduled());
}

using TaskSchedulerRootDeathTest = TaskSchedulerRootTest;

TEST_F(TaskSchedulerRootDeathTest, SchedulingFromAnotherThreadAborts) {
    // A forked child passes the check by design: the child re-runs the test.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto t = task(TaskPriority::normal, "wrong");
    EXPECT_DEATH(std::thread([&] { t->scheduleTask(); }).join(),
                 "Executing in wrong thread [0-9]+\\(.*\\) pid [0-9]+ scheduler belongs to "
                 "thread [0-9]+\\(.*\\) pid [0-9]+");
}

TEST(SchedulerRootVelik, OneRootPerThreadNamedAfterTheThread) {
    VelikTest::onLoopThread([] {
        auto first = Velik::schedulerRootVelik();
        EXPECT_EQ(Velik::schedulerRootVelik(), first);
        EXPECT_FALSE(first->followVirtualTime());
        EXPECT_EQ(first->schedulerName().str(),
                  fmt::format("thread:{}", static_cast<unsigned long>(pthread_self())));
        EXPECT_NE(Velik::schedulerRootVelikNonShared("loose"), first);
    });
}

}  // namespace
