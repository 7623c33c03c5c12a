// Asks a daemon's stats socket for one document.
//
// One request per connection: connect to the Unix-domain socket, send the
// verb on one line, read until the daemon closes. A reply that starts with
// "error: " is the daemon refusing, and is thrown as such:
//
//   std::string json = VelikTop::fetch("/run/mydaemon/main.sock", "snapshot", 5.0);
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace VelikTop {

// The largest reply taken: beyond the snapshot of a hundred thousand
// tasks, and a bound on what a runaway or hostile server can make the viewer
// hold.
constexpr std::size_t maxReplyBytes = std::size_t{64} << 20;

// How one exchange is bounded: `timeoutSeconds` covers connecting, sending
// and the whole reply; `cancelFd`, when not -1, ends the exchange at once
// (`TopError`, `exitUnreachable`, "cancelled") as soon as it turns readable,
// so a viewer that quits need not wait out a silent daemon.
struct ExchangeLimits {
    double timeoutSeconds = 1.5;
    std::size_t replyLimit = maxReplyBytes;
    int cancelFd = -1;
};

// The reply to `verb` as sent, an "error: ..." line included (see
// `errorReason`). Throws `TopError` as `fetch` does, but for the error line.
std::string exchange(const std::string& path, std::string_view verb, const ExchangeLimits& limits);

// The whole reply to `verb` ("snapshot", "report" or "history") from the
// socket at `path`, within `timeoutSeconds` in all. The server must run as
// this user or as root (its credentials on the socket, SO_PEERCRED): a
// socket somebody else made is never read. Throws `TopError`:
// `exitUnreachable` when the socket is missing, refuses the connection or
// the time-out passes; `exitRefused` with the daemon's reason when it
// answers "error: <reason>", and when the server is another user;
// `exitMalformed` for an empty reply or one longer than `replyLimit` bytes
// ("reply larger than N MiB").
std::string fetch(const std::string& path, std::string_view verb, double timeoutSeconds,
                  std::size_t replyLimit = maxReplyBytes);

// Whether a server of uid `server` may be trusted by the user `self`: the
// same user, or root.
bool trustedServer(uid_t server, uid_t self);

// The daemon's reason when `reply` is an error line ("error: <reason>\n"),
// else empty.
std::string errorReason(std::string_view reply);

}  // namespace VelikTop
