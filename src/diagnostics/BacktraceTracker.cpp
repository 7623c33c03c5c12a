#include "Velik/BacktraceTracker.h"

#include "Velik/Assert.h"
#include "Velik/Locking.h"

#include <boost/circular_buffer.hpp>

#include <atomic>
#include <mutex>
#include <ostream>

namespace Velik {

namespace {

using Ring = boost::circular_buffer<TrackedBacktrace>;

struct Tracker {
    Locking::Lock lock;
    Ring ring;
};

// Never destroyed: exceptions made during exit, after static destructors
// have run, must still find a tracker.
Tracker& tracker() {
    static Tracker* const instance = new Tracker;
    return *instance;
}

// Outside the tracker so that the test every exception makes touches only
// this flag. Read without the lock; a race with enabledIs() records or skips
// one entry.
std::atomic<bool> trackingOn{false};

void freeStorage(Ring& ring) {
    Ring().swap(ring);
}

// The tracker's checks are reported under the source name users know them by.
constexpr const char* trackerSourceName = "BacktraceCpp";

}  // namespace

bool BacktraceTracker::enabled() {
    return trackingOn.load(std::memory_order_relaxed);
}

void BacktraceTracker::enabledIs(bool on) {
    Tracker& t = tracker();
    std::lock_guard guard(t.lock);
    if (on) {
        if (t.ring.capacity() == 0) {
            t.ring.set_capacity(defaultCapacity);
        }
    } else if (t.ring.empty()) {
        freeStorage(t.ring);
    }
    trackingOn.store(on, std::memory_order_relaxed);
}

unsigned BacktraceTracker::capacity() {
    Tracker& t = tracker();
    std::lock_guard guard(t.lock);
    return static_cast<unsigned>(t.ring.capacity());
}

void BacktraceTracker::capacityIs(unsigned n) {
    if (!enabled()) {
        Impl::assertFailed(trackerSourceName, 162, false, "capacityIs", nullptr,
                           "User must enable the tracker to set the capacity.");
    }
    if (n == 0) {
        Impl::assertFailed(trackerSourceName, 163, false, "capacityIs", nullptr,
                           "Cannot set a capacity of 0, use clear() instead.");
    }
    Tracker& t = tracker();
    std::lock_guard guard(t.lock);
    // Dropping from the front keeps the newest entries when shrinking.
    t.ring.rset_capacity(n);
}

void BacktraceTracker::backtraceIs(const std::string& message, const Backtrace& backtrace) {
    if (!enabled()) {
        return;
    }
    Tracker& t = tracker();
    std::lock_guard guard(t.lock);
    t.ring.push_back(TrackedBacktrace(message, backtrace));
}

void BacktraceTracker::backtraceIs(const std::string& message) {
    if (!enabled()) {
        return;
    }
    backtraceIs(message, Backtrace(true));
}

std::vector<TrackedBacktrace> BacktraceTracker::tracked() {
    Tracker& t = tracker();
    std::lock_guard guard(t.lock);
    return {t.ring.begin(), t.ring.end()};
}

void BacktraceTracker::clear() {
    Tracker& t = tracker();
    std::lock_guard guard(t.lock);
    t.ring.clear();
    if (!enabled() && t.ring.capacity() != 0) {
        freeStorage(t.ring);
    }
}

void BacktraceTracker::printAll(std::ostream& out) {
    Tracker& t = tracker();
    std::lock_guard guard(t.lock);
    for (const TrackedBacktrace& entry : t.ring) {
        out << entry.toString() << "\n";
    }
    out.flush();
}

}  // namespace Velik
