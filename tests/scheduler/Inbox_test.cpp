// Work posted across threads: nothing lost, each producer's order kept, one
// wake-up per drain, and the counts adding up when the target thread ends
// while work is on its way.
#include "platform/LoopThread.h"

#include <Velik/Inbox.h>
#include <Velik/PlatformSelection.h>
#include <Velik/TaskSchedulerRoot.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using namespace Velik;
using Log = std::vector<std::string>;

#if defined(__SANITIZE_THREAD__)
constexpr std::uint64_t totalItems = 80'000;
#else
constexpr std::uint64_t totalItems = 1'000'000;
#endif
constexpr int producerCount = 8;

// A thread with a libevent loop that runs until stopped, then ends.
class LoopWorker {
  public:
    LoopWorker()
        : thread_([this] {
              useThreadLocalSingletons();
              ready_.set_value(inbox());
              Platform::doEventLoop();
          }),
          box_(ready_.get_future().get()) {}
    ~LoopWorker() { join(); }
    void join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    const std::shared_ptr<Inbox>& box() const { return box_; }
    std::thread::id id() const { return thread_.get_id(); }

  private:
    std::promise<std::shared_ptr<Inbox>> ready_;
    std::thread thread_;
    std::shared_ptr<Inbox> box_;
};

void runProducers(const std::function<void(int)>& produce) {
    std::vector<std::thread> producers;
    for (int p = 0; p < producerCount; ++p) {
        producers.emplace_back(produce, p);
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
}

TEST(Inbox, ManyProducersLoseNothingAndKeepTheirOrder) {
    std::vector<std::uint64_t> next(producerCount, 0);  // the worker's alone
    std::uint64_t seen = 0;
    bool ordered = true;
    std::string report;
    LoopWorker worker;
    runProducers([&](int p) {
        for (std::uint64_t i = 0; i < totalItems / producerCount; ++i) {
            ASSERT_TRUE(post(worker.box(), TaskPriority::normal, "ingest", [&, p, i] {
                ordered = ordered && next[p] == i;
                next[p] = i + 1;
                if (++seen == totalItems) {
                    report = schedulerRootVelik()->statsRenderTextForDebugToString(true, false,
                                                                                   false, false);
                    Platform::stopEventLoop();
                }
            }));
        }
    });
    worker.join();
    EXPECT_EQ(seen, totalItems);
    EXPECT_TRUE(ordered);
    const Inbox& box = *worker.box();
    EXPECT_TRUE(box.closed());
    EXPECT_EQ(box.postedCount(), totalItems);
    EXPECT_EQ(box.runCount(), totalItems);
    EXPECT_EQ(box.droppedCount(), 0u);
    EXPECT_EQ(box.length(), 0u);
    EXPECT_GT(box.highWaterMark(), 0u);
    EXPECT_LE(box.highWaterMark(), totalItems);
    EXPECT_LT(box.wakeUpCount(), totalItems);
    EXPECT_NE(report.find("ingest"), std::string::npos) << report;
}

// Producers post until refused while the worker ends after a few items:
// whatever was queued then, in the queue or in its task, is dropped, and
// every item is destroyed exactly once, run or not.
TEST(Inbox, PostsRacingTheTargetsEndAddUp) {
    auto token = std::make_shared<int>(0);
    std::atomic<std::uint64_t> attempts{0};
    std::uint64_t seen = 0;
    LoopWorker worker;
    runProducers([&](int) {
        bool accepted = true;
        while (accepted) {
            ++attempts;
            accepted = post(worker.box(), TaskPriority::low, "racing", [&, token] {
                if (++seen == 1000) {
                    Platform::stopEventLoop();
                }
            });
        }
    });
    worker.join();
    const Inbox& box = *worker.box();
    EXPECT_GE(seen, 1000u);
    EXPECT_EQ(box.postedCount(), attempts.load());
    EXPECT_EQ(box.runCount(), seen);
    EXPECT_EQ(box.runCount() + box.droppedCount(), box.postedCount());
    EXPECT_GE(box.droppedCount(), std::uint64_t{producerCount});
    EXPECT_EQ(box.length(), 0u);
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_FALSE(post(worker.box(), TaskPriority::low, "late", [] {}));
    EXPECT_FALSE(post(nullptr, TaskPriority::low, "nowhere", [] {}));
}

// A burst posted before the thread drains costs one write; the next burst,
// after the drain, one more.
TEST(Inbox, OneWakeUpPerDrain) {
    VelikTest::onLoopThread([] {
        std::shared_ptr<Inbox> box = inbox();
        int ran = 0;
        for (int i = 0; i < 100; ++i) {
            post(box, TaskPriority::normal, "burst", [&] { ++ran; });
        }
        post(box, TaskPriority::normal, "burst", [] { Platform::stopEventLoop(); });
        EXPECT_EQ(box->wakeUpCount(), 1u);
        EXPECT_EQ(box->length(), 101u);
        EXPECT_EQ(box->highWaterMark(), 101u);
        Platform::doEventLoop();
        EXPECT_EQ(ran, 100);
        EXPECT_EQ(box->length(), 0u);
        post(box, TaskPriority::normal, "burst", [] { Platform::stopEventLoop(); });
        post(box, TaskPriority::normal, "later", [&] { ++ran; });
        EXPECT_EQ(box->wakeUpCount(), 2u);
        Platform::doEventLoop();
        EXPECT_EQ(ran, 100);  // stopped before the other task ran
        closeInbox();
        EXPECT_TRUE(box->closed());
        EXPECT_EQ(box->droppedCount(), 1u);
        EXPECT_EQ(existingInbox(), nullptr);
    });
}

// An item that throws leaves the loop like any task; the items behind it
// are not stranded.
TEST(Inbox, AThrowingItemLeavesTheLoopAndTheRestRunNextTime) {
    VelikTest::onLoopThread([] {
        std::shared_ptr<Inbox> box = inbox();
        Log log;
        post(box, TaskPriority::normal, "job", [&] { log.push_back("a"); });
        post(box, TaskPriority::normal, "job", [&] {
            log.push_back("b");
            throw std::runtime_error("b");
        });
        post(box, TaskPriority::normal, "job", [&] {
            log.push_back("c");
            Platform::stopEventLoop();
        });
        EXPECT_THROW(Platform::doEventLoop(), std::runtime_error);
        EXPECT_EQ(log, (Log{"a", "b"}));
        Platform::doEventLoop();
        EXPECT_EQ(log, (Log{"a", "b", "c"}));
        EXPECT_EQ(box->runCount(), 3u);
    });
}

TEST(Inbox, CompletionRunsOnThePostersThreadAfterTheWork) {
    LoopWorker worker;
    VelikTest::onLoopThread([&] {
        const std::thread::id self = std::this_thread::get_id();
        std::vector<std::thread::id> where;
        std::mutex mutex;
        ASSERT_TRUE(post(
            worker.box(), TaskPriority::normal, "job",
            [&] {
                std::lock_guard lock(mutex);
                where.push_back(std::this_thread::get_id());
            },
            [&] {
                std::lock_guard lock(mutex);
                where.push_back(std::this_thread::get_id());
                Platform::stopEventLoop();
            }));
        Platform::doEventLoop();
        EXPECT_EQ(where, (std::vector<std::thread::id>{worker.id(), self}));
        EXPECT_EQ(inbox()->runCount(), 1u);
    });
    EXPECT_TRUE(stopEventLoop(worker.box()));
}

}  // namespace
