// The platform lock on the framework: a `Loco` over the activity manager's
// activity lock.
#pragma once

#include <Velik/Loco.h>

namespace Kiv {
class ActivityLock;
}

namespace KivVelik {

class ActivityLock : public Velik::Platform::Loco {
  public:
    // Wraps the activity manager's process-wide activity lock.
    ActivityLock();
    explicit ActivityLock(Kiv::ActivityLock& lock) : lock_(lock) {}

    // Takes the framework lock. `EDEADLK` (this thread holds it already) is
    // returned, not thrown, and leaves the owns flag as it was; any other
    // failure throws `Kiv::LockException`.
    int lock() override;
    // Releases the framework lock only when this object took it.
    void unlock() override;
    bool owns_lock() const override { return owns_; }

  private:
    Kiv::ActivityLock& lock_;
    bool owns_ = false;
};

}  // namespace KivVelik
