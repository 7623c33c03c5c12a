// The "waits" request: every coroutine task of a root and its groups with
// what it waits on, in a layout viewers parse.
#include "endpoint/StatsReplySource.h"
#include "platform/LoopThread.h"
#include "platform/Pipe.h"

#include <Velik/CoroutineTask.h>
#include <Velik/LambdaTask.h>
#include <Velik/TaskGroup.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/Time.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace {

using namespace Velik;

Co<> sleepsUntil(double expiry) {
    co_await sleepUntil(expiry);
}

Co<> readsFrom(int fd) {
    co_await readable(fd);
}

Co<> awaits(std::shared_ptr<CoroutineTask<void>> other) {
    co_await other;
}

Co<> returns() {
    co_return;
}

std::string render(const TaskSchedulerRoot& root, std::size_t perSlice, int* slices) {
    Impl::StatsSliceSizes sizes;
    sizes.waitsEntries = perSlice;
    auto source = Impl::makeStatsReplySource(root, Impl::StatsVerb::waits, false, sizes);
    std::string reply;
    *slices = 1;
    while (source->renderSlice(reply)) {
        ++*slices;
    }
    return reply;
}

TEST(WaitsRequest, IsAVerbThatNeedsTheRootsThread) {
    EXPECT_EQ(Impl::parseStatsRequest("waits\r").verb, Impl::StatsVerb::waits);
    EXPECT_FALSE(Impl::answeredWithoutRoot(Impl::StatsVerb::waits));
    EXPECT_EQ(Impl::parseStatsRequest("wait").error,
              "unknown verb, ask for snapshot, report or history");
}

// The root's tasks first, then the groups by name, each in registration
// order; tasks that are not coroutines are left out.
TEST(WaitsRequest, ListsEachCoroutineTaskWithItsWaitInSlices) {
    VelikTest::onLoopThread([] {
        auto root = schedulerRootVelik();
        const std::string rootName = root->schedulerName().str();
        {
            int slices = 0;
            EXPECT_EQ(render(*root, 250, &slices), "{\"tasks\":[]}\n");
            EXPECT_EQ(slices, 1);
        }
        auto beta = std::make_shared<TaskGroup>("beta", TaskPriority::normal, false, root);
        auto alpha = std::make_shared<TaskGroup>("alpha", TaskPriority::normal, false, root);
        VelikTest::Pipe pipe(true);
        const double expiry = Velik::time() + 3600.0;

        auto reader = spawn(beta, TaskPriority::low, "reader", readsFrom, pipe.fds[0]);
        auto sleeper = spawn(root, TaskPriority::high, "sleeper", sleepsUntil, expiry);
        auto plain = makeTask(root, TaskPriority::normal, "plain", [](Task&) {});
        plain->scheduleTask();
        auto waiter = spawn(alpha, TaskPriority::normal, "waiter", awaits, sleeper);
        auto ended = spawn(root, TaskPriority::normal, "ended", returns);
        for (int i = 0; i < 100 && !(ended->coroutineDone() && plain->taskRunCount() == 1 &&
                                     waiter->coroutineWait() == CoroutineWait::task);
             ++i) {
            VelikTest::loopPass();
        }
        auto fresh = spawn(root, TaskPriority::scavenge, "fresh\x01", returns);

        const std::string expected = fmt::format(
            "{{\"tasks\":["
            "{{\"name\":\"H sleeper\",\"scheduler\":\"{0}\",\"priority\":\"high\","
            "\"wait\":\"timer\",\"detail\":\"{1:.3f}\"}},"
            "{{\"name\":\"N ended\",\"scheduler\":\"{0}\",\"priority\":\"normal\","
            "\"wait\":\"done\",\"detail\":\"\"}},"
            "{{\"name\":\"S fresh\\u0001\",\"scheduler\":\"{0}\",\"priority\":\"scavenge\","
            "\"wait\":\"ready\",\"detail\":\"\"}},"
            "{{\"name\":\"N waiter\",\"scheduler\":\"alpha\",\"priority\":\"normal\","
            "\"wait\":\"task\",\"detail\":\"sleeper\"}},"
            "{{\"name\":\"L reader\",\"scheduler\":\"beta\",\"priority\":\"low\","
            "\"wait\":\"readable\",\"detail\":\"{2}\"}}"
            "]}}\n",
            rootName, expiry, pipe.fds[0]);
        int slices = 0;
        EXPECT_EQ(render(*root, 250, &slices), expected);
        EXPECT_EQ(slices, 1);
        // One task a slice: the same document, the brackets in the first and
        // last slices.
        EXPECT_EQ(render(*root, 1, &slices), expected);
        EXPECT_EQ(slices, 5);
    });
}

}  // namespace
