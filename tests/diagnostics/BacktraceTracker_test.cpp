#include <Velik/BacktraceTracker.h>
#include <Velik/Exception.h>

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "foundation/ThrowingAsserts.h"

namespace {

using Velik::BacktraceTracker;
using VelikTest::assertMessageOf;

std::vector<std::string> trackedMessages() {
    std::vector<std::string> messages;
    for (const auto& entry : BacktraceTracker::tracked()) {
        messages.push_back(entry.message());
    }
    return messages;
}

class BacktraceTrackerTest : public testing::Test {
  protected:
    void SetUp() override { TearDown(); }
    void TearDown() override {
        BacktraceTracker::enabledIs(false);
        BacktraceTracker::clear();
    }
};

// (The ring's keeping and dropping is the model test's.)
TEST_F(BacktraceTrackerTest, PrintsTheNewestOldestFirstWithTheirBacktraces) {
    BacktraceTracker::enabledIs(true);
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

TEST_F(BacktraceTrackerTest, CapacityAssertsWhenOffOrZero) {
    EXPECT_EQ(assertMessageOf([] { BacktraceTracker::capacityIs(5); }),
              "BacktraceCpp:162: User must enable the tracker to set the capacity.");
    BacktraceTracker::enabledIs(true);
    EXPECT_EQ(assertMessageOf([] { BacktraceTracker::capacityIs(0); }),
              "BacktraceCpp:163: Cannot set a capacity of 0, use clear() instead.");
    EXPECT_EQ(BacktraceTracker::capacity(), 100u);
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
        ASSERT_EQ(BacktraceTracker::capacity(), capacity) << "step " << step;
        ASSERT_EQ(trackedMessages(), std::vector<std::string>(model.begin(), model.end()))
            << "step " << step;
    }
}

TEST_F(BacktraceTrackerTest, ExceptionsFromManyThreadsAreAllRecorded) {
    BacktraceTracker::enabledIs(true);
    BacktraceTracker::capacityIs(400);
    {
        std::vector<std::jthread> threads(4);
        for (auto& thread : threads) {
            thread = std::jthread([] {
                for (int i = 0; i < 50; ++i) {
                    Velik::RuntimeException("from a thread");
                }
            });
        }
    }
    EXPECT_EQ(BacktraceTracker::tracked().size(), 200u);
}

}  // namespace
