// A small in-memory key-value server on one thread, the clients that load
// it, and a second thread of background jobs; both threads can be watched
// live from outside.
//
// The server is the shape of many real daemons: a listening socket, one task
// per connection, timers for idle connections and housekeeping, and a
// scavenger that tidies up when nothing else wants the thread.
//
//   listener      a FileDescriptorTask (high) that accepts connections;
//   connection    a FileDescriptorTask per client, all in the task group
//                 "connections" (normal), so that a thousand chatty clients
//                 compete with the rest of the daemon as one task;
//   idle          a TimerTask per connection, re-armed on every request,
//                 that closes the connection after a second of silence;
//   housekeeping  a TimerTask (low) every half second, jittered by up to 20%
//                 so that many daemons started together do not tick together;
//   scavenger     a Task (scavenge) that evicts keys nobody touched for a
//                 while, in slices, whenever the thread has nothing better to do.
//
// The background thread runs on libevent with its own root: compaction jobs
// in a task group, each a timer task that wakes up and works in slices.
//
// Each thread's root serves its statistics on a stats endpoint, one socket
// per thread in one directory (main.sock, background.sock), for `velik-top`
// or anything that speaks the endpoint's one-line protocol:
//
//   velik-top ${XDG_RUNTIME_DIR:-/tmp}/velik_demo-$(id -u)
//   echo report | socat - UNIX-CONNECT:${XDG_RUNTIME_DIR:-/tmp}/velik_demo-$(id -u)/main.sock
//
// The key-value protocol is one request per line, one reply line each:
//
//   SET key value   OK
//   GET key         VALUE value | NOTFOUND
//   DEL key         DELETED | NOTFOUND
//   anything else   ERROR unknown command
//
// The program starts the server on an ephemeral loopback port, runs client
// threads against it for the whole run (plus some connections that go quiet
// and are closed by the server), and prints what happened: requests served,
// client-side latencies, and the runtime's text statistics report; it then
// writes the JSON snapshot to a file through the asynchronous writer.
// SIGINT or SIGTERM ends the run early, as cleanly as its own end: the
// clients stop, the server closes its listener and its connections, the
// report and the JSON are written, the sockets go, and the exit status is 0.
//
//   build/examples/velik_demo [--seconds N] [--stats-dir DIR] [--clients N]
//                             [--connections N] [--json FILE] [--idle N]
//                             [--metrics ADDRESS] [--stall SECONDS[,EVERY]]
//
// With --stall 6 the main thread gets stuck now and then, as a daemon does
// when one task forgets to yield: a checksum task runs 3 s after the start
// and then every EVERY seconds (10 by default, more than SECONDS), each time
// spinning for SECONDS in `stuckInChecksum()` without giving the thread back.
// The stats endpoint still answers `status` and `stalls` meanwhile, so
// velik-top shows the stall live, with that function in its backtrace.
//
// With --metrics 127.0.0.1:9464 both threads are also served to Prometheus
// on `/metrics` ("main" and "background" as thread labels).
//
// Defaults: 30 seconds (time to watch it), 4 client threads of 50
// connections, velik_demo.json, connections closed after 1 s of silence.
// Clients whose connection the server closed (idle while the client was
// still opening its others, under a heavy --connections) count it and
// reconnect. The older positional form
// `velik_demo [seconds] [client threads] [connections each] [json file]`
// still works: `velik_demo 3` is the short run of earlier versions.
#include <Velik/Velik.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

// Spins for `seconds` without giving the thread back: a checksum over far
// more data than one run should touch. Of external linkage and never
// inlined, so that the demo's exported symbols name it in a stall's
// backtrace; the clock is read rarely, so that backtraces land here rather
// than in the clock.
[[gnu::noinline]] std::uint64_t stuckInChecksum(double seconds);
std::uint64_t stuckInChecksum(double seconds) {
    const auto until = std::chrono::steady_clock::now() +
                       std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                           std::chrono::duration<double>(seconds));
    std::uint64_t sum = 0;
    do {
        for (std::uint32_t i = 0; i < (1u << 20); ++i) {
            sum = (sum ^ i) * 0x100000001b3u;
        }
    } while (std::chrono::steady_clock::now() < until);
    return sum;
}

namespace {

using namespace std::chrono_literals;
using Velik::TaskPriority;
using Clock = std::chrono::steady_clock;

constexpr double kIdleSecondsDefault = 1.0;
constexpr double kHousekeepingSeconds = 0.5;
constexpr std::size_t kMaxLine = 4096;

// ---------------------------------------------------------------- the store

// Keys with the time they were last touched; the scavenger evicts old ones.
class Store {
  public:
    std::string apply(std::string_view request) {
        auto word = [&request]() {
            const auto end = request.find(' ');
            std::string_view w = request.substr(0, end);
            request = end == std::string_view::npos ? std::string_view() : request.substr(end + 1);
            return w;
        };
        const std::string_view command = word();
        const std::string_view key = word();
        const double now = Velik::time();
        if (command == "SET" && !key.empty()) {
            entries_[std::string(key)] = {std::string(request), now};
            return "OK\n";
        }
        if (command == "GET" && !key.empty()) {
            auto it = entries_.find(std::string(key));
            if (it == entries_.end()) {
                return "NOTFOUND\n";
            }
            it->second.touched = now;
            return "VALUE " + it->second.value + "\n";
        }
        if (command == "DEL" && !key.empty()) {
            return entries_.erase(std::string(key)) ? "DELETED\n" : "NOTFOUND\n";
        }
        return "ERROR unknown command\n";
    }

    // Evicts keys untouched since `before`, resuming after the last key seen;
    // stops when `enough()` says so. Returns whether it went all the way round.
    template <typename Enough>
    bool evict(double before, Enough&& enough) {
        auto it = entries_.upper_bound(resumeAfter_);
        while (it != entries_.end()) {
            resumeAfter_ = it->first;
            if (it->second.touched < before) {
                it = entries_.erase(it);
                ++evicted_;
            } else {
                ++it;
            }
            if (enough()) {
                return false;
            }
        }
        resumeAfter_.clear();
        return true;
    }

    std::size_t size() const { return entries_.size(); }
    std::uint64_t evicted() const { return evicted_; }

  private:
    struct Entry {
        std::string value;
        double touched;
    };
    std::map<std::string, Entry> entries_;
    std::string resumeAfter_;
    std::uint64_t evicted_ = 0;
};

// ---------------------------------------------------------------- the server

class Server;

// One client connection: reads requests, writes replies, and closes itself
// after a second of silence.
class Connection : public Velik::FileDescriptorTask {
  public:
    Connection(Server& server, std::shared_ptr<Velik::TaskScheduler> group, int fd);

    // Requests waiting in the input, cut short by the quantum, are served on
    // the next run; replies that do not fit the socket wait for writability.
    void taskExecuteReadable() override;
    void taskExecuteWritable() override { flush(); }

    void close();
    const Velik::TimerTask& idleTimer() const { return *idle_; }

  private:
    class IdleTimer : public Velik::TimerTask {
      public:
        IdleTimer(Connection& connection, Velik::TaskScheduler* scheduler)
            : TimerTask(scheduler, TaskPriority::low, "idle"), connection_(connection) {}
        void taskExecute() override { connection_.close(); }

      private:
        Connection& connection_;
    };

    bool serveBuffered();
    void flush();

    Server& server_;
    int fd_;
    std::string in_;
    std::string out_;
    std::shared_ptr<IdleTimer> idle_;
};

// Accepts connections for as long as its quantum allows; readability of a
// listening socket persists, so what is left is accepted on the next run.
class Listener : public Velik::FileDescriptorTask {
  public:
    Listener(Server& server, std::shared_ptr<Velik::TaskScheduler> root, int fd)
        : FileDescriptorTask(std::move(root), TaskPriority::high, "listener"), server_(server) {
        taskWatchFdIs(fd);
    }
    void taskExecuteReadable() override;
    void taskExecuteWritable() override {}

  private:
    Server& server_;
};

// Every half second, give or take: a status line, and a nudge to the
// scavenger when the store has grown.
class Housekeeping : public Velik::TimerTask {
  public:
    Housekeeping(Server& server, Velik::TaskScheduler* root)
        : TimerTask(root, TaskPriority::low, "housekeeping"), server_(server) {}
    void taskExecute() override;

  private:
    Server& server_;
    std::uint64_t lastRequests_ = 0;
};

// Evicts keys untouched for two seconds, a quantum at a time.
class Scavenger : public Velik::Task {
  public:
    Scavenger(Store& store, Velik::TaskScheduler* root)
        : Task(root, TaskPriority::scavenge, "scavenger"), store_(store) {}
    void taskExecute() override {
        std::uint64_t visited = 0;
        const bool done = store_.evict(Velik::time() - 2.0, [&] {
            ++visited;
            return taskShouldYield();
        });
        taskWorkCountInc(visited);
        if (!done) {
            scheduleTask();
        }
    }

  private:
    Store& store_;
};

// With --stall: a task that holds the thread for `seconds` on every run,
// first `kStallFirstSeconds` after the start, then every `every` seconds.
constexpr double kStallFirstSeconds = 3.0;

class Checksum : public Velik::TimerTask {
  public:
    Checksum(Velik::TaskScheduler* root, double seconds, double every)
        : TimerTask(root, TaskPriority::normal, "checksum"), seconds_(seconds), every_(every) {}
    void taskExecute() override {
        sum_ += stuckInChecksum(seconds_);
        scheduleTaskDelay(every_ - seconds_);  // the next start, `every_` after this one
    }

  private:
    double seconds_;
    double every_;
    std::uint64_t sum_ = 0;
};

class Server {
  public:
    Server(std::shared_ptr<Velik::TaskSchedulerRoot> root, double idleSeconds)
        : idleSeconds_(idleSeconds),
          root_(std::move(root)),
          connections_(Velik::TaskGroupIs("connections", TaskPriority::normal, false, root_)),
          housekeeping_(std::make_shared<Housekeeping>(*this, root_.get())),
          scavenger_(std::make_shared<Scavenger>(store_, root_.get())) {
        // Busy clients hand the thread back often; the rest of the daemon
        // never waits long behind them. The group quantum is checked only
        // between connections' runs; what bounds each run is the
        // connection's own quantum, which it takes from the group's default
        // when it is made. Half the group's keeps every group run within it.
        connections_->taskGroupQuantumIs(2ms);
        connections_->defaultTaskQuantumIs(1ms);
    }

    // Listens on an ephemeral loopback port; returns the port.
    std::uint16_t listen() {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(fd, 1024) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            Velik::RuntimeException::throwException(std::string("listen on loopback: ") +
                                                    Velik::strerror(errno));
        }
        listener_ = std::make_shared<Listener>(*this, root_, fd);
        housekeeping_->scheduleTaskJitterUp(kHousekeepingSeconds, 20);
        return ntohs(address.sin_port);
    }

    void stop() {
        ::close(listener_->taskWatchFd());
        listener_.reset();
        while (!open_.empty()) {
            open_.begin()->second->close();
        }
        housekeeping_->stopTimerTask();
        scavenger_->unscheduleTask();
    }

    void accepted(int fd) {
        open_[fd] = std::make_shared<Connection>(*this, connections_, fd);
        ++acceptedCount_;
    }
    // Drops the server's reference: a connection closing itself from its own
    // run stays alive until that run ends.
    void closed(int fd, bool idle) {
        // The connection's figures live on in the scheduler's completed
        // statistics, one line per task name however many connections came.
        open_.erase(fd);
        idleClosed_ += idle;
    }

    Store& store() { return store_; }
    Scavenger& scavenger() { return *scavenger_; }
    std::uint64_t requests = 0;
    std::size_t openCount() const { return open_.size(); }
    std::uint64_t acceptedCount() const { return acceptedCount_; }
    std::uint64_t idleClosed() const { return idleClosed_; }
    const std::shared_ptr<Velik::TaskSchedulerRoot>& root() const { return root_; }
    double startTime() const { return startTime_; }
    double idleSeconds() const { return idleSeconds_; }

  private:
    double startTime_ = Velik::time();
    double idleSeconds_;
    std::shared_ptr<Velik::TaskSchedulerRoot> root_;
    Store store_;
    std::shared_ptr<Velik::TaskGroup> connections_;
    std::shared_ptr<Listener> listener_;
    std::shared_ptr<Housekeeping> housekeeping_;
    std::shared_ptr<Scavenger> scavenger_;
    std::unordered_map<int, std::shared_ptr<Connection>> open_;
    std::uint64_t acceptedCount_ = 0;
    std::uint64_t idleClosed_ = 0;
};

Connection::Connection(Server& server, std::shared_ptr<Velik::TaskScheduler> group, int fd)
    : FileDescriptorTask(group, TaskPriority::normal, "connection"),
      server_(server),
      fd_(fd),
      idle_(std::make_shared<IdleTimer>(*this, server.root().get())) {
    taskWatchFdIs(fd);
    idle_->scheduleTaskDelay(server_.idleSeconds());
}

void Connection::taskExecuteReadable() {
    char buffer[16384];
    const ssize_t n = read(fd_, buffer, sizeof buffer);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
        close();  // the client went away
        return;
    }
    if (n > 0) {
        in_.append(buffer, static_cast<std::size_t>(n));
        idle_->scheduleTaskDelay(server_.idleSeconds());  // a restart: cheap
    }
    if (!serveBuffered()) {
        scheduleTaskReadable();  // cut short by the quantum: more to serve
    }
    flush();
}

bool Connection::serveBuffered() {
    std::size_t start = 0;
    std::uint64_t served = 0;
    bool finished = true;
    for (std::size_t end; (end = in_.find('\n', start)) != std::string::npos; start = end + 1) {
        out_ += server_.store().apply(std::string_view(in_).substr(start, end - start));
        ++served;
        if (taskShouldYield()) {
            start = end + 1;
            finished = in_.find('\n', start) == std::string::npos;
            break;
        }
    }
    in_.erase(0, start);
    if (in_.size() > kMaxLine) {  // a line too long to be a request
        out_ += "ERROR line too long\n";
        in_.clear();
    }
    taskWorkCountInc(served);
    server_.requests += served;
    return finished;
}

void Connection::flush() {
    while (!out_.empty()) {
        const ssize_t n = send(fd_, out_.data(), out_.size(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EAGAIN) {
                taskWatchWritableIs(true);  // one shot: asked again each time
            } else if (errno != EINTR) {
                close();
            }
            return;
        }
        out_.erase(0, static_cast<std::size_t>(n));
    }
}

void Connection::close() {
    if (fd_ < 0) {
        return;
    }
    const bool idle = idle_->taskCurrentlyRunning();
    taskWatchFdDel();
    ::close(fd_);
    idle_->stopTimerTask();
    const int fd = std::exchange(fd_, -1);
    server_.closed(fd, idle);  // may release this connection
}

void Listener::taskExecuteReadable() {
    std::uint64_t accepted = 0;
    while (!taskShouldYield()) {
        const int fd = accept4(taskWatchFd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            break;  // EAGAIN: all accepted; anything else: try on the next run
        }
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        server_.accepted(fd);
        ++accepted;
    }
    taskWorkCountInc(accepted);
}

void Housekeeping::taskExecute() {
    std::printf("  %5.1f s  %4zu connections  %9llu requests (+%llu)  %6zu keys\n",
                Velik::time() - server_.startTime(), server_.openCount(),
                static_cast<unsigned long long>(server_.requests),
                static_cast<unsigned long long>(server_.requests - lastRequests_),
                server_.store().size());
    lastRequests_ = server_.requests;
    if (server_.store().size() > 1000) {
        server_.scavenger().scheduleTask();
    }
    scheduleTaskJitterUp(kHousekeepingSeconds, 20);
}

// ---------------------------------------------------------------- the clients

// Round-trip times in fixed memory, however long the run: sixteen buckets
// per power of two of microseconds, so a percentile is within about 6% of
// the true one; the maximum is exact.
class LatencyHistogram {
  public:
    void add(double us) {
        ++counts_[bucket(us)];
        ++total_;
        max_ = std::max(max_, us);
    }
    void merge(const LatencyHistogram& other) {
        for (std::size_t i = 0; i < kBuckets; ++i) {
            counts_[i] += other.counts_[i];
        }
        total_ += other.total_;
        max_ = std::max(max_, other.max_);
    }
    // The upper edge of the bucket holding the p-th sample (0 <= p <= 1).
    double percentile(double p) const {
        if (total_ == 0) {
            return 0;
        }
        const auto rank = static_cast<std::uint64_t>(p * static_cast<double>(total_ - 1)) + 1;
        std::uint64_t seen = 0;
        for (std::size_t i = 0; i < kBuckets; ++i) {
            seen += counts_[i];
            if (seen >= rank) {
                return std::min(upperEdge(i), max_);
            }
        }
        return max_;
    }
    double max() const { return max_; }

  private:
    static constexpr int kSub = 16;     // buckets per power of two
    static constexpr int kPowers = 40;  // up to 2^40 us: longer than any run
    static constexpr std::size_t kBuckets = kSub * kPowers;

    // Values below kSub us get a bucket of 1 us each; above, the bucket is
    // the power of two and the sixteenth within it.
    static std::size_t bucket(double us) {
        if (!(us >= kSub)) {
            return us > 0 ? static_cast<std::size_t>(us) : 0;
        }
        int exponent = 0;
        const double fraction = std::frexp(us, &exponent);  // us = fraction * 2^exponent
        const int power = exponent - 1;                     // us in [2^power, 2^(power+1))
        const auto sub = static_cast<int>((fraction * 2 - 1) * kSub);
        const auto index = static_cast<std::size_t>((power - 3) * kSub + sub);
        return std::min(index, kBuckets - 1);
    }
    static double upperEdge(std::size_t index) {
        if (index < kSub) {
            return static_cast<double>(index + 1);
        }
        const int power = static_cast<int>(index / kSub) + 3;
        const int sub = static_cast<int>(index % kSub);
        return std::ldexp(1.0 + (sub + 1) / double(kSub), power);
    }

    std::array<std::uint64_t, kBuckets> counts_{};
    std::uint64_t total_ = 0;
    double max_ = 0;
};

struct ClientFigures {
    std::uint64_t requests = 0;
    std::uint64_t errors = 0;
    std::uint64_t closedByServer = 0;  // connections found closed, and reopened
    LatencyHistogram latencyUs;        // one sample per round of requests
};

int connectTo(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        std::perror("connect");
        std::exit(1);
    }
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

// Reads one reply line from a blocking socket; false when the server closed.
bool readLine(int fd, std::string& pending, std::string& line) {
    for (;;) {
        const auto end = pending.find('\n');
        if (end != std::string::npos) {
            line.assign(pending, 0, end);
            pending.erase(0, end + 1);
            return true;
        }
        char buffer[4096];
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) {
            return false;
        }
        pending.append(buffer, static_cast<std::size_t>(n));
    }
}

// Set by the signal task: clients finish their round and go.
std::atomic<bool> stopping{false};

// Sends one request on each of its connections, then reads every reply:
// `connections` requests in flight per round, until `until`. A connection the
// server closed (it went idle while the others were being opened) is counted
// and opened again; its request of that round is lost, not an error.
void runClient(int id, std::uint16_t port, int connections, Clock::time_point until,
               ClientFigures& figures) {
    std::vector<int> fds;
    std::vector<std::string> pending(connections);
    for (int i = 0; i < connections; ++i) {
        fds.push_back(connectTo(port));
    }
    const auto reopen = [&](int i) {
        ::close(fds[i]);
        fds[i] = connectTo(port);
        pending[i].clear();
        ++figures.closedByServer;
    };
    std::vector<bool> sent(connections);
    std::string line;
    for (std::uint64_t round = 0; Clock::now() < until && !stopping; ++round) {
        const auto start = Clock::now();
        for (int i = 0; i < connections; ++i) {
            const std::string key = "k" + std::to_string(id) + "." + std::to_string(i) + "." +
                                    std::to_string(round % 64);
            const std::string request = round % 2
                                            ? "GET " + key + "\n"
                                            : "SET " + key + " v" + std::to_string(round) + "\n";
            sent[i] = send(fds[i], request.data(), request.size(), MSG_NOSIGNAL) ==
                      static_cast<ssize_t>(request.size());
            if (!sent[i]) {
                reopen(i);
            }
        }
        std::uint64_t answered = 0;
        for (int i = 0; i < connections; ++i) {
            if (!sent[i]) {
                continue;
            }
            if (!readLine(fds[i], pending[i], line)) {
                reopen(i);
                continue;
            }
            ++answered;
            figures.errors += line.rfind("ERROR", 0) == 0;
        }
        figures.requests += answered;
        figures.latencyUs.add(
            std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    for (int fd : fds) {
        ::close(fd);
    }
}

// Connections that say one thing and then nothing: the server's idle timers
// close them. Returns how many the server closed within `wait`.
int runQuietClients(std::uint16_t port, int count, std::chrono::milliseconds wait) {
    std::vector<int> fds;
    for (int i = 0; i < count; ++i) {
        fds.push_back(connectTo(port));
        const char hello[] = "SET quiet yes\n";
        (void)!write(fds.back(), hello, sizeof hello - 1);
    }
    int closedByServer = 0;
    const auto until = Clock::now() + wait;
    for (int fd : fds) {
        std::string pending, line;
        readLine(fd, pending, line);  // "OK"
        // In slices, so that a stop is noticed.
        pollfd p{fd, POLLIN, 0};
        int ready = 0;
        while (ready == 0 && !stopping && Clock::now() < until) {
            ready = poll(&p, 1, 100);
        }
        if (ready == 1) {
            char c;
            closedByServer += read(fd, &c, 1) == 0;
        }
        ::close(fd);
    }
    return closedByServer;
}

// ---------------------------------------------------------------- the background thread

// A compaction job: every couple of hundred milliseconds (jittered) a batch
// of work is due, which it does a quantum at a time.
class Compactor : public Velik::TimerTask {
  public:
    Compactor(Velik::TaskScheduler* group, int id)
        : TimerTask(group, TaskPriority::low, "compactor" + std::to_string(id)),
          batch_(50'000u * static_cast<std::uint32_t>(id + 1)),
          state_(static_cast<std::uint64_t>(id)) {}

    void taskExecute() override {
        if (left_ == 0) {
            left_ = batch_;
        }
        std::uint64_t done = 0;
        while (left_ > 0 && !taskShouldYield()) {
            state_ = state_ * 6364136223846793005u + 1442695040888963407u;  // the "work"
            --left_;
            ++done;
        }
        taskWorkCountInc(done);
        taskWorkPendingIs(left_);
        if (left_ > 0) {
            scheduleTask();
        } else {
            scheduleTaskJitterUp(0.2, 50);
        }
    }

  private:
    std::uint32_t batch_;
    std::uint32_t left_ = 0;
    std::uint64_t state_;
};

// Serves `root` at `path`; says why not when it cannot.
std::unique_ptr<Velik::StatsEndpoint> serveStatsOrSay(Velik::TaskSchedulerRoot& root,
                                                      const std::string& path) {
    try {
        return Velik::serveStats(root, path);
    } catch (const Velik::Exception& e) {
        std::fprintf(stderr, "velik_demo: not serving statistics: %s\n", e.message().c_str());
        return nullptr;
    }
}

// A second thread, on libevent, with a root of its own: six compaction jobs in
// a task group, and a stats endpoint of its own when `socketPath` is given.
class BackgroundThread {
  public:
    explicit BackgroundThread(std::string socketPath)
        : thread_([this, path = std::move(socketPath)] { run(path); }),
          inbox_(ready_.get_future().get()) {}
    const std::shared_ptr<Velik::Inbox>& inbox() const { return inbox_; }
    // Asks the thread's loop to stop, from this thread, and waits for it.
    ~BackgroundThread() {
        Velik::stopEventLoop(inbox_);
        thread_.join();
    }

  private:
    void run(const std::string& socketPath) {
        Velik::useThreadLocalSingletons();
        Velik::schedulerRootVelikNameIs("background");
        auto root = Velik::schedulerRootVelik();
        auto jobs = Velik::TaskGroupIs("compaction", TaskPriority::low, false, root);
        // Each job yields within its own quantum, half the group's, so one
        // run of the group stays within the group's quantum.
        jobs->taskGroupQuantumIs(10ms);
        jobs->defaultTaskQuantumIs(5ms);
        std::vector<std::shared_ptr<Compactor>> compactors;
        for (int i = 0; i < 6; ++i) {
            compactors.push_back(std::make_shared<Compactor>(jobs.get(), i));
            compactors.back()->scheduleTaskJitterUp(0.2, 50);
        }
        auto stats = socketPath.empty() ? nullptr : serveStatsOrSay(*root, socketPath);
        ready_.set_value(Velik::inbox());
        Velik::Platform::doEventLoop();  // until the stop posted from outside
        stats.reset();
        for (auto& c : compactors) {
            c->stopTimerTask();
        }
    }

    std::promise<std::shared_ptr<Velik::Inbox>> ready_;
    std::thread thread_;
    std::shared_ptr<Velik::Inbox> inbox_;
};

// ---------------------------------------------------------------- the options

struct Options {
    double seconds = 30.0;
    int threads = 4;
    int perThread = 50;
    std::string jsonPath = "velik_demo.json";
    std::string statsDir;  // empty: no stats endpoints
    double idleSeconds = kIdleSecondsDefault;
    std::string metricsAddress;  // empty: no /metrics
    double stallSeconds = 0;     // 0: no stalling task
    double stallEvery = 10;
};

std::string defaultStatsDir() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    return std::string(runtime && *runtime ? runtime : "/tmp") + "/velik_demo-" +
           std::to_string(getuid());
}

[[noreturn]] void usage(int status) {
    std::fprintf(status ? stderr : stdout,
                 "usage: velik_demo [--seconds N] [--stats-dir DIR] [--clients N] "
                 "[--connections N] [--json FILE] [--idle SECONDS] [--metrics ADDRESS]\n"
                 "       [--stall SECONDS[,EVERY]]\n"
                 "       velik_demo [seconds] [client threads] [connections each] [json file]\n"
                 "--stats-dir '' serves no statistics\n");
    std::exit(status);
}

// SECONDS[,EVERY]: a stall shorter than its period, or a usage error.
void parseStall(const char* text, Options& options) {
    char* end = nullptr;
    options.stallSeconds = std::strtod(text, &end);
    if (*end == ',') {
        options.stallEvery = std::strtod(end + 1, &end);
    }
    if (*end != '\0' || !(options.stallSeconds > 0) ||
        !(options.stallEvery > options.stallSeconds)) {
        std::fprintf(stderr,
                     "velik_demo: --stall %s: want SECONDS[,EVERY] with 0 < SECONDS < EVERY\n",
                     text);
        usage(2);
    }
}

Options parseOptions(int argc, char** argv) {
    Options options;
    options.statsDir = defaultStatsDir();
    int positional = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        const auto value = [&]() -> const char* {
            if (i + 1 >= argc) {
                usage(2);
            }
            return argv[++i];
        };
        if (arg == "--seconds") {
            options.seconds = std::atof(value());
        } else if (arg == "--stats-dir") {
            options.statsDir = value();
        } else if (arg == "--clients") {
            options.threads = std::atoi(value());
        } else if (arg == "--connections") {
            options.perThread = std::atoi(value());
        } else if (arg == "--json") {
            options.jsonPath = value();
        } else if (arg == "--metrics") {
            options.metricsAddress = value();
        } else if (arg == "--idle") {
            options.idleSeconds = std::atof(value());
        } else if (arg == "--stall") {
            parseStall(value(), options);
        } else if (arg == "--help" || arg == "-h") {
            usage(0);
        } else if (arg.starts_with("-") || positional > 3) {
            usage(2);
        } else {
            switch (positional++) {
                case 0:
                    options.seconds = std::atof(argv[i]);
                    break;
                case 1:
                    options.threads = std::atoi(argv[i]);
                    break;
                case 2:
                    options.perThread = std::atoi(argv[i]);
                    break;
                default:
                    options.jsonPath = argv[i];
                    break;
            }
        }
    }
    return options;
}

// Makes the stats directory, readable by its owner only; false (having said
// why) when it cannot be used.
bool prepareStatsDir(const std::string& dir) {
    struct stat st;
    if (Velik::Util::mkpath(dir, 0700) != 0 || lstat(dir.c_str(), &st) != 0) {
        std::fprintf(stderr, "velik_demo: stats directory %s: %s\n", dir.c_str(),
                     std::strerror(errno));
        return false;
    }
    if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
        std::fprintf(stderr, "velik_demo: %s is not a directory of ours; not serving statistics\n",
                     dir.c_str());
        return false;
    }
    chmod(dir.c_str(), 0700);
    return true;
}

// Writes the root's JSON snapshot to `path` through the asynchronous writer;
// false (having said why) when the file cannot be opened.
bool writeJson(Velik::TaskSchedulerRoot& root, const std::string& path) {
    const int json = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (json < 0) {
        std::fprintf(stderr, "velik_demo: %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    bool written = false;
    root.snapshotRenderJsonAsync(json, root.snapshot(false, true, true), [&] { written = true; });
    // The writer's tasks run in the loop; if the loop throws, the descriptor
    // is still closed on the way out.
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{json};
    while (!written) {
        Velik::Platform::doEventLoop(0.01);
    }
    return true;
}

// The whole demo; the stats endpoints it opens are closed (and their sockets
// removed) however it ends.
int run(const Options& options) {
    const double seconds = options.seconds;
    const int threads = options.threads;
    const int perThread = options.perThread;
    const std::string& jsonPath = options.jsonPath;
    const auto started = Clock::now();
    constexpr int quiet = 20;

    auto root = Velik::schedulerRootVelik();
    Server server(root, options.idleSeconds);
    const std::uint16_t port = server.listen();

    // Each thread's root answers on its own socket of the stats directory.
    const bool serving = !options.statsDir.empty() && prepareStatsDir(options.statsDir);
    auto stats = serving ? serveStatsOrSay(*root, options.statsDir + "/main.sock") : nullptr;
    BackgroundThread background(serving ? options.statsDir + "/background.sock" : "");
    auto checksum =
        options.stallSeconds > 0
            ? std::make_shared<Checksum>(root.get(), options.stallSeconds, options.stallEvery)
            : nullptr;
    if (checksum) {
        checksum->scheduleTaskDelay(kStallFirstSeconds);
    }
    std::unique_ptr<Velik::MetricsEndpoint> metrics;
    if (!options.metricsAddress.empty()) {
        try {
            metrics = Velik::serveMetrics({{nullptr, "main"}, {background.inbox(), "background"}},
                                          options.metricsAddress);
            std::printf("velik_demo: metrics on http://%s/metrics\n",
                        options.metricsAddress.c_str());
        } catch (const Velik::Exception& e) {
            std::fprintf(stderr, "velik_demo: not serving metrics: %s\n", e.message().c_str());
        }
    }

    std::printf(
        "velik_demo: key-value server on 127.0.0.1:%u; %d client threads x %d "
        "connections for %.1f s, and %d quiet connections\n",
        port, threads, perThread, seconds, quiet);
    if (stats) {
        std::printf("velik_demo: watch it live with: velik-top %s\n", options.statsDir.c_str());
    }
    std::printf("\n");
    std::fflush(stdout);

    // The clients run on their own threads; the server has this one.
    const auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(seconds));
    std::vector<ClientFigures> figures(threads);
    // The last client thread to finish stops the server's loop, from its
    // own thread, through the loop's inbox.
    std::shared_ptr<Velik::Inbox> inbox = Velik::inbox();
    std::atomic<int> running{threads + 1};
    const auto finished = [&] {
        if (--running == 0) {
            Velik::stopEventLoop(inbox);
        }
    };
    std::vector<std::jthread> clients;
    for (int i = 0; i < threads; ++i) {
        clients.emplace_back([&, i] {
            runClient(i, port, perThread, until, figures[i]);
            finished();
        });
    }
    std::atomic<int> quietClosed{-1};
    clients.emplace_back([&] {
        quietClosed = runQuietClients(
            port, quiet, std::chrono::milliseconds(static_cast<int>(seconds * 1000) + 1500));
        finished();
    });
    // SIGINT and SIGTERM (blocked in every thread by main) arrive here as a
    // task: the clients finish their round, and the last one stops the loop.
    auto quit = std::make_shared<Velik::SignalTask>(
        root.get(), TaskPriority::high, "quit", std::vector<int>{SIGINT, SIGTERM},
        [](std::uint64_t, int signal) {
            std::printf("velik_demo: %s, stopping\n", sigabbrev_np(signal));
            std::fflush(stdout);
            stopping = true;
        });

    Velik::Platform::doEventLoop();
    clients.clear();  // joined
    const double ran = std::chrono::duration<double>(Clock::now() - started).count();
    Velik::Platform::doEventLoop(0.05);  // the last closes

    ClientFigures all;
    for (auto& f : figures) {
        all.requests += f.requests;
        all.errors += f.errors;
        all.closedByServer += f.closedByServer;
        all.latencyUs.merge(f.latencyUs);
    }
    std::printf(
        "\nclients: %llu requests answered (%.0f per second), %llu errors, %llu connections "
        "closed by the server and reopened\n",
        static_cast<unsigned long long>(all.requests), static_cast<double>(all.requests) / ran,
        static_cast<unsigned long long>(all.errors),
        static_cast<unsigned long long>(all.closedByServer));
    std::printf(
        "         round trip of %d pipelined requests: p50 %.0f us, p99 %.0f us, "
        "max %.0f us\n",
        perThread, all.latencyUs.percentile(0.5), all.latencyUs.percentile(0.99),
        all.latencyUs.max());
    std::printf(
        "server:  %llu requests served, %llu connections accepted, %llu closed idle "
        "(%d of %d quiet clients saw it), %zu keys, %llu evicted\n",
        static_cast<unsigned long long>(server.requests),
        static_cast<unsigned long long>(server.acceptedCount()),
        static_cast<unsigned long long>(server.idleClosed()), quietClosed.load(), quiet,
        server.store().size(), static_cast<unsigned long long>(server.store().evicted()));
    server.stop();
    if (checksum) {
        checksum->stopTimerTask();
    }
    Velik::Platform::doEventLoop(0.05);

    // The runtime's own report: per priority, then per task, sorted by run
    // time; closed connections appear among the completed tasks.
    std::printf("\n");
    std::fflush(stdout);
    root->statsRenderTextForDebug(STDOUT_FILENO, false, true, false, false);

    // The same figures as JSON, written by the runtime's own tasks while the
    // loop runs, as a daemon would answer a request for them on a socket.
    if (!writeJson(*root, jsonPath)) {
        return 1;
    }
    std::printf("\nJSON snapshot written to %s\n", jsonPath.c_str());
    return all.errors == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parseOptions(argc, argv);
    // Before any thread starts, so that every thread inherits the mask and
    // the signals reach only the server's signal task.
    Velik::blockSignals({SIGINT, SIGTERM});
    // A peer that has gone is an error return of send or write, not a signal
    // that ends the program.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return run(options);
    } catch (const Velik::Exception& e) {
        std::fprintf(stderr, "velik_demo: %s\n", e.message().c_str());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "velik_demo: %s\n", e.what());
        return 1;
    }
}
