// Writing to a pipe or socket whose reader may have gone.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace Velik::Impl {

// One write(2) of `size` bytes from `data` to `fd`. A reader that has gone
// gives -1 with errno EPIPE and never a SIGPIPE: the signal is blocked on the
// calling thread for the call and, if the write raised it, consumed. The
// process's disposition of SIGPIPE is not touched, and a SIGPIPE that was
// already pending stays pending.
ssize_t writeNoSigpipe(int fd, const void* data, std::size_t size);

}  // namespace Velik::Impl
