// The seam between the scheduling core and the event loop that drives it.
//
// The core never talks to an event library directly: it asks for a *control*
// (an object that arms one kind of event) and hands it a *handler* (an object
// told when that event happens). Three kinds exist:
//
//   FdControl        + FdEventHandler   descriptor readable / writable
//   TimerControl     + TimeoutHandler   one-shot timer expired
//   CallbackControl  + CallbackHandler  deferred callback due
//
// A control keeps a plain, non-owning pointer to its handler, given at
// construction and never changed. The handler must outlive the control; in
// the usual arrangement the handler owns the control through the shared
// pointer a factory returns and destroys it first. Destroying a control
// disarms it; no notification reaches a handler after that.
//
// Controls are bound to the event loop of the thread that made them and are
// used and destroyed on that thread only. Handlers are called on that thread,
// from inside the loop.
//
// Exceptions: when a notification (`timeout()`, `callback()`,
// `readFdEvent()`, `writeFdEvent()`) lets an exception escape, the control
// offers it to the matching hook (`handleTimeoutException()`, ...). A hook
// that returns true swallows it and the loop goes on; false (the default)
// sends the same exception on, out of the event loop, to the loop's caller.
#pragma once

#include <Velik/EventPriority.h>

#include <cstddef>
#include <string>

namespace Velik::Platform {

// Told when an armed timer expires.
class TimeoutHandler {
  public:
    virtual ~TimeoutHandler() = default;
    // The armed timer expired. Delivered once per arming.
    virtual void timeout() = 0;
    // Called when `timeout()` threw: true swallows the exception, false lets
    // it out of the event loop.
    virtual bool handleTimeoutException() { return false; }
};

// Told when a requested deferred callback is due.
class CallbackHandler {
  public:
    virtual ~CallbackHandler() = default;
    // The requested callback is due. Delivered once per (coalesced) request.
    virtual void callback() = 0;
    // Called when `callback()` threw: true swallows the exception, false lets
    // it out of the event loop.
    virtual bool handleCallbackException() { return false; }
};

// Told when a descriptor becomes readable or writable.
class FdEventHandler {
  public:
    virtual ~FdEventHandler() = default;
    // `fd` is readable; repeated on every readable pass while reads are on.
    virtual void readFdEvent(int fd) = 0;
    // `fd` is writable. Ask again with `setWrites(true)` to hear of the next
    // writability: some controls deliver write interest once per request.
    virtual void writeFdEvent(int fd) = 0;
    // Called when either notification threw: true swallows the exception,
    // false lets it out of the event loop.
    virtual bool handleFdException(int /*fd*/) { return false; }
};

// Watches one descriptor for reads and writes.
//
// A new control has no descriptor (`getFd()` is -1). Interest set without a
// descriptor is only recorded and applied by the next `setFd`. Read interest
// is persistent; write interest may be one-shot (it is in the libevent
// control), so handlers re-request writes after each write event. Neither
// `clearEvents()` nor `delFd()` closes the descriptor.
class FdControl {
  public:
    virtual ~FdControl() = default;
    // Records read interest and, with a descriptor bound, arms or disarms the
    // read event at once.
    virtual void setReads(bool wanted) = 0;
    // Records write interest and, with a descriptor bound, arms or disarms
    // the write event at once.
    virtual void setWrites(bool wanted) = 0;
    // Binds `fd` (replacing any bound one), makes it non-blocking, and arms
    // the interests currently wanted.
    virtual void setFd(int fd) = 0;
    // Disarms both events and forgets the descriptor.
    virtual void delFd() = 0;
    // The bound descriptor, or -1.
    virtual int getFd() const = 0;
    // Disarms both events, keeping the descriptor.
    virtual void clearEvents() = 0;
};

// A one-shot timer: at most one expiry pending per control.
class TimerControl {
  public:
    virtual ~TimerControl() = default;
    // Arms (or re-arms) the timer to expire `seconds` from now; microseconds
    // are kept.
    virtual void setTimeout(double seconds) = 0;
    // Arms (or re-arms) the timer to expire at `expiry`, an absolute time on
    // the library clock (`Velik::time()`); a time already past, or not a
    // number, is due at once. The timer wheel's controls take it as given,
    // without a clock read of their own, so a caller restarting many of them
    // reads `Velik::time()` once for all; the others convert it to a delay.
    virtual void setTimeoutAt(double expiry);
    // Disarms; harmless when not armed.
    virtual void delTimeout() = 0;
    // +infinity when not armed, 0.0 when the expiry time has passed, else the
    // seconds left.
    virtual double remainingTimeout() const = 0;
};

// A deferred callback: delivered once, from the event loop on a later pass,
// never synchronously from `requestCallback()`.
class CallbackControl {
  public:
    virtual ~CallbackControl() = default;
    // Asks for one `callback()`; requests made while one is pending coalesce
    // into one delivery. Afterwards the control is idle until asked again.
    virtual void requestCallback() = 0;
    // Withdraws a pending request.
    virtual void cancelCallback() = 0;
    // True exactly while a request waits to be delivered.
    virtual bool pendingCallback() const = 0;
};

// Process-wide switch, true at start; read and written without locking.
bool refCountingEnabled();
void refCountingEnabledIs(bool enabled);

// A routine that renders a value of one registered type.
using ValueFormatter = std::string (*)(const void* value);

// Enters `formatter` under `typeKey` in the process-wide introspection map
// (replacing any earlier entry). Safe from any thread.
void registerValueFormatter(const std::string& typeKey, ValueFormatter formatter);

// The routine registered under `typeKey`, or null.
ValueFormatter valueFormatter(const std::string& typeKey);

// Prints an untyped value: through the routine registered for its type key
// when there is one, else as the hex dump of its bytes.
class ValuePrinter {
  public:
    ValuePrinter(std::string typeKey, size_t size) : typeKey_(std::move(typeKey)), size_(size) {}
    // The custom text if any, else the hex dump of `size()` bytes at `value`.
    virtual std::string toString(const void* value) const;
    virtual ~ValuePrinter() = default;

    // The text of the routine registered under the type key, or "" when none
    // is registered.
    std::string customToString(const void* value) const;

    const std::string& typeKey() const { return typeKey_; }
    size_t size() const { return size_; }

  private:
    std::string typeKey_;
    size_t size_;
};

}  // namespace Velik::Platform
