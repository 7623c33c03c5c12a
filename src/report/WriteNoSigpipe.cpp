#include "report/WriteNoSigpipe.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace Velik::Impl {

ssize_t writeNoSigpipe(int fd, const void* data, std::size_t size) {
    sigset_t pipeOnly;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &pipeOnly, &before);
    sigset_t pending;
    sigpending(&pending);
    const bool wasPending = sigismember(&pending, SIGPIPE) == 1;

    const ssize_t written = ::write(fd, data, size);
    const int error = errno;

    if (written < 0 && error == EPIPE && !wasPending) {
        // The signal is directed at this thread, where it is blocked: take it
        // before unblocking, or it would be delivered then.
        const timespec noWait{0, 0};
        while (sigtimedwait(&pipeOnly, nullptr, &noWait) < 0 && errno == EINTR) {
        }
    }
    if (sigismember(&before, SIGPIPE) != 1) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    errno = error;
    return written;
}

}  // namespace Velik::Impl
