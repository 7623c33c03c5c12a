// Backtraces (the walk, its thread and its text) and the process-wide
// tracker of the latest ones.
#include <Velik/Backtrace.h>
#include <Velik/BacktraceTracker.h>
#include <Velik/Thread.h>

#include <deque>
#include <future>
#include <random>
#include <thread>

#include "foundation/ThrowingAsserts.h"

namespace {

using testing::internal::RE;
using Velik::Backtrace;
using Velik::BacktraceTracker;
using VelikTest::assertMessageOf;

// Keeps the recursion from being folded into a loop or a tail call.
__attribute__((noinline)) uint32_t framesAtDepth(int depth) {
    const uint32_t count = depth > 0 ? framesAtDepth(depth - 1) : Backtrace(true).count();
    asm volatile("" ::: "memory");
    return count;
}

__attribute__((noinline)) void* firstFrameHere(Backtrace& backtrace) {
    backtrace.unwind();
    asm volatile("" ::: "memory");
    return backtrace.frames()[0];
}

// The walk starts at the caller's return point, stops at one hundred frames
// and records the thread it was taken on.
TEST(BacktraceTest, WalkFromTheCallerUpToOneHundredFramesOnItsOwnThread) {
    Backtrace backtrace(false);
    const char* frame = static_cast<const char*>(firstFrameHere(backtrace));
    const char* function = reinterpret_cast<const char*>(&firstFrameHere);
    EXPECT_TRUE(frame > function && frame < function + 256);
    EXPECT_EQ(framesAtDepth(150), Backtrace::maxFrames);
    const uint32_t shallow = framesAtDepth(10);
    EXPECT_TRUE(shallow > 10 && shallow < Backtrace::maxFrames) << shallow;
    std::async(std::launch::async, [] { EXPECT_EQ(Backtrace(true).tid(), Velik::gettid()); }).get();
}

TEST(BacktraceTest, PrettyHasAHeaderAndOneResolvedLinePerFrame) {
    EXPECT_EQ(Backtrace(false).pretty(), "Timestamp:inf tid:" + std::to_string(Velik::gettid()) +
                                             " Backtrace:\nNo backtrace available\n");
    // The innermost frame is the library's constructor, named as the loader
    // knows it: mangled.
    Backtrace here(true);
    const std::string frame = "([^\n]*\\([^\n]*\\+0x[0-9a-f]+\\))?\\[0x[0-9a-f]+\\]\n";
    EXPECT_TRUE(RE::FullMatch(
        here.pretty(),
        RE(fmt::format("Timestamp:[0-9.e+]+ tid:{} Backtrace:\n[^\n]*libKivVelik\\.so[^\n]*"
                       "\\(_ZN5Velik9BacktraceC[^\n]*\\+0x[0-9a-f]+\\)\\[{}\\]\n({}){{{}}}",
                       Velik::gettid(), here.frames()[0], frame, here.count() - 1))))
        << here.pretty();
}

TEST(BacktraceTest, OnlyAVerbosityOfExactlyZeroSilences) {
    const char* variable = "VELIK_BACKTRACE_VERBOSITY";
    const std::pair<const char*, int> cases[] = {{nullptr, 1}, {"00", 1}, {"0 ", 1}, {"0", 0}};
    for (const auto& [value, verbosity] : cases) {
        value ? setenv(variable, value, 1) : unsetenv(variable);
        EXPECT_EQ(Backtrace::verbosity(), verbosity) << testing::PrintToString(value);
    }
    unsetenv(variable);
}

// Off and empty before and after each case.
struct BacktraceTrackerTest : testing::Test {
    void SetUp() override { TearDown(); }
    void TearDown() override { BacktraceTracker::enabledIs(false), BacktraceTracker::clear(); }
};

// Capacity is set only while on, and never to zero; the newest are printed
// oldest first, each with its backtrace (the ring's keeping and dropping is
// the model test's).
TEST_F(BacktraceTrackerTest, CapacityChecksAndPrintingTheNewestOldestFirst) {
    EXPECT_EQ(assertMessageOf([] { BacktraceTracker::capacityIs(5); }),
              "BacktraceCpp:162: User must enable the tracker to set the capacity.");
    BacktraceTracker::enabledIs(true);
    EXPECT_EQ(assertMessageOf([] { BacktraceTracker::capacityIs(0); }),
              "BacktraceCpp:163: Cannot set a capacity of 0, use clear() instead.");
    BacktraceTracker::capacityIs(2);
    for (int i = 1; i <= 3; ++i) {
        BacktraceTracker::backtraceIs(std::to_string(i));
    }
    const auto tracked = BacktraceTracker::tracked();
    ASSERT_EQ(tracked.size(), 2u);
    EXPECT_GT(tracked.back().backtrace().count(), 0u) << "captured where recorded";
    std::ostringstream out;
    BacktraceTracker::printAll(out);
    EXPECT_EQ(out.str(), "Exception message:2\n" + tracked[0].backtrace().pretty() +
                             "\nException message:3\n" + tracked[1].backtrace().pretty() + "\n");
}

// Random switching, recording, resizing and clearing against a model of the
// ring: records only while on, keeps the newest on overflow and on shrinking,
// gets default storage when switched on without any, and loses its storage
// when off and empty.
TEST_F(BacktraceTrackerTest, MatchesAModelOfTheRing) {
    std::mt19937 random(12345);
    std::deque<std::string> model;
    unsigned capacity = 0;
    bool on = false;
    for (int step = 0; step < 3000; ++step) {
        const unsigned op = random() % 16;
        if (op == 0) {
            BacktraceTracker::enabledIs(on = !on);
            capacity = on ? (capacity ? capacity : 100) : (model.empty() ? 0 : capacity);
        } else if (op == 1 && on) {
            BacktraceTracker::capacityIs(capacity = 1 + random() % 8);
        } else if (op == 2) {
            BacktraceTracker::clear();
            model.clear();
            capacity = on ? capacity : 0;
        } else {
            BacktraceTracker::backtraceIs(std::to_string(step), Velik::Backtrace(false));
            if (on) {
                model.push_back(std::to_string(step));
            }
        }
        while (model.size() > capacity) {
            model.pop_front();
        }
        std::deque<std::string> tracked;
        for (const auto& entry : BacktraceTracker::tracked()) {
            tracked.push_back(entry.message());
        }
        ASSERT_EQ(std::pair(BacktraceTracker::capacity(), tracked), std::pair(capacity, model))
            << "step " << step;
    }
}

TEST_F(BacktraceTrackerTest, ExceptionsFromManyThreadsAreAllRecorded) {
    BacktraceTracker::enabledIs(true);
    const auto raise = [] {
        for (int i = 0; i < 40; ++i) {
            Velik::RuntimeException("from a thread");
        }
    };
    { std::jthread first(raise), second(raise); }
    EXPECT_EQ(BacktraceTracker::tracked().size(), 80u);  // within the default capacity
}

}  // namespace
