// Snapshots of every watched thread, the last two of each, and the rates
// between them.
//
//   VelikTop::Sampler sampler(endpoints, 5.0);
//   sampler.refresh();            // first snapshots: no rates yet
//   ... one interval later ...
//   sampler.refresh();            // rates over the interval
//   auto table = VelikTop::buildTable(sampler.views(), options);
//
// A thread whose socket fails keeps its last good snapshot on show, with the
// failure beside it, so a daemon restarting does not blank the screen.
#pragma once

#include "Options.h"
#include "SnapshotDiff.h"
#include "SnapshotModel.h"
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
        std::vector<TaskRates> rates;   // of `current` against `previous`
        std::optional<TopError> error;  // of the latest attempt
    };

    Sampler(std::vector<Endpoint> endpoints, double timeoutSeconds);

    // Asks every socket for a snapshot, one after the other.
    void refresh();

    const std::vector<Thread>& threads() const { return threads_; }
    // The threads that have a snapshot, for `buildTable`.
    std::vector<ThreadView> views() const;
    // The snapshots on show.
    std::vector<const ThreadSnapshot*> snapshots() const;
    // The failure of the latest attempt of the first thread that failed.
    const TopError* firstError() const;

  private:
    std::vector<Thread> threads_;
    double timeout_;
};

}  // namespace VelikTop
