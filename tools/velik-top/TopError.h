// The one error type of velik-top: a message for the user and the exit
// status the program ends with, so scripts can tell the failures apart.
#pragma once

#include <stdexcept>
#include <string>

namespace VelikTop {

// Exit statuses, as `velik-top --help` lists them.
enum ExitStatus : int {
    exitOk = 0,
    exitUsage = 2,        // bad arguments
    exitUnreachable = 3,  // no socket, connection refused, time-out
    exitRefused = 4,      // the daemon answered "error: ..."
    exitMalformed = 5,    // the answer is not a snapshot
};

class TopError : public std::runtime_error {
  public:
    TopError(ExitStatus status, const std::string& message)
        : std::runtime_error(message), status_(status) {}
    ExitStatus status() const { return status_; }

  private:
    ExitStatus status_;
};

}  // namespace VelikTop
