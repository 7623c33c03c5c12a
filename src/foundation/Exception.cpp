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

const char* MemoryResourceException::name() const {
    return "Velik::MemoryResourceException";
}
void MemoryResourceException::throwException(const std::string& message) {
    throw MemoryResourceException(message);
}

const char* NoPermissionException::name() const {
    return "Velik::NoPermissionException";
}
void NoPermissionException::throwException(const std::string& message) {
    throw NoPermissionException(message);
}

const char* UnimplementedException::name() const {
    return "Velik::UnimplementedException";
}
void UnimplementedException::throwException(const std::string& message) {
    throw UnimplementedException(message);
}

const char* InvalidInitializeException::name() const {
    return "Velik::InvalidInitializeException";
}
void InvalidInitializeException::throwException(const std::string& message) {
    throw InvalidInitializeException(message);
}

const char* RuntimeException::name() const {
    return "Velik::RuntimeException";
}
void RuntimeException::throwException(const std::string& message) {
    throw RuntimeException(message);
}

const char* OutOfRangeException::name() const {
    return "Velik::OutOfRangeException";
}
void OutOfRangeException::throwException(const std::string& message) {
    throw OutOfRangeException(message);
}

const char* CorruptionDetectedException::name() const {
    return "Velik::CorruptionDetectedException";
}
void CorruptionDetectedException::throwException(const std::string& message) {
    throw CorruptionDetectedException(message);
}

const char* InvalidSizeException::name() const {
    return "Velik::InvalidSizeException";
}
void InvalidSizeException::throwException(const std::string& message) {
    throw InvalidSizeException(message);
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
