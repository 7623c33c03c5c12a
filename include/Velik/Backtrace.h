// Captured call stacks.
//
// A `Backtrace` holds up to 100 return addresses of the thread that made it,
// innermost first, with that thread's kernel id and the time of the capture.
// Capturing is a local libunwind walk into a fixed array, so it allocates
// nothing; symbols are looked up only when the text form is asked for:
//
//   Velik::Backtrace here(true);
//   std::cerr << here.pretty();
//
// Every `Velik::Exception` carries one, taken where it was constructed.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>

namespace Velik {

class Backtrace {
  public:
    // The deepest stack kept; outer frames beyond it are cut.
    static constexpr uint32_t maxFrames = 100;

    // No frames, the caller's kernel thread id, and a time stamp of +infinity
    // ("never captured"). With `capture` set, unwinds right here: the first
    // frame lies in this constructor, the second in the code that made the
    // backtrace.
    explicit Backtrace(bool capture);

    // Replaces the frames with the current call stack, starting at the return
    // point in the caller of `unwind()`, and stamps the capture time. A stack
    // that cannot be walked leaves no frames.
    void unwind();

    // The text form:
    //
    //   Timestamp:<time> tid:<tid> Backtrace:
    //   /lib/libc.so.6(malloc+0x1a)[0x7f01b7e01234]
    //   [0x55a10804a123]
    //
    // one line per frame, with object, symbol and offset where the dynamic
    // loader knows the address ("No backtrace available" when there are no
    // frames). Symbol names are not demangled.
    std::string pretty() const;

    // 0 when the environment variable `VELIK_BACKTRACE_VERBOSITY` is exactly
    // "0", else 1. Read anew on every call; clients use it to decide whether
    // to print backtraces at all.
    static int verbosity();

    // The valid frames, innermost first.
    std::span<void* const> frames() const { return {frames_, count_}; }
    uint32_t count() const { return count_; }
    pid_t tid() const { return tid_; }
    // Seconds on the library clock (`Velik::time()`), +infinity if never
    // captured.
    double timestamp() const { return timestamp_; }

  private:
    void* frames_[maxFrames] = {};
    uint32_t count_ = 0;
    pid_t tid_;
    double timestamp_;
};

// A message with the backtrace of where it arose, as the backtrace tracker
// keeps them.
class TrackedBacktrace {
  public:
    TrackedBacktrace(const std::string& message, const Backtrace& backtrace)
        : message_(message), backtrace_(backtrace) {}

    const std::string& message() const { return message_; }
    const Backtrace& backtrace() const { return backtrace_; }

    // "Exception message:<message>\n" followed by the backtrace's `pretty()`.
    std::string toString() const;

  private:
    std::string message_;
    Backtrace backtrace_;
};

}  // namespace Velik
