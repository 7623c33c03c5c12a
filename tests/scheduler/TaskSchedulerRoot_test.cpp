#include <Velik/LibeventFactory.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/Thread.h>

#include "foundation/ThrowingAsserts.h"
#include "scheduler/SchedulerFixture.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <stdexcept>
#include <thread>

namespace {

using Velik::TaskPriority;
using VelikTest::assertMessageOf;
using VelikTest::ProbeTask;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class TaskSchedulerRootTest : public VelikTest::SchedulerTest {};

TEST_F(TaskSchedulerRootTest, KnowsItsSchedulersAndTasks) {
    EXPECT_EQ(root->schedulers().size(), 1u);
    EXPECT_EQ(root->taskGroupCount(), 0u);
    EXPECT_EQ(root->findSchedulerForTest("testRoot").get(), root.get());
    EXPECT_EQ(root->findSchedulerForTest("nobody"), nullptr);
    auto a = task(TaskPriority::normal, "a");
    auto b = task(TaskPriority::low, "b");
    EXPECT_EQ(root->totalRegisteredTaskCount(), 2u);
    EXPECT_EQ(root->pid(), getpid());
    EXPECT_TRUE(pthread_equal(root->threadId(), pthread_self()));
    EXPECT_TRUE(root->followVirtualTime());  // gtest runs on the main thread

    std::string message = assertMessageOf([&] { root->registerScheduler(root.get()); });
    EXPECT_TRUE(contains(message, "insert failed for testRoot")) << message;
    root->unregisterScheduler(root.get());
    message = assertMessageOf([&] { root->unregisterScheduler(root.get()); });
    EXPECT_TRUE(contains(message, "delete failed for testRoot")) << message;
    message = assertMessageOf([&] { root->taskGroupCount(); });
    EXPECT_FALSE(message.empty());
    root->registerScheduler(root.get());
}

TEST_F(TaskSchedulerRootTest, SwitchesAreRecordedOnlyWhenTheyChange) {
    root->virtualTimeIs(true);
    root->virtualTimeIs(true);
    root->taskTestYieldRatioIs(4);
    root->taskTestYieldRatioIs(4);
    root->taskTestYieldRatioIs(0);
    root->virtualTimeIs(false);
    EXPECT_EQ(historyLines(), (std::vector<std::string>{
                                  "schedulerVirtualTimeOff testRoot",
                                  "schedulerTestYieldRatioOff testRoot",
                                  "schedulerTestYieldRatioOn testRoot",
                                  "schedulerVirtualTimeOn testRoot",
                              }));
}

TEST_F(TaskSchedulerRootTest, HistoryControls) {
    EXPECT_EQ(root->historyEntryCount(), 100u);
    auto t = task(TaskPriority::normal, "h");
    for (int i = 0; i < 60; ++i) {
        t->scheduleTask();
        t->unscheduleTask();
    }
    EXPECT_EQ(root->history()->size(), 100u);
    root->historyEntryCountIs(10);
    EXPECT_EQ(root->historyEntryCount(), 10u);
    EXPECT_EQ(historyLines().front(), "unschedule N h");
    EXPECT_TRUE(contains(root->historyRenderTextForDebugToString(), "Last 10 scheduler events"));
    root->clearHistory();
    EXPECT_EQ(root->history()->size(), 0u);
}

TEST_F(TaskSchedulerRootTest, RandomPercentIsTheSameSequenceInEveryNewRoot) {
    auto other =
        std::make_shared<Velik::TaskSchedulerRoot>("other", [](Velik::Platform::CallbackHandler*) {
            return std::make_shared<VelikTest::CountingCallbackControl>();
        });
    unsigned seed = 0;
    for (int i = 0; i < 20; ++i) {
        unsigned expected = static_cast<unsigned>(rand_r(&seed)) / 21474836u;
        unsigned a = root->randomPercent();
        EXPECT_EQ(a, expected);
        EXPECT_EQ(other->randomPercent(), a);
        EXPECT_LE(a, 100u);
    }
}

TEST_F(TaskSchedulerRootTest, OtherThreadsPassTheCheckOnlyWhenAllowed) {
    auto t = task(TaskPriority::normal, "x");
    root->threadSanityDisabledIs(true);
    std::thread([&] { t->scheduleTask(); }).join();
    EXPECT_TRUE(t->taskScheduled());
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

// --- The thread's own root, driven by the libevent loop ---

// Runs `body` on a thread with its own event base.
void onLibeventThread(const std::function<void()>& body) {
    std::exception_ptr failure;
    std::thread thread([&] {
        Velik::useThreadLocalSingletons();
        try {
            body();
        } catch (...) {
            failure = std::current_exception();
        }
    });
    thread.join();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

TEST(SchedulerRootVelik, OneRootPerThreadNamedAfterTheThread) {
    std::string name;
    bool same = false;
    const Velik::TaskSchedulerRoot* threadRoot = nullptr;
    onLibeventThread([&] {
        // Frees the thread's event base at thread exit, after the thread's
        // root: thread-local objects die in reverse order of construction.
        struct BaseFreer {
            ~BaseFreer() { Velik::leFree(); }
        };
        static thread_local BaseFreer freer;
        (void)&freer;
        auto first = Velik::schedulerRootVelik();
        auto second = Velik::schedulerRootVelik();
        same = first == second;
        threadRoot = first.get();
        name = first->schedulerName().str();
        EXPECT_FALSE(first->followVirtualTime());
        EXPECT_EQ(fmt::format("thread:{}", static_cast<unsigned long>(pthread_self())), name);
    });
    EXPECT_TRUE(same);
    EXPECT_TRUE(contains(name, "thread:"));
    EXPECT_NE(threadRoot, nullptr);
    auto nonShared = Velik::schedulerRootVelikNonShared("loose");
    EXPECT_EQ(nonShared->schedulerName().str(), "loose");
}

TEST(SchedulerRootVelik, EventLoopRunsTasksOnePerCallbackUntilIdle) {
    onLibeventThread([] {
        std::vector<std::string> log;
        {
            auto root = Velik::TaskSchedulerRootIs("loop");
            auto worker = std::make_shared<ProbeTask>(root.get(), TaskPriority::normal, "w", &log);
            auto urgent = std::make_shared<ProbeTask>(root.get(), TaskPriority::high, "u", &log);
            int slices = 3;
            worker->body = [&](ProbeTask& self) {
                if (--slices > 0) {
                    self.scheduleTask();
                }
            };
            worker->scheduleTask();
            urgent->scheduleTask();
            EXPECT_TRUE(root->callbackControl()->pendingCallback());
            Velik::doLeEventLoop();
            EXPECT_EQ(log, (std::vector<std::string>{"u", "w", "w", "w"}));
            EXPECT_FALSE(root->schedulerHasRunnableTasks());

            // An exception from a task leaves the event loop.
            urgent->body = [](ProbeTask&) { throw std::runtime_error("boom"); };
            urgent->scheduleTask();
            EXPECT_THROW(Velik::doLeEventLoop(), std::runtime_error);
        }
        Velik::leFree();
    });
}

}  // namespace
