#include "Velik/FdToStream.h"

#include "Velik/Assert.h"
#include "Velik/Errno.h"
#include "report/WriteNoSigpipe.h"

#include <fcntl.h>

#include <boost/iostreams/device/file_descriptor.hpp>
#include <boost/iostreams/stream_buffer.hpp>

#include <cerrno>
#include <ios>

namespace Velik {

namespace {

namespace io = boost::iostreams;

// Boost's descriptor sink with a write that cannot raise SIGPIPE and that
// retries interrupted writes.
class NoSigpipeSink : public io::file_descriptor_sink {
  public:
    NoSigpipeSink(int fd, bool closeFd)
        : file_descriptor_sink(fd, closeFd ? io::close_handle : io::never_close_handle) {}

    std::streamsize write(const char* data, std::streamsize size) {
        std::streamsize done = 0;
        while (done < size) {
            const ssize_t n =
                Impl::writeNoSigpipe(handle(), data + done, static_cast<std::size_t>(size - done));
            if (n < 0) {
                if (errno == EINTR) {
                    continue;
                }
                // Fails the stream: the rest of the text is lost.
                throw std::ios_base::failure(Velik::strerror(errno));
            }
            done += n;
        }
        return size;
    }
};

}  // namespace

FdToStream::FdToStream(int fd, bool closeFd) : std::ostream(nullptr), fd_(fd) {
    const int flags = fcntl(fd, F_GETFL);
    VELIK_CLASS_ASSERT(flags < 0 || (flags & O_NONBLOCK) == 0,
                       "FileDescriptor {} flags 0x{:x} is non-blocking, not supported", fd, flags);
    buffer_ = std::make_unique<io::stream_buffer<NoSigpipeSink>>(NoSigpipeSink(fd, closeFd));
    rdbuf(buffer_.get());
}

FdToStream::~FdToStream() {
    try {
        flush();
    } catch (...) {
    }
}

}  // namespace Velik
