// Run histograms as schedulers fill them: every run of every scheduler, the
// timer lateness of a delayed timer task, the resets, and the "histograms"
// reply of the stats endpoint.
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

class RunHistogramsTest : public VelikTest::SchedulerTest {
  protected:
    // A task whose every run takes `ns` on the fake clock.
    std::shared_ptr<ProbeTask> taking(std::int64_t ns, const std::string& name,
                                      Velik::TaskScheduler* s = nullptr,
                                      TaskPriority p = TaskPriority::normal) {
        auto t = std::make_shared<ProbeTask>(s ? s : root.get(), p, name);
        t->body = [ns](ProbeTask&) { advanceNs(ns); };
        return t;
    }
};

TEST_F(RunHistogramsTest, EachSchedulerCountsItsOwnRunsAndTheResetsClearThem) {
    auto group = Velik::TaskGroupIs("g", TaskPriority::normal, false, root);
    auto inner = taking(3000, "inner", group.get());
    auto plain = taking(200'000, "plain");
    auto own = taking(5000, "own");
    own->taskHistogramsIs(true);
    EXPECT_EQ(plain->taskHistograms(), nullptr);
    for (int i = 0; i < 3; ++i) {
        for (auto* t : {plain.get(), own.get(), inner.get()}) {
            t->scheduleTask();
        }
        advanceNs(1000);
        runUntilIdle();
    }
    // The root ran plain, own and the group's parent task three times each;
    // the group its task three times; the task's own holds its runs only.
    const Velik::RunHistograms& r = *root->runHistograms();
    EXPECT_EQ(r.runTime.bucketCountAt(r.runTime.bucketIndex(200'000)), 3u);
    EXPECT_EQ(r.runTime.count() + r.latency.count(), 18u);
    EXPECT_EQ(group->runHistograms()->runTime.sumNs(), 9000);
    EXPECT_EQ(own->taskHistograms()->runTime.sumNs(), 15000);

    root->clearStats();
    EXPECT_EQ(r.runTime.count() + own->taskHistograms()->latency.count(), 0u);
    own->scheduleTask();
    runUntilIdle();
    root->resetStats();  // in slices, by a task of its own
    runUntilIdle();
    // The reset's end clears the scheduler's histograms during the reset
    // task's run, which is recorded after it.
    EXPECT_EQ(r.runTime.count(), 1u);
    EXPECT_EQ(own->taskHistograms()->runTime.count(), 0u);
}

// The root's timer wheel runs on the framework clock under virtual time.
TEST_F(RunHistogramsTest, TimerLatenessRunsFromTheExpiryToTheStartOfTheRunItCaused) {
    struct VirtualTime {
        VirtualTime() { VelikTest::virtualTimeIs(VelikTest::Family::framework, true); }
        ~VirtualTime() { VelikTest::virtualTimeIs(VelikTest::Family::framework, false); }
    } virtualTime;  // outlives the timer
    auto timer = std::make_shared<VelikTest::ProbeTimer>(root.get(), TaskPriority::normal, "t");
    timer->taskHistogramsIs(true);
    auto busy = taking(30'000'000, "busy", nullptr, TaskPriority::high);
    const Velik::LatencyHistogram& lateness = root->runHistograms()->timerLateness;

    // Due, then held back by 30 ms of busy work: the task's own latency is
    // that queue stay, as before; the lateness adds the wheel's delivery.
    timer->scheduleTaskDelay(0.5);
    Velik::Platform::doEventLoop(1.0);
    busy->scheduleTask();
    runUntilIdle();
    ASSERT_EQ(lateness.count(), 1u);
    EXPECT_EQ(timer->lastSchedulingLatency(), 30ms);
    EXPECT_GE(lateness.maxNs(), 30'000'000);
    EXPECT_LE(lateness.maxNs(), 45'000'000);
    EXPECT_EQ(timer->taskHistograms()->timerLateness.maxNs(), lateness.maxNs());
}

using Keys = std::vector<std::string>;
Keys keysOf(const rapidjson::Value& object) {
    Keys keys;
    for (const auto& member : object.GetObject()) {
        keys.push_back(member.name.GetString());
    }
    return keys;
}

TEST_F(RunHistogramsTest, TheReplyListsTheRootThenGroupsByNameThenTasksThatKeepTheirOwn) {
    ASSERT_EQ(Velik::Impl::parseStatsRequest("histograms").verb,
              Velik::Impl::StatsVerb::histograms);
    auto zgroup = Velik::TaskGroupIs("zgroup", TaskPriority::normal, false, root);
    auto agroup = Velik::TaskGroupIs("agroup", TaskPriority::normal, false, root);
    auto own = taking(700, "own", agroup.get(), TaskPriority::low);
    own->taskHistogramsIs(true);
    own->scheduleTask();
    runUntilIdle();

    // One entry a slice: the document goes on across slices.
    Velik::Impl::StatsSliceSizes sizes;
    sizes.histogramEntries = 1;
    auto source =
        Velik::Impl::makeStatsReplySource(*root, Velik::Impl::StatsVerb::histograms, false, sizes);
    std::string reply;
    int slices = 1;
    for (; source->renderSlice(reply); ++slices) {
    }
    EXPECT_EQ(slices, 4);
    rapidjson::Document doc;
    ASSERT_FALSE(doc.Parse(reply.c_str()).HasParseError()) << reply;
    EXPECT_EQ(keysOf(doc), (Keys{"schedulers", "tasks"}));
    const auto& schedulers = doc["schedulers"];
    ASSERT_EQ(schedulers.Size(), 3u);
    EXPECT_EQ(keysOf(schedulers[0]), (Keys{"name", "kind", "runTime", "latency", "timerLateness"}));
    EXPECT_EQ(std::string(schedulers[0]["name"].GetString()) + schedulers[0]["kind"].GetString() +
                  schedulers[1]["name"].GetString() + schedulers[2]["kind"].GetString(),
              "testRootrootagroupgroup");

    ASSERT_EQ(doc["tasks"].Size(), 1u);
    const auto& task = doc["tasks"][0];
    EXPECT_EQ(keysOf(task), (Keys{"name", "scheduler", "runTime", "latency", "timerLateness"}));
    EXPECT_EQ(std::string(task["name"].GetString()) + "/" + task["scheduler"].GetString(),
              "L own/agroup");
    const auto& runTime = task["runTime"];
    EXPECT_EQ(keysOf(runTime),
              (Keys{"count", "sum", "max", "p50", "p90", "p99", "p999", "buckets"}));
    EXPECT_EQ(runTime["p999"].GetInt64(), 700);
    ASSERT_EQ(runTime["buckets"].Size(), 1u);
    EXPECT_EQ(keysOf(runTime["buckets"][0]), (Keys{"upper", "count"}));
    EXPECT_EQ(runTime["buckets"][0]["upper"].GetInt64(), 703);  // 640 .. 703
    EXPECT_TRUE(task["timerLateness"]["buckets"].Empty());
}

}  // namespace
