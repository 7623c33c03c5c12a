// Trace sites.
//
// A trace site names a handler, a level and an fmt format:
//
//   VELIK_TRACE(handle, 5, "opened fd:{}", fd);     // in a member function
//   VELIK_FTRACE(handle, 5, "opened fd:{}", fd);    // in a free function
//
// It tests the level bit first and formats nothing when it is clear. The
// member form writes "Class::function() " before the text; the class name is
// the `traceClassName` visible at the site (declare
// `static constexpr const char* traceClassName = "Class";` in the class).
// The source name, line and function travel beside the text, so the trace
// writer places them as `TRACEFORMAT` says. `handle` may be a
// `Platform::DebugHandler*`, a shared pointer to one, or a `Debuggable`.
#pragma once

#include <Velik/Debug.h>
#include <Velik/FmtUtil.h>

#include <memory>

// The assertion and trace source name of the code being compiled; the build
// supplies one per library file ("ErrnoCpp"), other code gets its file name.
#ifndef VELIK_SOURCE_NAME
#define VELIK_SOURCE_NAME __FILE__
#endif

namespace Fmt::Impl {

// Hands a finished message to the platform's trace writer. Without a platform
// writer this is a fatal standard assertion.
void dumpDebugMsg(const char* text, size_t length, unsigned level,
                  Velik::Platform::DebugHandler* handle, const char* file, const char* function,
                  int line) noexcept;

// Formats (without the location) on a 500-byte stack buffer and hands the
// message with its location to dumpDebugMsg.
void vfmtrace(Velik::Platform::DebugHandler* handle, unsigned level, const char* file,
              bool withClass, const char* function, const char* className, int line,
              fmt::string_view format, fmt::format_args args) noexcept;

template <typename... Args>
void fmtrace(Velik::Platform::DebugHandler* handle, unsigned level, const char* file,
             bool withClass, const char* function, const char* className, int line,
             fmt::format_string<Args...> format, const Args&... args) noexcept {
    vfmtrace(handle, level, file, withClass, function, className, line, format,
             fmt::make_format_args(args...));
}

inline Velik::Platform::DebugHandler* debugHandlerOf(Velik::Platform::DebugHandler* h) {
    return h;
}
inline Velik::Platform::DebugHandler* debugHandlerOf(
    const std::shared_ptr<Velik::Platform::DebugHandler>& h) {
    return h.get();
}
inline Velik::Platform::DebugHandler* debugHandlerOf(const Velik::Debuggable& d) {
    return d.debugHandler().get();
}

}  // namespace Fmt::Impl

namespace Fmtrace::Impl {

// Formats into the output of an fmt format context: for custom formatters of
// library types that format nested values.
fmt::format_context::iterator vformat_to(fmt::format_context& context, fmt::string_view format,
                                         fmt::format_args args);

template <typename... Args>
fmt::format_context::iterator format_to(fmt::format_context& context,
                                        fmt::format_string<Args...> format, const Args&... args) {
    return vformat_to(context, format, fmt::make_format_args(args...));
}

}  // namespace Fmtrace::Impl

// Trace from a member function of a class that declares `traceClassName`.
#define VELIK_TRACE(handle, level, ...)                                                           \
    do {                                                                                          \
        ::Velik::Platform::DebugHandler* velikTraceHandle_ = ::Fmt::Impl::debugHandlerOf(handle); \
        if (velikTraceHandle_ && velikTraceHandle_->enabled(level)) {                             \
            ::Fmt::Impl::fmtrace(velikTraceHandle_, (level), VELIK_SOURCE_NAME, true, __func__,   \
                                 traceClassName, __LINE__, __VA_ARGS__);                          \
        }                                                                                         \
    } while (0)

// Trace from a free function.
#define VELIK_FTRACE(handle, level, ...)                                                          \
    do {                                                                                          \
        ::Velik::Platform::DebugHandler* velikTraceHandle_ = ::Fmt::Impl::debugHandlerOf(handle); \
        if (velikTraceHandle_ && velikTraceHandle_->enabled(level)) {                             \
            ::Fmt::Impl::fmtrace(velikTraceHandle_, (level), VELIK_SOURCE_NAME, false, __func__,  \
                                 nullptr, __LINE__, __VA_ARGS__);                                 \
        }                                                                                         \
    } while (0)
