#include "Velik/TimerWheel.h"

#include "Velik/Assert.h"
#include "Velik/Fmtrace.h"
#include "Velik/PlatformSelection.h"
#include "Velik/Thread.h"
#include "Velik/Time.h"
#include "Velik/Timeouts.h"

#include <boost/intrusive/parent_from_member.hpp>

#include <cmath>
#include <new>
#include <type_traits>

namespace Velik {

// The header counts ticks as plain 64-bit numbers.
static_assert(std::is_same_v<timeout_t, uint64_t>);

namespace {

constexpr double never = std::numeric_limits<double>::infinity();

int stateFlag(TimerWheelState state) {
    return TimerWheelEvent::notLinkedFlag << static_cast<int>(state);
}

// Seconds times the tick rate as a tick, saturating at both ends: a time
// before the clock's origin is tick 0, one too far to count is "never".
timeout_t ticksOf(double ticks) {
    constexpr double beyond = 18446744073709551616.0;  // 2^64
    if (!(ticks > 0.0)) {
        return 0;
    }
    if (ticks >= beyond) {
        return TIMEOUT_NEVER;
    }
    return static_cast<timeout_t>(ticks);
}

}  // namespace

const char* timerWheelStateToString(TimerWheelState state) {
    switch (state) {
        case TimerWheelState::notLinked:
            return "notLinked";
        case TimerWheelState::inTimerWheel:
            return "inTimerWheel";
        case TimerWheelState::inTimersExpiryingSoon:
            return "inTimersExpiryingSoon";
    }
    return "unknownState";
}

namespace Impl {

timeout_t timerWheelCurrentTick(double now) {
    return ticksOf(std::ceil(now * TimerWheel::ticksPerSecond));
}

timeout_t timerWheelExpiryTick(double expiry) {
    return ticksOf(std::floor(expiry * TimerWheel::ticksPerSecond));
}

}  // namespace Impl

// ---------------------------------------------------------------- event

TimerWheelEvent::TimerWheelEvent() {
    // The header keeps the library's record as opaque storage.
    static_assert(sizeof(::timeout) <= linkSize && alignof(::timeout) <= linkAlign);
    timeout_init(new (link_)::timeout, TIMEOUT_ABS | notLinkedFlag);
}

// The record the constructor made in the storage. No std::launder: GCC needs
// none here, and on the restart path it would cost a register.
::timeout* TimerWheelEvent::link() {
    return reinterpret_cast<::timeout*>(link_);
}

const ::timeout* TimerWheelEvent::link() const {
    return reinterpret_cast<const ::timeout*>(link_);
}

int TimerWheelEvent::linkFlags() const {
    return link()->flags;
}

TimerWheelEvent::~TimerWheelEvent() {
    TimerWheelState current = state();
    VELIK_CLASS_ASSERT(current == TimerWheelState::notLinked,
                       "TimerWheelEvent {} destroyed while {}", fmt::ptr(this), current);
}

TimerWheelState TimerWheelEvent::state() const {
    int bits = link()->flags & stateFlags;
    switch (bits) {
        case notLinkedFlag:
            return TimerWheelState::notLinked;
        case inTimerWheelFlag:
            return TimerWheelState::inTimerWheel;
        case inTimersExpiryingSoonFlag:
            return TimerWheelState::inTimersExpiryingSoon;
        default:
            VELIK_CLASS_ASSERT(false, "None or multiple of our flags set {}", bits);
    }
}

void TimerWheelEvent::stateIs(TimerWheelState state) {
    TimerWheelState current = this->state();
    if (state == current) {
        return;
    }
    VELIK_CLASS_ASSERT(current == TimerWheelState::notLinked || state == TimerWheelState::notLinked,
                       "State change {} -> {} must go via {}", current, state,
                       TimerWheelState::notLinked);
    VELIK_CLASS_ASSERT(static_cast<unsigned>(state) < 3, "invalid state {}",
                       static_cast<unsigned>(state));
    link()->flags = (link()->flags & ~stateFlags) | stateFlag(state);
}

void TimerWheelEvent::setTimeout(const std::shared_ptr<TimerWheel>& wheel, double seconds) {
    wheel->timerStart(this, seconds);
}

void TimerWheelEvent::setTimeoutAt(const std::shared_ptr<TimerWheel>& wheel, double expiry) {
    wheel->timerStartAt(this, expiry);
}

void TimerWheelEvent::delTimeout(const std::shared_ptr<TimerWheel>& wheel) {
    wheel->timerStop(this);
}

bool TimerWheelEvent::awaitingReading() const {
    return (link()->flags & awaitingReadingFlag) != 0;
}

// A reading taken now comes after the restart, so it may fix this timer's
// expiry as well as the wheel's next one would; the wheel then skips it.
// Events are never made const, so the cast is sound.
void TimerWheelEvent::settle() const {
    if (awaitingReading()) {
        auto* self = const_cast<TimerWheelEvent*>(this);
        self->link()->flags &= ~awaitingReadingFlag;
        self->expirationTime_ += Velik::time();
    }
}

double TimerWheelEvent::expirationTime() const {
    settle();
    return expirationTime_;
}

double TimerWheelEvent::remainingTimeout() const {
    if (expirationTime_ == never) {
        return never;
    }
    settle();
    double left = expirationTime_ - Velik::time();
    return left < 0.0 ? 0.0 : left;
}

TimerWheelEvent* TimerWheelEvent::timeoutLink2TimerWheelEvent(::timeout* link) {
    auto* storage = reinterpret_cast<std::byte(*)[linkSize]>(link);
    return boost::intrusive::get_parent_from_member(storage, &TimerWheelEvent::link_);
}

// ---------------------------------------------------------------- parking list

void TimersAtTimeout::pushBack(TimerWheelEvent* ev) {
    VELIK_CLASS_ASSERT(ev->timersAtTimeout_ == nullptr, "pending set to {}",
                       fmt::ptr(ev->timersAtTimeout_));
    events_.push_back(*ev);
    ev->timersAtTimeout_ = this;
}

TimerWheelEvent* TimersAtTimeout::popFront() {
    if (events_.empty()) {
        return nullptr;
    }
    TimerWheelEvent* ev = &events_.front();
    VELIK_CLASS_ASSERT(ev->timersAtTimeout_ == this, "Event {} linked to {}", fmt::ptr(ev),
                       fmt::ptr(ev->timersAtTimeout_));
    events_.pop_front();
    ev->timersAtTimeout_ = nullptr;
    return ev;
}

void TimersAtTimeout::remove(TimerWheelEvent* ev) {
    VELIK_CLASS_ASSERT(ev->timersAtTimeout_ == this, "Event {} linked to {}", fmt::ptr(ev),
                       fmt::ptr(ev->timersAtTimeout_));
    events_.erase(events_.iterator_to(*ev));
    ev->timersAtTimeout_ = nullptr;
}

// ---------------------------------------------------------------- wheel

TimerWheel::TimerWheel(Platform::EventPriority priority)
    : masterTimer_(Platform::getTimerControl(this, priority)) {
    openWheel();
}

TimerWheel::TimerWheel(const MasterTimerFactory& makeMasterTimer)
    : masterTimer_(makeMasterTimer(this)) {
    openWheel();
}

void TimerWheel::openWheel() {
    int error = 0;
    timeouts_ = timeouts_open(ticksPerSecond, &error);
    VELIK_CLASS_ASSERT(timeouts_ != nullptr, "Error code {}", error);
    setCurrentTime();
}

TimerWheel::~TimerWheel() {
    for (TimerWheelEvent* ev : restarted_) {
        ev->link()->flags &= ~TimerWheelEvent::awaitingReadingFlag;
    }
    restarted_.clear();
    // Leave every event still started as if stopped, so that its owner can
    // destroy it: the parked ones here, the others as they come out of a
    // wheel advanced to the end of time.
    for (auto& [expiry, parked] : timersExpiryingSoon_) {
        while (TimerWheelEvent* ev = parked.popFront()) {
            ev->stateIs(TimerWheelState::notLinked);
            ev->expirationTime_ = never;
        }
    }
    timeouts_update(timeouts_, TIMEOUT_NEVER);
    while (::timeout* link = timeouts_get(timeouts_)) {
        TimerWheelEvent* ev = TimerWheelEvent::timeoutLink2TimerWheelEvent(link);
        ev->stateIs(TimerWheelState::notLinked);
        ev->expirationTime_ = never;
    }
    timeouts_close(timeouts_);
}

double TimerWheel::setCurrentTime() {
    double now = Velik::time();
    timeout_t tick = Impl::timerWheelCurrentTick(now);
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "advance time to {} tick {}", now, tick);
    timeouts_update(timeouts_, tick);
    settleRestarts(now);
    return now;
}

void TimerWheel::settleRestarts() {
    if (!restarted_.empty()) {
        settleRestarts(Velik::time());
    }
}

// `now` was read after every restart in the list, so none becomes early.
void TimerWheel::settleRestarts(double now) {
    lastReading_ = now;
    for (TimerWheelEvent* ev : restarted_) {
        int& flags = ev->link()->flags;
        if ((flags & TimerWheelEvent::awaitingReadingFlag) != 0) {  // else settled by itself
            flags &= ~TimerWheelEvent::awaitingReadingFlag;
            ev->expirationTime_ += now;
        }
    }
    restarted_.clear();
}

void TimerWheel::timerStart(TimerWheelEvent* ev, double seconds) {
    // Among many timers the event is rarely in cache: its miss overlaps the
    // clock read.
    __builtin_prefetch(ev->link_, 1);
    if (!restartLater(ev, seconds)) {
        timerStartAt(ev, Velik::time() + seconds);
    }
}

// The clock only moves forward, so the expiry is at least `lastReading_ +
// seconds`: when that is not before the filed tick, the timer can stay filed
// and only the delay is recorded.
bool TimerWheel::restartLater(TimerWheelEvent* ev, double seconds) {
    ::timeout* link = ev->link();
    const int flags = link->flags;
    if ((flags & TimerWheelEvent::inTimerWheelFlag) == 0 || !(seconds >= 0.0) ||
        timeout_expires(link) > Impl::timerWheelExpiryTick(lastReading_ + seconds)) {
        return false;
    }
    ev->expirationTime_ = seconds;
    if ((flags & TimerWheelEvent::awaitingReadingFlag) == 0) {
        link->flags = flags | TimerWheelEvent::awaitingReadingFlag;
        if (restarted_.empty()) {
            if (!passEndCallback_) {
                passEndCallback_ = Platform::getCallbackControl(&passEnd_);
            }
            passEndCallback_->requestCallback();
        }
        restarted_.push_back(ev);
    }
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 9, "timer {} set timeout {}, expiry at the next reading",
                fmt::ptr(ev), seconds);
    return true;
}

void TimerWheel::timerStartAt(TimerWheelEvent* ev, double expiry) {
    if (std::isnan(expiry)) [[unlikely]] {
        expiry = -never;  // a key the parking map can order
    }
    ev->settle();
    if (ev->expirationTime_ == expiry) {
        return;
    }
    const timeout_t tick = Impl::timerWheelExpiryTick(expiry);
    const int flags = ev->link()->flags & TimerWheelEvent::stateFlags;
    if (flags == TimerWheelEvent::inTimerWheelFlag) {
        // A later expiry leaves the record where it is filed: the wheel hands
        // it back no later than due, and `drainWheel` files it again for the
        // real expiry. Most restarts (an idle time-out pushed back) are then
        // one write; the master timer is armed no later than the filed tick.
        if (timeout_expires(ev->link()) <= tick) {
            ev->expirationTime_ = expiry;
            VELIK_TRACE(VELIK_DEFAULT_HANDLE, 9, "timer {} set timeout, expire at {}, filed",
                        fmt::ptr(ev), expiry);
            return;
        }
        // An earlier one is moved by the library in one step.
    } else {
        // A parked or stopped timer goes into the wheel through `notLinked`.
        if (flags != TimerWheelEvent::notLinkedFlag) {
            timerStop(ev);
        }
        ev->stateIs(TimerWheelState::inTimerWheel);
    }
    ev->expirationTime_ = expiry;
    timeouts_add(timeouts_, ev->link(), tick);
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 9, "timer {} set timeout, expire at {} tick {}", fmt::ptr(ev),
                expiry, tick);
    if (masterTimerExpiry_ > expiry) {
        setMasterTimer();
    }
}

void TimerWheel::timerStop(TimerWheelEvent* ev) {
    // The list may hold this event, also once it settled by itself; the
    // event may be destroyed once stopped.
    if (!restarted_.empty()) {
        settleRestarts(Velik::time());
    }
    switch (ev->state()) {
        case TimerWheelState::notLinked:
            VELIK_TRACE(VELIK_DEFAULT_HANDLE, 9, "timer {} del timeout, not running", fmt::ptr(ev));
            VELIK_CLASS_ASSERT(ev->expirationTime_ == never, "Not linked but expirationTime={}",
                               ev->expirationTime_);
            break;
        case TimerWheelState::inTimerWheel:
            timeouts_del(timeouts_, ev->link());
            ev->stateIs(TimerWheelState::notLinked);
            VELIK_TRACE(VELIK_DEFAULT_HANDLE, 9, "timer {} del timeout", fmt::ptr(ev));
            break;
        case TimerWheelState::inTimersExpiryingSoon:
            timersExpiryingSoonRemove(ev);
            ev->stateIs(TimerWheelState::notLinked);
            break;
    }
    ev->expirationTime_ = never;
}

void TimerWheel::timerExpired(TimerWheelEvent* ev) const {
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 9, "timer {} expired", fmt::ptr(ev));
    ev->timeout();
}

void TimerWheel::timersExpiryingSoonAppend(TimerWheelEvent* ev) {
    timersExpiryingSoon_[ev->expirationTime_].pushBack(ev);
}

void TimerWheel::timersExpiryingSoonRemove(TimerWheelEvent* ev) {
    auto entry = timersExpiryingSoon_.find(ev->expirationTime_);
    VELIK_CLASS_ASSERT(entry != timersExpiryingSoon_.end(), "No timersAtTimeout");
    TimerWheelState current = ev->state();
    VELIK_CLASS_ASSERT(current == TimerWheelState::inTimersExpiryingSoon,
                       "Removing from timersExpiryingSoon in state {}", current);
    entry->second.remove(ev);
    if (entry->second.empty()) {
        timersExpiryingSoon_.erase(entry);
    }
}

const TimersAtTimeout* TimerWheel::timersExpiryingAt(double expiry) const {
    auto entry = timersExpiryingSoon_.find(expiry);
    return entry == timersExpiryingSoon_.end() ? nullptr : &entry->second;
}

void TimerWheel::timeout() {
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "master timer expired");
    double now = setCurrentTime();
    drainWheel();
    try {
        deliverDue(now);
    } catch (...) {
        // The master timer has fired and is disarmed: without re-arming it
        // the timers left would never be delivered.
        setMasterTimer();
        throw;
    }
    setMasterTimer();
}

// Parks everything the wheel released, at its exact expiry time; a timer
// restarted for a later tick since it was filed goes back into the wheel.
void TimerWheel::drainWheel() {
    const timeout_t now = timeouts_now(timeouts_);
    while (::timeout* link = timeouts_get(timeouts_)) {
        TimerWheelEvent* ev = TimerWheelEvent::timeoutLink2TimerWheelEvent(link);
        const timeout_t tick = Impl::timerWheelExpiryTick(ev->expirationTime_);
        if (tick > now) {
            timeouts_add(timeouts_, link, tick);  // pending again, not expired
            continue;
        }
        ev->stateIs(TimerWheelState::notLinked);
        timersExpiryingSoonAppend(ev);
        ev->stateIs(TimerWheelState::inTimersExpiryingSoon);
    }
}

// Notifications may start and stop timers, parked ones included, so the
// earliest entry is looked up afresh for every event, and an event's entry
// is erased before the event is delivered.
void TimerWheel::deliverDue(double now) {
    // Restored on the way out, a throwing notification included; a nested
    // loop's pass inside a notification has its own reading.
    struct PassReading {
        double& reading;
        double outer;
        PassReading(double& r, double now) : reading(r), outer(r) { reading = now; }
        ~PassReading() { reading = outer; }
    } pass{passReading_, now};
    while (!timersExpiryingSoon_.empty()) {
        auto entry = timersExpiryingSoon_.begin();
        if (entry->first > now) {
            VELIK_TRACE(VELIK_DEFAULT_HANDLE, 9,
                        "Defer processing timers with expiry time {} > now {}", entry->first, now);
            return;
        }
        TimerWheelEvent* ev = entry->second.popFront();
        if (entry->second.empty()) {
            timersExpiryingSoon_.erase(entry);
        }
        if (ev == nullptr) {
            continue;
        }
        ev->stateIs(TimerWheelState::notLinked);
        ev->expirationTime_ = never;
        timerExpired(ev);
    }
}

void TimerWheel::setMasterTimer() {
    double now = setCurrentTime();
    if (!timersExpiryingSoon_.empty()) {
        double first = timersExpiryingSoon_.begin()->first;
        if (first <= now) {
            VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8,
                        "has expired timers, firstExpiryTime={} now={}, set master timer timeout 0",
                        first, now);
            armMasterTimer(now, 0.0);
            return;
        }
        // The wheel may since have released a timer due before the earliest
        // parked one: fetch it at once rather than late.
        if (!timeouts_expired(timeouts_)) {
            VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8,
                        "has scheduled timers, firstExpiryTime={} now={}, set master timer "
                        "timeout {}",
                        first, now, first - now);
            armMasterTimer(now, first - now);
            return;
        }
    }
    if (timeouts_expired(timeouts_)) {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "has expired timers, set master timer timeout 0");
        armMasterTimer(now, 0.0);
    } else if (timeouts_pending(timeouts_)) {
        timeout_t ticks = timeouts_timeout(timeouts_);
        double seconds = static_cast<double>(ticks) / ticksPerSecond;
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8,
                    "has scheduled timers, first timer expiry in {} ticks, set master timer "
                    "timeout {}",
                    ticks, seconds);
        armMasterTimer(now, seconds);
    } else {
        VELIK_TRACE(VELIK_DEFAULT_HANDLE, 8, "has no timers, del master timer timeout");
        masterTimer_->delTimeout();
        masterTimerExpiry_ = never;
    }
}

void TimerWheel::armMasterTimer(double now, double delay) {
    masterTimer_->setTimeout(delay);
    masterTimerExpiry_ = now + delay;
}

// ---------------------------------------------------------------- control

TimerWheelTimerControl::TimerWheelTimerControl(Platform::TimeoutHandler* handler,
                                               std::shared_ptr<TimerWheel> wheel)
    : handler_(handler), wheel_(std::move(wheel)) {}

TimerWheelTimerControl::~TimerWheelTimerControl() {
    delTimeout();
}

void TimerWheelTimerControl::setTimeout(double seconds) {
    TimerWheelEvent::setTimeout(wheel_, seconds);
}

void TimerWheelTimerControl::setTimeoutAt(double expiry) {
    TimerWheelEvent::setTimeoutAt(wheel_, expiry);
}

void TimerWheelTimerControl::delTimeout() {
    TimerWheelEvent::delTimeout(wheel_);
}

double TimerWheelTimerControl::remainingTimeout() const {
    return TimerWheelEvent::remainingTimeout();
}

void TimerWheelTimerControl::timeout() {
    try {
        handler_->timeout();
    } catch (...) {
        if (!handler_->handleTimeoutException()) {
            throw;
        }
    }
}

// ---------------------------------------------------------------- factories

std::shared_ptr<TimerWheel> getTimerWheel() {
    if (hasThreadLocalSingletons()) {
        thread_local std::shared_ptr<TimerWheel> threadWheel =
            std::make_shared<TimerWheel>(Platform::eventPriorityDefault);
        return threadWheel;
    }
    static std::shared_ptr<TimerWheel> processWheel =
        std::make_shared<TimerWheel>(Platform::eventPriorityDefault);
    return processWheel;
}

std::shared_ptr<TimerWheel> getTimerWheelForTaskScheduler(Platform::EventPriority priority) {
    return std::make_shared<TimerWheel>(priority);
}

namespace Platform {

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TimerWheel> wheel) {
    return std::make_shared<TimerWheelTimerControl>(handler, std::move(wheel));
}

}  // namespace Platform
}  // namespace Velik
