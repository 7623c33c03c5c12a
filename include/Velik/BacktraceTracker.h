// The process-wide ring of recent exception backtraces.
//
// Every `Velik::Exception` hands its message and backtrace to the tracker when
// it is constructed. While tracking is on, the tracker keeps the newest of
// them (100 by default), including exceptions that were caught and swallowed,
// so that a daemon can later show where its recent failures came from:
//
//   Velik::BacktraceTracker::enabledIs(true);
//   ...
//   Velik::BacktraceTracker::printAll(std::cerr);
//
// While tracking is off, recording costs one unlocked load of the switch.
// Every operation but `enabled()` and that early test takes the tracker's
// lock, so exceptions may be made on any thread.
#pragma once

#include <Velik/Backtrace.h>

#include <iosfwd>
#include <string>
#include <vector>

namespace Velik {

class BacktraceTracker {
  public:
    BacktraceTracker() = delete;

    // The entries a newly enabled tracker with no storage gets room for.
    static constexpr unsigned defaultCapacity = 100;

    // Whether tracking is on (read without the lock).
    static bool enabled();

    // Switching on gives an empty-handed ring room for `defaultCapacity`
    // entries and keeps any existing storage as it is. Switching off frees the
    // storage only when no entries are held; held entries stay readable,
    // printable and clearable.
    static void enabledIs(bool on);

    // The number of entries the ring can hold; 0 while it has no storage.
    static unsigned capacity();

    // Resizes the ring, keeping the newest min(n, size) entries in order.
    // Asserts when tracking is off or `n` is 0 (use `clear()` to drop
    // storage). Throws std::length_error("circular_buffer") when `n` exceeds
    // what the ring can allocate.
    static void capacityIs(unsigned n);

    // Records `message` with `backtrace` when tracking is on, overwriting the
    // oldest entry of a full ring. Does nothing, without locking, when off.
    static void backtraceIs(const std::string& message, const Backtrace& backtrace);

    // As above, with the backtrace captured here.
    static void backtraceIs(const std::string& message);

    // A copy of every entry, oldest first.
    static std::vector<TrackedBacktrace> tracked();

    // Drops every entry; when tracking is off, also frees the storage.
    static void clear();

    // Writes each entry's `toString()` and "\n", oldest first, then flushes.
    static void printAll(std::ostream& out);
};

}  // namespace Velik
