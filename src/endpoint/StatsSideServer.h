// The side server: answers stats clients while a root's thread is stuck.
//
// An endpoint's listener and connections are tasks of its root, so a task
// that holds the root's thread holds them too. One process-wide thread
// stands in: each endpoint registers what it shares with it (a
// `SideEndpoint`), and while the root is idle, or its run is younger than
// `sideServeAfter`, the side server leaves the listener alone. Once the run
// is older, it watches the listener as well and races the root for accept
// (non-blocking; whoever wins serves the client). For its clients it checks
// the peer's uid as the endpoint does and reads the request line (bounded,
// under the request time-out), then:
//
//   status, stalls   answered at once from the published runs and the stall
//                    records, which never need the root;
//   anything else    held until the stuck run ends, then handed to the root
//                    (queued on the `SideEndpoint`, the root woken through
//                    its eventfd) as a connection whose request is read; or,
//                    when `busyReplyAfter` passes first (counted from the
//                    line's arrival), answered with the busy line;
//   a bad request    the endpoint's error lines, with the same texts.
//
// Lifetimes: the side server holds each `SideEndpoint` and its clients by
// shared ownership, and never touches the endpoint itself. An endpoint
// unregisters before it closes its listener; `sideServerUnregister` returns
// once the side server has dropped it and closed its clients (a reply half
// written included, as for the root's own connections), so the listening
// descriptor is never used after. The thread starts with the first endpoint
// and stays for the process, sleeping while no endpoint is registered.
#pragma once

#include <Velik/RunPublication.h>
#include <Velik/StatsEndpoint.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Velik::Impl {

// A run younger than this is left to the root.
constexpr std::chrono::milliseconds sideServeAfter{50};

// What an endpoint shares with the side server. The fixed fields are set at
// registration; the hand-over queue is guarded by its own mutex.
class SideEndpoint {
  public:
    struct Handed {
        int fd;
        std::string line;
    };

    // Makes the hand-over eventfd (non-blocking, close-on-exec).
    // `publication` is the root's, which outlives the endpoint (and so its
    // registration).
    SideEndpoint(int listenFd, const RunPublication& publication, std::string socketPath,
                 StatsEndpointOptions options);
    SideEndpoint(const SideEndpoint&) = delete;
    SideEndpoint& operator=(const SideEndpoint&) = delete;
    // Closes the eventfd and every connection still queued.
    ~SideEndpoint();

    int listenFd() const { return listenFd_; }
    const RunPublication& publication() const { return publication_; }
    const std::string& socketPath() const { return socketPath_; }
    const StatsEndpointOptions& options() const { return options_; }
    // Readable while connections wait to be taken.
    int handOverFd() const { return eventFd_; }

    // Side server: queues the connection `fd`, whose request is `line`, and
    // wakes the root.
    void handOver(int fd, std::string line);
    // Root: takes what is queued, oldest first.
    std::vector<Handed> takeHanded();

    // Connections the side server accepted, and refused of those.
    std::atomic<std::uint64_t> acceptedCount{0};
    std::atomic<std::uint64_t> refusedCount{0};

  private:
    const int listenFd_;
    const RunPublication& publication_;
    const std::string socketPath_;
    const StatsEndpointOptions options_;
    const int eventFd_;
    std::mutex mutex_;
    std::vector<Handed> handed_;  // under `mutex_`
};

// Adds `endpoint` to what the side server watches; starts it if needed.
void sideServerRegister(std::shared_ptr<SideEndpoint> endpoint);
// Removes it; returns once the side server has let go of it and its
// clients. Never waits for any root.
void sideServerUnregister(const SideEndpoint* endpoint);

}  // namespace Velik::Impl
