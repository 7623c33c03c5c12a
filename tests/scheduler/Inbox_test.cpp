// Work posted across threads: each producer's order kept, the counts adding
// up when the target thread ends while work is on its way, completions sent
// back.
#include "platform/LoopThread.h"

#include <Velik/Inbox.h>
#include <Velik/PlatformSelection.h>
#include <Velik/TaskSchedulerRoot.h>

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using namespace Velik;
constexpr int producerCount = 8;
#if defined(__SANITIZE_THREAD__)
constexpr std::uint64_t perProducer = 5'000;
#else
constexpr std::uint64_t perProducer = 125'000;  // a million in all
#endif
constexpr std::uint64_t total = perProducer * producerCount;

// A thread with a libevent loop that runs until stopped, then ends.
struct LoopWorker {
    std::promise<std::shared_ptr<Inbox>> ready;
    std::jthread thread{[this] {
        useThreadLocalSingletons();
        ready.set_value(inbox());
        Platform::doEventLoop();
    }};
    std::shared_ptr<Inbox> box = ready.get_future().get();
};

// Eight producers post to a worker that stops after `stopAt` items and then
// ends while producers may still be posting: each producer's items ran in
// order, the rest were dropped or refused, and every item was destroyed
// once, run or not.
class InboxDelivery : public testing::TestWithParam<std::uint64_t> {};

TEST_P(InboxDelivery, ProducersKeepTheirOrderAndTheCountsAddUp) {
    const std::uint64_t stopAt = GetParam();
    auto token = std::make_shared<int>(0);
    std::vector<std::uint64_t> next(producerCount, 0);  // the worker's alone
    std::uint64_t seen = 0;
    bool ordered = true;
    std::string report;
    LoopWorker worker;
    std::vector<std::jthread> producers;
    for (int p = 0; p < producerCount; ++p) {
        producers.emplace_back([&, p] {
            for (std::uint64_t i = 0; i < perProducer; ++i) {
                post(worker.box, TaskPriority::normal, "ingest", [&, token, p, i] {
                    ordered = ordered && next[p]++ == i;
                    if (++seen == stopAt) {
                        report = schedulerRootVelik()->statsRenderTextForDebugToString(
                            true, false, false, false);
                        Platform::stopEventLoop();
                    }
                });
            }
        });
    }
    producers.clear();  // joins
    worker.thread.join();
    EXPECT_FALSE(post(worker.box, TaskPriority::low, "late", [token] {}));
    EXPECT_FALSE(post(nullptr, TaskPriority::low, "nowhere", [] {}));
    const Inbox& box = *worker.box;
    EXPECT_TRUE(ordered && box.closed() && seen >= stopAt);
    EXPECT_EQ(std::tuple(box.postedCount(), box.runCount(), box.runCount() + box.droppedCount(),
                         token.use_count()),
              std::tuple(total + 1, seen, total + 1, 1L));
    EXPECT_NE(report.find("ingest"), std::string::npos) << report;  // a task of that name
}

// All of them (nothing lost), and a stop half-way racing the posts.
INSTANTIATE_TEST_SUITE_P(Inbox, InboxDelivery, testing::Values(total, total / 2));

// An item that throws leaves the loop like any task; the items behind it
// are not stranded. Closing the inbox drops what is still queued.
TEST(Inbox, AThrowingItemLeavesTheLoopAndTheRestRunNextTime) {
    VelikTest::onLoopThread([] {
        std::shared_ptr<Inbox> box = inbox();
        std::string log;
        post(box, TaskPriority::normal, "job", [&] { log += 'a'; });
        post(box, TaskPriority::normal, "job", [&] {
            log += 'b';
            throw std::runtime_error("b");
        });
        post(box, TaskPriority::normal, "job", [&] {
            log += 'c';
            Platform::stopEventLoop();
        });
        EXPECT_THROW(Platform::doEventLoop(), std::runtime_error);
        EXPECT_EQ(log, "ab");
        Platform::doEventLoop();
        EXPECT_EQ(log, "abc");
        post(box, TaskPriority::normal, "job", [&] { log += 'd'; });
        closeInbox();
        EXPECT_EQ(std::tuple(log, box->closed(), box->runCount(), box->droppedCount(),
                             existingInbox() == nullptr),
                  std::tuple("abc", true, 3u, 1u, true));
    });
}

TEST(Inbox, CompletionRunsOnThePostersThreadAfterTheWork) {
    LoopWorker worker;
    VelikTest::onLoopThread([&] {
        std::vector<std::thread::id> where;
        auto note = [&] { where.push_back(std::this_thread::get_id()); };
        ASSERT_TRUE(post(worker.box, TaskPriority::normal, "job", note, [&] {
            note();
            Platform::stopEventLoop();
        }));
        Platform::doEventLoop();
        EXPECT_EQ(where, (std::vector{worker.thread.get_id(), std::this_thread::get_id()}));
    });
    EXPECT_TRUE(stopEventLoop(worker.box));
}

}  // namespace
