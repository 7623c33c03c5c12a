// A root whose callback control does nothing: benchmarks that drive its
// scheduler runs by hand, with no event loop in between.
#pragma once

#include <Velik/Platform.h>
#include <Velik/TaskSchedulerRoot.h>

#include <memory>

namespace VelikBench {

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
