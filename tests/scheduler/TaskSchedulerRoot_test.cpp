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
    root->registerScheduler(root.get());
}

// A suspended root asks for no run and runs nothing; unsuspending asks for
// one even with nothing queued. Each change is recorded once.
TEST_F(TaskSchedulerRootTest, SuspensionHoldsRunsAndIsRecordedOncePerChange) {
    auto t = task(TaskPriority::normal, "t");
    root->suspendedIs(true);
    root->suspendedIs(true);
    t->scheduleTask();
    EXPECT_EQ(control->requests, 0);
    runOnce();
    EXPECT_TRUE(log.empty());
    root->suspendedIs(false);
    root->suspendedIs(false);
    EXPECT_EQ(control->requests, 1);
    EXPECT_TRUE(historyHasInOrder({"schedulerSuspended testRoot",
                                   "schedulerRunIgnoredWhileSuspended testRoot",
                                   "schedulerUnsuspended testRoot"}));
    EXPECT_EQ(historyCount("schedulerSuspended testRoot"), 1);
    runUntilIdle();
    EXPECT_EQ(log, std::vector<std::string>{"t"});
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
    });
}

// A name given before the root is made replaces the thread id; afterwards
// only the same name is accepted.
TEST(SchedulerRootVelik, ANameGivenFirstIsTheRootsName) {
    std::thread([] {
        Velik::schedulerRootVelikNameIs("worker7");
        EXPECT_EQ(Velik::schedulerRootVelik()->schedulerName().str(), "worker7");
        Velik::schedulerRootVelikNameIs("worker7");
        EXPECT_THROW(Velik::schedulerRootVelikNameIs("worker8"), Velik::RuntimeException);
    }).join();
}

}  // namespace
