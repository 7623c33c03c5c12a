#include "Velik/Errno.h"

#include "Velik/Assert.h"

#include <cerrno>
#include <cstring>

namespace Velik {

namespace {

// One buffer per thread, reused by every call on that thread.
constexpr size_t errnoTextSize = 256;
thread_local char errnoText[errnoTextSize];

}  // namespace

const char* strerror(int errnum) {
    const int saved = errno;
    errno = 0;
    // The GNU form: returns the text, in the buffer or static.
    const char* text = ::strerror_r(errnum, errnoText, errnoTextSize);
    if (const int error = errno; error != 0) [[unlikely]] {
        // Reported with the location users know this check by.
        Impl::assertFailed(VELIK_SOURCE_NAME, 27, false, "strerror", nullptr,
                           "Unable to format errno:{} error:{}", errnum, error);
    }
    errno = saved;
    return text;
}

}  // namespace Velik
