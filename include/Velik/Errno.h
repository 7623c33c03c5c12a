// System error texts.
#pragma once

namespace Velik {

// The message text of the errno value `errnum` ("Invalid argument"), for
// every system-call failure message of the library. Thread-safe: the text is
// formatted into a per-thread buffer of 256 bytes and stays valid until the
// calling thread's next call (or is a static text). Allocates nothing and
// leaves the caller's `errno` as it was. A value the C library cannot format
// is an assertion failure.
const char* strerror(int errnum);

}  // namespace Velik
