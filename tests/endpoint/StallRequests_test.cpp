// The stall requests and the busy line, against a root whose thread really
// spins: wall time by nature, kept short, with generous upper bounds.
#include <Velik/Inbox.h>
#include <Velik/LibeventFactory.h>
#include <Velik/PlatformSelection.h>
#include <Velik/StallSentinel.h>
#include <Velik/StatsEndpoint.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/Thread.h>

#include <gmock/gmock.h>
#include <rapidjson/document.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>
#include <filesystem>
#include <future>
#include <regex>
#include <thread>

#include "endpoint/StallReplies.h"
#include "endpoint/StatsRequest.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Named so that the backtraces can be checked for it (the test program
// exports its symbols).
extern "C" [[gnu::noinline]] void velikEndpointTestSpin(Clock::duration d) {
    const auto until = Clock::now() + d;
    while (Clock::now() < until) {
        asm volatile("" ::: "memory");
    }
}

namespace {

// A thread whose root serves stats on `path` and runs its loop until the
// fixture ends; work reaches it through its inbox.
struct ServedThread {
    ServedThread(const std::string& path, Velik::StatsEndpointOptions options) {
        std::promise<std::string> ready;
        thread = std::thread([&, options] {
            Velik::useThreadLocalSingletons();
            auto root = Velik::schedulerRootVelik();
            endpoint = Velik::serveStats(*root, path, options);
            box = Velik::inbox();
            ready.set_value(root->schedulerName().str());
            Velik::Platform::doEventLoop();
            endpoint.reset();
        });
        rootName = ready.get_future().get();
    }
    ~ServedThread() {
        Velik::stopEventLoop(box);
        thread.join();
    }
    // Runs `work` as task "spinner" on the thread.
    void run(std::function<void()> work) {
        Velik::post(box, Velik::TaskPriority::normal, "spinner", std::move(work));
    }
    // Spins the thread for `d`, and returns once the run has lasted `after`.
    void spin(Clock::duration d, Clock::duration after = 80ms) {
        std::promise<void> started;
        run([&started, d] {
            started.set_value();
            velikEndpointTestSpin(d);
        });
        started.get_future().wait();
        std::this_thread::sleep_for(after);
    }

    std::thread thread;
    std::unique_ptr<Velik::StatsEndpoint> endpoint;
    std::shared_ptr<Velik::Inbox> box;
    std::string rootName;
};

struct Reply {
    std::string text;
    double seconds;
};

// Asks `request` on a blocking connection and reads to the end (10 s at most).
Reply ask(const std::string& path, std::string_view request) {
    const auto start = Clock::now();
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval limit{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    // A refusal may close the connection before the request is sent.
    (void)!send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    Reply reply;
    char buffer[65536];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
        reply.text.append(buffer, static_cast<std::size_t>(n));
    }
    close(fd);
    reply.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return reply;
}

class StallRequestsTest : public testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/velikstallsXXXXXX";
        path = (dir = mkdtemp(name)) + "/main.sock";
        Velik::StallOptions sentinel;
        sentinel.threshold = 20ms;
        sentinel.interval = 20ms;
        Velik::watchStalls(sentinel);
    }
    void TearDown() override {
        Velik::stopWatchingStalls();
        std::filesystem::remove_all(dir);
    }

    std::string dir, path;
};

TEST_F(StallRequestsTest, StatusAndStallsAnsweredAtOnceWhileTheThreadSpins) {
    ServedThread served(path, {});
    served.spin(1500ms, 150ms);

    const Reply status = ask(path, "status\n");
    EXPECT_LT(status.seconds, 0.5);
    // The endpoint's own root first.
    const std::regex stalled("root=\"" + served.rootName +
                             "\" tid=[0-9]+ thread=\"[^\"]*\" state=stalled for=[0-9]+\\.[0-9]{3} "
                             "task=\"N spinner\" top=\"[^\"]+\"\n(.|\n)*");
    EXPECT_TRUE(std::regex_match(status.text, stalled)) << status.text;

    const Reply stalls = ask(path, "stalls\n");
    EXPECT_LT(stalls.seconds, 0.5);
    ASSERT_EQ(stalls.text.back(), '\n');
    EXPECT_THAT(stalls.text,
                testing::MatchesRegex(
                    R"(\{"roots":\[\{"root":"[^"]+","tid":[0-9]+,"thread":"[^"]*","live":true,)"
                    R"("stalls":\[\{"id":[0-9]+,"task":"[^"]*spinner","startNs":[0-9]+,)"
                    R"("thresholdNs":20000000,"durationNs":[0-9]+,"ended":false,)"
                    R"("samples":\[\{"atNs":[0-9]+,"frames":\[".*)"));
    EXPECT_THAT(stalls.text, testing::HasSubstr(R"(","velikEndpointTestSpin+0x)"));
    rapidjson::Document document;
    ASSERT_FALSE(document.Parse(stalls.text.c_str()).HasParseError());
    EXPECT_EQ(document["roots"][0]["root"].GetString(), served.rootName);
}

TEST_F(StallRequestsTest, SnapshotGetsTheBusyLineAfterTheBoundOrTheRealReplyOnceFree) {
    Velik::StatsEndpointOptions options;
    options.busyReplyAfter = 0.4;
    ServedThread served(path, options);

    served.spin(4000ms);  // long enough for both requests on a loaded machine
    const Reply busy = ask(path, "snapshot\n");
    EXPECT_THAT(busy.text, testing::MatchesRegex(
                               R"(error: thread busy for [0-9]+\.[0-9] s in task "[^"]*spinner"
)"));
    EXPECT_GE(busy.seconds, 0.39);
    EXPECT_LT(busy.seconds, 2.5);
    // The same for every request that needs the root's thread.
    EXPECT_THAT(ask(path, "inbox\n").text, testing::StartsWith("error: thread busy for "));
    std::promise<void> spun;
    served.run([&] { spun.set_value(); });
    spun.get_future().wait();

    // A root that frees up within the bound answers itself.
    served.spin(150ms);
    const Reply snapshot = ask(path, "snapshot\n");
    EXPECT_EQ(snapshot.text.substr(0, 1), "{");
    EXPECT_EQ(snapshot.text.back(), '}');
    EXPECT_GT(snapshot.seconds, 0.03);  // it waited for the root
}

TEST_F(StallRequestsTest, ForeignUidIsRefusedByTheSideServerToo) {
    Velik::StatsEndpointOptions options;
    options.peerUidForTest = geteuid() + 1;
    ServedThread served(path, options);
    served.spin(800ms);
    const Reply refused = ask(path, "status\n");
    EXPECT_EQ(refused.text, "error: permission denied\n");
    EXPECT_LT(refused.seconds, 0.5);
}

// The endpoint goes while the side server holds a client waiting for the
// root: the client is closed without a reply, and nothing is used after.
TEST_F(StallRequestsTest, EndpointDestroyedWhileTheSideServerHoldsItsClient) {
    Velik::StatsEndpointOptions options;
    options.busyReplyAfter = 5.0;
    ServedThread served(path, options);
    served.run([&] {
        velikEndpointTestSpin(500ms);
        served.endpoint.reset();
    });
    std::this_thread::sleep_for(150ms);
    const Reply reply = ask(path, "report\n");
    EXPECT_EQ(reply.text, "");
    EXPECT_LT(reply.seconds, 3.0);
}

// The application may hold the sentinel's signal: stats are served all the
// same. Otherwise serving starts the sentinel. On a free root the root's own
// connection answers, naming its running task.
TEST_F(StallRequestsTest, StatusFromAFreeRootWithOrWithoutTheSentinel) {
    Velik::stopWatchingStalls();
    struct sigaction mine {
    }, previous{};
    mine.sa_handler = [](int) {};
    sigaction(SIGRTMIN + 3, &mine, &previous);
    {
        ServedThread served(path, {});
        EXPECT_FALSE(Velik::watchingStalls());
        EXPECT_THAT(ask(path, "status\n").text, testing::HasSubstr("state=running"));
    }
    sigaction(SIGRTMIN + 3, &previous, nullptr);
    ServedThread served(path, {});
    EXPECT_TRUE(Velik::watchingStalls());
    EXPECT_THAT(ask(path, "status\n").text,
                testing::MatchesRegex("root=\"" + served.rootName +
                                      R"(" tid=[0-9]+ thread="[^"]*" state=running )"
                                      R"(for=[0-9]+\.[0-9]{3} task="L StatsEndpoint:client:read"
(.|
)*)"));
}

TEST(StallReplies, QuotedFieldsEscapeQuotesBackslashesAndControlBytes) {
    EXPECT_EQ(Velik::Impl::quotedText("a\"b\\c\x01\x7f\xff\xc3\xa9"), R"(a\"b\\c\x01\x7f\xff)"
                                                                      "\xc3\xa9");
    EXPECT_EQ(Velik::Impl::shownTaskName(0xbeef, ""), "#beef");
    EXPECT_EQ(Velik::Impl::parseStatsRequest("stalls\r").verb, Velik::Impl::StatsVerb::stalls);
}

}  // namespace
