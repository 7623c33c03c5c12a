// The client against a one-connection server on a real Unix socket.
#include "StatsClient.h"
#include "FakeSnapshot.h"
#include "Options.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

namespace fs = std::filesystem;

using VelikTopTest::failureOf;

class StatsClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char templ[] = "/tmp/velik-top-test-XXXXXX";
        path = (dir = mkdtemp(templ)) + "/main.sock";
    }
    void TearDown() override {
        if (server.joinable()) {
            server.join();
        }
        fs::remove_all(dir);
    }

    // A socket bound to `path`, not yet listening.
    int bound() {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return fd;
    }

    // Listens at `path` and answers one connection with `reply`, after
    // reading its request into `request`.
    void serveOnce(std::string reply) {
        const int fd = bound();
        ASSERT_EQ(listen(fd, 1), 0);
        server = std::thread([this, fd, reply = std::move(reply)] {
            const int client = accept(fd, nullptr, nullptr);
            char buffer[512];
            const ssize_t n = read(client, buffer, sizeof buffer);
            request.assign(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
            (void)!write(client, reply.data(), reply.size());
            close(client);
            close(fd);
        });
    }

    VelikTop::ExitStatus failure(const std::string& at, std::string* message = nullptr) {
        return failureOf([&] { VelikTop::fetch(at, "snapshot", 5.0); }, message);
    }

    std::string dir, path, request;
    std::thread server;
};

TEST_F(StatsClientTest, AnErrorLineIsTheDaemonRefusing) {
    serveOnce("error: too many clients\n");
    std::string message;
    EXPECT_EQ(failure(path, &message), VelikTop::exitRefused);
    EXPECT_EQ(message, path + ": the daemon refused: too many clients");
    EXPECT_EQ(VelikTop::errorReason("error: \n"), "unspecified error");
}

// A socket file nobody listens on any more, after one that answered nothing.
TEST_F(StatsClientTest, DeadAndSilentSockets) {
    serveOnce("");
    EXPECT_EQ(failure(path), VelikTop::exitMalformed);  // closed without a word
    server.join();
    EXPECT_EQ(failure(path), VelikTop::exitUnreachable);
}

// One request line; the reply read until the server closes, up to a limit.
TEST_F(StatsClientTest, SendsOneLineAndRefusesAReplyBeyondTheLimit) {
    serveOnce(std::string(300000, 'x'));
    std::string message;
    EXPECT_EQ(failureOf([&] { VelikTop::fetch(path, "snapshot", 5.0, 200000); }, &message),
              VelikTop::exitMalformed);
    EXPECT_EQ(message, path + ": reply larger than 200000 bytes; stopped reading");
    server.join();
    EXPECT_EQ(request, "snapshot\n");
}

TEST_F(StatsClientTest, ASocketServedByAnotherUserIsNotRead) {
    EXPECT_TRUE(VelikTop::trustedServer(0, 1000) && !VelikTop::trustedServer(1001, 1000));
    if (geteuid() != 0) {
        GTEST_SKIP() << "playing another user needs root";
    }
    // The server's credentials are those of the process that listens.
    const int fd = bound();
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        if (setresuid(65534, 65534, 65534) != 0 || listen(fd, 1) != 0) {
            _exit(1);
        }
        (void)!write(ready[1], "r", 1);
        const int client = accept(fd, nullptr, nullptr);
        (void)!write(client, "{\"schedulers\":{}}", 17);
        _exit(0);
    }
    close(fd);
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    std::string message;
    EXPECT_EQ(failure(path, &message), VelikTop::exitRefused);
    EXPECT_EQ(message, path + ": served by uid 65534, neither you (uid 0) nor root; not read");
    waitpid(child, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
}

TEST_F(StatsClientTest, TheDefaultDirectoryMustBeTheUsersAlone) {
    std::string message;
    const auto refused = [&](const std::string& at) {
        return failureOf([&] { VelikTop::checkOwnDirectory(at); }, &message);
    };
    const std::string own = dir + "/own", open = dir + "/open";
    fs::create_directory(own);
    fs::create_directory(open);
    chmod(own.c_str(), 0755);
    EXPECT_EQ(refused(dir + "/missing"), VelikTop::exitOk);
    chmod(open.c_str(), 01777);  // sticky like /tmp, still anyone's to fill
    EXPECT_EQ(refused(open), VelikTop::exitUnreachable);
    EXPECT_EQ(message, open +
                           ": not used: writable by others (mode 1777) (name a socket or "
                           "directory to use it anyway)");

    fs::create_directory_symlink(own, dir + "/link");
    EXPECT_EQ(refused(dir + "/link"), VelikTop::exitUnreachable);
    EXPECT_NE(message.find("not a directory"), std::string::npos) << message;

    if (geteuid() == 0) {
        ASSERT_EQ(chown(own.c_str(), 65534, 65534), 0);
        EXPECT_EQ(refused(own), VelikTop::exitUnreachable);
        EXPECT_NE(message.find("owned by uid 65534, not by you (uid 0)"), std::string::npos)
            << message;
    }
}

TEST_F(StatsClientTest, DirectoriesStandForTheirSockets) {
    fs::create_directory(dir + "/b");
    for (const char* thread : {"io", "main", "disk"}) {
        std::ofstream(dir + "/b/" + thread + ".sock");
    }
    const auto threads = [](const std::vector<std::string>& targets) {
        std::vector<std::string> names;
        for (const auto& endpoint : VelikTop::resolveEndpoints(targets)) {
            names.push_back(endpoint.thread);
        }
        return names;
    };
    // Sorted, io.sock only once; a second thread of one name numbered.
    EXPECT_EQ(threads({dir + "/b", dir + "/b/io.sock"}),
              (std::vector<std::string>{"disk", "io", "main"}));
    std::ofstream(dir + "/main.sock");
    EXPECT_EQ(threads({dir + "/b/main.sock", dir + "/main.sock"}),
              (std::vector<std::string>{"main", "main#2"}));
}

}  // namespace
