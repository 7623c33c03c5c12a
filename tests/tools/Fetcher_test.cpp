// The fetch threads against a silent server on a real Unix socket: it
// listens, and the kernel's backlog accepts for it, but it never says a word.
#include "Fetcher.h"
#include "FakeSnapshot.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

namespace {

using Clock = std::chrono::steady_clock;

// A fetcher quits without waiting out a silent socket's time-out, and does
// not ask a socket again while its round is under way.
TEST(Fetcher, CancelsAnUnansweredRoundOnQuit) {
    char templ[] = "/tmp/velik-top-fetch-XXXXXX";
    const std::string dir = mkdtemp(templ), path = dir + "/silent.sock";
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(fd, 8), 0);
    const auto begin = Clock::now();
    {
        VelikTop::Fetcher fetcher({{path, "silent"}}, 60);
        EXPECT_EQ(fetcher.startRound(), 1u);
        EXPECT_EQ(fetcher.startRound(), 0u);
    }
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - begin).count(), 30);
    close(fd);
    std::filesystem::remove_all(dir);
}

}  // namespace
