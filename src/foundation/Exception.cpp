#include "Velik/Exception.h"

#include "Velik/Assert.h"
#include "Velik/BacktraceTracker.h"

#include <iostream>

namespace Velik {

Exception::Exception(const std::string& message, bool captureBacktrace)
    : backtrace_(captureBacktrace), message_(message) {
    BacktraceTracker::backtraceIs(message_, backtrace_);
}

Exception::~Exception() = default;

const char* Exception::what() const noexcept {
    if (whatCache_.empty()) {
        whatCache_ = msg() + "\n" + backtrace_.pretty();
    }
    return whatCache_.c_str();
}

const char* Exception::name() const {
    return "Velik::Exception";
}

std::string Exception::msg() const {
    std::string text = name();
    text += "(\"";
    text += message_;
    text += "\")";
    return text;
}

void Exception::throwException(const std::string& message) {
    throw Exception(message, true);
}

const char* AssertException::name() const {
    return "Velik::AssertException";
}

void AssertException::throwException(const std::string& message) {
    if (throwOnAssertFail()) {
        throw AssertException(message);
    }
    std::cerr << "Velik::Assert aborting because: " << message << std::endl;
    std::terminate();
}

}  // namespace Velik
