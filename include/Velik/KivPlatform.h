// The platform controls on the host framework: descriptors, timers and
// deferred callbacks served by the framework's main loop
// (`Kiv::System::doRun()`) instead of libevent.
//
// These are what `Platform::getFdControl`, `getTimerControl` and
// `getCallbackControl` return on a thread that does not use thread-local
// singletons (Velik/PlatformSelection.h); code normally reaches them only
// through those factories:
//
//   auto timer = Velik::Platform::getTimerControl(&handler);   // a ClockTimer
//   timer->setTimeout(1.5);
//   Velik::Platform::doEventLoop();                            // Kiv::System::doRun()
//
// They keep the control contract of Velik/Platform.h, with the framework's
// clock as the time base: under the framework's virtual time
// (`Platform::setFastForward`) timers are reached without waiting.
//
// Handler exceptions: a notification that throws is offered to the handler's
// hook; true swallows it (with a trace line), false sends it on out of
// `Kiv::System::doRun()` to the loop's caller. The loop stays usable and may
// be run again.
//
// All trace output goes to the "KivVelik" facility with the source name
// "Platform", at level 5 unless stated.
#pragma once

#include <Velik/Debug.h>
#include <Velik/Platform.h>

#include <Kiv/Clock.h>
#include <Kiv/FileDescriptor.h>
#include <Kiv/Ptr.h>

#include <limits>

namespace KivVelik {

// An fd control on a framework descriptor object.
//
// Reads are persistent; writes are one-shot (the framework turns write
// interest off when it reports writability), so a handler calls
// `setWrites(true)` again to hear of the next writability. A new control
// wants neither reads nor writes: callers say what they want. The
// descriptor is never closed.
class FileDescriptor : public Velik::Platform::FdControl {
  public:
    static constexpr const char* traceClassName = "FileDescriptor";

    // Watches through `descriptor` (a framework object with no descriptor
    // bound) on behalf of `handler`.
    FileDescriptor(Velik::Platform::FdEventHandler* handler,
                   Kiv::Ptr<Kiv::FileDescriptor> descriptor);
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    // `delFd()`.
    ~FileDescriptor() override;

    void setReads(bool wanted) override;
    void setWrites(bool wanted) override;
    // Binds `fd` to the framework object, which makes it non-blocking and
    // applies the interests wanted. A descriptor the loop cannot poll (a
    // regular file, /dev/null) throws `Velik::RuntimeException` "cannot
    // watch fd <fd>: <error>", here and in `setReads` / `setWrites`, as the
    // libevent platform does.
    void setFd(int fd) override;
    // Turns both interests off and detaches the descriptor.
    void delFd() override;
    int getFd() const override { return descriptor_->descriptor(); }
    // Turns both interests off; the descriptor stays bound.
    void clearEvents() override;

    Velik::Platform::FdEventHandler* handler() const { return handler_; }
    // The framework descriptor object.
    Kiv::FileDescriptor* descriptor() const { return descriptor_.get(); }

  private:
    // Hears of the framework object's readable and writable counts.
    class Notifiee : public Kiv::FileDescriptor::Notifiee {
      public:
        static constexpr const char* traceClassName = "FileDescriptor::Notifiee";

        Notifiee(FileDescriptor& owner, Kiv::FileDescriptor* descriptor)
            : Kiv::FileDescriptor::Notifiee(descriptor), owner_(owner) {}

        void onReadableCount() override;
        void onWritableCount() override;
        void onOrphan() override { orphaned_ = true; }

      private:
        bool ignoredAsOrphan() const;

        FileDescriptor& owner_;
        bool orphaned_ = false;
    };

    Velik::Platform::FdEventHandler* handler_;
    Kiv::Ptr<Kiv::FileDescriptor> descriptor_;
    Notifiee notifiee_;  // after `descriptor_`: unregisters before the object goes
};

// A one-shot timer on a framework clock.
class ClockTimer : public Velik::Platform::TimerControl {
  public:
    static constexpr const char* traceClassName = "ClockTimer";

    // A disarmed timer on `clock` for `handler`.
    ClockTimer(Velik::Platform::TimeoutHandler* handler, Kiv::Clock* clock);
    ClockTimer(const ClockTimer&) = delete;
    ClockTimer& operator=(const ClockTimer&) = delete;
    // `delTimeout()`.
    ~ClockTimer() override;

    // Arms the timer for `Kiv::System::currentTime() + seconds`; a delay of
    // zero or less is due on the loop's next pass.
    void setTimeout(double seconds) override;
    void delTimeout() override;
    // Against the framework clock: +infinity when disarmed, 0.0 once the
    // expiry time has been reached (even before the loop delivered it).
    double remainingTimeout() const override;

    // The absolute framework time at which the timer is due; +infinity when
    // disarmed.
    double timeMin() const { return notifiee_.timeMin(); }
    // Arms the timer for absolute framework time `time` (+infinity disarms).
    // Setting the time already held changes nothing.
    void timeMinIs(double time) { notifiee_.timeMinIs(time); }

    Velik::Platform::TimeoutHandler* handler() const { return handler_; }
    Kiv::Clock* clock() const { return notifiee_.notifier(); }

  private:
    class Notifiee : public Kiv::Clock::Notifiee {
      public:
        static constexpr const char* traceClassName = "ClockTimer::Notifiee";

        Notifiee(ClockTimer& owner, Kiv::Clock* clock)
            : Kiv::Clock::Notifiee(clock), owner_(owner) {}

        void onTime() override;

      private:
        ClockTimer& owner_;
    };

    Velik::Platform::TimeoutHandler* handler_;
    Notifiee notifiee_;
    // While `onTime()` runs: set when the timer is destroyed inside it.
    bool* destroyedFlag_ = nullptr;
};

// A deferred callback on a framework clock: a clock timer armed for a time
// already past, so it is due on the loop's next pass. Requests made while
// one is pending arm the same time again, which the clock ignores, so they
// coalesce into one delivery.
class Callback : public Velik::Platform::CallbackControl, private Velik::Platform::TimeoutHandler {
  public:
    static constexpr const char* traceClassName = "Callback";

    Callback(Velik::Platform::CallbackHandler* handler, Kiv::Clock* clock);
    // `cancelCallback()`.
    ~Callback() override;

    void requestCallback() override;
    void cancelCallback() override;
    bool pendingCallback() const override {
        return timer_.timeMin() != std::numeric_limits<double>::infinity();
    }

    Velik::Platform::CallbackHandler* handler() const { return handler_; }

  private:
    // The inner timer is due: delivers `callback()`.
    void timeout() override;

    Velik::Platform::CallbackHandler* handler_;
    ClockTimer timer_;
};

// The "KivVelik" trace handle, registered when the library loads.
Velik::Platform::DebugHandler* kivVelikDebugHandle();

}  // namespace KivVelik
