#include "Velik/KivPlatform.h"

#include "Velik/Errno.h"
#include "Velik/Exception.h"
#include "Velik/Fmtrace.h"

#include <Kiv/Exception.h>
#include <Kiv/System.h>

#include <utility>

namespace KivVelik {

namespace {

constexpr double never = std::numeric_limits<double>::infinity();

// Registered at load with the library's other facilities, and kept in a
// plain pointer for the callback round trip. Code running before this file's
// static initialisation sees null, which `trace` takes as "off".
Velik::Platform::DebugHandler* const kivTrace = kivVelikDebugHandle();

// Every line of the adapter is filed under "Platform", whichever file
// wrote it, so that users filter on one source name. A null `className`
// writes the text without the "Class::function() " prefix, for texts that
// carry their own.
template <typename... Args>
void trace(unsigned level, const char* className, const char* function, int line,
           fmt::format_string<Args...> format, const Args&... args) {
    if (kivTrace && kivTrace->enabled(level)) [[unlikely]] {
        Fmt::Impl::fmtrace(kivTrace, level, "Platform", className != nullptr, function, className,
                           line, format, args...);
    }
}

// Runs a change of the framework descriptor's watch. The framework refuses
// descriptors its loop cannot poll (a regular file, /dev/null) with its own
// exception; callers see the library's, with the text the libevent platform
// gives for the same descriptor.
template <typename Change>
void watchChange(int fd, Change change) {
    try {
        change();
    } catch (const Kiv::SystemException& e) {
        Velik::RuntimeException::throwException(
            fmt::format("cannot watch fd {}: {}", fd, Velik::strerror(e.error())));
    }
}

}  // namespace

Velik::Platform::DebugHandler* kivVelikDebugHandle() {
    static const std::shared_ptr<Velik::Platform::DebugHandler> handle =
        Velik::Platform::getDebugHandler("KivVelik");
    return handle.get();
}

// ------------------------------------------------------------------ FileDescriptor

FileDescriptor::FileDescriptor(Velik::Platform::FdEventHandler* handler,
                               Kiv::Ptr<Kiv::FileDescriptor> descriptor)
    : handler_(handler), descriptor_(std::move(descriptor)), notifiee_(*this, descriptor_.get()) {}

FileDescriptor::~FileDescriptor() {
    delFd();
}

void FileDescriptor::setFd(int fd) {
    trace(5, traceClassName, __func__, __LINE__, "registering fd:{}", fd);
    watchChange(fd, [&] { descriptor_->descriptorIs(fd); });
}

void FileDescriptor::setReads(bool wanted) {
    trace(5, traceClassName, __func__, __LINE__, "{}", wanted);
    watchChange(getFd(), [&] { descriptor_->notifyOnReadableIs(wanted); });
}

void FileDescriptor::setWrites(bool wanted) {
    trace(5, traceClassName, __func__, __LINE__, "{}", wanted);
    watchChange(getFd(), [&] { descriptor_->notifyOnWritableIs(wanted); });
}

// Turning the interests off disarms without detaching, so the descriptor
// stays bound for the next `setReads` / `setWrites`, as every fd control
// keeps it.
void FileDescriptor::clearEvents() {
    trace(5, traceClassName, __func__, __LINE__, "fd:{}", getFd());
    descriptor_->notifyOnReadableIs(false);
    descriptor_->notifyOnWritableIs(false);
}

void FileDescriptor::delFd() {
    trace(5, traceClassName, __func__, __LINE__, "deleting fd:{}", getFd());
    descriptor_->notifyOnReadableIs(false);
    descriptor_->notifyOnWritableIs(false);
    descriptor_->descriptorIs(-1);
}

bool FileDescriptor::Notifiee::ignoredAsOrphan() const {
    if (orphaned_ || !notifier()) [[unlikely]] {
        trace(5, traceClassName, "notify", __LINE__, "fd:{} ignoring orphan", owner_.getFd());
        return true;
    }
    return false;
}

// The handler may destroy the control (and this notifiee) from inside the
// notification; only the handler, which outlives the control, and the
// descriptor number are used after the call.
void FileDescriptor::Notifiee::onReadableCount() {
    if (ignoredAsOrphan()) {
        return;
    }
    const int fd = owner_.getFd();
    Velik::Platform::FdEventHandler* handler = owner_.handler_;
    trace(5, traceClassName, __func__, __LINE__, "fd:{} readableCount:{}", fd,
          notifier()->readableCount());
    try {
        handler->readFdEvent(fd);
    } catch (...) {
        if (!handler->handleFdException(fd)) {
            throw;
        }
        trace(5, nullptr, __func__, __LINE__,
              "FileDescriptor::onReadableCount: Fd notification exception was handled");
    }
}

void FileDescriptor::Notifiee::onWritableCount() {
    if (ignoredAsOrphan()) {
        return;
    }
    const int fd = owner_.getFd();
    Velik::Platform::FdEventHandler* handler = owner_.handler_;
    trace(5, traceClassName, __func__, __LINE__, "fd:{} writableCount:{}", fd,
          notifier()->writableCount());
    try {
        handler->writeFdEvent(fd);
    } catch (...) {
        if (!handler->handleFdException(fd)) {
            throw;
        }
        trace(5, nullptr, __func__, __LINE__,
              "FileDescriptor::onWritableCount: Fd notification exception was handled");
    }
}

// ------------------------------------------------------------------ ClockTimer

ClockTimer::ClockTimer(Velik::Platform::TimeoutHandler* handler, Kiv::Clock* clock)
    : handler_(handler), notifiee_(*this, clock) {}

ClockTimer::~ClockTimer() {
    if (destroyedFlag_) {
        *destroyedFlag_ = true;
    }
    delTimeout();
}

void ClockTimer::setTimeout(double seconds) {
    trace(5, traceClassName, __func__, __LINE__, "timeout {}", seconds);
    notifiee_.timeMinIs(Kiv::System::currentTime() + seconds);
}

void ClockTimer::delTimeout() {
    trace(5, traceClassName, __func__, __LINE__, "del timeout");
    notifiee_.timeMinIs(never);
}

double ClockTimer::remainingTimeout() const {
    const double expiry = notifiee_.timeMin();
    if (expiry == never) {
        return never;
    }
    const double left = expiry - Kiv::System::currentTime();
    return left > 0.0 ? left : 0.0;
}

void ClockTimer::Notifiee::onTime() {
    ClockTimer& owner = owner_;
    Velik::Platform::TimeoutHandler* handler = owner.handler_;
    trace(5, traceClassName, __func__, __LINE__, "expired");
    // The handler may destroy the timer from inside `timeout()`; the flag
    // tells the catch below not to touch it then.
    bool destroyed = false;
    owner.destroyedFlag_ = &destroyed;
    try {
        handler->timeout();
    } catch (...) {
        // A timer destroyed on the way may have taken its handler with it
        // (a `Callback` is its own timer's handler): nothing is left to ask,
        // and the exception goes to the loop's caller.
        if (destroyed) {
            throw;
        }
        owner.destroyedFlag_ = nullptr;
        if (!handler->handleTimeoutException()) {
            throw;
        }
        trace(9, nullptr, __func__, __LINE__,
              "ClockTimer::Notifiee::onTime: Timeout notification exception was handled");
        return;
    }
    if (!destroyed) {
        owner.destroyedFlag_ = nullptr;
    }
}

// ------------------------------------------------------------------ Callback

Callback::Callback(Velik::Platform::CallbackHandler* handler, Kiv::Clock* clock)
    : handler_(handler), timer_(this, clock) {}

Callback::~Callback() {
    cancelCallback();
}

void Callback::requestCallback() {
    trace(5, traceClassName, __func__, __LINE__, "request");
    timer_.timeMinIs(0.0);
}

void Callback::cancelCallback() {
    timer_.timeMinIs(never);
}

void Callback::timeout() {
    Velik::Platform::CallbackHandler* handler = handler_;
    try {
        handler->callback();
    } catch (...) {
        if (!handler->handleCallbackException()) {
            throw;
        }
        trace(9, nullptr, __func__, __LINE__,
              "Callback::timeout: Callback notification exception was handled");
    }
}

}  // namespace KivVelik
