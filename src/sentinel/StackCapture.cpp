#include "sentinel/StackCapture.h"

#include "Velik/Exception.h"
#include "Velik/Task.h"

#define UNW_LOCAL_ONLY
#include <fmt/format.h>
#include <libunwind.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace Velik::Impl {

namespace {

// Runs on the stuck thread: async-signal-safe calls only (libunwind's local
// walk, plain loads and stores, getpid and gettid). The walk starts from
// `interrupted`, the context the kernel saved for the handler, so the first
// frame is the interrupted code itself and the handler's frames are never
// seen: walking out of the handler instead would depend on which frame the
// unwinder marks as the signal frame, and libunwind 1.6 marks the one after
// the trampoline, whose frame was then lost.
void captureHere(CaptureSlot& slot, void* interrupted) {
    std::uint32_t count = 0;
    unw_cursor_t cursor;
    if (interrupted && unw_init_local2(&cursor, static_cast<unw_context_t*>(interrupted),
                                       UNW_INIT_SIGNAL_FRAME) == 0) {
        do {
            unw_word_t ip;
            if (unw_get_reg(&cursor, UNW_REG_IP, &ip) != 0) {
                break;
            }
            slot.frames[count++] = reinterpret_cast<void*>(ip);
        } while (count < stallFramesMax && unw_step(&cursor) > 0);
    }
    slot.frameCount = count;
    // The published task runs on this very thread, so it is alive here.
    slot.run = slot.publication->current();
    std::uint32_t length = 0;
    if (slot.run.task) {
        const std::string_view name = slot.run.task->taskDisplayName().view();
        length = static_cast<std::uint32_t>(std::min(name.size(), CaptureSlot::nameMax));
        std::memcpy(slot.name, name.data(), length);
    }
    slot.nameLength = length;
}

void onCaptureSignal(int, siginfo_t* info, void* interrupted) {
    const int savedErrno = errno;
    if (info && info->si_code == SI_QUEUE && info->si_pid == getpid()) {
        auto* slot = static_cast<CaptureSlot*>(info->si_value.sival_ptr);
        if (slot && slot->magic == CaptureSlot::magicValue &&
            slot->state.load(std::memory_order_acquire) == CaptureSlot::requested &&
            slot->tid == static_cast<pid_t>(syscall(SYS_gettid))) {
            captureHere(*slot, interrupted);
            slot->state.store(CaptureSlot::done, std::memory_order_release);
        }
    }
    errno = savedErrno;
}

bool ours(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) && action.sa_sigaction == onCaptureSignal;
}

}  // namespace

void captureSignalInstall(int signal) {
    struct sigaction current {};
    if (sigaction(signal, nullptr, &current) != 0) {
        RuntimeException::throwException(
            fmt::format("signal {} cannot be used: {}", signal, std::strerror(errno)));
    }
    if (ours(current)) {
        return;
    }
    if (current.sa_handler != SIG_DFL) {
        RuntimeException::throwException(fmt::format(
            "signal {} is already handled by the application; the stall sentinel needs a "
            "signal of its own (StallOptions::signalNumber)",
            signal));
    }
    struct sigaction action {};
    action.sa_sigaction = onCaptureSignal;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    if (sigaction(signal, &action, nullptr) != 0) {
        RuntimeException::throwException(
            fmt::format("signal {} cannot be used: {}", signal, std::strerror(errno)));
    }
}

CaptureResult captureStack(CaptureSlot& slot, int signal, TaskTimeDuration wait) {
    int expected = CaptureSlot::idle;
    if (!slot.state.compare_exchange_strong(expected, CaptureSlot::requested,
                                            std::memory_order_acq_rel)) {
        if (expected != CaptureSlot::done) {
            return CaptureResult::busy;
        }
        // A late answer to an earlier request: stale, ask again.
        slot.state.store(CaptureSlot::requested, std::memory_order_release);
    }
    siginfo_t info{};
    info.si_signo = signal;
    info.si_code = SI_QUEUE;
    info.si_pid = getpid();
    info.si_uid = getuid();
    info.si_value.sival_ptr = &slot;
    if (syscall(SYS_rt_tgsigqueueinfo, getpid(), slot.tid, signal, &info) != 0) {
        slot.state.store(CaptureSlot::idle, std::memory_order_release);
        return CaptureResult::threadGone;
    }
    // Delivery takes microseconds; the pause grows so a thread that takes
    // long to answer costs little.
    const auto deadline = std::chrono::steady_clock::now() + wait;
    auto pause = std::chrono::microseconds(20);
    while (slot.state.load(std::memory_order_acquire) != CaptureSlot::done) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return CaptureResult::timedOut;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::microseconds(2000));
    }
    return CaptureResult::done;
}

}  // namespace Velik::Impl
