// The JSON snapshot: the key tree and member order of one realistic
// scheduler, the values the snapshot reader does not compare, and names that
// are not plain text.
#include <Velik/TaskSchedulerPrintContext.h>
#include <Velik/TaskSchedulerSnapshot.h>

#include "report/ReportFixture.h"

#include <rapidjson/document.h>

#include <sstream>

namespace {

using Keys = std::vector<std::string>;

Keys keysOf(const rapidjson::Value& object) {
    Keys keys;
    for (const auto& m : object.GetObject()) {
        keys.emplace_back(m.name.GetString(), m.name.GetStringLength());
    }
    return keys;
}

const rapidjson::Value& taskNamed(const rapidjson::Value& list, const std::string& name) {
    for (const auto& t : list["tasks"].GetArray()) {
        if (t["name"].GetString() == name) {
            return t;
        }
    }
    ADD_FAILURE() << "no task " << name;
    return list;
}

class JsonTest : public VelikTest::ReportTest {
  protected:
    rapidjson::Document parse(const std::string& text) {
        rapidjson::Document doc;
        doc.Parse(text.c_str(), text.size());
        EXPECT_FALSE(doc.HasParseError()) << text;
        return doc;
    }
};

TEST_F(JsonTest, KeyTreeOrderAndValues) {
    const auto doc = parse(root->statsRenderJsonToString(false, true, true));
    EXPECT_EQ(keysOf(doc), Keys{"schedulers"});
    EXPECT_EQ(keysOf(doc["schedulers"]), Keys{"testRoot"});
    const auto& s = doc["schedulers"]["testRoot"];
    EXPECT_EQ(keysOf(s),
              (Keys{"schedulerName", "isRootScheduler", "priorityStats", "maxSchedulerSlip",
                    "tasks", "completedTasks", "subSchedulers", "history"}));
    EXPECT_EQ(keysOf(s["priorityStats"]), (Keys{"absolute", "high", "normal", "low", "scavenge"}));
    EXPECT_EQ(s["priorityStats"]["high"]["completedTasks"].GetUint(), 1u);

    // Largest total run time first; the task that never ran is skipped.
    const auto& live = s["tasks"];
    EXPECT_EQ(keysOf(live), (Keys{"tasks", "skipped"}));
    Keys order;
    for (const auto& t : live["tasks"].GetArray()) {
        order.push_back(t["name"].GetString());
    }
    EXPECT_EQ(order, (Keys{"timer", "worker", "TaskGroup;pool", "conn:read"}));
    EXPECT_EQ(live["skipped"].GetUint(), 1u);

    const auto& worker = taskNamed(live, "worker");
    EXPECT_EQ(keysOf(worker),
              (Keys{"name", "address", "priority", "onRunQueue", "currentlyRunning", "suspended",
                    "hasTimer", "timerRunning", "runCount", "totalRunTime", "lastSchedulingLatency",
                    "schedulingLatencyHighWaterMark", "qv200", "qv500", "maxMs", "workCount",
                    "workPending"}));
    EXPECT_DOUBLE_EQ(worker["lastSchedulingLatency"].GetDouble(), 0.001);
    EXPECT_EQ(worker["maxMs"].GetUint(), 3u);
    EXPECT_EQ(keysOf(worker["workCount"]), (Keys{"total", "decayingAvg", "highwater"}));
    EXPECT_EQ(worker["workCount"]["total"].GetUint(), 10u);
    EXPECT_DOUBLE_EQ(worker["workCount"]["decayingAvg"].GetDouble(), 5.0);

    const auto& timer = taskNamed(live, "timer");
    EXPECT_FALSE(timer.HasMember("workCount") || timer.HasMember("workPending"));

    // The group's task names its sub-scheduler, which nests without history.
    const auto& parent = taskNamed(live, "TaskGroup;pool");
    EXPECT_EQ(keysOf(parent)[3], "subScheduler");
    const std::string key = parent["subScheduler"].GetString();
    EXPECT_EQ(key, "TaskGroup;pool-" + pool->parentTask()->taskKey().toStrep());
    EXPECT_EQ(keysOf(s["subSchedulers"]), Keys{key});
    const auto& sub = s["subSchedulers"][key.c_str()];
    EXPECT_EQ(keysOf(sub), (Keys{"schedulerName", "isRootScheduler", "priorityStats",
                                 "maxSchedulerSlip", "tasks", "subSchedulers"}));

    const auto& done = s["completedTasks"]["tasks"][0];
    EXPECT_STREQ(done["name"].GetString(), "short");
    EXPECT_FALSE(done.HasMember("address"));
    EXPECT_EQ(keysOf(done)[13], "maxMs");
    EXPECT_EQ(keysOf(done)[14], "completedCount");

    const auto& history = s["history"];
    EXPECT_EQ(keysOf(history), (Keys{"historyEntryCount", "history"}));
    EXPECT_EQ(history["historyEntryCount"].GetUint(), 100u);
    EXPECT_EQ(keysOf(history["history"][0]), (Keys{"nsSinceBoot", "eventType", "eventId"}));

    // Without the optional parts; a display order when one is set.
    auto snap = root->snapshot(true, false, false);
    snap->displayOrder = 7;
    std::ostringstream out;
    snap->renderJson(*Velik::TaskScheduler::PrintContextIs(out));
    const auto bare = parse(out.str());
    const auto& b = bare["schedulers"]["testRoot"];
    EXPECT_EQ(keysOf(b), (Keys{"schedulerName", "displayOrder", "isRootScheduler", "priorityStats",
                               "maxSchedulerSlip", "tasks", "subSchedulers"}));
    EXPECT_EQ(b["tasks"]["skipped"].GetUint(), 0u);
    EXPECT_EQ(b["tasks"]["tasks"].Size(), 5u);
}

TEST_F(JsonTest, MisuseAsserts) {
    EXPECT_ASSERT_TEXT(Velik::subSchedulerKey(worker->getStats()), "worker is not TaskGroup");
    std::ostringstream out;
    auto context = Velik::TaskScheduler::PrintContextIs(out);
    context->closeJson();
    EXPECT_EQ(out.str(), R"({"schedulers":{}})");
    EXPECT_ASSERT_TEXT(context->closeJson(), "JSON already closed");
}

}  // namespace
