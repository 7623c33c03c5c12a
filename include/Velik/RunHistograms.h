// The histograms a scheduler keeps of its tasks' runs, and a task of its own
// runs when it asks for them.
//
// Every scheduler (a root and each task group) records, for every run it
// makes, the run time and the scheduling latency (the stay on the run queue
// that the run ended), and for a run that a timer task's expiry caused, the
// timer lateness: from the expiry the timer was armed for to the start of
// the run, the wheel's tick and the queue stay together. A task group's run
// counts in the scheduler above as one run of its parent task, and each run
// inside the group in the group's own histograms.
//
//   const Velik::RunHistograms* h = root->runHistograms();
//   fmt::print("p99 latency {} ns\n", h->latency.quantileNs(0.99));
//
//   task->taskHistogramsIs(true);   // the task's own, beside the scheduler's
//
// The statistics reset (`clearStats`, `resetStats`, a task's
// `taskResetStats`) clears them. Runs made outside the scheduler loop
// (`taskRunFromTest`) are not recorded.
#pragma once

#include <Velik/LatencyHistogram.h>

namespace Velik {

class RunHistograms {
  public:
    LatencyHistogram runTime;
    LatencyHistogram latency;
    LatencyHistogram timerLateness;

    void clear() {
        runTime.clear();
        latency.clear();
        timerLateness.clear();
    }
};

}  // namespace Velik
