#include <Velik/BacktraceTracker.h>
#include <Velik/Exception.h>

#include <gtest/gtest.h>

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

void recordNumbered(int from, int to) {
    for (int i = from; i <= to; ++i) {
        BacktraceTracker::backtraceIs(std::to_string(i));
    }
}

class BacktraceTrackerTest : public testing::Test {
  protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset() {
        BacktraceTracker::enabledIs(false);
        BacktraceTracker::clear();
    }
};

TEST_F(BacktraceTrackerTest, OffRecordsNothingAndHasNoStorage) {
    EXPECT_FALSE(BacktraceTracker::enabled());
    EXPECT_EQ(BacktraceTracker::capacity(), 0u);
    BacktraceTracker::backtraceIs("ignored");
    BacktraceTracker::backtraceIs("ignored too", Velik::Backtrace(true));
    EXPECT_TRUE(BacktraceTracker::tracked().empty());
}

TEST_F(BacktraceTrackerTest, FullRingKeepsTheNewestOldestFirst) {
    BacktraceTracker::enabledIs(true);
    EXPECT_TRUE(BacktraceTracker::enabled());
    EXPECT_EQ(BacktraceTracker::capacity(), 100u);
    recordNumbered(1, 101);
    const auto messages = trackedMessages();
    ASSERT_EQ(messages.size(), 100u);
    EXPECT_EQ(messages.front(), "2");
    EXPECT_EQ(messages.back(), "101");
    EXPECT_EQ(messages[50], "52");
}

TEST_F(BacktraceTrackerTest, RecordsTheGivenBacktraceOrOneTakenHere) {
    BacktraceTracker::enabledIs(true);
    Velik::Backtrace given(false);
    BacktraceTracker::backtraceIs("given", given);
    BacktraceTracker::backtraceIs("taken");
    const auto tracked = BacktraceTracker::tracked();
    ASSERT_EQ(tracked.size(), 2u);
    EXPECT_EQ(tracked[0].backtrace().count(), 0u);
    EXPECT_GT(tracked[1].backtrace().count(), 0u);
}

TEST_F(BacktraceTrackerTest, ShrinkingKeepsTheNewestAndGrowingKeepsAll) {
    BacktraceTracker::enabledIs(true);
    recordNumbered(1, 5);
    BacktraceTracker::capacityIs(3);
    EXPECT_EQ(BacktraceTracker::capacity(), 3u);
    EXPECT_EQ(trackedMessages(), (std::vector<std::string>{"3", "4", "5"}));

    BacktraceTracker::capacityIs(3);  // same capacity: nothing changes
    EXPECT_EQ(trackedMessages(), (std::vector<std::string>{"3", "4", "5"}));

    BacktraceTracker::capacityIs(6);
    recordNumbered(6, 8);
    EXPECT_EQ(trackedMessages(), (std::vector<std::string>{"3", "4", "5", "6", "7", "8"}));
    recordNumbered(9, 9);
    EXPECT_EQ(trackedMessages().front(), "4");
}

TEST_F(BacktraceTrackerTest, CapacityAssertsWhenOffOrZero) {
    EXPECT_EQ(assertMessageOf([] { BacktraceTracker::capacityIs(5); }),
              "BacktraceCpp:162: User must enable the tracker to set the capacity.");
    BacktraceTracker::enabledIs(true);
    EXPECT_EQ(assertMessageOf([] { BacktraceTracker::capacityIs(0); }),
              "BacktraceCpp:163: Cannot set a capacity of 0, use clear() instead.");
    EXPECT_EQ(BacktraceTracker::capacity(), 100u);
}

TEST_F(BacktraceTrackerTest, SwitchingOffKeepsEntriesUntilCleared) {
    BacktraceTracker::enabledIs(true);
    recordNumbered(1, 2);
    BacktraceTracker::enabledIs(false);
    EXPECT_EQ(trackedMessages(), (std::vector<std::string>{"1", "2"}));
    EXPECT_EQ(BacktraceTracker::capacity(), 100u);
    BacktraceTracker::backtraceIs("while off");
    EXPECT_EQ(trackedMessages().size(), 2u);

    BacktraceTracker::clear();
    EXPECT_TRUE(BacktraceTracker::tracked().empty());
    EXPECT_EQ(BacktraceTracker::capacity(), 0u);
}

TEST_F(BacktraceTrackerTest, StorageIsFreedOnlyWhenOffAndEmpty) {
    BacktraceTracker::enabledIs(true);
    recordNumbered(1, 3);
    BacktraceTracker::clear();
    EXPECT_TRUE(BacktraceTracker::tracked().empty());
    EXPECT_EQ(BacktraceTracker::capacity(), 100u);  // cleared while on
    BacktraceTracker::enabledIs(false);
    EXPECT_EQ(BacktraceTracker::capacity(), 0u);  // switched off while empty
}

TEST_F(BacktraceTrackerTest, SwitchingOnAgainKeepsExistingStorage) {
    BacktraceTracker::enabledIs(true);
    BacktraceTracker::capacityIs(5);
    recordNumbered(1, 1);
    BacktraceTracker::enabledIs(false);
    BacktraceTracker::enabledIs(true);
    EXPECT_EQ(BacktraceTracker::capacity(), 5u);
    EXPECT_EQ(trackedMessages(), (std::vector<std::string>{"1"}));
}

TEST_F(BacktraceTrackerTest, PrintAllWritesEveryEntryOldestFirst) {
    BacktraceTracker::enabledIs(true);
    recordNumbered(1, 2);
    std::ostringstream out;
    BacktraceTracker::printAll(out);
    const auto tracked = BacktraceTracker::tracked();
    EXPECT_EQ(out.str(), tracked[0].toString() + "\n" + tracked[1].toString() + "\n");
    EXPECT_EQ(out.str().rfind("Exception message:1\nTimestamp:", 0), 0u);
}

TEST_F(BacktraceTrackerTest, ExceptionsFromManyThreadsAreAllCounted) {
    BacktraceTracker::enabledIs(true);
    BacktraceTracker::capacityIs(400);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 50; ++i) {
                Velik::RuntimeException("from a thread");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(BacktraceTracker::tracked().size(), 200u);
}

}  // namespace
