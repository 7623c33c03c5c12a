// One client connection, served as a descriptor task in its worker's task
// group "connections".
//
// A run of the read side takes what was read when the socket was reported
// readable (or reads once itself), answers every whole request that
// arrived (pipelined requests in order), and writes all their replies with
// one send. Replies the socket cannot take wait for writability; while more
// than `kBacklog` bytes wait, the connection stops reading, so a client that
// sends without reading holds at most that much of the server's memory. A
// connection silent for the idle time is closed by a timer on the thread's
// timer wheel, re-armed on every read. A protocol error is answered with one
// error reply, and the connection is closed once that is written.
#pragma once

#include <Velik/Velik.h>

#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "RespParser.h"

namespace VelikRedis {

class Worker;

class Connection : public Velik::FileDescriptorTask {
  public:
    // Replies waiting beyond this stop the reading.
    static constexpr std::size_t kBacklog = 1u << 20;

    Connection(Worker& worker, std::shared_ptr<Velik::TaskScheduler> group, int fd);
    ~Connection() override;

    void taskExecuteReadable() override;
    void taskExecuteWritable() override;
    // Reads what has arrived as soon as the loop reports it, then queues
    // the read side as usual. Left unread until the task runs, the socket
    // would be reported again on the loop's next pass, and the read
    // interest paused and resumed: two more system calls per request.
    void readFdEvent(int fd) override;

    // Stops watching, closes the descriptor and hands the connection back to
    // its worker, which releases it after the current run. Idempotent.
    void close();
    bool closed() const { return fd_ < 0; }

  private:
    class IdleTimer : public Velik::TimerWheelEvent {
      public:
        explicit IdleTimer(Connection& connection) : connection_(connection) {}
        void timeout() override { connection_.close(); }

      private:
        Connection& connection_;
    };

    // Reads what the socket has; false when the peer has gone.
    bool readSome();
    // Answers the whole requests buffered; false when cut short by the
    // quantum (more to answer on the next run).
    bool serve();
    // Sends what is waiting; arranges for the rest, or closes once a
    // closing connection has said everything.
    void flush();
    void rearmIdle();

    Worker& worker_;
    int fd_;
    std::vector<char> in_;
    std::size_t begin_ = 0;  // first byte not yet used
    std::size_t end_ = 0;    // one past the last byte read
    std::string out_;
    RespParser parser_;
    Session session_;
    IdleTimer idle_{*this};
    bool closing_ = false;    // QUIT or a protocol error: close when written
    bool readAhead_ = false;  // the notification has read for this run
    bool peerGone_ = false;   // a read found the end of the stream
};

}  // namespace VelikRedis
