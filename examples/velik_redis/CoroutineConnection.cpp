#include "CoroutineConnection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "Commands.h"
#include "Connection.h"
#include "RespParser.h"
#include "RespReply.h"
#include "Worker.h"

namespace VelikRedis {

namespace {

constexpr std::size_t kReadSize = 16u << 10;
// How many requests are answered between two looks at the quantum.
constexpr unsigned kRequestsPerYieldCheck = 16;

// Closes the descriptor with the frame: at the body's end, or when the task
// is dropped while the body waits.
struct SocketCloser {
    int fd;
    ~SocketCloser() { ::close(fd); }
};

// Shuts the socket down once the client has been silent for the idle time.
// Closing it instead would leave the body waiting on a descriptor that is no
// longer watched, and its number free for the next client.
class IdleShutdown : public Velik::TimerWheelEvent {
  public:
    IdleShutdown(Worker& worker, int fd) : worker_(worker), fd_(fd) {}
    ~IdleShutdown() override { delTimeout(worker_.timerWheel()); }
    void rearm() {
        if (worker_.idleSeconds() > 0) {
            setTimeoutAt(worker_.timerWheel(), Velik::time() + worker_.idleSeconds());
        }
    }
    void timeout() override { ::shutdown(fd_, SHUT_RDWR); }

  private:
    Worker& worker_;
    int fd_;
};

// The bytes read and not yet parsed.
class Input {
  public:
    Input() : buffer_(kReadSize * 2) {}

    std::string_view unused() const { return {buffer_.data() + begin_, end_ - begin_}; }
    void consume(std::size_t n) { begin_ += n; }

    // One read: the count, 0 at the end of the stream, -1 with errno.
    // `drained`: the socket had less than there was room for, so the next
    // read would most likely find nothing.
    ssize_t readFrom(int fd, bool& drained) {
        if (begin_ == end_) {
            begin_ = end_ = 0;
        }
        if (buffer_.size() - end_ < kReadSize) {
            // Room at the front: move the unfinished request there; a request
            // larger than the buffer doubles it.
            std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
            if (buffer_.size() - end_ < kReadSize) {
                buffer_.resize(buffer_.size() * 2);
            }
        }
        const std::size_t room = buffer_.size() - end_;
        const ssize_t n = ::read(fd, buffer_.data() + end_, room);
        drained = n < 0 ? errno == EAGAIN : static_cast<std::size_t>(n) < room;
        if (n > 0) {
            end_ += static_cast<std::size_t>(n);
        }
        return n;
    }

  private:
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

enum class Batch { needInput, yieldDue, closing };

// Answers the whole requests in `in` into `out`, until one is incomplete,
// the replies pass the backlog, or the quantum is used up.
Batch answer(Input& in, RespParser& parser, Session& session, std::string& out, Velik::Task& task,
             Worker& worker) {
    std::uint64_t served = 0;
    Batch batch = Batch::needInput;
    for (;;) {
        const RespParser::Status status = parser.parse(in.unused());
        if (status == RespParser::Status::needMore) {
            break;
        }
        if (status == RespParser::Status::error) {
            Reply::error(out, "ERR " + parser.error());
            batch = Batch::closing;
            break;
        }
        if (!parser.args().empty()) {
            execute(parser.args(), session, out);
            ++served;
        }
        in.consume(parser.consumed());
        if (session.quit) {
            batch = Batch::closing;
            break;
        }
        if (out.size() > Connection::kBacklog ||
            (served % kRequestsPerYieldCheck == 0 && served > 0 && task.taskShouldYield())) {
            batch = Batch::yieldDue;
            break;
        }
    }
    task.taskWorkCountInc(served);
    worker.requestsInc(served);
    return batch;
}

}  // namespace

Velik::Co<> serveConnection(Worker* worker, int fd) {
    Velik::Task& self = worker->runningConnection();
    const SocketCloser closer{fd};
    IdleShutdown idle(*worker, fd);
    idle.rearm();
    Input in;
    RespParser parser(worker->limits());
    Session session{worker->keyspace(), [worker](std::string& out) { worker->appendInfo(out); }};
    std::string out;
    Batch batch = Batch::needInput;
    // Wait before reading when the last read emptied the socket: a client
    // that waits for its replies has sent nothing more, and a read would
    // only say so (one system call a request).
    bool drained = true;
    while (batch != Batch::closing) {
        if (batch == Batch::needInput) {
            if (drained) {
                co_await Velik::readable(fd);
            }
            const ssize_t n = in.readFrom(fd, drained);
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
                continue;
            }
            if (n <= 0) {
                break;  // the client has gone, or the idle time-out shut the socket
            }
            idle.rearm();
        }
        batch = answer(in, parser, session, out, self, *worker);
        std::size_t sent = 0;
        while (sent < out.size()) {
            const ssize_t n = ::send(fd, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
            if (n >= 0) {
                sent += static_cast<std::size_t>(n);
            } else if (errno == EAGAIN) {
                co_await Velik::writable(fd);
            } else if (errno != EINTR) {
                batch = Batch::closing;  // the peer is gone: nobody to answer
                break;
            }
        }
        out.clear();
        co_await Velik::yieldIfDue();
    }
    worker->releaseCoroutine(fd);
}

}  // namespace VelikRedis
