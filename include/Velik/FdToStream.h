// An output stream on an existing, blocking file descriptor.
//
//   Velik::FdToStream out(STDERR_FILENO, false);
//   out << "report\n";
//
// Writes block until done; the stream does not switch the descriptor's
// modes. A reader that goes away (a closed pipe or socket) puts the stream
// in a failed state, and later text is lost; it never raises SIGPIPE, and the
// process's handling of SIGPIPE is left as the application set it.
#pragma once

#include <memory>
#include <ostream>
#include <streambuf>

namespace Velik {

class FdToStream : public std::ostream {
  public:
    static constexpr const char* traceClassName = "FdToStream";

    // Writes to `fd`, closing it when the stream ends if `closeFd`. A
    // non-blocking descriptor asserts "FileDescriptor <fd> flags 0x<flags>
    // is non-blocking, not supported": a partial write would lose text.
    FdToStream(int fd, bool closeFd);
    // Flushes; errors are swallowed.
    ~FdToStream() override;

    int fd() const { return fd_; }

  private:
    int fd_;
    std::unique_ptr<std::streambuf> buffer_;
};

}  // namespace Velik
