// The stats endpoint's socket: owner-only creation, stale files, peer
// credentials, closing without resetting the peer.
#include "scheduler/StatsSocket.h"

#include "Velik/Errno.h"
#include "Velik/Exception.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Velik::Impl {

namespace {

[[noreturn]] void fail(const std::string& message) {
    RuntimeException::throwException(message);
}

[[noreturn]] void failErrno(std::string_view what, const std::string& path, int error) {
    fail(fmt::format("stats socket {}: {} failed: {}", path, what, Velik::strerror(error)));
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        fail(
            fmt::format("stats socket path \"{}\" is {} bytes; a Unix socket address holds 1 to {}",
                        path, path.size(), sizeof address.sun_path - 1));
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

// Closes `fd` whatever happens to the scope.
class FdGuard {
  public:
    explicit FdGuard(int fd) : fd_(fd) {}
    ~FdGuard() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    FdGuard(const FdGuard&) = delete;
    FdGuard& operator=(const FdGuard&) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

// Removes a socket file that nobody answers on; leaves a live one, or
// anything that is not a socket, alone and throws.
void replaceStale(const std::string& path, const sockaddr_un& address) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
        if (errno != ENOENT) {
            failErrno("lstat", path, errno);
        }
        return;
    }
    if (!S_ISSOCK(st.st_mode)) {
        fail(fmt::format("stats socket {}: the path exists and is not a socket", path));
    }
    FdGuard probe(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (probe.get() < 0) {
        failErrno("socket", path, errno);
    }
    const int rc =
        connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int error = errno;
    // A full backlog (EAGAIN) still means somebody listens.
    if (rc == 0 || error == EAGAIN || error == EINPROGRESS) {
        fail(fmt::format("stats socket {} is in use: another endpoint answers on it", path));
    }
    if (error != ECONNREFUSED) {
        failErrno("probing the existing socket", path, error);
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        failErrno("removing the stale socket", path, errno);
    }
}

}  // namespace

ListeningSocket listenOwnerOnly(const std::string& path, int backlog) {
    const sockaddr_un address = addressOf(path);
    replaceStale(path, address);
    FdGuard fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        failErrno("socket", path, errno);
    }
    // Linux gives the file made by bind the socket's own mode (less the
    // umask): set before bind, the file is never open to others, and the
    // process-wide umask is left alone.
    if (fchmod(fd.get(), S_IRUSR | S_IWUSR) != 0) {
        failErrno("fchmod", path, errno);
    }
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        failErrno("bind", path, errno);
    }
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        const int error = errno;
        unlink(path.c_str());
        failErrno("stat", path, error);
    }
    if (listen(fd.get(), backlog) != 0) {
        const int error = errno;
        unlink(path.c_str());
        failErrno("listen", path, error);
    }
    return ListeningSocket{fd.release(), st.st_dev, st.st_ino};
}

void unlinkIfSame(const std::string& path, dev_t dev, ino_t ino) {
    struct stat st;
    if (lstat(path.c_str(), &st) == 0 && st.st_dev == dev && st.st_ino == ino) {
        unlink(path.c_str());
    }
}

std::optional<uid_t> peerUid(int fd) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 ||
        size != sizeof credentials) {
        return std::nullopt;
    }
    return credentials.uid;
}

void sendAndClose(int fd, std::string_view text) {
    (void)!send(fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    closeDrained(fd);
}

void closeDrained(int fd) {
    // A request is at most a few hundred bytes; a peer that sends megabytes
    // may see a reset, which is fair.
    char scratch[4096];
    for (int i = 0; i < 4; ++i) {
        if (recv(fd, scratch, sizeof scratch, MSG_DONTWAIT) <= 0) {
            break;
        }
    }
    ::close(fd);
}

}  // namespace Velik::Impl
