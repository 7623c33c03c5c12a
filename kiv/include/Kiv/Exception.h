// The exceptions the Kiv framework throws.
//
// Every framework error is a `Kiv::Exception`; the subclasses carry the
// operating-system error number of the failure they report.
#pragma once

#include <stdexcept>
#include <string>

namespace Kiv {

// Base of all framework exceptions. `what()` is a human-readable message.
class Exception : public std::runtime_error {
  public:
    explicit Exception(const std::string& message);
    ~Exception() override;
};

// A system call made by the framework failed. `error()` is its errno value;
// `what()` is the message followed by ": " and the error's text.
class SystemException : public Exception {
  public:
    SystemException(const std::string& message, int error);
    ~SystemException() override;

    int error() const noexcept { return error_; }

  private:
    int error_;
};

// Taking a framework lock failed for a reason other than the caller already
// holding it. `error()` is the errno-style code the lock reported.
class LockException : public Exception {
  public:
    LockException(const std::string& message, int error);
    ~LockException() override;

    int error() const noexcept { return error_; }

  private:
    int error_;
};

}  // namespace Kiv
