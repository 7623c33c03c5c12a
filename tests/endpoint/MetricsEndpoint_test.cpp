// The metrics endpoint over real TCP on a real loop, on both platforms and
// under virtual time: a scrape of two threads, every refusal, and the two
// deadlines.
#include <Velik/Inbox.h>
#include <Velik/MetricsEndpoint.h>
#include <Velik/Platform.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <future>
#include <thread>

#include "platform/Families.h"
#include "scheduler/SchedulerFixture.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using Velik::TaskPriority;
using VelikTest::ProbeTask;

// A client on the test's own thread: its reads never wait.
struct Client {
    explicit Client(std::uint16_t port, int receiveBuffer = 0)
        : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (receiveBuffer) {
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Client() { close(fd); }
    void send(std::string_view text) {
        EXPECT_EQ(::send(fd, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    // Takes what has arrived; true once the server has closed.
    bool ended() {
        char buffer[65536];
        for (ssize_t n = 1; !closed && n > 0;) {
            n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
            got.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
            closed = n == 0 || (n < 0 && errno != EAGAIN);
        }
        return closed;
    }
    int fd;
    std::string got;
    bool closed = false;
};

class MetricsEndpointTest : public VelikTest::FamilyTest {
  protected:
    static bool pumpUntil(const std::function<bool()>& done) {
        for (int i = 0; i < 3000 && !done(); ++i) {
            Velik::Platform::doEventLoopInWaitfor(0.001);
        }
        return done();
    }
    std::string ask(std::uint16_t port, std::string_view request) {
        Client client(port);
        client.send(request);
        EXPECT_TRUE(pumpUntil([&] { return client.ended(); })) << request;
        return client.got;
    }
};

// A second thread with a root, a task and a loop, until it is told to stop.
struct Worker {
    ~Worker() { Velik::stopEventLoop(inbox); }
    std::promise<std::shared_ptr<Velik::Inbox>> ready;
    std::jthread thread{[this] {
        Velik::useThreadLocalSingletons();
        auto job = std::make_shared<ProbeTask>(Velik::schedulerRootVelik().get(),
                                               TaskPriority::normal, "job");
        job->scheduleTask();
        ready.set_value(Velik::inbox());
        Velik::Platform::doEventLoop();
    }};
    std::shared_ptr<Velik::Inbox> inbox = ready.get_future().get();
};

TEST_P(MetricsEndpointTest, ScrapesItsOwnThreadAndAnotherThroughItsInbox) {
    // In real time: under virtual time the gathering deadline would come
    // before the other thread could answer.
    VelikTest::virtualTimeIs(GetParam(), false);
    run([this] {
        auto root = Velik::schedulerRootVelik();
        auto worker = std::make_shared<ProbeTask>(root.get(), TaskPriority::normal, "worker");
        worker->scheduleTask();
        {
            Worker other;
            auto endpoint =
                Velik::serveMetrics({{nullptr, "main"}, {other.inbox, "other"}}, "127.0.0.1:0");
            ASSERT_NE(endpoint->port(), 0);
            const std::string reply = ask(endpoint->port(),
                                          "GET /metrics?x=1 HTTP/1.1\r\n"
                                          "Host: localhost\r\n\r\n");
            EXPECT_THAT(reply,
                        StartsWith("HTTP/1.1 200 OK\r\nContent-Type: text/plain; "
                                   "version=0.0.4; charset=utf-8\r\nConnection: close\r\n\r\n"
                                   "# HELP velik_task_instances "));
            EXPECT_THAT(reply, HasSubstr(R"(velik_task_runs_total{thread="main",scheduler=")" +
                                         root->schedulerName().str() + R"(",task="worker"} 1)"));
            EXPECT_THAT(reply, HasSubstr(R"(,task="job"} 1)"));
            EXPECT_THAT(reply, HasSubstr(R"(velik_task_instances{thread="other",)"));
            // HEAD: the head alone.
            EXPECT_EQ(ask(endpoint->port(), "HEAD /metrics HTTP/1.0\r\n\r\n"),
                      "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4; "
                      "charset=utf-8\r\nConnection: close\r\n\r\n");
            EXPECT_EQ(endpoint->clientCount(), 0u);
        }
        Velik::closeInbox();  // the completions came through this thread's inbox
    });
}

TEST_P(MetricsEndpointTest, RefusalsHaveTheirStatusAndTheEndpointCarriesOn) {
    run([this] {
        Velik::MetricsOptions options;
        options.maxClients = 1;
        auto endpoint = Velik::serveMetrics({{}}, "127.0.0.1:0", options);
        const std::uint16_t port = endpoint->port();
        const auto status = [&](std::string_view request) {
            const std::string reply = ask(port, request);
            return reply.substr(0, reply.find("\r\n"));
        };
        EXPECT_EQ(status("GET /other HTTP/1.1\r\n\r\n"), "HTTP/1.1 404 Not Found");
        const std::string post = ask(port, "POST /metrics HTTP/1.1\r\nContent-Length: 2\r\n\r\nab");
        EXPECT_THAT(post, StartsWith("HTTP/1.1 405 Method Not Allowed\r\n"));
        EXPECT_THAT(post, HasSubstr("\r\nAllow: GET, HEAD\r\n"));
        EXPECT_THAT(post, HasSubstr("\r\nContent-Length: 19\r\n"));
        EXPECT_TRUE(post.ends_with("\r\n\r\nMethod Not Allowed\n"));
        EXPECT_EQ(status("GET /metrics HTTP/1.1\r\nBad Header\r\n\r\n"),
                  "HTTP/1.1 400 Bad Request");
        // Bounds: 8192 bytes and 64 headers.
        std::string headers;
        for (int i = 0; i < 64; ++i) {
            headers += "X-" + std::to_string(i) + ": y\r\n";
        }
        EXPECT_EQ(status("GET /metrics HTTP/1.1\r\n" + headers + "\r\n"), "HTTP/1.1 200 OK");
        EXPECT_EQ(status("GET /metrics HTTP/1.1\r\n" + headers + "X: y\r\n\r\n"),
                  "HTTP/1.1 431 Request Header Fields Too Large");
        const std::string line = "GET /metrics HTTP/1.1\r\nX: ";
        EXPECT_EQ(status(line + std::string(8192 - line.size() - 4, 'a') + "\r\n\r\n"),
                  "HTTP/1.1 200 OK");
        EXPECT_EQ(status(line + std::string(8192 - line.size() - 3, 'a') + "\r\n\r\n"),
                  "HTTP/1.1 431 Request Header Fields Too Large");
        // One client at a time here: the next one is turned away at once.
        Client first(port);
        ASSERT_TRUE(pumpUntil([&] { return endpoint->clientCount() == 1; }));
        EXPECT_EQ(status("GET /metrics HTTP/1.1\r\n\r\n"), "HTTP/1.1 503 Service Unavailable");
        EXPECT_EQ(endpoint->refusedCount(), 1u);
        first.send("GET /metrics HTTP/1.1\r\n\r\n");
        ASSERT_TRUE(pumpUntil([&] { return first.ended(); }));
        EXPECT_THAT(first.got, StartsWith("HTTP/1.1 200 OK\r\n"));
    });
}

TEST_P(MetricsEndpointTest, RequestAndReplyDeadlines) {
    run([this] {
        auto root = Velik::schedulerRootVelik();
        Velik::MetricsOptions options;
        options.requestTimeout = 3.0;
        options.replyTimeout = 30.0;
        options.samplesPerSlice = 100;
        auto endpoint = Velik::serveMetrics({{}}, "127.0.0.1:0", options);
        Client slow(endpoint->port());
        slow.send("GET /metr");
        ASSERT_TRUE(pumpUntil([&] { return endpoint->clientCount() == 1; }));
        Velik::Platform::doEventLoop(2.5);
        EXPECT_FALSE(slow.ended());
        Velik::Platform::doEventLoop(1.0);
        EXPECT_TRUE(slow.ended());
        EXPECT_THAT(slow.got, StartsWith("HTTP/1.1 408 Request Timeout\r\n"));

        // A client that asks and never reads: its reply fills the socket and
        // waits while others are served; at the deadline it is dropped.
        std::vector<std::shared_ptr<ProbeTask>> many;
        for (int i = 0; i < 5000; ++i) {
            many.push_back(std::make_shared<ProbeTask>(root.get(), TaskPriority::low,
                                                       "filler" + std::to_string(i)));
        }
        Client mute(endpoint->port(), 4096);
        mute.send("GET /metrics HTTP/1.1\r\n\r\n");
        EXPECT_THAT(ask(endpoint->port(), "GET /metrics HTTP/1.1\r\n\r\n"),
                    HasSubstr("task=\"filler4999\"} 0\n"));
        EXPECT_EQ(endpoint->clientCount(), 1u);
        Velik::Platform::doEventLoop(31.0);
        EXPECT_EQ(endpoint->clientCount(), 0u);
        EXPECT_TRUE(pumpUntil([&] { return mute.ended(); }));  // what was sent, then the end
        EXPECT_THAT(mute.got, StartsWith("HTTP/1.1 200 OK\r\n"));
        // It never had it all: the scheduler families come last.
        EXPECT_THAT(mute.got, testing::Not(HasSubstr("velik_scheduler_max_slip_seconds")));
    });
}

INSTANTIATE_TEST_SUITE_P(BothPlatforms, MetricsEndpointTest,
                         testing::Values(VelikTest::Family::framework, VelikTest::Family::libevent),
                         VelikTest::familyName);

}  // namespace
