// Message formatting: fmt into a 500-byte stack buffer.
//
// These functions never throw to their caller: any exception while formatting
// (a bad format string included) terminates the process, because they run on
// trace and assertion paths that must not fail differently from the code they
// report on. Messages of up to 500 bytes are formatted without touching the
// heap; longer ones grow the buffer onto it.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <string>

namespace Fmt::Impl {

inline constexpr size_t messageBufferInline = 500;
using MessageBuffer = fmt::basic_memory_buffer<char, messageBufferInline>;

// Empties `buffer`, then writes "Class::function() " when `withClass` is set
// (both names must be non-null) and the formatted message.
void buildMessageBuffer(MessageBuffer& buffer, bool withClass, const char* funcName,
                        const char* className, fmt::string_view format,
                        fmt::format_args args) noexcept;

// As buildMessageBuffer, prefixed with "file:line: ".
void buildDetailedMessageBuffer(MessageBuffer& buffer, const char* file, int line, bool withClass,
                                const char* funcName, const char* className,
                                fmt::string_view format, fmt::format_args args) noexcept;

// The two builders above, returning the message as a string.
std::string vformatstr(bool withClass, const char* funcName, const char* className,
                       fmt::string_view format, fmt::format_args args) noexcept;
std::string vformatstr(const char* file, int line, bool withClass, const char* funcName,
                       const char* className, fmt::string_view format,
                       fmt::format_args args) noexcept;

// Prints the standard "Assertion failed" line for an internal check of the
// formatting layer and aborts.
[[noreturn]] void standardAssertionFailed(const char* expression, const char* source, int line,
                                          const char* function) noexcept;

}  // namespace Fmt::Impl

namespace QoFmt::Impl {

// fmt's print to a C stream or to standard output; terminates on any error.
void vprint(std::FILE* file, fmt::string_view format, fmt::format_args args) noexcept;
void vprint(fmt::string_view format, fmt::format_args args) noexcept;

}  // namespace QoFmt::Impl

namespace QoFmt {

// Typed front ends of the above, with the format checked at compile time.
template <typename... Args>
void print(std::FILE* file, fmt::format_string<Args...> format, const Args&... args) {
    Impl::vprint(file, format, fmt::make_format_args(args...));
}
template <typename... Args>
void print(fmt::format_string<Args...> format, const Args&... args) {
    Impl::vprint(format, fmt::make_format_args(args...));
}

}  // namespace QoFmt
