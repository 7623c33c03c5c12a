#include <Velik/PlatformSelection.h>
#include <unistd.h>

#include "platform/LoopThread.h"
#include "platform/Pipe.h"
#include "scheduler/SchedulerFixture.h"

namespace {

using Lines = std::vector<std::string>;
using namespace std::chrono_literals;
using VelikTest::ProbeFd;

class FdTaskTest : public VelikTest::SchedulerTest {
  protected:
    VelikTest::Pipe sockets{true};
    int* fds = sockets.fds;

    std::shared_ptr<ProbeFd> make(const std::string& name = "fd") {
        return std::make_shared<ProbeFd>(root, name, &log);
    }
};

TEST_F(FdTaskTest, WriteSideIsMadeOnDemandWithTheReadSidesSettings) {
    auto t = std::make_shared<ProbeFd>(root.get(), "fd", &log);
    t->taskWatchWritableIs(false);  // unchanged: no write side
    EXPECT_ASSERT_TEXT(t->taskWorkCountWritableInc(1),
                       "FileDescriptorTask::taskWorkCountWritableInc() WriteTask not created by "
                       "taskWatchWritableIs( true )");

    t->taskStatsNameIs("stats");
    t->taskSuspendedIs(true);
    t->taskWatchWritableIs(true);
    auto& w = *t->writeTask();
    EXPECT_EQ(std::tuple(w.taskStatsName().str(), w.taskSuspended()),
              std::tuple("stats:write", true));
    t->taskQuantumIs(7ms);
    t->taskSuspendedIs(false);  // queues both sides, as unsuspending any task does
    EXPECT_EQ(w.taskQuantum(), 7ms);
    EXPECT_TRUE(t->taskScheduledReadable() && t->taskScheduledWritable());

    Velik::TaskSchedulerRoot unshared("unshared", [this](auto*) { return control; });
    EXPECT_THROW(ProbeFd(&unshared, "x", &log), std::bad_weak_ptr);
}

TEST_F(FdTaskTest, NotificationsQueueTheSidesAndWritabilityIsOneShot) {
    auto t = make();
    t->taskWatchFdIs(fds[0]);
    t->taskWatchWritableIs(true);
    root->clearHistory();
    t->writeFdEvent(fds[0]);
    t->readFdEvent(fds[0]);
    t->readFdEvent(fds[0]);  // already queued
    runUntilIdle();
    EXPECT_EQ(log, (Lines{"write", "read"}));
    EXPECT_FALSE(t->taskWatchWritable());
    // The parent is busy from the first queued side until the last one ran.
    EXPECT_TRUE(
        historyHasInOrder({"fdWritable N fd", "schedule N fd:write", "busy N fd", "fdReadable N fd",
                           "schedule N fd:read", "run start N fd:write", "idle N fd:write",
                           "run start N fd:read", "idle N fd:read", "idle N fd"}));
    EXPECT_EQ(historyCount("busy N fd"), 1);

    // Only a new descriptor, or lost interest, unqueues a side.
    t->scheduleTaskReadable();
    t->scheduleTaskWritable();
    t->taskWatchFdIs(fds[0]);
    EXPECT_TRUE(t->taskScheduledReadable() && t->taskScheduledWritable());
    t->taskWatchFdIs(fds[1]);
    EXPECT_FALSE(t->taskScheduled());
    t->scheduleTaskReadable();
    t->taskWatchReadableIs(false);
    EXPECT_FALSE(t->taskScheduled());
}

TEST_F(FdTaskTest, HandlersRunOneAtATime) {
    auto t = make();
    t->taskForceYieldInTestIs(true);
    std::string nested;
    t->onRead = [&](ProbeFd& self) {
        EXPECT_TRUE(self.taskShouldYield());  // asks the running side
        nested = VelikTest::assertMessageOf([&] { self.writeTask()->taskRunFromTest(); });
    };
    t->taskWatchWritableIs(true);
    t->readTask()->taskRunFromTest();
    EXPECT_THAT(nested, testing::HasSubstr("FileDescriptorTask::_taskExecuteWritable() "
                                           "Executing task already set"));
    t->taskWatchReadableIs(false);
    EXPECT_ASSERT_TEXT(t->readTask()->taskRunFromTest(),
                       "FileDescriptorTask::_taskExecuteReadable() ReadTask should only run if "
                       "taskWatchReadable");
    EXPECT_ASSERT_TEXT(t->taskWorkCountInc(1), "Called outside taskExecuteReadable");

    t->onWrite = [](ProbeFd&) { throw std::runtime_error("write failed"); };
    t->scheduleTaskWritable();
    EXPECT_THROW(runOnce(), std::runtime_error);
    EXPECT_EQ(t->executingTask(), nullptr);  // the next run is not locked out
}

TEST_F(FdTaskTest, TeardownWithASideStillQueued) {
    auto t = make();
    t->taskWatchFdIs(fds[0]);
    std::shared_ptr<Velik::TaskImpl> readSide = t->readTask();
    t->scheduleTaskReadable();
    t->scheduleTaskWritable();
    t.reset();  // the write side goes with it; the read side is held here
    runUntilIdle();
    EXPECT_EQ(readSide->taskRunCount(), 1u);
    EXPECT_TRUE(log.empty());
    make()->taskWatchFdIs(fds[0]);  // the old watch has ended

    auto self = make("self");
    std::weak_ptr<ProbeFd> weak = self;
    self->onRead = [&](ProbeFd&) {
        self.reset();  // the last outside reference
        EXPECT_FALSE(weak.expired());
    };
    self->scheduleTaskReadable();
    runUntilIdle();
    EXPECT_TRUE(weak.expired());
}

using FdTaskDeathTest = FdTaskTest;

TEST_F(FdTaskDeathTest, NotificationsNotAskedForAbortEvenWhenAssertionsThrow) {
    auto t = make();
    t->taskWatchFdIs(fds[0]);
    VelikTest::ThrowingAsserts throwing;
    EXPECT_DEATH(t->writeFdEvent(fds[0]), "writeFdEvent\\(\\) called with taskWatchWritable off");
    EXPECT_DEATH(t->readFdEvent(fds[1]),
                 fmt::format("Notified about {} watching {}", fds[1], fds[0]));
    t->taskWatchReadableIs(false);
    EXPECT_DEATH(t->readFdEvent(fds[0]), "readFdEvent\\(\\) called with taskWatchReadable off");
}

// A descriptor reported again and again while its read side waits has its
// read interest paused until the side runs, which resumes it: data left
// unread is still seen (a lost resume leaves the run to its time limit).
TEST(FdTaskLibevent, RepeatedReportsPauseReadInterestUntilTheSideRuns) {
    VelikTest::onLoopThread([] {
        constexpr int tasks = 20, bytes = 3;
        std::vector<VelikTest::Pipe> pairs(tasks);
        std::vector<std::shared_ptr<ProbeFd>> readers;
        Lines log;
        for (VelikTest::Pipe& pair : pairs) {
            ASSERT_EQ(write(pair.fds[1], "abc", bytes), bytes);
            readers.push_back(std::make_shared<ProbeFd>(Velik::schedulerRootVelik(), "r", &log));
            readers.back()->onRead = [&, fd = pair.fds[0], got = 0](ProbeFd& self) mutable {
                char c;
                ASSERT_EQ(read(fd, &c, 1), 1);  // one byte a run: the rest stays readable
                if (++got == bytes) {
                    self.taskWatchFdDel();
                }
                if (log.size() == std::size_t{tasks * bytes}) {
                    Velik::Platform::stopEventLoop();
                }
            };
            readers.back()->taskWatchFdIs(pair.fds[0]);
        }
        Velik::Platform::doEventLoop(5.0);
        EXPECT_EQ(log.size(), std::size_t{tasks * bytes});
    });
}

}  // namespace
