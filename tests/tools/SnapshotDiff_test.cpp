// Rates between two snapshots, including tasks that come, go or are
// replaced at the same address.
#include "SnapshotDiff.h"

#include "FakeSnapshot.h"

namespace {

using VelikTopTest::fakeSnapshot;
using VelikTopTest::FakeTask;

TEST(SnapshotDiff, RatesAreGrowthOverAnInterval) {
    const auto before = fakeSnapshot({{.name = "a", .runs = 100, .time = 1.0, .work = 50}});
    const auto after = fakeSnapshot({{.name = "a", .runs = 300, .time = 1.5, .work = 250}});
    const auto r = VelikTop::rates(&before, after, 2.0);
    ASSERT_TRUE(r.at(0).known);
    EXPECT_DOUBLE_EQ(r[0].runsPerSecond, 100);
    EXPECT_DOUBLE_EQ(r[0].share, 0.25);
    EXPECT_DOUBLE_EQ(r[0].workPerSecond, 100);
    // No earlier snapshot, or no time between: no rates.
    EXPECT_FALSE(VelikTop::rates(nullptr, after, 1.0)[0].known);
    EXPECT_FALSE(VelikTop::rates(&after, after, 0.0)[0].known);
}

TEST(SnapshotDiff, NewAndReplacedTasksCountFromZero) {
    const auto before =
        fakeSnapshot({{.name = "old", .address = "0x10", .runs = 900, .time = 9},
                      {.name = "reused", .address = "0x20", .runs = 500, .time = 5, .work = 1000},
                      {.name = "gone", .address = "0x30", .runs = 7, .time = 7}});
    // "old" was deleted and a task of the same name took its address; "new"
    // appeared; "gone" disappeared.
    const auto after =
        fakeSnapshot({{.name = "old", .address = "0x10", .runs = 10, .time = 0.1},
                      {.name = "reused", .address = "0x20", .runs = 600, .time = 4, .work = 1100},
                      {.name = "new", .address = "0x40", .runs = 4, .time = 0.2}});
    const auto r = VelikTop::rates(&before, after, 1.0);
    ASSERT_EQ(r.size(), 3u);
    EXPECT_DOUBLE_EQ(r[0].runsPerSecond, 10);
    EXPECT_DOUBLE_EQ(r[0].share, 0.1);
    // Run time went down though runs went up: a reset or a replacement.
    EXPECT_DOUBLE_EQ(r[1].runsPerSecond, 600);
    EXPECT_DOUBLE_EQ(r[1].workPerSecond, 1100);
    EXPECT_DOUBLE_EQ(r[1].share, 1.0);  // 4 s in 1 s cannot be: capped
    EXPECT_DOUBLE_EQ(r[2].runsPerSecond, 4);
    EXPECT_DOUBLE_EQ(r[2].share, 0.2);
}

TEST(SnapshotDiff, ThreadShareCountsGroupsOnceNotTheirTasks) {
    const auto before = fakeSnapshot(
        {{.name = "g", .time = 0, .children = {{.name = "x", .address = "0x2", .time = 0}}},
         {.name = "y", .address = "0x3"}});
    const auto after = fakeSnapshot(
        {{.name = "g", .time = 0.4, .children = {{.name = "x", .address = "0x2", .time = 0.4}}},
         {.name = "y", .address = "0x3", .time = 0.1}});
    const auto r = VelikTop::rates(&before, after, 1.0);
    EXPECT_DOUBLE_EQ(VelikTop::threadShare(after, r), 0.5);
}

}  // namespace
