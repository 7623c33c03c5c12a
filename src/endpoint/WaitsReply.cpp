#include "endpoint/WaitsReply.h"

#include "Velik/CoroutineTask.h"
#include "Velik/TaskSchedulerRoot.h"
#include "endpoint/SlicedJsonWriter.h"
#include "report/JsonWriter.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace Velik::Impl {

namespace {

struct WaitsEntry {
    std::string name;
    std::string scheduler;
    const char* priority;
    const char* wait;
    std::string detail;
};

// The root first, then its groups by name: the set's address order would
// change from one run of the daemon to the next.
std::vector<const TaskScheduler*> schedulersInOrder(const TaskSchedulerRoot& root) {
    std::vector<const TaskScheduler*> schedulers(root.schedulers().begin(),
                                                 root.schedulers().end());
    std::stable_sort(schedulers.begin(), schedulers.end(),
                     [&root](const TaskScheduler* a, const TaskScheduler* b) {
                         if ((a == &root) != (b == &root)) {
                             return a == &root;
                         }
                         return a->schedulerName().view() < b->schedulerName().view();
                     });
    return schedulers;
}

void renderEntry(JsonWriter& writer, const WaitsEntry& entry) {
    writer.StartObject();
    jsonKey(writer, "name");
    jsonString(writer, entry.name);
    jsonKey(writer, "scheduler");
    jsonString(writer, entry.scheduler);
    jsonKey(writer, "priority");
    jsonString(writer, entry.priority);
    jsonKey(writer, "wait");
    jsonString(writer, entry.wait);
    jsonKey(writer, "detail");
    jsonString(writer, entry.detail);
    writer.EndObject();
}

class WaitsSource : public StatsReplySource {
  public:
    WaitsSource(const TaskSchedulerRoot& root, std::size_t entriesPerSlice)
        : perSlice_(std::max<std::size_t>(entriesPerSlice, 1)) {
        for (const TaskScheduler* scheduler : schedulersInOrder(root)) {
            const std::string schedulerName = scheduler->schedulerName().str();
            const std::size_t first = entries_.size();
            for (const TaskImpl& task : scheduler->tasks()) {
                if (const auto* co = dynamic_cast<const CoroutineTaskBase*>(&task)) {
                    entries_.push_back({task.taskDisplayName().str(), schedulerName,
                                        toStrep(task.taskPriority()), toStrep(co->coroutineWait()),
                                        co->coroutineWaitDetail()});
                }
            }
            // The scheduler keeps its newest task first.
            std::reverse(entries_.begin() + static_cast<std::ptrdiff_t>(first), entries_.end());
        }
    }

    bool renderSlice(std::string& out) override {
        if (next_ == 0) {
            json_.writer().StartObject();
            jsonKey(json_.writer(), "tasks");
            json_.writer().StartArray();
        }
        const std::size_t end = std::min(entries_.size(), next_ + perSlice_);
        for (; next_ < end; ++next_) {
            renderEntry(json_.writer(), entries_[next_]);
        }
        const bool more = next_ < entries_.size();
        if (!more) {
            json_.writer().EndArray();
            json_.writer().EndObject();
        }
        json_.takeInto(out);
        if (!more) {
            out += '\n';
        }
        return more;
    }

  private:
    std::vector<WaitsEntry> entries_;
    std::size_t perSlice_;
    std::size_t next_ = 0;
    SlicedJsonWriter json_;
};

}  // namespace

std::unique_ptr<StatsReplySource> makeWaitsReplySource(const TaskSchedulerRoot& root,
                                                       std::size_t entriesPerSlice) {
    return std::make_unique<WaitsSource>(root, entriesPerSlice);
}

}  // namespace Velik::Impl
