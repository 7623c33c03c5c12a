// The stats endpoint on a real socket and a real loop, on both platforms and
// under virtual time: the three replies, every refusal, and the socket file's
// life.
#include <Velik/StatsEndpoint.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <filesystem>

#include "platform/Families.h"
#include "scheduler/SchedulerFixture.h"

namespace {

using Velik::TaskPriority;
using VelikTest::ProbeTask;

// Connects, or with `bind` binds, a new stream socket to `path`.
int socketAt(const std::string& path, bool bind = false, int receiveBuffer = 0) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receiveBuffer) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    const auto* at = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind ? ::bind(fd, at, sizeof address) : connect(fd, at, sizeof address), 0);
    return fd;
}

// A client on the test's own thread: its reads never wait.
struct Client {
    explicit Client(const std::string& path, int receiveBuffer = 0)
        : fd(socketAt(path, false, receiveBuffer)) {}
    ~Client() { close(fd); }
    void send(std::string_view text) {
        EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
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

class StatsEndpointTest : public VelikTest::FamilyTest {
  protected:
    void SetUp() override {
        FamilyTest::SetUp();
        char name[] = "/tmp/velikstatsXXXXXX";
        path = (dir = mkdtemp(name)) + "/main.sock";
    }
    void TearDown() override {
        std::filesystem::remove_all(dir);
        FamilyTest::TearDown();
    }

    // Runs the loop in short slices until `done`, a bounded number of times.
    static bool pumpUntil(const std::function<bool()>& done) {
        for (int i = 0; i < 2000 && !done(); ++i) {
            Velik::Platform::doEventLoopInWaitfor(0.001);
        }
        return done();
    }
    // The reply to `request`, sent by a client that may end its side after it.
    std::string ask(std::string_view request, bool shutWrite = false) {
        Client client(path);
        client.send(request);
        if (shutWrite) {
            shutdown(client.fd, SHUT_WR);
        }
        EXPECT_TRUE(pumpUntil([&] { return client.ended(); })) << request;
        return client.got;
    }

    std::string dir, path;
};

TEST_P(StatsEndpointTest, AnswersTheThreeRequestsAndOneErrorLineToBadOnes) {
    run([this] {
        auto root = Velik::schedulerRootVelik();
        auto worker = std::make_shared<ProbeTask>(root.get(), TaskPriority::normal, "worker");
        worker->scheduleTask();
        auto endpoint = Velik::serveStats(*root, path);

        const std::string json = ask("snapshot\n");
        EXPECT_THAT(json, testing::HasSubstr(R"({"name":"worker",)"));
        EXPECT_THAT(json, testing::HasSubstr(R"("history":{"historyEntryCount":)"));

        const std::string report = ask("report\r\n");  // a CR before the LF is tolerated
        EXPECT_EQ(report.substr(0, 8), "Priority");
        EXPECT_NE(report.find("TaskName (completed)"), std::string::npos);

        // Oldest first, each line naming the root.
        std::istringstream history(ask("history\n"));
        long long previous = 0, ns;
        int lines = 0;
        for (std::string name, rest; history >> ns >> name && std::getline(history, rest);
             ++lines) {
            EXPECT_GE(ns, std::exchange(previous, ns)) << rest;
            EXPECT_EQ(name, root->schedulerName().str());
        }
        EXPECT_GT(lines, 50);

        // Bad requests get one error line, and the daemon carries on.
        EXPECT_EQ(ask("snap\x01shot\n"), "error: malformed request\n");
        EXPECT_EQ(ask(std::string(255, 'x') + "\n"),
                  "error: unknown verb, ask for snapshot, report or history\n");
        // One byte over: refused without reading the rest.
        EXPECT_EQ(ask(std::string(256, 'x') + "\n" + std::string(5000, 'y')),
                  "error: request too long, at most 256 bytes\n");
        EXPECT_EQ(ask("report", true), "error: malformed request, the line has no end\n");
        EXPECT_EQ(ask("report\n").substr(0, 8), "Priority");  // still answering
        EXPECT_EQ(endpoint->clientCount(), 0u);
    });
}

TEST_P(StatsEndpointTest, ForeignUidsAndClientsBeyondTheBoundAreRefused) {
    run([this] {
        auto root = Velik::schedulerRootVelik();
        Velik::StatsEndpointOptions options;
        options.peerUidForTest = geteuid() + 1;
        auto endpoint = Velik::serveStats(*root, path, options);
        EXPECT_EQ(ask("snapshot\n"), "error: permission denied\n");
        EXPECT_EQ(endpoint->refusedCount(), 1u);
        endpoint.reset();

        options.peerUidForTest = 0;  // root is allowed
        options.maxClients = 2;
        endpoint = Velik::serveStats(*root, path, options);
        Client first(path), second(path);
        ASSERT_TRUE(pumpUntil([&] { return endpoint->clientCount() == 2; }));
        EXPECT_EQ(ask("report\n"), "error: too many clients\n");
        first.send("history\n");  // until one ends
        ASSERT_TRUE(pumpUntil([&] { return first.ended(); }));
        EXPECT_EQ(ask("report\n").substr(0, 8), "Priority");
        EXPECT_EQ(endpoint->refusedCount(), 1u);
        EXPECT_EQ(endpoint->acceptedCount(), 4u);
    });
}

TEST_P(StatsEndpointTest, RequestAndReplyDeadlines) {
    run([this] {
        auto root = Velik::schedulerRootVelik();
        Velik::StatsEndpointOptions options;
        options.requestTimeout = 3.0;
        options.replyTimeout = 30.0;
        auto endpoint = Velik::serveStats(*root, path, options);
        Client slow(path);
        slow.send("snap");
        ASSERT_TRUE(pumpUntil([&] { return endpoint->clientCount() == 1; }));  // accepted
        Velik::Platform::doEventLoop(2.5);
        EXPECT_FALSE(slow.ended());
        Velik::Platform::doEventLoop(1.0);
        EXPECT_TRUE(slow.ended());
        EXPECT_EQ(slow.got, "error: request timed out\n");

        // A client that asks and never reads: its reply fills the socket and
        // waits while other clients are served; at the reply deadline the
        // connection is dropped.
        std::vector<std::shared_ptr<ProbeTask>> many;
        for (int i = 0; i < 3000; ++i) {  // about a megabyte of JSON
            many.push_back(std::make_shared<ProbeTask>(root.get(), TaskPriority::low,
                                                       "filler" + std::to_string(i)));
        }
        Client mute(path, 4096);
        mute.send("snapshot\n");
        EXPECT_EQ(ask("report\n").substr(0, 8), "Priority");
        EXPECT_EQ(endpoint->clientCount(), 1u);
        Velik::Platform::doEventLoop(31.0);
        EXPECT_EQ(endpoint->clientCount(), 0u);
        EXPECT_TRUE(mute.ended());
        EXPECT_EQ(mute.got.substr(0, 15), R"({"schedulers":{)");
    });
}

// A stale socket is replaced, but not while another endpoint starting on the
// same path holds the lock beside it; both files are owner-only and go at the
// end, with every connection still open.
TEST_P(StatsEndpointTest, SocketAndLockFilesOwnerOnlyStaleReplacedRemovedAtTheEnd) {
    run([this] {
        auto root = Velik::schedulerRootVelik();
        close(socketAt(path, true));  // a socket left behind by a daemon that died
        const int held = open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        ASSERT_EQ(fcntl(held, F_OFD_SETLK, &lock), 0);
        auto failure = [&](const std::string& at) {
            try {
                Velik::serveStats(*root, at);
            } catch (const Velik::RuntimeException& e) {
                return e.message();
            }
            return std::string("no exception");
        };
        EXPECT_THAT(failure(path), testing::HasSubstr("is in use: another endpoint"));
        struct stat st;
        EXPECT_EQ(lstat(path.c_str(), &st), 0) << "the stale file is the holder's to replace";
        close(held);  // it went away: the lock file it left is reused

        auto endpoint = Velik::serveStats(*root, path);
        for (const std::string& file : {path, path + ".lock"}) {
            ASSERT_EQ(lstat(file.c_str(), &st), 0);
            EXPECT_EQ(st.st_mode & 07777, 0600u) << file;
            EXPECT_EQ(S_ISSOCK(st.st_mode), file == path) << file;
        }
        EXPECT_THAT(failure(path), testing::HasSubstr("is in use: another endpoint answers"));
        EXPECT_THAT(failure(dir), testing::HasSubstr("exists and is not a socket"));
        EXPECT_THAT(failure(dir + "/" + std::string(120, 'x')),
                    testing::HasSubstr("a Unix socket address holds 1 to 107"));
        EXPECT_THAT(failure(dir + "/missing/x.sock"),
                    testing::HasSubstr("bind failed: No such file or directory"));

        Client open(path);
        ASSERT_TRUE(pumpUntil([&] { return endpoint->clientCount() == 1; }));
        endpoint.reset();
        EXPECT_FALSE(std::filesystem::exists(path));
        EXPECT_FALSE(std::filesystem::exists(path + ".lock"));
        EXPECT_TRUE(open.ended());
    });
}

// Names reach the report and history replies with their control characters
// escaped, and the report's columns stay aligned around the escaped form.
TEST_P(StatsEndpointTest, ControlCharactersOfNamesEscapedInReportAndHistory) {
    run([this] {
        auto root = Velik::schedulerRootVelik();
        const std::string hostile = "evil\x1b]0;pwned\x07\r\x9b\xc2\x9b\xff";
        const std::string shown = R"(evil\x1b]0;pwned\x07\x0d\x9b\xc2\x9b\xff)";
        auto task = std::make_shared<ProbeTask>(root.get(), TaskPriority::low, hostile);
        task->scheduleTask();
        auto endpoint = Velik::serveStats(*root, path);

        const std::string report = ask("report\n");
        const std::size_t header = report.find("\nTaskName ");
        const std::size_t row = report.find("\n" + shown + " ");
        ASSERT_NE(row, std::string::npos) << "the name shown escaped";
        EXPECT_EQ(report.substr(row + report.find(" SP ", header) - header, 4), "  l ");
        EXPECT_NE(ask("history\n").find(" run end L " + shown + "\n"), std::string::npos);
    });
}

INSTANTIATE_TEST_SUITE_P(BothPlatforms, StatsEndpointTest,
                         testing::Values(VelikTest::Family::framework, VelikTest::Family::libevent),
                         VelikTest::familyName);

}  // namespace
