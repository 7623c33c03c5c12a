// The framework clock and its notifiees.
//
// The process has one clock, `activityManager()->config()->clock()`. Its time
// is in seconds (a double), monotonic, and is what `System::currentTime()`
// returns. A `Clock::Notifiee` asks to be told once the clock reaches a given
// absolute time:
//
//   class Reminder : public Kiv::Clock::Notifiee {
//   public:
//       using Notifiee::Notifiee;
//       void onTime() override { ... }
//   };
//   Reminder reminder(Kiv::activityManager()->config()->clock());
//   reminder.timeMinIs(Kiv::System::currentTime() + 5.0);  // in five seconds
//
// Notifications are delivered by the main loop (`System::doRun()`), on the
// thread running it. The clock and its notifiees are not thread-safe: arm,
// disarm and destroy notifiees on the loop's thread only. `now()` alone may be
// read from any thread.
//
// Virtual time. The clock is real monotonic time plus a lead that only grows.
// While virtual time is on (`ActivityManagerConfig::virtualTimeIs`), the main
// loop, finding nothing to do, moves the clock straight to the next notifiee's
// time instead of sleeping; time still flows at real speed in between. Turning
// virtual time off keeps the lead reached, so the clock never runs backwards;
// armed notifiees keep their absolute times and are then waited for in real
// time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace Kiv {

class MainLoop;

namespace Impl {
// See `Clock::takePassReading()`. Initial-exec: read on every task run, so
// it must be one load from the thread pointer, not a call.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local std::int64_t passReading;
}  // namespace Impl

class Clock {
  public:
    // Something to be told when the clock reaches a time. Non-copyable; may be
    // destroyed at any moment, also from inside its own or another notifiee's
    // `onTime()`, which disarms it.
    class Notifiee {
      public:
        // A disarmed notifiee of `clock` (which may be null and set later).
        explicit Notifiee(Clock* clock = nullptr) noexcept : clock_(clock) {}
        virtual ~Notifiee();
        Notifiee(const Notifiee&) = delete;
        Notifiee& operator=(const Notifiee&) = delete;

        // The clock this notifiee is armed on.
        Clock* notifier() const noexcept { return clock_; }
        // Moves the notifiee to `clock`, keeping its time.
        void notifierIs(Clock* clock);

        // The absolute clock time at which `onTime()` is due; +infinity when
        // disarmed.
        double timeMin() const noexcept { return timeMin_; }
        // Arms the notifiee for absolute time `time`. A time already reached
        // (0.0, say) makes it due on the loop's next pass. +infinity (or NaN)
        // disarms. Re-arming replaces the previous time; setting the time
        // already held changes nothing, not even the notifiee's place among
        // others due at the same time.
        void timeMinIs(double time);

        // Called once when the clock has reached `timeMin()`. The notifiee is
        // disarmed (`timeMin()` is +infinity) before the call, so it may re-arm
        // itself. An exception thrown here leaves `System::doRun()`.
        virtual void onTime() = 0;

      private:
        friend class Clock;

        static constexpr std::size_t kUnqueued = ~std::size_t{0};

        Clock* clock_;
        double timeMin_ = std::numeric_limits<double>::infinity();
        std::uint64_t arming_ = 0;      // the clock's arming count when last armed
        std::size_t slot_ = kUnqueued;  // position in its queue's heap
        bool late_ = false;             // armed while a delivery was in progress
    };

    Clock() = default;
    ~Clock();
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

    // Now, in seconds: real monotonic time plus the virtual lead.
    double now() const noexcept;

    // How far virtual time has moved the clock ahead of real time, in seconds.
    double lead() const noexcept { return lead_.load(std::memory_order_relaxed); }

    // The earliest time at which an armed notifiee is due; +infinity if none.
    double nextTime() const noexcept;

    // The number of armed notifiees.
    std::size_t armedCount() const noexcept { return armed_.size() + late_.size(); }

    // The steady-clock reading (`steadyNanoseconds()`, real time, no virtual
    // lead) with which the main loop of this thread decided what its current
    // pass delivers, while the first notifiee of that pass is being
    // delivered; 0 at any other moment, on any other thread, and once taken.
    // Lets that notifiee stamp its start without reading the clock again:
    // only the heap's pop and the dispatch to `onTime()` lie between the
    // reading and the notifiee. Taking it consumes it, so a nested run (or
    // a second taker) reads the clock itself.
    static std::int64_t takePassReading() noexcept { return std::exchange(Impl::passReading, 0); }

  private:
    friend class MainLoop;

    // Armed notifiees, earliest (by time, then arming) first: a binary heap
    // whose entries know their slot, so any of them is removed in O(log n).
    // Its storage only grows, so arming and delivering allocate nothing once
    // the loop has warmed up.
    class Queue {
      public:
        bool empty() const noexcept { return heap_.empty(); }
        std::size_t size() const noexcept { return heap_.size(); }
        Notifiee& front() const noexcept { return *heap_.front(); }
        void push(Notifiee& notifiee);
        void erase(Notifiee& notifiee) noexcept;

      private:
        static bool earlier(const Notifiee& a, const Notifiee& b) noexcept {
            return a.timeMin_ < b.timeMin_ || (a.timeMin_ == b.timeMin_ && a.arming_ < b.arming_);
        }
        void place(std::size_t slot, Notifiee* notifiee) noexcept;
        void siftUp(std::size_t slot) noexcept;
        void siftDown(std::size_t slot) noexcept;

        std::vector<Notifiee*> heap_;
    };

    void link(Notifiee& notifiee);
    void unlink(Notifiee& notifiee) noexcept;

    // Moves the clock forward to `time` (never backwards).
    void advanceTo(double time) noexcept;

    // Now, with the steady-clock reading it came from.
    double now(std::int64_t& reading) const noexcept;

    // Delivers, in order of time and then arming, every notifiee due by `now`
    // that was armed before the delivery began; those armed during it wait
    // for the next one, so a notifiee that keeps re-arming itself cannot hold
    // the loop. `reading` (0 for none) is the steady reading `now` came from,
    // offered to the first notifiee through `takePassReading()`. A non-null
    // `stop` that a notifiee sets true ends the delivery after it; the rest
    // stay due. Returns the number delivered.
    std::size_t deliverDue(double now, std::int64_t reading = 0, const bool* stop = nullptr);
    void admitLate() noexcept;

    Queue armed_;
    Queue late_;  // armed during a delivery
    std::uint64_t armings_ = 0;
    int delivering_ = 0;
    std::atomic<double> lead_{0.0};
};

}  // namespace Kiv
