// The stall sentinel against real stuck threads: wall time by nature, kept
// short (20 ms threshold and interval) with generous upper bounds.
#include <Velik/Exception.h>
#include <Velik/RunPublication.h>
#include <Velik/StallSentinel.h>
#include <Velik/Task.h>
#include <Velik/TaskGroup.h>
#include <Velik/TaskSchedulerRoot.h>

#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <stdexcept>
#include <thread>

using namespace std::chrono_literals;
using testing::HasSubstr;
using Velik::StallEvent;
using Velik::StallRecord;

// Named so that the backtraces can be checked for them (the test program
// exports its symbols).
extern "C" [[gnu::noinline]] void velikStallTestSpin(std::chrono::steady_clock::duration d) {
    const auto until = std::chrono::steady_clock::now() + d;
    while (std::chrono::steady_clock::now() < until) {
        asm volatile("" ::: "memory");
    }
}

extern "C" [[gnu::noinline]] ssize_t velikStallTestRead(int fd, char* byte) {
    ssize_t got = read(fd, byte, 1);
    asm volatile("" ::: "memory");
    return got;
}

// A loop that calls nothing until told to stop (the builtin load is no call
// even unoptimised): every backtrace interrupts this very function, so it
// must be the innermost frame.
extern "C" [[gnu::noinline]] void velikStallTestLeafSpin(const bool* stop) {
    while (!__atomic_load_n(stop, __ATOMIC_RELAXED)) {
        asm volatile("" ::: "memory");
    }
}

namespace {

class NullControl : public Velik::Platform::CallbackControl {
  public:
    void requestCallback() override {}
    void cancelCallback() override {}
    bool pendingCallback() const override { return false; }
};

class BodyTask : public Velik::Task {
  public:
    BodyTask(Velik::TaskScheduler* s, const std::string& name, std::function<void()> body)
        : Task(s, Velik::TaskPriority::normal, name), body_(std::move(body)) {}
    void taskExecute() override { body_(); }

  private:
    std::function<void()> body_;
};

std::shared_ptr<Velik::TaskSchedulerRoot> handRoot(const std::string& name) {
    return std::make_shared<Velik::TaskSchedulerRoot>(
        name, [](Velik::Platform::CallbackHandler*) { return std::make_shared<NullControl>(); });
}

// Runs `body` once as task "stuck" of a root named `rootName`, on a thread
// of its own; `setup` may adjust the task first.
std::thread stuckThread(std::string rootName, std::function<void()> body,
                        std::function<void(Velik::Task&)> setup = {}) {
    return std::thread([=] {
        auto root = handRoot(rootName);
        auto task = std::make_shared<BodyTask>(root.get(), "stuck", body);
        if (setup) {
            setup(*task);
        }
        task->scheduleTask();
        root->handleSchedulerRun();
    });
}

class StallSentinelTest : public testing::Test {
  protected:
    void SetUp() override {
        options.threshold = 20ms;
        options.interval = 20ms;
        options.callback = [this](StallEvent event, const StallRecord& record) {
            std::lock_guard guard(mutex);
            notices.emplace_back(event, record);
            changed.notify_all();
        };
        Velik::watchStalls(options);
    }
    void TearDown() override { Velik::stopWatchingStalls(); }

    // Waits (at most 10 s) for a notice of `event` on root `rootName`.
    std::optional<StallRecord> awaitNotice(const std::string& rootName, StallEvent event) {
        std::unique_lock guard(mutex);
        std::optional<StallRecord> found;
        changed.wait_for(guard, 10s, [&] {
            for (const auto& [e, record] : notices) {
                if (e == event && record.rootName == rootName) {
                    found = record;
                }
            }
            return found.has_value();
        });
        return found;
    }
    std::vector<StallRecord> recordsOf(const std::string& rootName) {
        for (const auto& ring : Velik::stallRecords()) {
            if (ring.rootName == rootName) {
                return ring.stalls;
            }
        }
        return {};
    }
    static bool framesMention(const StallRecord& record, const std::string& text) {
        for (const auto& sample : record.samples) {
            for (const auto& frame : sample.frames) {
                if (frame.find(text) != std::string::npos) {
                    return true;
                }
            }
        }
        return false;
    }

    Velik::StallOptions options;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::pair<StallEvent, StallRecord>> notices;
};

// Every sample interrupts the spinning function itself: it is the innermost
// frame.
TEST_F(StallSentinelTest, SpinningTaskIsRecordedWhileStuckAndWhenItEnds) {
    bool stop = false;
    std::thread thread = stuckThread("spin", [&] { velikStallTestLeafSpin(&stop); });
    auto started = awaitNotice("spin", StallEvent::started);
    std::this_thread::sleep_for(300ms);
    __atomic_store_n(&stop, true, __ATOMIC_RELAXED);
    thread.join();
    ASSERT_TRUE(started);
    ASSERT_FALSE(started->samples.empty());
    ASSERT_FALSE(started->samples.back().frames.empty());
    EXPECT_THAT(started->samples.back().frames.front(), HasSubstr("velikStallTestLeafSpin"));
    EXPECT_THAT(Velik::stallTopFrame(*started), HasSubstr("velikStallTestLeafSpin"));
    auto ended = awaitNotice("spin", StallEvent::ended);
    ASSERT_TRUE(ended);
    EXPECT_EQ(ended->id, started->id);
    EXPECT_TRUE(ended->ended);
    EXPECT_EQ(ended->threshold, 20ms);
    EXPECT_GE(ended->duration, 290ms);
    EXPECT_LT(ended->duration, 5s);
    EXPECT_GE(ended->sampleCount, 3u);
    EXPECT_LE(ended->samples.size(), 8u);
    // The ring holds the same, ended.
    auto records = recordsOf("spin");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].duration, ended->duration);
}

TEST_F(StallSentinelTest, ThreadBlockedInReadIsSampledAndItsReadResumes) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ssize_t got = -2;
    char byte = 0;
    std::thread thread = stuckThread("reader", [&] { got = velikStallTestRead(fds[0], &byte); });
    auto started = awaitNotice("reader", StallEvent::started);
    ASSERT_TRUE(started);
    EXPECT_TRUE(framesMention(*started, "velikStallTestRead"));
    std::this_thread::sleep_for(60ms);  // a few more samples interrupt the read
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    thread.join();
    EXPECT_EQ(got, 1);  // restarted, not failed with EINTR
    EXPECT_EQ(byte, 'x');
    EXPECT_TRUE(awaitNotice("reader", StallEvent::ended));
    close(fds[0]);
    close(fds[1]);
}

TEST_F(StallSentinelTest, TaskInsideMallocIsSampledWithoutDeadlock) {
    std::thread thread = stuckThread("allocator", [] {
        const auto until = std::chrono::steady_clock::now() + 300ms;
        while (std::chrono::steady_clock::now() < until) {
            for (int i = 0; i < 64; ++i) {
                void* volatile block = std::malloc(16 + 64 * i);
                std::free(block);
            }
        }
    });
    thread.join();
    auto ended = awaitNotice("allocator", StallEvent::ended);
    ASSERT_TRUE(ended);
    EXPECT_GE(ended->sampleCount, 3u);
    EXPECT_EQ(ended->taskName, "N stuck");
}

TEST_F(StallSentinelTest, ThreadThatExitsWhileStalledKeepsItsRecord) {
    std::thread thread = stuckThread("leaver", [this] {
        while (!awaitNotice("leaver", StallEvent::started)) {
        }
        pthread_exit(nullptr);  // unwinds the run, the task and the root
    });
    thread.join();
    auto ended = awaitNotice("leaver", StallEvent::ended);
    ASSERT_TRUE(ended);
    EXPECT_GE(ended->sampleCount, 1u);
    // The sentinel goes on watching.
    std::thread other = stuckThread("after", [] { velikStallTestSpin(100ms); });
    other.join();
    EXPECT_TRUE(awaitNotice("after", StallEvent::ended));
    for (const auto& ring : Velik::stallRecords()) {
        if (ring.rootName == "leaver") {
            EXPECT_FALSE(ring.live);
            EXPECT_EQ(ring.stalls.size(), 1u);
        }
    }
}

TEST_F(StallSentinelTest, SecondStartAdjustsOptionsAndLongTasksMayBeAllowed) {
    options.threshold = 10s;
    Velik::watchStalls(options);
    stuckThread("relaxed", [] { velikStallTestSpin(100ms); }).join();
    options.threshold = 20ms;
    Velik::watchStalls(options);
    // A task allowed 10 s runs 100 ms unreported; its root's threshold
    // would otherwise apply, and does once the task's own is cleared.
    stuckThread(
        "known", [] { velikStallTestSpin(100ms); },
        [](Velik::Task& task) { task.taskStallThresholdIs(10s); })
        .join();
    stuckThread(
        "cleared", [] { velikStallTestSpin(100ms); },
        [](Velik::Task& task) {
            task.taskStallThresholdIs(10s);
            task.taskStallThresholdIs(0ns);
        })
        .join();
    EXPECT_TRUE(awaitNotice("cleared", StallEvent::ended));
    EXPECT_TRUE(recordsOf("relaxed").empty());
    EXPECT_TRUE(recordsOf("known").empty());
}

void applicationHandler(int) {}

TEST(StallSentinelSignal, ApplicationHandlerIsNeverReplaced) {
    const int signal = SIGRTMIN + 5;
    struct sigaction action {};
    action.sa_handler = applicationHandler;
    ASSERT_EQ(sigaction(signal, &action, nullptr), 0);
    Velik::StallOptions options;
    options.signalNumber = signal;
    EXPECT_THROW(Velik::watchStalls(options), Velik::RuntimeException);
    EXPECT_FALSE(Velik::watchingStalls());
    struct sigaction now {};
    sigaction(signal, nullptr, &now);
    EXPECT_EQ(now.sa_handler, applicationHandler);
    options = {};
    options.samplesKept = 0;
    EXPECT_THROW(Velik::watchStalls(options), Velik::OutOfRangeException);
    action.sa_handler = SIG_DFL;
    sigaction(signal, &action, nullptr);
}

// Nested runs publish the innermost task and put the outer one back; a run
// left by an exception is unpublished too.
TEST(RunPublication, InnermostRunIsPublishedAndTheOuterOneRestored) {
    auto root = handRoot("nested");
    auto group =
        std::make_shared<Velik::TaskGroup>("group", Velik::TaskPriority::normal, false, root);
    const Velik::TaskImpl* seenInside = nullptr;
    std::shared_ptr<BodyTask> inner = std::make_shared<BodyTask>(
        group.get(), "inner", [&] { seenInside = root->runPublication().current().task; });
    inner->scheduleTask();
    root->handleSchedulerRun();
    EXPECT_EQ(seenInside, inner.get());
    auto snapshot = root->runPublication().read();
    EXPECT_EQ(snapshot.running.task, nullptr);
    EXPECT_EQ(snapshot.ended.task, group->parentTask().get());  // the outer run ended last

    auto thrower =
        std::make_shared<BodyTask>(root.get(), "thrower", [] { throw std::runtime_error("out"); });
    thrower->scheduleTask();
    EXPECT_THROW(root->handleSchedulerRun(), std::runtime_error);
    snapshot = root->runPublication().read();
    EXPECT_EQ(snapshot.running.task, nullptr);
    EXPECT_EQ(snapshot.ended.task, thrower.get());
}

}  // namespace
