// Asks every watched socket for its figures without holding up the screen.
//
// One worker thread per socket does a round when asked: `status` first (the
// daemon answers it even while the thread is stuck in a task), then `stalls`
// when a root is stalled or the stalls pane wants them, then `snapshot`,
// and after a snapshot, `histograms`, and `history` and `waits` while a
// task's detail is open (a daemon that lacks them answers "error: ...":
// they are then absent, and nothing else changes). Each
// answer is handed over as soon as it is read and parsed (a socket that
// cannot answer `status` at all ends its round there), through a queue
// the screen drains between keys; every exchange has its own time-out. A
// socket whose round has not ended is not asked again, so a stuck or silent
// daemon thread holds back only its own worker, never the screen or the
// other sockets.
//
// Threads rather than one poll loop: the exchange stays the straight-line,
// deadline-bounded `exchange()` (connect, peer check, send, read to the end),
// and a large snapshot is parsed off the screen's thread as well.
//
//   VelikTop::Fetcher fetcher(endpoints, 1.5);
//   fetcher.startRound();                 // every interval
//   for (auto& result : fetcher.take()) sampler.apply(std::move(result));
#pragma once

#include "Histograms.h"
#include "HistoryText.h"
#include "Options.h"
#include "SnapshotModel.h"
#include "StallModel.h"
#include "TopError.h"
#include "Waits.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace VelikTop {

// One answer of one socket to one request.
struct FetchResult {
    using Clock = std::chrono::steady_clock;
    enum class Verb { status, stalls, snapshot };

    Verb verb = Verb::snapshot;
    std::size_t thread = 0;       // index into the endpoints
    Clock::time_point askedAt{};  // when the exchange began
    bool roundEnded = false;      // the socket's last answer of the round

    std::optional<std::vector<RootStatus>> status;  // absent: not answered
    std::optional<std::vector<StallRoot>> stalls;   // absent: not asked or not answered

    // The snapshot, or why there is none: the thread is busy, or the
    // exchange failed (time-out, refused, malformed).
    std::optional<ThreadSnapshot> snapshot;
    std::optional<BusyReply> busy;
    std::optional<TopError> error;

    // Asked for with the snapshot; absent when the daemon did not answer.
    std::optional<HistogramSet> histograms;
    std::optional<std::vector<HistoryLine>> history;  // while detail is wanted
    std::optional<std::vector<WaitEntry>> waits;      // while detail is wanted
};

class Fetcher {
  public:
    Fetcher(std::vector<Endpoint> endpoints, double timeoutSeconds);
    // Cancels the exchanges under way and waits for the workers.
    ~Fetcher();
    Fetcher(const Fetcher&) = delete;
    Fetcher& operator=(const Fetcher&) = delete;

    // Starts a round on every socket whose previous round has ended; the
    // number started.
    std::size_t startRound();
    // Whether rounds ask for `stalls` even when no root is stalled.
    void stallsWanted(bool wanted) { stallsWanted_ = wanted; }
    // Whether rounds ask for `history` and `waits` too, for a task's detail.
    void detailWanted(bool wanted) { detailWanted_ = wanted; }

    // The answers that arrived since the last call, oldest first.
    std::vector<FetchResult> take();
    // Waits until no round is under way, then takes the answers.
    std::vector<FetchResult> takeWhenDone();

  private:
    void work(std::size_t index);
    void deliver(FetchResult result);
    void round(std::size_t index);
    // After a snapshot: the histograms, and what a task's detail needs.
    void askExtras(std::size_t index, FetchResult& snap);

    std::vector<Endpoint> endpoints_;
    double timeout_;
    int cancel_[2] = {-1, -1};  // a pipe: writing to it cancels every exchange
    std::atomic<bool> stallsWanted_{false};
    std::atomic<bool> detailWanted_{false};

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<char> asked_, underWay_;  // per socket
    bool stopping_ = false;
    std::vector<FetchResult> results_;
    std::vector<std::thread> workers_;
};

}  // namespace VelikTop
