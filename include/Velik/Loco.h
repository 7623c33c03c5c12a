// The process-wide platform lock.
//
// Few things in the library are shared between threads; those that are (the
// plug-in registry, for one) are guarded by this one lock. On the framework
// platform it is the framework's activity lock, so library code and framework
// code exclude each other.
//
//   {
//       Velik::Platform::LocoGuard guard;   // taken, or already ours
//       ...
//   }                                       // released only if taken here
//
// The lock is not recursive, but taking it again on the thread that holds it
// is detected and tolerated: the inner guard neither blocks nor releases.
#pragma once

namespace Velik::Platform {

class Loco {
  public:
    virtual ~Loco() = default;
    // Takes the lock and returns 0, or returns `EDEADLK` at once when the
    // calling thread already holds it. Any other failure throws.
    virtual int lock() = 0;
    // Releases the lock if this thread took it.
    virtual void unlock() = 0;
    // Whether the lock is held through this object.
    virtual bool owns_lock() const = 0;
};

// The process's lock, made on first call and destroyed at exit.
Loco& loco();

// Holds `loco()` for its scope. A guard whose lock attempt found the lock
// already held by this thread does not release it at its end.
class LocoGuard {
  public:
    LocoGuard() : release_(loco().lock() == 0) {}
    ~LocoGuard() {
        if (release_) {
            loco().unlock();
        }
    }
    LocoGuard(const LocoGuard&) = delete;
    LocoGuard& operator=(const LocoGuard&) = delete;

    // Whether this guard took the lock (and so releases it).
    bool releases() const { return release_; }

  private:
    bool release_;
};

}  // namespace Velik::Platform
