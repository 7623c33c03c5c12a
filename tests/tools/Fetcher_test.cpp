// The fetch threads against fake servers on real Unix sockets: one answers
// from canned replies, one accepts and never says a word.
#include "Fetcher.h"
#include "FakeSnapshot.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Listens at `path` until destroyed; answers each request line from
// `replies`, or, with none, holds every connection open unanswered.
class FakeServer {
  public:
    FakeServer(const std::string& path, std::map<std::string, std::string> replies)
        : replies_(std::move(replies)) {
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd_, 8), 0);
        EXPECT_EQ(pipe(stop_), 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~FakeServer() {
        (void)!write(stop_[1], "x", 1);
        thread_.join();
        for (int fd : {fd_, stop_[0], stop_[1]}) {
            close(fd);
        }
        for (int fd : held_) {
            close(fd);
        }
    }

  private:
    void serve() {
        for (;;) {
            pollfd p[2] = {{stop_[0], POLLIN, 0}, {fd_, POLLIN, 0}};
            if (poll(p, 2, -1) <= 0 || p[0].revents) {
                return;
            }
            const int client = accept(fd_, nullptr, nullptr);
            if (replies_.empty()) {
                held_.push_back(client);
                continue;
            }
            char buffer[256];
            const ssize_t n = read(client, buffer, sizeof buffer);
            const std::string verb(buffer, n > 1 ? static_cast<std::size_t>(n - 1) : 0);
            const std::string& reply = replies_[verb];
            (void)!write(client, reply.data(), reply.size());
            close(client);
        }
    }

    std::map<std::string, std::string> replies_;
    int fd_ = -1, stop_[2] = {-1, -1};
    std::vector<int> held_;
    std::thread thread_;
};

class FetcherTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char templ[] = "/tmp/velik-top-fetch-XXXXXX";
        dir = mkdtemp(templ);
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string dir;
};

// A busy reply is no error, and an old daemon's refusal of the new requests
// leaves the snapshot alone; a fetcher quits without waiting out a silent
// socket's time-out.
TEST_F(FetcherTest, BusyRepliesAndCancellingOnQuit) {
    {
        FakeServer busy(dir + "/busy.sock",
                        {{"status", "error: unknown request\n"},
                         {"snapshot", "error: thread busy for 2.5 s in task \"x\"\n"}});
        VelikTop::Fetcher fetcher({{dir + "/busy.sock", "busy"}}, 5);
        fetcher.startRound();
        const auto results = fetcher.takeWhenDone();
        ASSERT_EQ(results.size(), 2u);
        EXPECT_FALSE(results[0].status);
        ASSERT_TRUE(results[1].busy);
        EXPECT_FALSE(results[1].error);
        EXPECT_EQ(results[1].busy->task, "x");
    }
    FakeServer silent(dir + "/silent.sock", {});
    const auto begin = Clock::now();
    {
        VelikTop::Fetcher fetcher({{dir + "/silent.sock", "silent"}}, 60);
        fetcher.startRound();
        EXPECT_EQ(fetcher.startRound(), 0u);  // not asked again while under way
    }
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - begin).count(), 30);
}

}  // namespace
