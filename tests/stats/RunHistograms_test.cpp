// Run histograms as schedulers fill them: every run of every scheduler,
// the timer lateness of a delayed timer task, the resets, and the
// "histograms" reply of the stats endpoint.
#include <Velik/RunHistograms.h>
#include <Velik/TaskGroup.h>

#include "endpoint/StatsReplySource.h"
#include "platform/Families.h"
#include "scheduler/SchedulerFixture.h"

#include <rapidjson/document.h>

namespace {

using namespace std::chrono_literals;
using Velik::TaskPriority;
using VelikTest::advanceNs;
using VelikTest::ProbeTask;
using VelikTest::ProbeTimer;

class RunHistogramsTest : public VelikTest::SchedulerTest {
  protected:
    // A task whose every run takes `ns` on the fake clock.
    std::shared_ptr<ProbeTask> taking(std::int64_t ns, const std::string& name,
                                      TaskPriority p = TaskPriority::normal) {
        auto t = task(p, name);
        t->body = [ns](ProbeTask&) { advanceNs(ns); };
        return t;
    }
};

TEST_F(RunHistogramsTest, EachSchedulerCountsItsOwnRunsAndTheResetsClearThem) {
    auto group = Velik::TaskGroupIs("g", TaskPriority::normal, false, root);
    auto inGroup = std::make_shared<ProbeTask>(group.get(), TaskPriority::normal, "inner");
    inGroup->body = [](ProbeTask&) { advanceNs(3000); };
    auto plain = taking(200'000, "plain");
    auto own = taking(5000, "own");
    own->taskHistogramsIs(true);
    EXPECT_EQ(plain->taskHistograms(), nullptr);

    for (int i = 0; i < 3; ++i) {
        plain->scheduleTask();
        own->scheduleTask();
        inGroup->scheduleTask();
        advanceNs(1000);  // the queue stay of all three
        runUntilIdle();
    }

    // The root ran plain, own and the group's parent task three times each;
    // the group ran its task three times.
    const Velik::LatencyHistogram& rootRuns = root->runHistograms()->runTime;
    EXPECT_EQ(rootRuns.count(), 9u);
    EXPECT_EQ(rootRuns.bucketCountAt(rootRuns.bucketIndex(200'000)), 3u);
    EXPECT_EQ(rootRuns.bucketCountAt(rootRuns.bucketIndex(5000)), 3u);
    EXPECT_EQ(group->runHistograms()->runTime.count(), 3u);
    EXPECT_EQ(group->runHistograms()->runTime.maxNs(), 3000);
    EXPECT_EQ(root->runHistograms()->latency.count(), 9u);
    EXPECT_EQ(root->runHistograms()->timerLateness.count(), 0u);
    // The task's own: its runs only, beside the scheduler's.
    EXPECT_EQ(own->taskHistograms()->runTime.count(), 3u);
    EXPECT_EQ(own->taskHistograms()->runTime.maxNs(), 5000);
    EXPECT_GE(own->taskHistograms()->latency.maxNs(), 1000);

    // Off: nothing recorded, nothing kept; on again starts empty.
    group->runHistogramsIs(false);
    inGroup->scheduleTask();
    runUntilIdle();
    EXPECT_EQ(group->runHistograms(), nullptr);
    group->runHistogramsIs(true);
    EXPECT_EQ(group->runHistograms()->runTime.count(), 0u);

    root->clearStats();
    EXPECT_EQ(root->runHistograms()->runTime.count(), 0u);
    EXPECT_EQ(own->taskHistograms()->latency.count(), 0u);

    own->scheduleTask();
    runUntilIdle();
    root->resetStats();  // in slices, by a task of its own
    runUntilIdle();
    EXPECT_EQ(own->taskHistograms()->runTime.count(), 0u);
    // The reset's end clears the scheduler's histograms during the reset
    // task's run, which is recorded after it.
    EXPECT_EQ(root->runHistograms()->runTime.count(), 1u);
}

// The root's timer wheel runs on the framework clock under virtual time; a
// busy high task takes 30 ms of the fake steady clock when the timer is due.
class TimerLatenessTest : public RunHistogramsTest {
  protected:
    void SetUp() override {
        RunHistogramsTest::SetUp();
        VelikTest::virtualTimeIs(VelikTest::Family::framework, true);
    }
    void TearDown() override {
        VelikTest::virtualTimeIs(VelikTest::Family::framework, false);
        RunHistogramsTest::TearDown();
    }
};

TEST_F(TimerLatenessTest, RunsFromTheExpiryToTheStartOfTheRunItCaused) {
    auto timer = std::make_shared<ProbeTimer>(root.get(), TaskPriority::normal, "tick");
    timer->taskHistogramsIs(true);
    auto busy = taking(30'000'000, "busy", TaskPriority::high);

    timer->scheduleTaskDelay(0.5);
    Velik::Platform::doEventLoop(1.0);  // expires; due now
    busy->scheduleTask();
    runUntilIdle();
    ASSERT_EQ(timer->runsAt.size(), 1u);

    // The queue stay (30 ms of busy work), and the wheel's tick at most
    // besides; the task's own latency is the queue stay alone, as before.
    const Velik::LatencyHistogram& lateness = root->runHistograms()->timerLateness;
    ASSERT_EQ(lateness.count(), 1u);
    EXPECT_GE(lateness.maxNs(), 30'000'000);
    EXPECT_LE(lateness.maxNs(), 45'000'000);
    EXPECT_EQ(timer->lastSchedulingLatency(), 30ms);
    EXPECT_EQ(timer->taskHistograms()->timerLateness.maxNs(), lateness.maxNs());

    // Armed for a time long past: the wheel's next pass is 2 s late.
    timer->scheduleTaskAt(Velik::time() - 2.0);
    Velik::Platform::doEventLoop(0.1);
    runUntilIdle();
    ASSERT_EQ(lateness.count(), 2u);
    EXPECT_NEAR(lateness.maxNs(), 2e9, 0.2e9);

    // Run directly, or re-armed before the run: no lateness.
    timer->scheduleTask();
    runUntilIdle();
    timer->scheduleTaskDelay(0.5);
    Velik::Platform::doEventLoop(1.0);
    timer->scheduleTaskDelay(5.0);
    timer->scheduleTask();
    runUntilIdle();
    EXPECT_EQ(lateness.count(), 2u);
    EXPECT_EQ(timer->runsAt.size(), 4u);
}

using Keys = std::vector<std::string>;
Keys keysOf(const rapidjson::Value& object) {
    Keys keys;
    for (const auto& member : object.GetObject()) {
        keys.push_back(member.name.GetString());
    }
    return keys;
}

TEST_F(RunHistogramsTest, TheHistogramsReplyListsSchedulersThenTasksThatKeepTheirOwn) {
    ASSERT_EQ(Velik::Impl::parseStatsRequest("histograms").verb,
              Velik::Impl::StatsVerb::histograms);
    EXPECT_EQ(Velik::Impl::parseStatsRequest("histogram").error,
              "unknown verb, ask for snapshot, report or history");
    auto zgroup = Velik::TaskGroupIs("zgroup", TaskPriority::normal, false, root);
    auto agroup = Velik::TaskGroupIs("agroup", TaskPriority::normal, false, root);
    auto own = std::make_shared<ProbeTask>(agroup.get(), TaskPriority::low, "own");
    own->taskHistogramsIs(true);
    own->body = [](ProbeTask&) { advanceNs(700); };
    auto plain = taking(100, "plain");
    own->scheduleTask();
    plain->scheduleTask();
    runUntilIdle();

    // One entry a slice, so the document is continued across slices.
    Velik::Impl::StatsSliceSizes sizes;
    sizes.histogramEntries = 1;
    auto source =
        Velik::Impl::makeStatsReplySource(*root, Velik::Impl::StatsVerb::histograms, false, sizes);
    std::string reply;
    int slices = 1;
    while (source->renderSlice(reply)) {
        ++slices;
    }
    EXPECT_EQ(slices, 4);
    rapidjson::Document doc;
    ASSERT_FALSE(doc.Parse(reply.c_str()).HasParseError()) << reply;
    EXPECT_EQ(keysOf(doc), (Keys{"schedulers", "tasks"}));

    const auto& schedulers = doc["schedulers"].GetArray();
    ASSERT_EQ(schedulers.Size(), 3u);
    EXPECT_EQ(keysOf(schedulers[0]), (Keys{"name", "kind", "runTime", "latency", "timerLateness"}));
    EXPECT_STREQ(schedulers[0]["name"].GetString(), "testRoot");
    EXPECT_STREQ(schedulers[0]["kind"].GetString(), "root");
    EXPECT_STREQ(schedulers[1]["name"].GetString(), "agroup");
    EXPECT_STREQ(schedulers[2]["kind"].GetString(), "group");

    const auto& tasks = doc["tasks"].GetArray();
    ASSERT_EQ(tasks.Size(), 1u);
    EXPECT_EQ(keysOf(tasks[0]), (Keys{"name", "scheduler", "runTime", "latency", "timerLateness"}));
    EXPECT_STREQ(tasks[0]["name"].GetString(), "L own");
    EXPECT_STREQ(tasks[0]["scheduler"].GetString(), "agroup");
    const auto& runTime = tasks[0]["runTime"];
    EXPECT_EQ(keysOf(runTime),
              (Keys{"count", "sum", "max", "p50", "p90", "p99", "p999", "buckets"}));
    EXPECT_EQ(runTime["count"].GetUint64(), 1u);
    EXPECT_EQ(runTime["max"].GetInt64(), 700);
    EXPECT_EQ(runTime["p999"].GetInt64(), 700);
    ASSERT_EQ(runTime["buckets"].Size(), 1u);
    EXPECT_EQ(keysOf(runTime["buckets"][0]), (Keys{"upper", "count"}));
    EXPECT_EQ(runTime["buckets"][0]["upper"].GetInt64(), 703);  // 640 .. 703
    EXPECT_TRUE(tasks[0]["timerLateness"]["buckets"].Empty());
}

}  // namespace
