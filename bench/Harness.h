// The pieces every benchmark program shares: the calling thread's CPU clock
// (steady on a machine shared with other work), timed batches, the bare
// deferred-callback round trip every task run rides on, and a root whose
// scheduler runs are driven by hand, with no event loop in between.
#pragma once

#include <Velik/Platform.h>
#include <Velik/PlatformSelection.h>
#include <Velik/TaskSchedulerRoot.h>
#include <time.h>

#include <memory>

namespace VelikBench {

// The calling thread's CPU time in nanoseconds.
inline double threadCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// Thread CPU nanoseconds that `batch()` takes.
template <typename Batch>
double timed(Batch&& batch) {
    double start = threadCpuNs();
    batch();
    return threadCpuNs() - start;
}

// Thread CPU nanoseconds of `runner.runBatch()`.
template <typename Runner>
double timedBatch(Runner& runner) {
    return timed([&] { runner.runBatch(); });
}

// The bare round trip on the thread's platform: a handler that requests its
// next callback from inside `callback()` until `batch` callbacks were
// delivered, each batch one `Platform::doEventLoop()`.
struct Requester : Velik::Platform::CallbackHandler {
    explicit Requester(int batch) : batch(batch) {}
    void callback() override {
        if (--remaining > 0) {
            control->requestCallback();
        }
    }
    void runBatch() {
        remaining = batch;
        control->requestCallback();
        Velik::Platform::doEventLoop();
    }

    int batch;
    int remaining = 0;
    std::shared_ptr<Velik::Platform::CallbackControl> control =
        Velik::Platform::getCallbackControl(this);
};

// --- A hand-driven root: its callback control does nothing ---
class NullCallbackControl : public Velik::Platform::CallbackControl {
  public:
    void requestCallback() override {}
    void cancelCallback() override {}
    bool pendingCallback() const override { return false; }
};

inline std::shared_ptr<Velik::TaskSchedulerRoot> makeRoot() {
    return std::make_shared<Velik::TaskSchedulerRoot>(
        "bench",
        [](Velik::Platform::CallbackHandler*) { return std::make_shared<NullCallbackControl>(); });
}

}  // namespace VelikBench
