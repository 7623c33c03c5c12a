// The exceptions of the library.
//
// Every failure the library reports to its caller is a `Velik::Exception` or
// one of its subclasses below. Each carries its message and the backtrace of
// the place where it was constructed, and hands both to the
// `BacktraceTracker` at construction (thrown or not). Each class has a static
// `throwException(message)` that throws exactly that class:
//
//   if (fd < 0) {
//       Velik::RuntimeException::throwException(
//           fmt::format("open {} failed:{}", path, Velik::strerror(errno)));
//   }
//
// `msg()` is the short form, `RuntimeException("open /x failed:...")`
// with the class's qualified name; `what()` adds a line feed and the
// backtrace text. Broken invariants are assertions (Velik/Assert.h); they
// throw `AssertException` only when `throwOnAssertFailIs(true)` was called.
#pragma once

#include <Velik/Backtrace.h>

#include <exception>
#include <string>

namespace Velik {

class Exception : public std::exception {
  public:
    // Captures the backtrace here when `captureBacktrace` is set (so it shows
    // the code that made the exception), keeps the message, and records both
    // with the backtrace tracker.
    Exception(const std::string& message, bool captureBacktrace);
    ~Exception() override;

    // `msg()`, a line feed and the backtrace's `pretty()` text. Built on the
    // first call and cached; later calls return the same characters. Never
    // throws: a failure while building the text terminates the process.
    const char* what() const noexcept override;

    // The fully qualified class name, "Velik::Exception" here.
    virtual const char* name() const;

    // `name()` followed by ("message"); quotes inside the message are not
    // escaped.
    std::string msg() const;

    // The message given to the constructor.
    const std::string& message() const { return message_; }
    const Backtrace& backtrace() const { return backtrace_; }

    // Throws a `Velik::Exception` with a captured backtrace.
    [[noreturn]] static void throwException(const std::string& message);

  private:
    Backtrace backtrace_;
    std::string message_;
    mutable std::string whatCache_;
};

// The subclasses below differ only in their names: each is made with a
// captured backtrace, and its `throwException` throws exactly that class.
template <typename Derived>
class ExceptionKind : public Exception {
  public:
    explicit ExceptionKind(const std::string& message) : Exception(message, true) {}
    [[noreturn]] static void throwException(const std::string& message) { throw Derived(message); }
};

// An allocation or memory resource could not be had.
class MemoryResourceException : public ExceptionKind<MemoryResourceException> {
  public:
    using ExceptionKind::ExceptionKind;
    const char* name() const override { return "Velik::MemoryResourceException"; }
};

// The operating system refused an operation for lack of rights.
class NoPermissionException : public ExceptionKind<NoPermissionException> {
  public:
    using ExceptionKind::ExceptionKind;
    const char* name() const override { return "Velik::NoPermissionException"; }
};

// An operation that the chosen platform or class does not provide.
class UnimplementedException : public ExceptionKind<UnimplementedException> {
  public:
    using ExceptionKind::ExceptionKind;
    const char* name() const override { return "Velik::UnimplementedException"; }
};

// An object used before or without proper initialisation.
class InvalidInitializeException : public ExceptionKind<InvalidInitializeException> {
  public:
    using ExceptionKind::ExceptionKind;
    const char* name() const override { return "Velik::InvalidInitializeException"; }
};

// A general run-time failure, such as a failed system call.
class RuntimeException : public ExceptionKind<RuntimeException> {
  public:
    using ExceptionKind::ExceptionKind;
    const char* name() const override { return "Velik::RuntimeException"; }
};

// An index, value or handle outside its allowed range.
class OutOfRangeException : public ExceptionKind<OutOfRangeException> {
  public:
    using ExceptionKind::ExceptionKind;
    const char* name() const override { return "Velik::OutOfRangeException"; }
};

// A consistency check on a data structure failed.
class CorruptionDetectedException : public ExceptionKind<CorruptionDetectedException> {
  public:
    using ExceptionKind::ExceptionKind;
    const char* name() const override { return "Velik::CorruptionDetectedException"; }
};

// A size argument, or a size found in data, is not acceptable.
class InvalidSizeException : public ExceptionKind<InvalidSizeException> {
  public:
    using ExceptionKind::ExceptionKind;
    const char* name() const override { return "Velik::InvalidSizeException"; }
};

// A failed assertion, when assertions are switched to throwing.
class AssertException : public Exception {
  public:
    explicit AssertException(const std::string& message) : Exception(message, true) {}
    const char* name() const override;

    // With `throwOnAssertFail()` set, throws an `AssertException`. Otherwise
    // writes "Velik::Assert aborting because: " and the message as one line
    // to standard error and calls std::terminate: no exception leaves and no
    // destructor runs.
    [[noreturn]] static void throwException(const std::string& message);
};

}  // namespace Velik
