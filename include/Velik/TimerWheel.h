// The timer wheel: many one-shot timers on one platform timer.
//
// A `TimerWheel` keeps its timers in a hierarchical timing wheel (Velik/
// Timeouts.h, which this header does not include) at 100 ticks per second and holds a single
// platform timer, the *master timer*, armed for the earliest of them. When the master timer fires,
// the wheel hands back every timer of the ticks that have passed. A tick is coarse (10 ms), so a
// timer can come out of the wheel up to two ticks before its exact expiry time; such timers are
// *parked*, sorted by their exact expiry time (timers of equal time in the order they were parked),
// until that time has really come. No timer is delivered early.
//
// A timer is a `TimerWheelEvent` (derive and implement `timeout()`), or a
// `TimerWheelTimerControl` when a plain `Platform::TimerControl` will do:
//
//   struct Reminder : Velik::Platform::TimeoutHandler {
//       void timeout() override { ... }
//   } reminder;
//   auto timer = Velik::Platform::getTimerControl(&reminder, Velik::getTimerWheel());
//   timer->setTimeout(2.5);      // reminder.timeout() in 2.5 s, from the loop
//
// A wheel and its timers belong to one thread's event loop and are not
// locked. Times are seconds on the library clock, `Velik::time()`.
#pragma once

#include <Velik/EventPriority.h>
#include <Velik/Platform.h>

#include <fmt/format.h>
#include <boost/intrusive/list.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <vector>

// The timing-wheel library's timer record and wheel, by name only: a timer
// embeds its record as opaque storage, so that users of the wheel do not see
// the library's declarations and macros.
struct timeout;
struct timeouts;

namespace Velik {

// Where a timer is. Kept as one of three bits in the flag word of the
// timer's library record, beside the library's own `TIMEOUT_ABS`.
enum class TimerWheelState : uint8_t {
    notLinked = 0,              // stopped, expired or never started
    inTimerWheel = 1,           // in the library wheel
    inTimersExpiryingSoon = 2,  // released by the wheel, parked until its exact time
};

// "notLinked", "inTimerWheel", "inTimersExpiryingSoon", or "unknownState"
// for any other value.
const char* timerWheelStateToString(TimerWheelState state);

class TimerWheel;
class TimersAtTimeout;

// One timer of a wheel. Derive from it and implement `timeout()`.
//
// An event starts `notLinked` and must be `notLinked` again when destroyed
// (destroying a started one is an assertion failure): stop it first. An event
// is used with one wheel at a time; the wheel does not own it.
class TimerWheelEvent {
  public:
    static constexpr const char* traceClassName = "TimerWheelEvent";

    // The state bits in the library record's flag word.
    static constexpr int notLinkedFlag = 0x04;
    static constexpr int inTimerWheelFlag = 0x08;
    static constexpr int inTimersExpiryingSoonFlag = 0x10;
    static constexpr int stateFlags = notLinkedFlag | inTimerWheelFlag | inTimersExpiryingSoonFlag;
    // Beside `inTimerWheelFlag`: restarted relative to a clock reading the
    // wheel has yet to take; the expiration time field holds the delay.
    static constexpr int awaitingReadingFlag = 0x20;

    TimerWheelEvent();
    TimerWheelEvent(const TimerWheelEvent&) = delete;
    TimerWheelEvent& operator=(const TimerWheelEvent&) = delete;

    // The timer expired. Called by the wheel from the event loop, with the
    // event already `notLinked`; it may start or stop any timer of the wheel,
    // itself included. An exception leaves the wheel's master timer
    // processing and, unless the master timer's handler takes it, the loop.
    virtual void timeout() = 0;
    // Asserts "TimerWheelEvent {} destroyed while {}" unless `notLinked`.
    virtual ~TimerWheelEvent();

    // The state encoded in the flag word; asserts "None or multiple of our
    // flags set {}" unless exactly one state bit is set.
    TimerWheelState state() const;
    // Moves to `state`. Moving between `inTimerWheel` and
    // `inTimersExpiryingSoon` must go through `notLinked` (assertion
    // "State change {} -> {} must go via {}"); values beyond the three
    // assert "invalid state {}". Setting the current state does nothing.
    void stateIs(TimerWheelState state);

    // Starts (or restarts) the timer on `wheel` to expire `seconds` from now.
    void setTimeout(const std::shared_ptr<TimerWheel>& wheel, double seconds);
    // Starts (or restarts) the timer on `wheel` to expire at the absolute
    // time `expiry`.
    void setTimeoutAt(const std::shared_ptr<TimerWheel>& wheel, double expiry);
    // Stops the timer on `wheel`; harmless when it is not running.
    void delTimeout(const std::shared_ptr<TimerWheel>& wheel);

    // +infinity when not running, else the seconds to the exact expiry time,
    // and 0.0 once that has passed.
    double remainingTimeout() const;
    // The exact absolute expiry time; +infinity when not running. Asked of a
    // timer whose restart awaits a reading, takes that reading.
    double expirationTime() const;
    // Whether the timer was restarted relative to a clock reading the wheel
    // has yet to take.
    bool awaitingReading() const;
    // The flag word of the library record (state bits and `TIMEOUT_ABS`).
    int linkFlags() const;

    // The event that embeds the library record `link`.
    static TimerWheelEvent* timeoutLink2TimerWheelEvent(::timeout* link);

  private:
    friend class TimerWheel;
    friend class TimersAtTimeout;

    // Room for the library record (five words on LP64); TimerWheel.cpp
    // checks that the record fits and constructs it here.
    static constexpr size_t linkSize = (3 * sizeof(void*) + 16 + 7) & ~size_t{7};
    static constexpr size_t linkAlign = alignof(uint64_t) > alignof(void*) ? alignof(uint64_t)
                                                                           : alignof(void*);

    ::timeout* link();
    const ::timeout* link() const;
    // Fixes an awaited expiry from a reading taken now.
    void settle() const;

    alignas(linkAlign) std::byte link_[linkSize];
    double expirationTime_ = std::numeric_limits<double>::infinity();
    boost::intrusive::list_member_hook<> parkHook_;
    TimersAtTimeout* timersAtTimeout_ = nullptr;  // the list it is parked in
};

// The parked events that share one exact expiry time, in arrival order.
class TimersAtTimeout {
  public:
    static constexpr const char* traceClassName = "TimersAtTimeout";

    TimersAtTimeout() = default;
    TimersAtTimeout(const TimersAtTimeout&) = delete;
    TimersAtTimeout& operator=(const TimersAtTimeout&) = delete;

    bool empty() const { return events_.empty(); }
    // Linear; for tests and traces.
    size_t size() const { return events_.size(); }

    // Appends `ev`; asserts "pending set to {}" when it is in a list already.
    void pushBack(TimerWheelEvent* ev);
    // Unlinks and returns the first event, or null when empty; asserts
    // "Event {} linked to {}" when the event claims another list.
    TimerWheelEvent* popFront();
    // Unlinks `ev`, which must be in this list.
    void remove(TimerWheelEvent* ev);

  private:
    using Hook =
        boost::intrusive::member_hook<TimerWheelEvent, boost::intrusive::list_member_hook<>,
                                      &TimerWheelEvent::parkHook_>;
    boost::intrusive::list<TimerWheelEvent, Hook, boost::intrusive::constant_time_size<false>>
        events_;
};

// Many timers on one platform timer. Also the master timer's handler.
//
// Operations run on the wheel's thread. Starting and stopping a timer cost
// constant time; the master timer is touched only when a start brings the
// earliest expiry forward, and after each master expiry.
class TimerWheel : public Platform::TimeoutHandler {
  public:
    static constexpr const char* traceClassName = "TimerWheel";
    static constexpr uint64_t ticksPerSecond = 100;

    using MasterTimerFactory =
        std::function<std::shared_ptr<Platform::TimerControl>(Platform::TimeoutHandler*)>;

    // A wheel whose master timer is `Platform::getTimerControl(this,
    // priority)`: a libevent timer on a thread with thread-local singletons,
    // a framework clock timer otherwise. Asserts "Error code {}" if the
    // library wheel cannot be opened.
    explicit TimerWheel(Platform::EventPriority priority = Platform::eventPriorityDefault);
    // A wheel whose master timer `makeMasterTimer(this)` makes (for tests
    // that watch the master timer).
    explicit TimerWheel(const MasterTimerFactory& makeMasterTimer);
    TimerWheel(const TimerWheel&) = delete;
    TimerWheel& operator=(const TimerWheel&) = delete;
    // Closes the library wheel; events still started are left `notLinked`
    // with no expiry time, as if stopped.
    ~TimerWheel() override;

    // The master timer expired: advances to now, parks what the wheel
    // releases, delivers every parked timer whose exact time has come (in
    // time order, then arrival order), and re-arms the master timer, also
    // when a notification throws.
    void timeout() override;

    // Starts or restarts `ev` to expire `seconds` from now. Restarting for the
    // very instant it already has does nothing. Restarting a timer in the
    // wheel for a tick not earlier than the one it is filed under only
    // records the new expiry: the wheel releases it at the old tick and files
    // it again then, so it is still delivered at its exact time. Re-arms the
    // master timer only when the new expiry is earlier than the one it is
    // armed for.
    void timerStart(TimerWheelEvent* ev, double seconds);
    // A restart that keeps a timer in the wheel and cannot bring it before
    // the tick it is filed under (the usual idle time-out pushed back) reads
    // no clock: it records the delay, and the expiry becomes a reading taken
    // after the call plus the delay, so it is never early. That reading is
    // the wheel's next one (master timer, re-arming, a stop, an absolute
    // restart of such a timer) or, at the latest, one taken by a deferred
    // callback at the end of the loop pass, before the loop sleeps or
    // fast-forward jumps.
    //
    // `timerStart` for the absolute time `expiry`, with no clock read: among
    // many timers that read is most of a restart's cost, so timers restarted
    // together can share one. An expiry that is not a number is due at once,
    // as a past one is.
    void timerStartAt(TimerWheelEvent* ev, double expiry);
    // Stops `ev` wherever it is; its expiry time becomes +infinity. Never
    // touches the master timer.
    void timerStop(TimerWheelEvent* ev);
    // Delivers one expiry: `ev->timeout()`.
    void timerExpired(TimerWheelEvent* ev) const;
    // Advances to now and arms the master timer for the earliest timer (0 when
    // one is due already), or disarms it when there are none.
    void setMasterTimer();
    // Advances the library wheel to `Velik::time()` (rounded up to a tick)
    // and returns that time; fixes the expiry of every restart awaiting a
    // reading from it.
    double setCurrentTime();
    // Takes a reading now and fixes the expiry of every restart awaiting one
    // (what the deferred callback at the end of a loop pass does).
    void settleRestarts();
    // The number of restarts awaiting a reading.
    size_t restartsAwaitingReading() const { return restarted_.size(); }
    // While the master timer's pass delivers timers: the reading that pass
    // took, which every timer it delivers is due by, so a notification can
    // tell how late it comes without a clock read of its own. Not a number
    // outside a delivery.
    double passReading() const { return passReading_; }

    const std::shared_ptr<Platform::TimerControl>& masterTimer() const { return masterTimer_; }
    // The absolute time the master timer is armed for; +infinity when
    // disarmed.
    double masterTimerExpiry() const { return masterTimerExpiry_; }
    // The number of distinct exact expiry times parked.
    size_t timersExpiryingSoonCount() const { return timersExpiryingSoon_.size(); }
    // The events parked for `expiry` (exactly), or null.
    const TimersAtTimeout* timersExpiryingAt(double expiry) const;
    // The library wheel.
    timeouts* wheel() const { return timeouts_; }

  private:
    void openWheel();
    void drainWheel();
    void deliverDue(double now);
    void armMasterTimer(double now, double delay);
    void timersExpiryingSoonAppend(TimerWheelEvent* ev);
    void timersExpiryingSoonRemove(TimerWheelEvent* ev);
    bool restartLater(TimerWheelEvent* ev, double seconds);
    void settleRestarts(double now);

    // Runs `settleRestarts()` from the loop.
    class PassEnd : public Platform::CallbackHandler {
      public:
        explicit PassEnd(TimerWheel* wheel) : wheel_(wheel) {}
        void callback() override { wheel_->settleRestarts(); }

      private:
        TimerWheel* wheel_;
    };

    std::shared_ptr<Platform::TimerControl> masterTimer_;
    double masterTimerExpiry_ = std::numeric_limits<double>::infinity();
    timeouts* timeouts_ = nullptr;
    std::map<double, TimersAtTimeout> timersExpiryingSoon_;
    // A reading no later than now: the floor for restarts that read none.
    double lastReading_ = 0.0;
    double passReading_ = std::numeric_limits<double>::quiet_NaN();
    // Events with `awaitingReadingFlag`, in restart order. A plain array:
    // settling loads them independently, not along a chain.
    std::vector<TimerWheelEvent*> restarted_;
    PassEnd passEnd_{this};
    std::shared_ptr<Platform::CallbackControl> passEndCallback_;  // made on first use
};

// A `TimerWheelEvent` presented as a `Platform::TimerControl`: its expiry
// calls `handler->timeout()`, and an exception from that is offered to
// `handler->handleTimeoutException()`. Holds its wheel alive; destroying the
// control stops its timer.
class TimerWheelTimerControl : public TimerWheelEvent, public Platform::TimerControl {
  public:
    static constexpr const char* traceClassName = "TimerWheelTimerControl";

    TimerWheelTimerControl(Platform::TimeoutHandler* handler, std::shared_ptr<TimerWheel> wheel);
    ~TimerWheelTimerControl() override;

    void setTimeout(double seconds) override;
    void setTimeoutAt(double expiry) override;
    void delTimeout() override;
    double remainingTimeout() const override;

    Platform::TimeoutHandler* handler() const { return handler_; }
    const std::shared_ptr<TimerWheel>& timerWheel() const { return wheel_; }

  private:
    void timeout() override;

    Platform::TimeoutHandler* handler_;
    std::shared_ptr<TimerWheel> wheel_;
};

// The shared wheel, made on first use with its master timer at
// `eventPriorityDefault`: one per process on threads without thread-local
// singletons (to be used from the main loop's thread only), one per thread
// with them, released when the thread ends. Such a thread that frees its
// event base itself (`leFree`) must do so after its wheel is gone.
std::shared_ptr<TimerWheel> getTimerWheel();

// A new wheel of its own for a task scheduler, its master timer at `priority`.
std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(Platform::EventPriority priority);

namespace Impl {

// The wheel's current tick for time `now`: rounded up.
uint64_t timerWheelCurrentTick(double now);
// The tick a timer of exact expiry time `expiry` is filed under: rounded
// down, so that the wheel never releases it late.
uint64_t timerWheelExpiryTick(double expiry);

}  // namespace Impl

namespace Platform {

// A timer control on `wheel`.
std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TimerWheel> wheel);

}  // namespace Platform
}  // namespace Velik

// Formats a state as its name.
template <>
struct fmt::formatter<Velik::TimerWheelState> : fmt::formatter<fmt::string_view> {
    fmt::format_context::iterator format(Velik::TimerWheelState state,
                                         fmt::format_context& context) const {
        return fmt::formatter<fmt::string_view>::format(Velik::timerWheelStateToString(state),
                                                        context);
    }
};
