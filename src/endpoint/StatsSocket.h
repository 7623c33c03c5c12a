// The Unix-domain socket under a stats endpoint: made owner-only, replacing a
// stale file, removed only while it is still ours.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace Velik::Impl {

// A listening socket, the identity of its file, and the lock that makes the
// path ours.
struct ListeningSocket {
    int fd = -1;
    dev_t dev = 0;
    ino_t ino = 0;
    int lockFd = -1;
};

// The lock file beside the socket: "<path>.lock".
std::string socketLockPath(const std::string& path);

// Listens at `path`: non-blocking, close-on-exec, the file of mode 0600 from
// the moment it exists. First takes an exclusive open-file-description lock
// on "<path>.lock" (created with mode 0600, never through a symlink), held
// until `closeListening`: two endpoints started together on one path cannot
// both replace a stale socket file, and only the holder ever removes or
// binds the path. A socket file nobody answers on is then replaced. Throws
// `RuntimeException` for a path too long for a socket address, a path that
// is not a socket, a path another endpoint holds or answers on, or a failing
// system call (with its error text).
ListeningSocket listenOwnerOnly(const std::string& path, int backlog);

// Closes the socket, removes its file and the lock file if they are still
// the ones it made (a daemon that took the path over since keeps them), and
// releases the lock.
void closeListening(const std::string& path, const ListeningSocket& socket);

// The uid of the peer on a connected socket (SO_PEERCRED); none on failure.
std::optional<uid_t> peerUid(int fd);

// Writes `text` with one non-blocking send (a fresh connection always has
// room for a line; otherwise the rest is dropped), then closes `fd` as
// `closeDrained` does.
void sendAndClose(int fd, std::string_view text);

// Reads and discards what the peer sent and nobody read (a bounded amount),
// then closes: a Unix socket closed with unread input would make the peer's
// next read fail with ECONNRESET instead of seeing the end of the reply.
void closeDrained(int fd);

}  // namespace Velik::Impl
