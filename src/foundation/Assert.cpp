#include "Velik/Assert.h"

#include "Velik/Exception.h"

namespace Velik {

namespace {

// Unsynchronised on purpose: set once, early, by a test driver or tool.
bool throwOnAssertFailFlag = false;

}  // namespace

void throwOnAssertFailIs(bool throwOnFail) {
    throwOnAssertFailFlag = throwOnFail;
}

bool throwOnAssertFail() {
    return throwOnAssertFailFlag;
}

void debugAndThrowAssertException(Platform::DebugHandler& handler, unsigned level,
                                  Platform::DebugStream& stream, const char* file,
                                  const char* function, int line) {
    Platform::DebugStream message;
    // A null name fails the stream, which then drops everything after it:
    // the message keeps what stood before the null.
    message << file << ":" << function << ":" << line << ": " << stream.str();
    handler.dump(message, level, file, line, function);
    AssertException::throwException(message.str());
}

namespace Impl {

void vassertFailed(const char* file, int line, bool withClass, const char* function,
                   const char* className, fmt::string_view format, fmt::format_args args) {
    std::string text =
        Fmt::Impl::vformatstr(file, line, withClass, function, className, format, args);
    Fmt::Impl::dumpDebugMsg(text.data(), text.size(), 0, VELIK_DEFAULT_HANDLE, file, function,
                            line);
    AssertException::throwException(text);
}

}  // namespace Impl
}  // namespace Velik
