// Assertions: broken invariants of the library and of code built on it.
//
//   VELIK_ASSERT(fd >= 0, "bad fd:{}", fd);             // in a free function
//   VELIK_CLASS_ASSERT(state() == s, "state {}", s);    // in a member function
//   VELIK_ASSERT_STREAM(ok, "queue " << name << " corrupt");
//
// A failed assertion composes its message with the source name, the line and
// the function ("TimerWheelCpp:120: TimerWheel::timerStop() Not linked ..."
// for the formatted forms, "Platform:setFastForward:474: ..." for the stream
// form), writes it at level 0 through `VELIK_DEFAULT_HANDLE`, and then aborts
// with "Velik::Assert aborting because: " on standard error, or throws
// `Velik::AssertException` when `throwOnAssertFailIs(true)` was called.
// The member form takes the class name from the `traceClassName` visible at
// the site, as the trace macros do. Arguments are evaluated only on failure.
#pragma once

#include <Velik/Debug.h>
#include <Velik/FmtUtil.h>
#include <Velik/Fmtrace.h>

namespace Velik {

// Switches failed assertions between aborting (false, the default) and
// throwing `AssertException` (true). Meant to be set once, early.
void throwOnAssertFailIs(bool throwOnFail);

// Whether failed assertions throw.
bool throwOnAssertFail();

// The stream form of an assertion: composes "file:function:line: " and the
// caller's text, dumps it through `handler` at `level`, then aborts or throws
// as `throwOnAssertFailIs` says.
[[noreturn]] void debugAndThrowAssertException(Platform::DebugHandler& handler, unsigned level,
                                               Platform::DebugStream& stream, const char* file,
                                               const char* function, int line);

namespace Impl {

// The formatted form of a failed assertion.
[[noreturn]] void vassertFailed(const char* file, int line, bool withClass, const char* function,
                                const char* className, fmt::string_view format,
                                fmt::format_args args);

template <typename... Args>
[[noreturn]] void assertFailed(const char* file, int line, bool withClass, const char* function,
                               const char* className, fmt::format_string<Args...> format,
                               const Args&... args) {
    vassertFailed(file, line, withClass, function, className, format,
                  fmt::make_format_args(args...));
}

}  // namespace Impl
}  // namespace Velik

#define VELIK_ASSERT(condition, ...)                                                           \
    do {                                                                                       \
        if (!(condition)) [[unlikely]] {                                                       \
            ::Velik::Impl::assertFailed(VELIK_SOURCE_NAME, __LINE__, false, __func__, nullptr, \
                                        __VA_ARGS__);                                          \
        }                                                                                      \
    } while (0)

#define VELIK_CLASS_ASSERT(condition, ...)                                           \
    do {                                                                             \
        if (!(condition)) [[unlikely]] {                                             \
            ::Velik::Impl::assertFailed(VELIK_SOURCE_NAME, __LINE__, true, __func__, \
                                        traceClassName, __VA_ARGS__);                \
        }                                                                            \
    } while (0)

#define VELIK_ASSERT_STREAM(condition, streamed)                                                   \
    do {                                                                                           \
        if (!(condition)) [[unlikely]] {                                                           \
            ::Velik::Platform::DebugStream velikAssertStream_;                                     \
            velikAssertStream_ << streamed;                                                        \
            ::Velik::debugAndThrowAssertException(*::Velik::VELIK_DEFAULT_HANDLE, 0,               \
                                                  velikAssertStream_, VELIK_SOURCE_NAME, __func__, \
                                                  __LINE__);                                       \
        }                                                                                          \
    } while (0)
