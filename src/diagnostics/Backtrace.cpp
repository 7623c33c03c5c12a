#include "Velik/Backtrace.h"

#include "Velik/Thread.h"
#include "Velik/Time.h"

#define UNW_LOCAL_ONLY
#include <dlfcn.h>
#include <libunwind.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <sstream>

namespace Velik {

namespace {

void writeFrame(std::ostream& out, void* address) {
    Dl_info info;
    if (dladdr(address, &info) != 0) {
        if (info.dli_fname) {
            out << info.dli_fname;
        }
        const char* base =
            static_cast<const char*>(info.dli_saddr ? info.dli_saddr : info.dli_fbase);
        const auto offset = static_cast<const char*>(address) - base;
        out << "(" << (info.dli_sname ? info.dli_sname : "") << "+0x" << std::hex << offset
            << std::dec << ")";
    }
    out << "[" << address << "]\n";
}

}  // namespace

Backtrace::Backtrace(bool capture)
    : tid_(Velik::gettid()), timestamp_(std::numeric_limits<double>::infinity()) {
    if (capture) {
        unwind();
        // Keeps the call out of tail position, so that this constructor's
        // frame is the first one recorded at every optimisation level.
        asm volatile("" ::: "memory");
    }
}

// Kept out of line so that its own frame is the one the walk starts from and
// skips.
__attribute__((noinline)) void Backtrace::unwind() {
    count_ = 0;
    timestamp_ = Velik::time();
    unw_context_t context;
    unw_cursor_t cursor;
    if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0) {
        return;
    }
    while (count_ < maxFrames && unw_step(&cursor) > 0) {
        unw_word_t ip;
        if (unw_get_reg(&cursor, UNW_REG_IP, &ip) != 0) {
            break;
        }
        frames_[count_++] = reinterpret_cast<void*>(ip);
    }
}

std::string Backtrace::pretty() const {
    std::ostringstream out;
    out << "Timestamp:" << timestamp_ << " tid:" << tid_ << " Backtrace:\n";
    if (count_ == 0) {
        out << "No backtrace available\n";
        return out.str();
    }
    for (void* frame : frames()) {
        writeFrame(out, frame);
    }
    return out.str();
}

int Backtrace::verbosity() {
    const char* value = std::getenv("VELIK_BACKTRACE_VERBOSITY");
    return (value && std::strcmp(value, "0") == 0) ? 0 : 1;
}

std::string TrackedBacktrace::toString() const {
    return "Exception message:" + message_ + "\n" + backtrace_.pretty();
}

}  // namespace Velik
