// One thread's snapshots written as their changes, for recordings.
//
// The writer keeps the last snapshot it wrote and sends only what changed
// since: the records of tasks that are new or whose figures moved (only the
// members that moved), the tasks that went, the order of the list when it is
// not what those changes imply, the history events that are new, and the
// schedulers when any of their figures moved. The first snapshot is thus
// written whole. The reader, fed the same documents in the same order, gives
// back each snapshot as it was:
//
//   VelikTop::SnapshotDeltaWriter writer;
//   std::string delta = writer.write(snapshot);  // a JSON object
//   VelikTop::SnapshotDeltaReader reader;
//   VelikTop::ThreadSnapshot again = reader.read(document, "main");
//
// Tasks are keyed by a number the writer gives each task (identified as the
// rates identify it) when it first appears, so a changed record costs its
// number and its moved members, not its name.
#pragma once

#include "SnapshotModel.h"

#include <rapidjson/document.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace VelikTop {

class SnapshotDeltaWriter {
  public:
    // `snapshot` as a JSON object holding its change since the last call.
    std::string write(const ThreadSnapshot& snapshot);

  private:
    struct Known {
        std::uint64_t id;
        TaskRow row;
    };
    std::unordered_map<std::string, Known> tasks_;  // by task key
    std::vector<std::uint64_t> order_;
    std::vector<HistoryEvent> history_;
    std::string schedulers_;  // as last written
    std::uint64_t nextId_ = 0;
};

class SnapshotDeltaReader {
  public:
    // The snapshot `delta` describes, named `thread`. Members that cannot be
    // read are left as they were, so a damaged document gives a snapshot
    // that is off, never a crash.
    ThreadSnapshot read(const rapidjson::Value& delta, const std::string& thread);

  private:
    std::vector<std::uint64_t> order_;
    std::unordered_map<std::uint64_t, TaskRow> tasks_;
    std::vector<HistoryEvent> history_;
    std::vector<SchedulerRow> schedulers_;
};

}  // namespace VelikTop
