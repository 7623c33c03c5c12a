#include "Kiv/Exception.h"

#include <cstring>

namespace Kiv {

namespace {

std::string withErrorText(const std::string& message, int error) {
    char buffer[256];
    // The GNU strerror_r may return a static string instead of filling buffer.
    const char* text = strerror_r(error, buffer, sizeof buffer);
    return message + ": " + text;
}

}  // namespace

Exception::Exception(const std::string& message) : std::runtime_error(message) {}
Exception::~Exception() = default;

SystemException::SystemException(const std::string& message, int error)
    : Exception(withErrorText(message, error)), error_(error) {}
SystemException::~SystemException() = default;

LockException::LockException(const std::string& message, int error)
    : Exception(withErrorText(message, error)), error_(error) {}
LockException::~LockException() = default;

}  // namespace Kiv
