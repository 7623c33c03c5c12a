// Reading snapshots: rows as the library renders them, and documents the
// library would never write (a viewer must survive other versions).
#include "SnapshotModel.h"
#include "FakeSnapshot.h"

#include <Velik/TaskStat.h>

#include "report/ReportFixture.h"

namespace {

using VelikTop::TaskRow;

const TaskRow& rowNamed(const VelikTop::ThreadSnapshot& snap, const std::string& name,
                        bool completed = false) {
    const auto it = std::find_if(snap.tasks.begin(), snap.tasks.end(), [&](const TaskRow& r) {
        return r.name == name && r.completed == completed;
    });
    if (it == snap.tasks.end()) {
        ADD_FAILURE() << "no row " << name;
        static const TaskRow none;
        return none;
    }
    return *it;
}

class SnapshotModelTest : public VelikTest::ReportTest {};

// Every row, on the root and one level down in the group, and every
// history event against the library's own records.
TEST_F(SnapshotModelTest, RowsAndHistoryMatchTheLibrarysOwnRecords) {
    worker->scheduleTask();
    runOnce();  // some history
    const auto snap =
        VelikTop::parseSnapshot("main", root->statsRenderJsonToString(false, true, true));
    const TaskRow& group = rowNamed(snap, "TaskGroup;pool");
    EXPECT_TRUE(group.isGroup);
    auto seconds = [](Velik::TaskTimeDuration d) { return static_cast<double>(d.count()) / 1e9; };
    const std::vector<Velik::TaskScheduler*> schedulers{root.get(), pool.get()};
    for (Velik::TaskScheduler* scheduler : schedulers) {
        std::vector<Velik::TaskStat> stats;
        scheduler->getTaskStats(&stats, false);
        for (const Velik::TaskStat& s : stats) {
            SCOPED_TRACE(s.taskName());
            const TaskRow& row = rowNamed(snap, s.taskName());
            const bool sub = scheduler != root.get();
            EXPECT_EQ(
                std::tie(row.scheduler, row.depth, row.address, row.runCount, row.qv200),
                std::tuple(scheduler->schedulerName().str(), sub ? 1 : 0, s.taskKey().toStrep(),
                           s.taskRunCount(), s.taskQuantumViolation200()));
            EXPECT_EQ(row.scope == group.childScope, sub);
            EXPECT_EQ(row.statusLetters(), s.taskStatusString());
            EXPECT_DOUBLE_EQ(row.totalRunTime, seconds(s.taskTotalRunTime()));
            EXPECT_DOUBLE_EQ(row.maxLatency, seconds(s.taskSchedulingLatencyHighWaterMark()));
            EXPECT_EQ(row.workTotal.has_value(), s.taskWorkCountHighWaterMark().hasValue());
        }
    }
    EXPECT_EQ(rowNamed(snap, "worker").workPending, std::optional<std::uint64_t>(2));
    const TaskRow& brief = rowNamed(snap, "short", true);
    EXPECT_EQ(std::tie(brief.completedCount, brief.address), std::tuple(1u, ""));
    EXPECT_NE(brief.identity(), rowNamed(snap, "worker").identity());

    ASSERT_EQ(snap.schedulers.size(), 2u);
    const auto& top = snap.schedulers[0];  // "idle" never ran: skipped
    EXPECT_EQ(std::tie(top.isRoot, top.skipped, top.priorities.at("normal").runs),
              std::tuple(true, 1u, 5u));
    EXPECT_EQ(snap.schedulers[1].scope, group.childScope);

    // Newest first, as the root keeps them.
    const auto& events = root->history()->events();
    ASSERT_EQ(snap.history.size(), events.size());
    ASSERT_GE(events.size(), 3u);
    for (std::size_t i = 0; i < events.size(); ++i) {
        const auto& e = snap.history[i];
        EXPECT_EQ(std::tie(e.nsSinceBoot, e.type, e.id, e.scheduler),
                  std::tuple(events[i].time.time_since_epoch().count(),
                             events[i].eventTypeDisplay(), events[i].displayName(), "testRoot"));
    }
}

TEST(SnapshotModel, ForeignDocumentsReadLeniently) {
    // Wrong types and missing members never crash the reader; a group whose
    // own task is missing still shows its tasks under a stand-in.
    const auto snap = VelikTop::parseSnapshot("t", R"({"schedulers": {
        "main": {"tasks": {"tasks": [
            {"name": 7, "runCount": "many", "qv200": 2.5, "workCount": [], "onRunQueue": 1},
            "not a task"]},
          "priorityStats": [], "history": {"history": [{"nsSinceBoot": "x"}, 5]},
          "subSchedulers": {"lost-0x2": {"schedulerName": "lost",
                                         "tasks": {"tasks": [{"name": "orphan"}]}}}},
        "other": 3}})");
    ASSERT_EQ(snap.tasks.size(), 3u);
    EXPECT_TRUE(snap.tasks[1].isGroup && snap.tasks[1].standIn);
    EXPECT_EQ(std::tie(snap.tasks[1].name, snap.tasks[2].scope),
              std::tuple("lost", snap.tasks[1].childScope));
    EXPECT_EQ(snap.history.size(), 1u);

    const auto statusOf = [](const std::string& json) {
        return VelikTopTest::failureOf([&] { VelikTop::parseSnapshot("t", json); });
    };
    EXPECT_EQ(statusOf(R"({"schedulers": {}})"), VelikTop::exitOk);
    for (const std::string& bad : {std::string(R"({"schedulers": [)"),
                                   std::string(R"({"tasks": {}})"), std::string(100000, '[')}) {
        EXPECT_EQ(statusOf(bad), VelikTop::exitMalformed) << bad.substr(0, 30);
    }
}

}  // namespace
