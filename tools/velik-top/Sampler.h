// Snapshots of every watched thread, the last two of each, and the rates
// between them; with the latest `status` and `stalls` answers of each
// socket.
//
//   VelikTop::Fetcher fetcher(endpoints, 1.5);
//   VelikTop::Sampler sampler(endpoints);
//   fetcher.startRound();
//   for (auto& r : fetcher.takeWhenDone()) sampler.apply(std::move(r));
//   auto table = VelikTop::buildTable(sampler.views(), options);
//
// A thread whose socket fails, or whose thread is busy in a task, keeps its
// last good snapshot on show, marked stale, with the failure beside it, so a
// stuck thread or a daemon restarting does not blank the screen.
#pragma once

#include "Fetcher.h"
#include "Options.h"
#include "SnapshotDiff.h"
#include "SnapshotModel.h"
#include "StallModel.h"
#include "TaskTable.h"
#include "TopError.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace VelikTop {

class Sampler {
  public:
    using Clock = std::chrono::steady_clock;

    struct Thread {
        Endpoint endpoint;
        std::optional<ThreadSnapshot> current;
        std::optional<ThreadSnapshot> previous;
        Clock::time_point currentAt{}, previousAt{};
        std::vector<TaskRates> rates;    // of `current` against `previous`
        std::optional<TopError> error;   // of the latest snapshot request
        std::optional<BusyReply> busy;   // the latest snapshot request found the thread busy
        std::vector<RootStatus> status;  // of the latest round; empty when not answered
        Clock::time_point statusAt{};
        std::vector<StallRoot> stalls;  // the latest answer
        Clock::time_point stallsAt{};
        // Asked with the latest snapshot; absent when not answered.
        std::optional<HistogramSet> histograms;
        std::optional<std::vector<HistoryLine>> history;
        std::optional<std::vector<WaitEntry>> waits;

        // Figures on show that the latest request did not renew.
        bool stale() const { return current && (error || busy); }
        // Why the latest snapshot request failed, or empty.
        std::string problem() const;
    };

    explicit Sampler(std::vector<Endpoint> endpoints);

    // Takes one answer of the fetcher.
    void apply(FetchResult result);

    const std::vector<Thread>& threads() const { return threads_; }
    // The threads that have a snapshot, for `buildTable`; stale ones marked
    // with the age of their figures at `now`.
    std::vector<ThreadView> views(Clock::time_point now = Clock::now()) const;
    // The snapshots on show.
    std::vector<const ThreadSnapshot*> snapshots() const;
    // The failure of the latest attempt of the first thread that failed.
    const TopError* firstError() const;

    // The stalled roots of every watched process, each once (sockets of one
    // process all report all its roots; the newest answer wins).
    std::vector<RootStatus> stalledRoots() const;
    // The recorded stalls of every root, each root once, the newest answer's.
    std::vector<StallRoot> stallRoots() const;

  private:
    std::vector<Thread> threads_;
};

// Asks every socket once and waits for all the answers.
void refreshAll(Fetcher& fetcher, Sampler& sampler);

}  // namespace VelikTop
