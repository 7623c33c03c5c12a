// Backtraces of another thread of this process, taken by that thread itself
// in a signal handler (see StallSentinel.h for why and how).
#pragma once

#include <Velik/RunPublication.h>
#include <Velik/StallSentinel.h>

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Velik::Impl {

// The memory one capture is written to, set aside by the sentinel before it
// asks and kept alive until the capture is done or the thread is gone. The
// handler finds it through the signal's value; it touches nothing else but
// the publication named here and the task published in it.
struct CaptureSlot {
    static constexpr std::uint32_t magicValue = 0x57a11ed5;
    static constexpr std::size_t nameMax = 120;
    enum State : int { idle, requested, done };

    std::uint32_t magic = magicValue;
    std::atomic<int> state{idle};
    // Filled in by the sentinel before it asks.
    pid_t tid = 0;
    const RunPublication* publication = nullptr;
    // Filled in by the handler.
    std::uint32_t frameCount = 0;
    void* frames[stallFramesMax] = {};
    // The run published when the capture was taken, and its task's name.
    RunPublication::Run run;
    std::uint32_t nameLength = 0;
    char name[nameMax] = {};
};

// Makes `signal` the capture signal: installs the handler unless it is ours
// already. Throws `RuntimeException` when the application holds the signal
// (a handler of its own, or ignored).
void captureSignalInstall(int signal);

enum class CaptureResult { done, timedOut, threadGone, busy };

// Asks the slot's thread for its backtrace with `signal` and waits at most
// `wait` for it. `busy`: an earlier request was never answered (the thread
// blocks the signal, say), so none is sent.
CaptureResult captureStack(CaptureSlot& slot, int signal, TaskTimeDuration wait);

}  // namespace Velik::Impl
