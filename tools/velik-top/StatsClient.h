// Asks a daemon's stats socket for one document.
//
// One request per connection: connect to the Unix-domain socket, send the
// verb on one line, read until the daemon closes. A reply that starts with
// "error: " is the daemon refusing, and is thrown as such:
//
//   std::string json = VelikTop::fetch("/run/mydaemon/main.sock", "snapshot", 5.0);
#pragma once

#include <string>
#include <string_view>

namespace VelikTop {

// The whole reply to `verb` ("snapshot", "report" or "history") from the
// socket at `path`, within `timeoutSeconds` in all. Throws `TopError`:
// `exitUnreachable` when the socket is missing, refuses the connection or
// the time-out passes; `exitRefused` with the daemon's reason when it
// answers "error: <reason>".
std::string fetch(const std::string& path, std::string_view verb, double timeoutSeconds);

// The daemon's reason when `reply` is an error line ("error: <reason>\n"),
// else empty.
std::string errorReason(std::string_view reply);

}  // namespace VelikTop
