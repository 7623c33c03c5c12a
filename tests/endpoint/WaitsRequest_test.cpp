// The "waits" request: every coroutine task of a root and its groups with
// what it waits on, in a layout viewers parse.
#include "endpoint/StatsReplySource.h"
#include "platform/LoopThread.h"
#include "platform/Pipe.h"

#include <Velik/CoroutineTask.h>
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

// The reply in slices of `perSlice` tasks, and how many slices it took.
std::pair<std::string, int> render(const TaskSchedulerRoot& root, std::size_t perSlice) {
    auto source =
        Impl::makeStatsReplySource(root, Impl::StatsVerb::waits, false, {.waitsEntries = perSlice});
    std::pair<std::string, int> reply{"", 1};
    for (; source->renderSlice(reply.first); ++reply.second) {
    }
    return reply;
}

// A verb the side server leaves to the root, the unknown-verb text as it
// was; the root's tasks first, then its groups', tasks that are not
// coroutines left out, the same document in any slicing.
TEST(WaitsRequest, ListsEachCoroutineTaskWithItsWaitInSlices) {
    EXPECT_EQ(Impl::parseStatsRequest("waits\r").verb, Impl::StatsVerb::waits);
    EXPECT_FALSE(Impl::answeredWithoutRoot(Impl::StatsVerb::waits));
    EXPECT_EQ(Impl::parseStatsRequest("wait").error,
              "unknown verb, ask for snapshot, report or history");
    VelikTest::onLoopThread([] {
        auto root = schedulerRootVelik();
        EXPECT_EQ(render(*root, 250).first, "{\"tasks\":[]}\n");
        auto group = std::make_shared<TaskGroup>("group", TaskPriority::normal, false, root);
        VelikTest::Pipe pipe(true);
        const double expiry = Velik::time() + 3600.0;
        auto reader = spawn(group, TaskPriority::low, "reader", readsFrom, pipe.fds[0]);
        auto sleeper = spawn(root, TaskPriority::high, "sleeper", sleepsUntil, expiry);
        auto waiter = spawn(root, TaskPriority::normal, "waiter", awaits, sleeper);
        for (int i = 0; i < 100 && (waiter->coroutineWait() == CoroutineWait::ready ||
                                    reader->coroutineWait() == CoroutineWait::ready);
             ++i) {
            VelikTest::loopPass();
        }
        const std::string expected = fmt::format(
            R"({{"tasks":[{{"name":"H sleeper","scheduler":"{0}","priority":"high",)"
            R"("wait":"timer","detail":"{1:.3f}"}},{{"name":"N waiter","scheduler":"{0}",)"
            R"("priority":"normal","wait":"task","detail":"sleeper"}},{{"name":"L reader",)"
            R"("scheduler":"group","priority":"low","wait":"readable","detail":"{2}"}}]}})"
            "\n",
            root->schedulerName().str(), expiry, pipe.fds[0]);
        EXPECT_EQ(render(*root, 250), std::make_pair(expected, 1));
        EXPECT_EQ(render(*root, 1), std::make_pair(expected, 3));
    });
}

}  // namespace
