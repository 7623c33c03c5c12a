#include "Velik/FmtUtil.h"

#include <cstdlib>

namespace Fmt::Impl {

namespace {

// Room for the class and function prefix before the message proper.
constexpr size_t minimumCapacity = 128;

void appendClassPrefix(MessageBuffer& buffer, bool withClass, const char* funcName,
                       const char* className) {
    if (!withClass) {
        return;
    }
    if (!(funcName && className)) {
        // Reported with the location users know this check by.
        standardAssertionFailed("funcName && className", "FmtUtilCpp", 34, "buildMessageBuffer");
    }
    fmt::format_to(fmt::appender(buffer), "{}::{}() ", className, funcName);
}

}  // namespace

void standardAssertionFailed(const char* expression, const char* source, int line,
                             const char* function) noexcept {
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", source, line, function, expression);
    std::fflush(stderr);
    std::abort();
}

void buildMessageBuffer(MessageBuffer& buffer, bool withClass, const char* funcName,
                        const char* className, fmt::string_view format,
                        fmt::format_args args) noexcept {
    buffer.clear();
    buffer.reserve(minimumCapacity);
    appendClassPrefix(buffer, withClass, funcName, className);
    fmt::vformat_to(fmt::appender(buffer), format, args);
}

void buildDetailedMessageBuffer(MessageBuffer& buffer, const char* file, int line, bool withClass,
                                const char* funcName, const char* className,
                                fmt::string_view format, fmt::format_args args) noexcept {
    buffer.clear();
    buffer.reserve(minimumCapacity);
    fmt::format_to(fmt::appender(buffer), "{}:{}: ", file, line);
    appendClassPrefix(buffer, withClass, funcName, className);
    fmt::vformat_to(fmt::appender(buffer), format, args);
}

std::string vformatstr(bool withClass, const char* funcName, const char* className,
                       fmt::string_view format, fmt::format_args args) noexcept {
    MessageBuffer buffer;
    buildMessageBuffer(buffer, withClass, funcName, className, format, args);
    return fmt::to_string(buffer);
}

std::string vformatstr(const char* file, int line, bool withClass, const char* funcName,
                       const char* className, fmt::string_view format,
                       fmt::format_args args) noexcept {
    MessageBuffer buffer;
    buildDetailedMessageBuffer(buffer, file, line, withClass, funcName, className, format, args);
    return fmt::to_string(buffer);
}

}  // namespace Fmt::Impl

namespace QoFmt::Impl {

void vprint(std::FILE* file, fmt::string_view format, fmt::format_args args) noexcept {
    fmt::vprint(file, format, args);
}

void vprint(fmt::string_view format, fmt::format_args args) noexcept {
    fmt::vprint(format, args);
}

}  // namespace QoFmt::Impl
