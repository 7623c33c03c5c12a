// Coroutine tasks: each wait on both platforms under virtual time, cancelling
// each wait, results and exceptions between tasks and out of the loop, the
// memory a coroutine costs, and moves between threads.
#include <Velik/CoroutineTask.h>
#include <Velik/Exception.h>
#include <Velik/PlatformSelection.h>
#include <Velik/Time.h>

#include "CountingAllocator.h"
#include "platform/Families.h"
#include "platform/Pipe.h"
#include "scheduler/SchedulerFixture.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <thread>

namespace {

using namespace Velik;
using namespace std::chrono_literals;

// Notes where a body got to, in order.
using Trace = std::vector<std::string>;

void pass() {
    hasThreadLocalSingletons() ? VelikTest::loopPass() : Platform::doEventLoop(0.0);
}

Co<> sleeper(Trace* trace, double start) {
    co_await sleepFor(2s);
    trace->push_back(fmt::format("slept {:.2f}", Velik::time() - start));
    co_await sleepUntil(start + 5.0);
    trace->push_back(fmt::format("until {:.2f}", Velik::time() - start));
    co_await sleepFor(0.0);  // only yields
    trace->push_back("zero");
}

Co<> pipeReader(Trace* trace, int in, int out) {
    co_await readable(in);
    char c = 0;
    EXPECT_EQ(read(in, &c, 1), 1);
    co_await writable(out);
    EXPECT_EQ(write(out, &c, 1), 1);
    trace->push_back(std::string("echoed ") + c);
}

Co<> slices(Trace* trace, int count) {
    for (int i = 0; i < count; ++i) {
        co_await yieldIfDue();
    }
    if (trace) {
        trace->push_back("sliced");
    }
}

using CoroutineFamily = VelikTest::FamilyTest;

// Timers, descriptors and yields through each platform's real loop, with
// every resumption one run of the task.
TEST_P(CoroutineFamily, EachWaitResumesThroughTheLoop) {
    run([] {
        Trace trace;
        auto sleeping = spawn(schedulerRootVelik(), TaskPriority::normal, "sleeper", sleeper,
                              &trace, Velik::time());
        Platform::doEventLoop(10.0);
        EXPECT_EQ(trace, (Trace{"slept 2.00", "until 5.00", "zero"}));
        EXPECT_EQ(sleeping->coroutineWait(), CoroutineWait::done);

        VelikTest::Pipe in(true);
        VelikTest::Pipe out(true);
        auto echo = spawn(schedulerRootVelik(), TaskPriority::normal, "echo", pipeReader, &trace,
                          in.fds[0], out.fds[1]);
        pass();
        EXPECT_EQ(echo->coroutineWait(), CoroutineWait::readable);
        EXPECT_EQ(echo->coroutineWaitDetail(), std::to_string(in.fds[0]));
        in.put();
        for (int i = 0; i < 6 && !echo->coroutineDone(); ++i) {
            pass();
        }
        char c = 0;
        EXPECT_EQ(read(out.fds[0], &c, 1), 1);
        EXPECT_EQ(trace.back(), "echoed x");

        auto sliced =
            spawn(schedulerRootVelik(), TaskPriority::normal, "slices", slices, &trace, 5);
        sliced->taskForceYieldInTestIs(true);
        Platform::doEventLoop(1.0);
        EXPECT_EQ(sliced->taskRunCount(), 6u) << ::testing::PrintToString(trace);
    });
}

// Dropping the task while it waits stops the wait: the loop has nothing
// left, the body never goes on, and its frame (with the parameter it holds)
// is gone.
TEST_P(CoroutineFamily, DroppingTheTaskCancelsEachWait) {
    run([] {
        VelikTest::Pipe pipe(true);
        auto held = std::make_shared<int>(0);
        auto wait = [](std::shared_ptr<int> n, int fd, int kind) -> Co<> {
            if (kind == 0) {
                co_await sleepFor(1.0);
            } else {
                co_await readable(fd);
            }
            ++*n;
        };
        for (int kind : {0, 1}) {
            auto task = spawn(schedulerRootVelik(), TaskPriority::normal, "waiter", wait, held,
                              pipe.fds[0], kind);
            pass();
            EXPECT_EQ(task->coroutineWait(),
                      kind == 0 ? CoroutineWait::timer : CoroutineWait::readable);
            EXPECT_EQ(held.use_count(), 2);
            task.reset();
            EXPECT_EQ(held.use_count(), 1);
            pipe.put();
            Platform::doEventLoop(5.0);
            EXPECT_EQ(*held, 0);
        }
    });
}

INSTANTIATE_TEST_SUITE_P(BothPlatforms, CoroutineFamily,
                         testing::Values(VelikTest::Family::framework, VelikTest::Family::libevent),
                         VelikTest::familyName);

// --- Between tasks, on a root driven by hand ---

using CoroutineTest = VelikTest::SchedulerTest;

Co<int> answer(int value, bool fail) {
    co_await yieldIfDue();
    if (fail) {
        throw std::runtime_error("no answer");
    }
    co_return value;
}

Co<> asker(std::shared_ptr<CoroutineTask<int>> one, Trace* trace) {
    trace->push_back(fmt::format("got {}", co_await one));
    co_return;
}

TEST_F(CoroutineTest, AnAwaiterGetsTheResultOrTheException) {
    Trace trace;
    auto one = spawn(root, TaskPriority::normal, "one", answer, 42, false);
    one->taskForceYieldInTestIs(true);
    auto waiting = spawn(root, TaskPriority::high, "asker", asker, one, &trace);
    runOnce(2);  // one yields; asker waits on it
    EXPECT_EQ(waiting->coroutineWait(), CoroutineWait::task);
    EXPECT_EQ(waiting->coroutineWaitDetail(), "one");
    runUntilIdle();
    EXPECT_EQ(trace, Trace{"got 42"});
    EXPECT_EQ(one->result(), 42);

    auto failing = spawn(root, TaskPriority::normal, "failing", answer, 0, true);
    auto failed = spawn(root, TaskPriority::high, "asker", asker, failing, &trace);
    // Awaited when it throws: the awaiter gets it, the loop does not. Not
    // awaited by anyone: it leaves the run.
    EXPECT_THROW(runUntilIdle(), std::runtime_error);
    EXPECT_EQ(failed->coroutineWaitDetail(), "exception");
    EXPECT_THROW(failing->result(), std::runtime_error);

    auto alone = spawn(root, TaskPriority::normal, "alone", answer, 0, true);
    EXPECT_THROW(runUntilIdle(), std::runtime_error);
    EXPECT_EQ(alone->coroutineWaitDetail(), "exception");
}

TEST_F(CoroutineTest, AllWaitsForEveryTaskAndRethrowsTheFirstFailureInOrder) {
    auto group = [](std::shared_ptr<CoroutineTask<int>> a, std::shared_ptr<CoroutineTask<int>> b,
                    std::shared_ptr<CoroutineTask<void>> c) -> Co<int> {
        co_await all(a, b, c);
        co_return a->result() + b->result();
    };
    auto quick = [](int n) -> Co<int> { co_return n; };
    auto nothing = []() -> Co<> { co_return; };
    auto a = spawn(root, TaskPriority::normal, "a", answer, 1, false);
    auto b = spawn(root, TaskPriority::normal, "b", quick, 2);
    auto c = spawn(root, TaskPriority::normal, "c", nothing);
    a->taskForceYieldInTestIs(true);
    auto sum = spawn(root, TaskPriority::high, "sum", group, a, b, c);
    runOnce();
    EXPECT_EQ(sum->coroutineWait(), CoroutineWait::all);
    EXPECT_EQ(sum->coroutineWaitDetail(), "3");
    runOnce(2);  // a yields, b ends
    EXPECT_EQ(sum->coroutineWaitDetail(), "2");
    runUntilIdle();
    EXPECT_EQ(sum->result(), 3);

    auto bad1 = spawn(root, TaskPriority::normal, "bad1", answer, 0, true);
    bad1->taskForceYieldInTestIs(true);
    auto bad2 = spawn(root, TaskPriority::normal, "bad2", []() -> Co<int> {
        throw std::logic_error("second");
        co_return 0;
    });
    auto failed = spawn(root, TaskPriority::high, "sum", group, bad1, bad2, c);
    EXPECT_THROW(runUntilIdle(), std::runtime_error);    // nobody awaits the sum
    EXPECT_THROW(failed->result(), std::runtime_error);  // bad1's, though bad2 threw first
}

// A waiting frame destroyed first leaves the awaited task's list: the
// awaited task ends later without touching it (ASan would see the use).
TEST_F(CoroutineTest, AnAwaiterDroppedFirstLeavesTheList) {
    Trace trace;
    auto a = spawn(root, TaskPriority::low, "a", answer, 1, false);
    a->taskForceYieldInTestIs(true);
    auto first = spawn(root, TaskPriority::high, "x", asker, a, &trace);
    auto second = spawn(root, TaskPriority::high, "y", asker, a, &trace);
    auto third = spawn(root, TaskPriority::high, "z", asker, a, &trace);
    runOnce(3);
    second.reset();
    first.reset();
    runUntilIdle();
    EXPECT_EQ(trace, Trace{"got 1"});
    EXPECT_TRUE(a->coroutineDone());
    EXPECT_TRUE(third->coroutineDone());
}

// Whether an epoll set of this process watches `fd` for readability: the
// kernel's view of the watch, whatever the control believes.
bool epollWatchesReads(int fd) {
    namespace fs = std::filesystem;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (fs::read_symlink(entry.path(), error) != "anon_inode:[eventpoll]") {
            continue;
        }
        std::ifstream info("/proc/self/fdinfo/" + entry.path().filename().string());
        for (std::string line; std::getline(info, line);) {
            int target = -1;
            unsigned events = 0;
            if (std::sscanf(line.c_str(), "tfd: %d events: %x", &target, &events) == 2 &&
                target == fd && (events & EPOLLIN) != 0) {
                return true;
            }
        }
    }
    return false;
}

// Reads a byte after each of `count` waits, then sleeps with the descriptor
// left readable.
Co<> byteReader(int fd, int count, Trace* trace) {
    for (int i = 0; i < count; ++i) {
        co_await readable(fd);
        char c = 0;
        EXPECT_EQ(read(fd, &c, 1), 1);
        trace->push_back("read");
    }
    co_await sleepFor(60.0);
    trace->push_back("slept");
}

// The read watch stays armed from a wait to the next one on the same
// descriptor, reports while the task is queued are the run's, and the watch
// ends with the first run that does not wait on it again.
TEST_F(CoroutineTest, TheReadWatchStaysArmedFromOneWaitToTheNext) {
    VelikTest::Pipe pipe(true);
    const int fd = pipe.fds[0];
    Trace trace;
    auto reader = spawn(root, TaskPriority::normal, "reader", byteReader, fd, 2, &trace);
    runUntilIdle();
    EXPECT_TRUE(epollWatchesReads(fd));
    pipe.put();
    pipe.put();
    Platform::doEventLoop(0.0);  // reported: queued
    EXPECT_EQ(reader->coroutineWait(), CoroutineWait::ready);
    EXPECT_TRUE(epollWatchesReads(fd));
    Platform::doEventLoop(0.0);  // reported again while queued: left to the run
    runUntilIdle();              // reads one; the other is still there
    EXPECT_EQ(trace, Trace{"read"});
    EXPECT_EQ(reader->coroutineWait(), CoroutineWait::readable);
    EXPECT_TRUE(epollWatchesReads(fd));
    Platform::doEventLoop(0.0);
    runUntilIdle();  // reads the second, then sleeps
    EXPECT_EQ(trace, (Trace{"read", "read"}));
    EXPECT_EQ(reader->coroutineWait(), CoroutineWait::timer);
    EXPECT_FALSE(epollWatchesReads(fd));
    pipe.put();
    Platform::doEventLoop(0.0);  // nobody watches: no report reaches the sleeper
    EXPECT_EQ(reader->coroutineWait(), CoroutineWait::timer);
    EXPECT_EQ(reader->taskRunCount(), 3u);
}

TEST_F(CoroutineTest, ACoroutineOutsideSpawnAsserts) {
    EXPECT_ASSERT_TEXT(static_cast<void>(answer(1, false)),
                       "a Velik::Co coroutine runs only as a task: start it with Velik::spawn");
}

// One allocation per coroutine, back to nothing when it is gone; none for
// an await or a resumption.
TEST_F(CoroutineTest, OneBlockPerCoroutineAndNothingPerResumption) {
    static std::size_t live = 0;
    coroutineAllocatorIs({[](std::size_t size) {
                              ++live;
                              return ::operator new(size);
                          },
                          [](void* block, std::size_t) noexcept {
                              --live;
                              ::operator delete(block);
                          }});
    auto shortOne = [](int n) -> Co<int> { co_return n + 1; };
    auto first = spawn(root, TaskPriority::normal, "short", shortOne, 0);  // interns the name
    runUntilIdle();
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr int count = 50'000;
#else
    constexpr int count = 1'000'000;
#endif
    VelikTest::AllocationLog log;
    for (int i = 0; i < count; ++i) {
        auto task = spawn(root, TaskPriority::normal, "short", shortOne, i);
        runOnce();
        ASSERT_EQ(task->result(), i + 1);
    }
    log.stop();
    // The frame's block, and now and then a table of the scheduler's growing.
    EXPECT_GE(log.count(), std::size_t{count});
    EXPECT_LT(log.count(), std::size_t{count} + 10);
    first.reset();
    EXPECT_EQ(live, 0u);

    auto looping = spawn(root, TaskPriority::normal, "slices", slices, nullptr, 1000);
    looping->taskForceYieldInTestIs(true);
    runOnce();
    VelikTest::AllocationLog resumptions;
    runOnce(999);
    EXPECT_EQ(resumptions.count(), 0u);
    looping.reset();
    coroutineAllocatorIs({});
}

// --- Between threads ---

// A thread with its own loop; it starts looping once `gate` is set.
struct LoopWorker {
    std::promise<void> gate;
    std::promise<std::shared_ptr<Inbox>> ready;
    std::jthread thread{[this] {
        useThreadLocalSingletons();
        ready.set_value(inbox());
        gate.get_future().wait();
        Platform::doEventLoop();
    }};
    std::shared_ptr<Inbox> box = ready.get_future().get();
};

Co<> traveller(std::shared_ptr<Inbox> there, std::shared_ptr<Inbox> home,
               std::vector<std::thread::id>* where) {
    where->push_back(std::this_thread::get_id());
    co_await moveTo(there);
    where->push_back(std::this_thread::get_id());
    co_await yieldIfDue();
    co_await moveTo(home);
    where->push_back(std::this_thread::get_id());
    Platform::stopEventLoop();
}

TEST(CoroutineHop, TheFrameGoesThereAndBack) {
    LoopWorker worker;
    worker.gate.set_value();
    VelikTest::onLoopThread([&] {
        std::vector<std::thread::id> where;
        auto task = spawn(schedulerRootVelik(), TaskPriority::normal, "traveller", traveller,
                          worker.box, inbox(), &where);
        Platform::doEventLoop();
        const auto here = std::this_thread::get_id();
        EXPECT_EQ(where, (std::vector{here, worker.thread.get_id(), here}));
        EXPECT_EQ(task->coroutineWait(), CoroutineWait::moved);
        EXPECT_EQ(task->coroutineWaitDetail(), worker.box->rootName());
        EXPECT_EQ(task->taskRunCount(), 1u);
    });
    EXPECT_TRUE(stopEventLoop(worker.box));
}

// A task dropped while its move is on the way: the move does nothing there,
// and the frame is destroyed here. A closed inbox refuses the move: the body
// stays and the await throws.
TEST(CoroutineHop, DroppingTheTaskCancelsAMoveInFlight) {
    LoopWorker worker;
    const std::shared_ptr<Inbox> box = worker.box;
    VelikTest::onLoopThread([&] {
        auto held = std::make_shared<int>(0);
        auto leave = [](std::shared_ptr<Inbox> there, std::shared_ptr<int> n) -> Co<> {
            co_await moveTo(there);
            ++*n;
        };
        auto task = spawn(schedulerRootVelik(), TaskPriority::normal, "leaver", leave, box, held);
        Platform::doEventLoop(0.0);
        EXPECT_EQ(task->coroutineWait(), CoroutineWait::moved);
        task.reset();
        EXPECT_EQ(held.use_count(), 1);
        worker.gate.set_value();
        EXPECT_TRUE(stopEventLoop(box));
        worker.thread.join();
        EXPECT_EQ(*held, 0);

        auto refused =
            spawn(schedulerRootVelik(), TaskPriority::normal, "leaver", leave, box, held);
        EXPECT_THROW(Platform::doEventLoop(), RuntimeException);
        EXPECT_EQ(*held, 0);
    });
}

}  // namespace
