// The stats endpoint's socket: owner-only creation, stale files, peer
// credentials, closing without resetting the peer.
#include "endpoint/StatsSocket.h"

#include "Velik/Errno.h"
#include "Velik/Exception.h"

#include <fcntl.h>
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

[[noreturn]] void failNotSocket(const std::string& path) {
    fail(fmt::format("stats socket {}: the path exists and is not a socket", path));
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
        failNotSocket(path);
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

// Removes `path` if it is still the file (`dev`, `ino`).
void unlinkIfSame(const std::string& path, dev_t dev, ino_t ino) {
    struct stat st;
    if (lstat(path.c_str(), &st) == 0 && st.st_dev == dev && st.st_ino == ino) {
        unlink(path.c_str());
    }
}

// Whether `fd` is still the file at `path`: a holder that went away removes
// its lock file, and whoever was waiting on the old one must start over.
bool isFileAt(int fd, const std::string& path) {
    struct stat held, named;
    return fstat(fd, &held) == 0 && lstat(path.c_str(), &named) == 0 &&
           held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

// The exclusive lock on "<path>.lock", as a descriptor to keep.
int lockSocketPath(const std::string& path) {
    const std::string lockPath = socketLockPath(path);
    for (int attempt = 0; attempt < 8; ++attempt) {
        FdGuard fd(open(lockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (fd.get() < 0) {
            // A missing directory reads as it would without the lock file.
            failErrno(errno == ENOENT ? "bind" : "opening the lock file " + lockPath, path, errno);
        }
        struct flock lock {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        if (fcntl(fd.get(), F_OFD_SETLK, &lock) != 0) {
            if (errno == EAGAIN || errno == EACCES) {
                fail(fmt::format(
                    "stats socket {} is in use: another endpoint answers on it or is starting "
                    "(it holds {})",
                    path, lockPath));
            }
            failErrno("locking " + lockPath, path, errno);
        }
        if (isFileAt(fd.get(), lockPath)) {
            return fd.release();
        }
    }
    fail(fmt::format("stats socket {}: the lock file {} keeps being replaced", path, lockPath));
}

}  // namespace

std::string socketLockPath(const std::string& path) {
    return path + ".lock";
}

namespace {

// Removes the lock file if `lockFd` still holds it: whoever waits on it then
// sees it gone and starts over.
void removeLockFile(const std::string& path, int lockFd) {
    const std::string lockPath = socketLockPath(path);
    if (isFileAt(lockFd, lockPath)) {
        unlink(lockPath.c_str());
    }
}

// Binds and listens at `path`, the lock held: nobody else replaces or binds
// it meanwhile.
ListeningSocket listenLocked(const std::string& path, const sockaddr_un& address, int backlog) {
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
    return ListeningSocket{fd.release(), st.st_dev, st.st_ino, -1};
}

}  // namespace

ListeningSocket listenOwnerOnly(const std::string& path, int backlog) {
    const sockaddr_un address = addressOf(path);
    // Refused before a lock file is made beside it.
    struct stat existing;
    if (lstat(path.c_str(), &existing) == 0 && !S_ISSOCK(existing.st_mode)) {
        failNotSocket(path);
    }
    FdGuard lock(lockSocketPath(path));
    ListeningSocket listening;
    try {
        listening = listenLocked(path, address, backlog);
    } catch (...) {
        removeLockFile(path, lock.get());
        throw;
    }
    listening.lockFd = lock.release();
    return listening;
}

void closeListening(const std::string& path, const ListeningSocket& socket) {
    ::close(socket.fd);
    unlinkIfSame(path, socket.dev, socket.ino);
    removeLockFile(path, socket.lockFd);
    ::close(socket.lockFd);
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
