#include "Connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "RespReply.h"
#include "Worker.h"

namespace VelikRedis {

namespace {
constexpr std::size_t kReadSize = 16u << 10;
// How many requests are answered between two looks at the quantum.
constexpr unsigned kRequestsPerYieldCheck = 16;
}  // namespace

Connection::Connection(Worker& worker, std::shared_ptr<Velik::TaskScheduler> group, int fd)
    : FileDescriptorTask(std::move(group), Velik::TaskPriority::normal, "connection"),
      worker_(worker),
      fd_(fd),
      in_(kReadSize * 2),
      parser_(worker.limits()),
      session_{worker.keyspace(), [&worker](std::string& out) { worker.appendInfo(out); }} {
    taskWatchFdIs(fd);
    rearmIdle();
}

// The worker releases a connection only once it is closed, or at its own end
// (stopping the thread): then only the descriptor is left to close.
Connection::~Connection() {
    if (!closed()) {
        idle_.delTimeout(worker_.timerWheel());
        taskWatchFdDel();
        ::close(fd_);
    }
}

void Connection::rearmIdle() {
    if (worker_.idleSeconds() > 0) {
        idle_.setTimeoutAt(worker_.timerWheel(), Velik::time() + worker_.idleSeconds());
    }
}

bool Connection::readSome() {
    if (begin_ == end_) {
        begin_ = end_ = 0;
    }
    if (in_.size() - end_ < kReadSize) {
        if (begin_ > 0) {  // room at the front: move the unfinished request there
            std::memmove(in_.data(), in_.data() + begin_, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
        }
        if (in_.size() - end_ < kReadSize) {
            in_.resize(in_.size() * 2);  // one request larger than the buffer
        }
    }
    const ssize_t n = ::read(fd_, in_.data() + end_, in_.size() - end_);
    if (n > 0) {
        end_ += static_cast<std::size_t>(n);
        return true;
    }
    return n < 0 && (errno == EAGAIN || errno == EINTR);
}

void Connection::readFdEvent(int fd) {
    // Bounded like the replies: a client that pipelines faster than it is
    // answered waits in the kernel's buffer, not in ours.
    if (!closed() && !peerGone_ && end_ - begin_ < kBacklog) {
        peerGone_ = !readSome();
        readAhead_ = true;
    }
    FileDescriptorTask::readFdEvent(fd);
}

void Connection::taskExecuteReadable() {
    if (closed()) {
        return;
    }
    if (!std::exchange(readAhead_, false) && !peerGone_) {
        peerGone_ = !readSome();
    }
    if (peerGone_) {
        close();
        return;
    }
    rearmIdle();
    if (!serve()) {
        scheduleTaskReadable();
    }
    flush();
}

void Connection::taskExecuteWritable() {
    flush();
}

bool Connection::serve() {
    std::uint64_t served = 0;
    while (!closing_) {
        const std::string_view unused(in_.data() + begin_, end_ - begin_);
        const RespParser::Status status = parser_.parse(unused);
        if (status == RespParser::Status::needMore) {
            break;
        }
        if (status == RespParser::Status::error) {
            Reply::error(out_, "ERR " + parser_.error());
            closing_ = true;
            break;
        }
        if (!parser_.args().empty()) {
            execute(parser_.args(), session_, out_);
            ++served;
            closing_ = session_.quit;
        }
        begin_ += parser_.consumed();
        if (out_.size() > kBacklog ||
            (served % kRequestsPerYieldCheck == 0 && served > 0 && taskShouldYield())) {
            taskWorkCountInc(served);
            worker_.requestsInc(served);
            return false;
        }
    }
    taskWorkCountInc(served);
    worker_.requestsInc(served);
    return true;
}

void Connection::flush() {
    while (!out_.empty()) {
        const ssize_t n = ::send(fd_, out_.data(), out_.size(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN) {
                close();
                return;
            }
            taskWatchWritableIs(true);  // one-shot: asked again each time
            // A client that does not read its replies is not read either.
            taskWatchReadableIs(out_.size() <= kBacklog && !closing_);
            return;
        }
        out_.erase(0, static_cast<std::size_t>(n));
    }
    if (closing_) {
        close();
    } else if (!taskWatchReadable()) {
        taskWatchReadableIs(true);
        scheduleTaskReadable();  // requests may be waiting in the buffer
    }
}

void Connection::close() {
    if (closed()) {
        return;
    }
    idle_.delTimeout(worker_.timerWheel());
    taskWatchFdDel();
    ::close(std::exchange(fd_, -1));
    worker_.release(this);
}

}  // namespace VelikRedis
