#include "Velik/FileLock.h"

#include "Velik/Assert.h"
#include "Velik/Errno.h"
#include "Velik/Fmtrace.h"
#include "Velik/Util.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace Velik::Util {

namespace {

// The lines the assertions report, fixed so that their messages stay the
// same whatever edits move the code.
constexpr int slashInNameLine = 32;
constexpr int mkpathLine = 60;
constexpr int lockErrorLine = 86;
constexpr int cloexecLine = 94;
constexpr int notHeldLine = 108;
constexpr int childReleaseLine = 113;
constexpr int unlockErrorLine = 125;

constexpr unsigned lockDirectoryMode = 0777;
constexpr unsigned lockFileMode = 0666;

// A request covering the whole file, however long it grows.
struct flock wholeFile(short type) {
    struct flock request {};
    request.l_type = type;
    request.l_whence = SEEK_SET;
    request.l_start = 0;
    request.l_len = 0;
    request.l_pid = 0;  // must be 0 for open-file-description locks
    return request;
}

}  // namespace

FileLock::FileLock(Platform::DebugHandler& handler, const std::string& directory,
                   const std::string& fileName)
    : Debuggable(handler), directory_(directory) {
    if (fileName.find('/') != std::string::npos) {
        Impl::assertFailed(VELIK_SOURCE_NAME, slashInNameLine, true, __func__, traceClassName,
                           "unexpected '/' in filename: {}", fileName);
    }
    file_ = directory.empty() ? fileName : fmt::format("{}/{}", directory, fileName);
}

FileLock::~FileLock() {
    VELIK_TRACE(*this, 5, "file:{}", file_);
    if (fd_ != -1) {
        release();
    }
}

bool FileLock::lock(bool reentry) {
    VELIK_TRACE(*this, 5, "file:{}", file_);
    const int pid = ::getpid();
    // A descriptor closed by closeFd() no longer holds the lock.
    if (reentry && ownerPid_ == pid && fd_ != -1) {
        VELIK_TRACE(*this, 5, "re-entry held by pid:{} on file:{}", pid, file_);
        return true;
    }
    // A lock file in the working directory has no directory to make.
    if (!directory_.empty() && mkpath(directory_, lockDirectoryMode) < 0 && errno != EEXIST) {
        Impl::assertFailed(VELIK_SOURCE_NAME, mkpathLine, true, __func__, traceClassName,
                           "unexpected mkpath() error {}: {}", strerror(errno), directory_);
    }
    // Close-on-exec from the start, so a fork and exec on another thread
    // cannot carry the lock into a new program before it is marked below.
    const int fd = ::open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, lockFileMode);
    if (fd < 0) {
        VELIK_TRACE(*this, 1, "error: could not open lock file:{} {}", file_, strerror(errno));
        return false;
    }
    struct flock request = wholeFile(F_WRLCK);
    if (::fcntl(fd, cmd_F_OFD_SETLK(), &request) != 0) {
        const int error = errno;
        ::close(fd);
        if (error == EAGAIN) {
            VELIK_TRACE(*this, 1, "error: conflicting lock held on file:{}", file_);
            return false;
        }
        Impl::assertFailed(VELIK_SOURCE_NAME, lockErrorLine, true, __func__, traceClassName,
                           "unexpected error: {} file:{}", strerror(error), file_);
    }
    if (::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
        const int error = errno;
        ::close(fd);
        Impl::assertFailed(VELIK_SOURCE_NAME, cloexecLine, true, __func__, traceClassName,
                           "unexpected error:{} file:{}", strerror(error), file_);
    }
    VELIK_TRACE(*this, 5, "acquired lock on file:{}", file_);
    fd_ = fd;
    ownerPid_ = pid;
    return true;
}

void FileLock::release() {
    VELIK_TRACE(*this, 5, "file:{}", file_);
    if (fd_ == -1) {
        Impl::assertFailed(VELIK_SOURCE_NAME, notHeldLine, true, __func__, traceClassName,
                           "attempting to release a lock that is not currently held. File:{}",
                           file_);
    }
    if (const int pid = ::getpid(); pid != ownerPid_) {
        Impl::assertFailed(VELIK_SOURCE_NAME, childReleaseLine, true, __func__, traceClassName,
                           "called from child process:{} of owner pid:{}", pid, ownerPid_);
    }
    struct flock request = wholeFile(F_UNLCK);
    if (::fcntl(fd_, cmd_F_OFD_SETLK(), &request) != 0) {
        Impl::assertFailed(VELIK_SOURCE_NAME, unlockErrorLine, true, __func__, traceClassName,
                           "unexpected error: {} file:{} fd:{}", strerror(errno), file_, fd_);
    }
    closeFd();
    ownerPid_ = -1;
    VELIK_TRACE(*this, 5, "released lock on file:{}", file_);
}

void FileLock::closeFd() {
    VELIK_TRACE(*this, 5, "file:{} fd:{}", file_, fd_);
    if (fd_ == -1) {
        VELIK_TRACE(*this, 5, "no active fd: nothing to do");
        return;
    }
    if (::close(fd_) == 0) {
        VELIK_TRACE(*this, 5, "closed fd for file:{}", file_);
    } else {
        VELIK_TRACE(*this, 1, "error: {} file:{} fd:{}", strerror(errno), file_, fd_);
    }
    fd_ = -1;
}

}  // namespace Velik::Util
