// A stats endpoint: a running daemon's statistics, asked for over a
// Unix-domain socket.
//
// `serveStats` opens a socket for one thread's root and serves it with tasks
// of that root: the listener and every connection are descriptor tasks, and
// each reply is written by the asynchronous writer (SnapshotRenderJson.h), a
// slice at a time, whenever the client can take more; a snapshot is also
// rendered in slices of task records, each written before the next is
// rendered. A slow client only slows its own reply; one that goes away ends
// it; nothing a client sends blocks the thread or stalls its tasks.
//
//   auto root = Velik::schedulerRootVelik();
//   auto stats = Velik::serveStats(*root, "/run/mydaemon/main.sock");
//   Velik::Platform::doEventLoop();
//
//   $ echo snapshot | socat - UNIX-CONNECT:/run/mydaemon/main.sock | jq .
//
// The protocol: one request line per connection, at most 256 bytes with its
// "\n" (a "\r" before it is tolerated), then the reply, then the server
// closes the connection.
//
//   snapshot   the root's JSON document (TaskSchedulerSnapshot.h), with
//              completed tasks, task groups and the event history
//   report     the text report (TaskSchedulerTextReport.h), with completed
//              tasks
//   history    the event history, oldest first, one event a line:
//              "<nsSinceBoot> <schedulerName> <eventType> <eventId>"
//   inbox      one line per inbox of the process whose thread still runs
//              (Velik/Inbox.h), oldest first, none when there is none:
//              "<rootName> length <n> highWaterMark <n> dropped <n>
//              posted <n> run <n> wakeUps <n>"
//   histograms the run histograms (Velik/RunHistograms.h) of the root's
//              schedulers, the root first and then its task groups by
//              name, and of each task that keeps its own, as one JSON
//              document; every time is in nanoseconds:
//
//     {"schedulers": [{"name": "<schedulerName>", "kind": "root" | "group",
//                      "runTime": H, "latency": H, "timerLateness": H}, ...],
//      "tasks": [{"name": "<displayName>", "scheduler": "<schedulerName>",
//                 "runTime": H, "latency": H, "timerLateness": H}, ...]}
//
//              where each H is {"count": n, "sum": ns, "max": ns, "p50": ns,
//              "p90": ns, "p99": ns, "p999": ns, "buckets": [{"upper": ns,
//              "count": n}, ...]}: the quantiles interpolated within their
//              bucket, and the non-empty buckets in ascending order, each
//              with its inclusive upper edge (9223372036854775807 for the
//              overflow bucket). A scheduler whose histograms are off is
//              left out.
//   status     one line per live root (the endpoint's own first), one of
//              root="<root>" tid=<n> thread="<thread>" state=idle
//              ... state=running for=<seconds.3> task="<task>"
//              ... state=stalled for=<seconds.3> task="<task>" top="<frame>"
//              <task> is the display name once a stall's backtrace caught
//              it, else "#<identity in hex>"; top is the innermost frame of
//              the latest backtrace ("" before the first). Inside quotes,
//              `\` and `"` are escaped with `\`, control bytes and bytes
//              that are not UTF-8 shown as "\xNN"
//   stalls     the stall records (Velik/StallSentinel.h) as one compact
//              JSON document and "\n": {"roots":[{"root","tid","thread",
//              "live","stalls":[{"id","task","startNs","thresholdNs",
//              "durationNs","ended","samples":[{"atNs","frames":[...]}]}]}]}
//   waits      what each coroutine task (Velik/CoroutineTask.h) of the root
//              and its task groups waits on, as one compact JSON document
//              and "\n": the root's tasks first, then each group's, the
//              groups by name, each scheduler's in registration order:
//              {"tasks":[{"name":"<displayName>","scheduler":
//              "<schedulerName>","priority":"<priority>","wait":"<wait>",
//              "detail":"<detail>"},...]}, <wait> one of "ready", "timer",
//              "readable", "writable", "task", "all", "moved", "done" and
//              <detail> `coroutineWaitDetail()`: the expiry ("12.500"),
//              the descriptor, the awaited task's name, the tasks left, the
//              root moved to, "exception" or "". Served by the root's
//              thread, as `snapshot` is
//
// Anything else gets one line "error: <reason>\n" and the connection is
// closed: a line with bytes other than printable ASCII, an unknown verb, a
// line longer than 256 bytes, or no complete line within the request
// time-out. A client beyond `maxClients` gets "error: too many clients\n", a
// peer whose uid (SO_PEERCRED) is neither the daemon's effective uid nor 0
// gets "error: permission denied\n". A reply the client has not taken within
// the reply time-out is dropped, so a client that never reads costs its
// reply's memory for that long and nothing else.
//
// While the root's thread is stuck in a task (its run older than 50 ms), a
// process-wide side thread accepts on the socket too (checking the uid
// likewise) and answers `status`, `stalls` and bad requests itself. Any
// other request waits for the run to end and is then served by the root;
// when the run outlasts `busyReplyAfter` (counted from the request line's
// arrival) it gets one line instead, and the connection is closed:
//
//   error: thread busy for <seconds.1> s in task "<task>"
//
// the seconds being how long the run has lasted. Destroying the endpoint
// also closes the side thread's clients of it, replies half written
// included. `serveStats` starts the stall sentinel unless told otherwise.
//
// The socket file is created with mode 0600 (no moment where others could
// connect) and removed when the endpoint is destroyed. Beside it, the
// endpoint holds a lock on "<path>.lock" (mode 0600) for its whole life, so
// that two daemons started at once on one path cannot both take it. Serve several threads
// with one endpoint per thread root, one socket each, typically
// "<dir>/<name>.sock" in a directory of mode 0700.
//
// An endpoint belongs to its root's thread: create and destroy it there.
#pragma once

#include <Velik/TaskPriority.h>

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Velik {

class TaskSchedulerRoot;
namespace Impl {
class SideEndpoint;
class StatsConnection;
class StatsHandOver;
class StatsListener;
}  // namespace Impl

struct StatsEndpointOptions {
    // Connections served at once; the next one is refused.
    std::size_t maxClients = 8;
    // Seconds a client has to send its whole request line.
    double requestTimeout = 5.0;
    // Seconds a reply may take to be read; then the connection is dropped.
    double replyTimeout = 60.0;
    // The priority of the listener and connection tasks. Low: statistics
    // give way to the daemon's own work.
    TaskPriority priority = TaskPriority::low;
    // Whether snapshots and reports list tasks that never ran.
    bool includeNoRuns = true;
    // Seconds a request that needs the root's thread waits, while that
    // thread is stuck, before it gets the busy line; counted from the
    // request line's arrival.
    double busyReplyAfter = 1.0;
    // Whether `serveStats` starts the stall sentinel (`watchStalls` with
    // default options) when it is not running yet.
    bool watchStalls = true;
    // When set, every peer is taken to have this uid instead of its own, so
    // that tests can play a foreign user.
    std::optional<uid_t> peerUidForTest;
};

class StatsEndpoint {
  public:
    static constexpr const char* traceClassName = "StatsEndpoint";
    // The longest request line, its "\n" included.
    static constexpr std::size_t maxRequestSize = 256;

    // Use `serveStats`.
    StatsEndpoint(TaskSchedulerRoot& root, std::string socketPath, StatsEndpointOptions options);
    StatsEndpoint(const StatsEndpoint&) = delete;
    StatsEndpoint& operator=(const StatsEndpoint&) = delete;
    // Closes every connection, replies half written included, closes the
    // socket and removes its file (unless another socket has taken the
    // path since).
    ~StatsEndpoint();

    const std::string& socketPath() const { return socketPath_; }
    const StatsEndpointOptions& options() const { return options_; }
    TaskSchedulerRoot& root() const { return root_; }

    // Connections being served (reading their request or taking a reply).
    std::size_t clientCount() const { return connections_.size(); }
    // Connections accepted so far, refused ones included, by the root's
    // thread and by the side server.
    std::uint64_t acceptedCount() const;
    // Connections refused for their uid or for too many clients.
    std::uint64_t refusedCount() const;

    // The listener's entry for a new connection: refuses it or serves it.
    void accepted(int fd);
    // A connection the side server accepted and read `line` from while the
    // root was stuck: served as if read here (its uid was checked).
    void handedOver(int fd, std::string_view line);
    // A connection's end: releases it and closes its descriptor. Called from
    // the connection's own tasks, which then return at once.
    void connectionEnded(int fd);

  private:
    // Whether the peer on `fd` may ask: the daemon's effective uid or root.
    bool peerAllowed(int fd) const;
    // Serves `fd`, or refuses it when `maxClients` are served; null then.
    Impl::StatsConnection* serve(int fd);

    TaskSchedulerRoot& root_;
    std::string socketPath_;
    StatsEndpointOptions options_;
    int listenFd_ = -1;
    dev_t socketDev_ = 0;
    ino_t socketIno_ = 0;
    // The lock on "<socketPath>.lock", held for the endpoint's life.
    int lockFd_ = -1;
    std::shared_ptr<Impl::StatsListener> listener_;
    // What the side server shares, and the task that takes its hand-overs.
    std::shared_ptr<Impl::SideEndpoint> side_;
    std::shared_ptr<Impl::StatsHandOver> handOver_;
    std::map<int, std::shared_ptr<Impl::StatsConnection>> connections_;
    std::uint64_t acceptedCount_ = 0;
    std::uint64_t refusedCount_ = 0;
};

// Serves the statistics of `root` on a new Unix-domain socket at
// `socketPath`; call it on the root's thread, and keep the result for as long
// as the socket should answer. The directory must exist. Unless
// `options.watchStalls` is false, starts the stall sentinel with its default
// options when it is not running (`watchStallsUnlessWatching`); when the
// application holds its signal, the endpoint serves all the same (a trace
// line at level 1 says so).
//
// A stale socket file at the path (nobody answers) is replaced. Throws
// `RuntimeException` when another endpoint answers on it or holds its lock
// file ("... is in use: another endpoint answers on it ..."), when the path
// is something other than a socket, when
// it is too long for a Unix socket address, or when the socket cannot be
// made, bound or listened on (with the system's error text).
std::unique_ptr<StatsEndpoint> serveStats(TaskSchedulerRoot& root, std::string socketPath,
                                          StatsEndpointOptions options = {});

}  // namespace Velik
