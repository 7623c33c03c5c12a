#include "StatsClient.h"

#include "TopError.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace VelikTop {
namespace {

using Clock = std::chrono::steady_clock;

// Closes the descriptor however the exchange ends.
class Socket {
  public:
    Socket() : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}
    ~Socket() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd() const { return fd_; }

  private:
    int fd_;
};

[[noreturn]] void unreachable(const std::string& path, const std::string& what) {
    throw TopError(exitUnreachable, path + ": " + what);
}

// One exchange's socket path, deadline and cancel descriptor.
struct Exchange {
    const std::string& path;
    Clock::time_point deadline;
    int cancelFd;
};

// Waits up to `ms` (or until the deadline) for `events` on `fd` (none when -1)
// or for the cancel descriptor; throws when cancelled. False on time-out.
bool waitFor(const Exchange& x, int fd, short events, long long ms = -1) {
    for (;;) {
        long long left =
            std::chrono::duration_cast<std::chrono::milliseconds>(x.deadline - Clock::now())
                .count();
        if (ms >= 0) {
            left = std::min(left, ms);
        }
        if (left <= 0) {
            return false;
        }
        pollfd p[2] = {{x.cancelFd, POLLIN, 0}, {fd, events, 0}};
        const int n = ::poll(p, 2, static_cast<int>(left));
        if (n > 0 && p[0].revents != 0) {
            unreachable(x.path, "cancelled");
        }
        if (n > 0) {
            return true;
        }
        if (n == 0 && ms >= 0) {
            return false;
        }
        if (n < 0 && errno != EINTR) {
            return false;
        }
    }
}

void connectTo(const Socket& socket, const Exchange& x) {
    const std::string& path = x.path;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        unreachable(path, "socket path too long");
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    for (;;) {
        if (::connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
            0) {
            return;
        }
        if (errno == ENOENT) {
            unreachable(path, "no such socket (is the daemon running and serving its stats?)");
        }
        if (errno == ECONNREFUSED) {
            unreachable(path, "connection refused (no daemon listens on this socket)");
        }
        if (errno != EAGAIN && errno != EINTR) {
            unreachable(path, std::strerror(errno));
        }
        // The daemon's listen backlog is full: try again shortly.
        if (Clock::now() >= x.deadline) {
            unreachable(path, "timed out connecting");
        }
        waitFor(x, -1, 0, 10);
    }
}

void sendAll(const Socket& socket, const Exchange& x, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = ::send(socket.fd(), data.data(), data.size(), MSG_NOSIGNAL);
        if (n > 0) {
            data.remove_prefix(static_cast<std::size_t>(n));
        } else if (n < 0 && errno == EAGAIN) {
            if (!waitFor(x, socket.fd(), POLLOUT)) {
                unreachable(x.path, "timed out sending the request");
            }
        } else if (n < 0 && errno != EINTR) {
            // The daemon may have refused us before reading: its reply says why.
            return;
        }
    }
}

// "256 MiB", or bytes for a limit below one MiB.
std::string sizeText(std::size_t bytes) {
    return bytes >= (1u << 20) && bytes % (1u << 20) == 0 ? std::to_string(bytes >> 20) + " MiB"
                                                          : std::to_string(bytes) + " bytes";
}

std::string readToEnd(const Socket& socket, const Exchange& x, std::size_t limit) {
    const std::string& path = x.path;
    std::string reply;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(socket.fd(), buffer, sizeof buffer);
        if (n > 0) {
            if (static_cast<std::size_t>(n) > limit - reply.size()) {
                throw TopError(exitMalformed, path + ": reply larger than " + sizeText(limit) +
                                                  "; stopped reading");
            }
            reply.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0) {
            return reply;
        } else if (errno == EAGAIN) {
            if (!waitFor(x, socket.fd(), POLLIN)) {
                unreachable(path, "timed out waiting for the reply");
            }
        } else if (errno == ECONNRESET && !reply.empty()) {
            return reply;  // closed on us after answering, unread request and all
        } else if (errno != EINTR) {
            unreachable(path, std::string("reading the reply: ") + std::strerror(errno));
        }
    }
}

// Refuses a server that is neither this user nor root: whoever made the
// socket could feed the terminal anything.
void checkServer(const Socket& socket, const std::string& path) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(socket.fd(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 ||
        size != sizeof credentials) {
        unreachable(path, std::string("reading the server's credentials: ") + std::strerror(errno));
    }
    if (!trustedServer(credentials.uid, ::geteuid())) {
        throw TopError(exitRefused, path + ": served by uid " + std::to_string(credentials.uid) +
                                        ", neither you (uid " + std::to_string(::geteuid()) +
                                        ") nor root; not read");
    }
}

}  // namespace

bool trustedServer(uid_t server, uid_t self) {
    return server == self || server == 0;
}

std::string errorReason(std::string_view reply) {
    constexpr std::string_view prefix = "error: ";
    if (reply.substr(0, prefix.size()) != prefix) {
        return {};
    }
    reply.remove_prefix(prefix.size());
    const auto end = reply.find('\n');
    std::string reason(reply.substr(0, end));
    return reason.empty() ? "unspecified error" : reason;
}

std::string exchange(const std::string& path, std::string_view verb, const ExchangeLimits& limits) {
    const Exchange x{path,
                     Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(limits.timeoutSeconds)),
                     limits.cancelFd};
    Socket socket;
    if (socket.fd() < 0) {
        unreachable(path, std::strerror(errno));
    }
    connectTo(socket, x);
    checkServer(socket, path);
    sendAll(socket, x, std::string(verb) + "\n");
    return readToEnd(socket, x, limits.replyLimit);
}

std::string fetch(const std::string& path, std::string_view verb, double timeoutSeconds,
                  std::size_t replyLimit) {
    std::string reply = exchange(path, verb, {timeoutSeconds, replyLimit, -1});
    if (const std::string reason = errorReason(reply); !reason.empty()) {
        throw TopError(exitRefused, path + ": the daemon refused: " + reason);
    }
    if (reply.empty()) {
        throw TopError(exitMalformed, path + ": empty reply");
    }
    return reply;
}

}  // namespace VelikTop
