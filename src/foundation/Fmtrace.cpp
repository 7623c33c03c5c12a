#include "Velik/Fmtrace.h"

namespace Velik::Platform {
// Bound weakly: a build without a platform trace writer still links, and the
// first trace line then reports that no writer exists.
__attribute__((weak)) void dumpDebugMsg(const char* text, size_t length, unsigned level,
                                        DebugHandler* handle, const char* file,
                                        const char* function, int line);
}  // namespace Velik::Platform

namespace Fmt::Impl {

void dumpDebugMsg(const char* text, size_t length, unsigned level,
                  Velik::Platform::DebugHandler* handle, const char* file, const char* function,
                  int line) noexcept {
    if (&Velik::Platform::dumpDebugMsg == nullptr) {
        standardAssertionFailed("false && \"No debug handler found for platform\"", "FmtraceCpp",
                                47, "dumpDebugMsg");
    }
    Velik::Platform::dumpDebugMsg(text, length, level, handle, file, function, line);
}

void vfmtrace(Velik::Platform::DebugHandler* handle, unsigned level, const char* file,
              bool withClass, const char* function, const char* className, int line,
              fmt::string_view format, fmt::format_args args) noexcept {
    MessageBuffer buffer;
    buildMessageBuffer(buffer, withClass, function, className, format, args);
    Fmt::Impl::dumpDebugMsg(buffer.data(), buffer.size(), level, handle, file, function, line);
}

}  // namespace Fmt::Impl

namespace Fmtrace::Impl {

fmt::format_context::iterator vformat_to(fmt::format_context& context, fmt::string_view format,
                                         fmt::format_args args) {
    return fmt::vformat_to(context.out(), format, args);
}

}  // namespace Fmtrace::Impl
