// Tasks from callables, the shared-pointer constructors, and the assertion
// for a task that no shared pointer owns.
#include <Velik/LambdaTask.h>
#include <Velik/PlatformSelection.h>
#include <Velik/TaskGroup.h>

#include "platform/Families.h"
#include "platform/Pipe.h"
#include "scheduler/SchedulerFixture.h"

#include <unistd.h>

#include <string>
#include <vector>

namespace {

using namespace Velik;
using VelikTest::SchedulerTest;

using LambdaTaskTest = SchedulerTest;

// The callable gets its own task: it yields and reschedules through it, and
// what it captures lives in the task (no allocation of its own).
TEST_F(LambdaTaskTest, CallableYieldsAndReschedulesThroughItsTask) {
    int slices = 0;
    auto task = makeTask(root, TaskPriority::normal, "slicer", [&slices](Task& self) {
        ++slices;
        // Forced ratio 2: the second check says yield.
        while (!self.taskShouldYield()) {
        }
        if (slices < 3) {
            self.scheduleTask();
        }
    });
    task->taskTestYieldRatioIs(2);
    task->scheduleTask();
    runUntilIdle();
    EXPECT_EQ(slices, 3);
    EXPECT_FALSE(task->taskBusy());

    // The timer kind re-arms itself, here at an absolute time.
    VelikTest::virtualTimeIs(VelikTest::Family::framework, true);
    int runs = 0;
    auto timer = makeTimerTask(root.get(), TaskPriority::low, "again", [&runs](TimerTask& self) {
        if (++runs < 3) {
            self.scheduleTaskAt(Velik::time() + 0.5);
        }
    });
    timer->scheduleTaskDelay(0.5);
    for (int i = 0; i < 3; ++i, runUntilIdle()) {
        Platform::doEventLoop(1.0);
    }
    VelikTest::virtualTimeIs(VelikTest::Family::framework, false);
    EXPECT_EQ(runs, 3);
    EXPECT_FALSE(timer->taskScheduled());
}

// Every task kind takes a root's or a group's shared pointer as well as a
// plain pointer (the factories pass either on to the constructors).
TEST_F(LambdaTaskTest, SharedPointerConstructorsForRootAndGroup) {
    struct Plain : Task {
        using Task::Task;
        void taskExecute() override {}
    };
    auto group = TaskGroupIs("g", TaskPriority::normal, false, root.get());
    auto inner = std::make_shared<TaskGroup>("inner", TaskPriority::normal, false, group.get());
    auto a = std::make_shared<Plain>(root, TaskPriority::normal, "a");
    auto b = std::make_shared<Plain>(group, TaskPriority::normal, "b");
    auto c = makeTimerTask(inner, TaskPriority::normal, "c", [](TimerTask&) {});
    auto d = makeFdTask(group.get(), TaskPriority::normal, "d", -1, [](FileDescriptorTask&) {});
    auto e = makeFdTask(root, TaskPriority::normal, "e", -1, [](FileDescriptorTask&) {});
    EXPECT_EQ(a->scheduler(), root.get());
    EXPECT_EQ(b->scheduler(), group.get());
    EXPECT_EQ(c->scheduler(), inner.get());
    EXPECT_EQ(d->readTask()->scheduler(), group.get());
    EXPECT_EQ(e->readTask()->scheduler(), root.get());
    EXPECT_EQ(inner->parentScheduler(), group);
    b->scheduleTask();  // through the group to the root
    runUntilIdle();
    EXPECT_EQ(b->taskRunCount(), 1u);
}

// A task no shared pointer owns fails at its first run with a text that
// says what to do, not a bare std::bad_weak_ptr from the scheduler.
TEST_F(LambdaTaskTest, UnownedTaskAssertsNamingItself) {
    auto body = [](Task&) {};
    LambdaTask<decltype(body)> stray(root, TaskPriority::normal, "stray", body);
    stray.scheduleTask();  // from a constructor this is legitimate: no check yet
    EXPECT_ASSERT_TEXT(runOnce(),
                       "Task stray is not owned by a std::shared_ptr: create it with "
                       "std::make_shared");

    // A descriptor task's sides are owned by it; the parent itself is checked
    // when a side runs.
    auto read = [](FileDescriptorTask&) {};
    LambdaFdTask<decltype(read), Impl::NoFdHandler> pipeTask(root, TaskPriority::normal, "pipe",
                                                             read, Impl::NoFdHandler{});
    pipeTask.scheduleTaskReadable();
    EXPECT_ASSERT_TEXT(runOnce(), "Task pipe is not owned by a std::shared_ptr");
}

using LambdaFd = VelikTest::FamilyTest;

// A descriptor task from two callables reads what arrives and writes once
// per write interest, through the real loop of each platform.
TEST_P(LambdaFd, ReadsAndWritesThroughItsCallables) {
    run([] {
        VelikTest::Pipe pipe(true);
        std::vector<std::string> log;
        auto task = makeFdTask(
            schedulerRootVelik(), TaskPriority::normal, "echo", pipe.fds[0],
            [&log](FileDescriptorTask& self) {
                char c;
                EXPECT_EQ(read(self.taskWatchFd(), &c, 1), 1);
                log.push_back(std::string("r") + c);
                self.taskWatchWritableIs(true);
            },
            [&log](FileDescriptorTask& self) {
                EXPECT_EQ(write(self.taskWatchFd(), "y", 1), 1);
                log.push_back("w");
            });
        pipe.put();
        for (int i = 0; i < 4; ++i) {  // readable, read run, writable, write run
            hasThreadLocalSingletons() ? VelikTest::loopPass() : Platform::doEventLoop(0.0);
        }
        char c = 0;
        EXPECT_EQ(read(pipe.fds[1], &c, 1), 1);
        EXPECT_EQ(c, 'y');
        EXPECT_EQ(log, (std::vector<std::string>{"rx", "w"}));
        EXPECT_EQ(task->taskRunCountWritable(), 1u);  // one shot
    });
}

INSTANTIATE_TEST_SUITE_P(BothPlatforms, LambdaFd,
                         testing::Values(VelikTest::Family::framework, VelikTest::Family::libevent),
                         VelikTest::familyName);

}  // namespace
