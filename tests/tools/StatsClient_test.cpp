// The client against a one-connection server on a real Unix socket.
#include "StatsClient.h"
#include "Options.h"
#include "TopError.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

namespace fs = std::filesystem;

// The status `f` fails with, and its message.
template <typename F>
VelikTop::ExitStatus failureOf(F&& f, std::string* message = nullptr) {
    try {
        f();
    } catch (const VelikTop::TopError& e) {
        if (message) {
            *message = e.what();
        }
        return e.status();
    }
    return VelikTop::exitOk;
}

class StatsClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char templ[] = "/tmp/velik-top-test-XXXXXX";
        ASSERT_NE(mkdtemp(templ), nullptr);
        dir = templ;
        path = dir + "/main.sock";
    }
    void TearDown() override {
        if (server.joinable()) {
            server.join();
        }
        fs::remove_all(dir);
    }

    // Listens at `path` and answers one connection with `reply`, after
    // reading its request into `request`.
    void serveOnce(std::string reply) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
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

TEST_F(StatsClientTest, SendsOneLineAndReadsUntilClosed) {
    const std::string big(300000, 'x');  // more than one read
    serveOnce(big);
    EXPECT_EQ(VelikTop::fetch(path, "snapshot", 5.0), big);
    server.join();
    EXPECT_EQ(request, "snapshot\n");
}

TEST_F(StatsClientTest, AnErrorLineIsTheDaemonRefusing) {
    serveOnce("error: too many clients\n");
    std::string message;
    EXPECT_EQ(failure(path, &message), VelikTop::exitRefused);
    EXPECT_EQ(message, path + ": the daemon refused: too many clients");
    EXPECT_EQ(VelikTop::errorReason("error: \n"), "unspecified error");
    EXPECT_EQ(VelikTop::errorReason("{\"error: \""), "");
}

TEST_F(StatsClientTest, MissingDeadAndSilentSockets) {
    EXPECT_EQ(failure(path), VelikTop::exitUnreachable);
    // A socket file nobody listens on any more.
    serveOnce("");
    EXPECT_EQ(failure(path), VelikTop::exitMalformed);  // closed without a word
    server.join();
    EXPECT_EQ(failure(path), VelikTop::exitUnreachable);
}

TEST_F(StatsClientTest, DirectoriesStandForTheirSockets) {
    fs::create_directory(dir + "/b");
    for (const char* thread : {"io", "main", "disk"}) {
        std::ofstream(dir + "/b/" + thread + ".sock");
    }
    const auto endpoints = VelikTop::resolveEndpoints({dir + "/b", dir + "/b/io.sock"});
    ASSERT_EQ(endpoints.size(), 3u);  // io.sock only once
    EXPECT_EQ(endpoints[0].thread, "disk");
    EXPECT_EQ(endpoints[1].thread, "io");
    EXPECT_EQ(endpoints[2].thread, "main");
    std::ofstream(dir + "/main.sock");
    EXPECT_EQ(VelikTop::resolveEndpoints({dir + "/b/main.sock", dir + "/main.sock"})[1].thread,
              "main#2");

    fs::create_directory(dir + "/empty");
    for (const std::string& bad : {dir + "/none", dir + "/empty"}) {
        EXPECT_EQ(failureOf([&] { VelikTop::resolveEndpoints({bad}); }), VelikTop::exitUnreachable);
    }
}

TEST(Options, ModesIntervalAndMistakes) {
    const char* ok[] = {"velik-top", "-i", "0.5", "--once", "/run/x.sock"};
    const auto o = VelikTop::parseOptions(5, ok);
    EXPECT_EQ(o.mode, VelikTop::Mode::once);
    EXPECT_DOUBLE_EQ(o.interval, 0.5);
    EXPECT_EQ(o.targets, std::vector<std::string>{"/run/x.sock"});
    const char* joined[] = {"velik-top", "--interval=2", "-i3"};
    EXPECT_DOUBLE_EQ(VelikTop::parseOptions(3, joined).interval, 3);

    const std::vector<std::vector<const char*>> bad = {
        {"velik-top", "--once", "--json"}, {"velik-top", "-i"},        {"velik-top", "-i", "0"},
        {"velik-top", "-i", "1x"},         {"velik-top", "-i", "nan"}, {"velik-top", "--top"}};
    for (const auto& args : bad) {
        EXPECT_EQ(
            failureOf([&] { VelikTop::parseOptions(static_cast<int>(args.size()), args.data()); }),
            VelikTop::exitUsage)
            << args.back();
    }
}

}  // namespace
