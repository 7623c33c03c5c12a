// Rates between two snapshots, including tasks that come, go or are
// replaced at the same address.
#include "SnapshotDiff.h"

#include "FakeSnapshot.h"

namespace {

using VelikTopTest::fakeSnapshot;
using VelikTopTest::FakeTask;
using Rates = std::vector<std::array<double, 3>>;

// Runs a second, share of the thread and work a second of each task.
Rates ratesOf(const std::vector<FakeTask>& before, const std::vector<FakeTask>& after,
              double seconds) {
    const auto a = fakeSnapshot(before), b = fakeSnapshot(after);
    Rates out;
    for (const auto& r : VelikTop::rates(&a, b, seconds)) {
        EXPECT_TRUE(r.known);
        out.push_back({r.runsPerSecond, r.share, r.workPerSecond});
    }
    return out;
}

// FakeTask fields: name, address, runs, time, max latency, qv200, qv500, work.
// No time between two snapshots: no rates, as before a second one.
TEST(SnapshotDiff, NoRatesWithoutAnInterval) {
    const auto after = fakeSnapshot({{.name = "a", .runs = 1}});
    EXPECT_FALSE(VelikTop::rates(&after, after, 0.0)[0].known);
}

TEST(SnapshotDiff, RatesAreGrowthOverTheIntervalNewAndReplacedTasksCountFromZero) {
    // "old" was deleted and a task of the same name took its address; "new"
    // appeared; "gone" disappeared. "reused" ran more in less time: a reset
    // or a replacement, and 4 s in 2 s cannot be: capped.
    EXPECT_EQ(ratesOf({{"a", "0x1", 100, 1.0, 0, 0, 0, 50},
                       {"old", "0x10", 900, 9},
                       {"reused", "0x20", 500, 5, 0, 0, 0, 1000},
                       {"gone", "0x30", 7, 7}},
                      {{"a", "0x1", 300, 1.5, 0, 0, 0, 250},
                       {"old", "0x10", 10, 0.1},
                       {"reused", "0x20", 600, 4, 0, 0, 0, 1100},
                       {"new", "0x40", 4, 0.2}},
                      2.0),
              (Rates{{100, 0.25, 100}, {5, 0.05, 0}, {300, 1.0, 550}, {2, 0.1, 0}}));
}

TEST(SnapshotDiff, ThreadShareCountsGroupsOnceNotTheirTasks) {
    const auto before =
        fakeSnapshot({{"g", "0x1", 0, 0, 0, 0, 0, {}, {{"x", "0x2"}}}, {"y", "0x3"}});
    const auto after = fakeSnapshot(
        {{"g", "0x1", 0, 0.4, 0, 0, 0, {}, {{"x", "0x2", 0, 0.4}}}, {"y", "0x3", 0, 0.1}});
    EXPECT_DOUBLE_EQ(VelikTop::threadShare(after, VelikTop::rates(&before, after, 1.0)), 0.5);
}

}  // namespace
