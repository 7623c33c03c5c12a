#include "endpoint/HistogramsReply.h"

#include "Velik/RunHistograms.h"
#include "Velik/TaskSchedulerRoot.h"
#include "endpoint/SlicedJsonWriter.h"
#include "report/JsonWriter.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace Velik::Impl {

namespace {

// One member of "schedulers" or "tasks".
struct HistogramsEntry {
    std::string name;
    // "root" or "group" for a scheduler; the scheduler's name for a task.
    std::string owner;
    RunHistograms histograms;
};

struct Quantile {
    const char* key;
    double q;
};
constexpr Quantile quantiles[] = {{"p50", 0.5}, {"p90", 0.9}, {"p99", 0.99}, {"p999", 0.999}};

void renderHistogram(JsonWriter& writer, const char* key, const LatencyHistogram& h) {
    jsonKey(writer, key);
    writer.StartObject();
    jsonKey(writer, "count");
    writer.Uint64(h.count());
    jsonKey(writer, "sum");
    writer.Int64(h.sumNs());
    jsonKey(writer, "max");
    writer.Int64(h.maxNs());
    for (const Quantile& quantile : quantiles) {
        jsonKey(writer, quantile.key);
        writer.Int64(h.quantileNs(quantile.q));
    }
    jsonKey(writer, "buckets");
    writer.StartArray();
    for (std::size_t i = 0; i < h.bucketCount(); ++i) {
        if (const std::uint64_t n = h.bucketCountAt(i)) {
            writer.StartObject();
            jsonKey(writer, "upper");
            writer.Int64(h.bucketUpperBoundNs(i));
            jsonKey(writer, "count");
            writer.Uint64(n);
            writer.EndObject();
        }
    }
    writer.EndArray();
    writer.EndObject();
}

void renderEntry(JsonWriter& writer, const HistogramsEntry& entry, bool task) {
    writer.StartObject();
    jsonKey(writer, "name");
    jsonString(writer, entry.name);
    jsonKey(writer, task ? "scheduler" : "kind");
    jsonString(writer, entry.owner);
    renderHistogram(writer, "runTime", entry.histograms.runTime);
    renderHistogram(writer, "latency", entry.histograms.latency);
    renderHistogram(writer, "timerLateness", entry.histograms.timerLateness);
    writer.EndObject();
}

class HistogramsSource : public StatsReplySource {
  public:
    HistogramsSource(const TaskSchedulerRoot& root, std::size_t entriesPerSlice)
        : perSlice_(std::max<std::size_t>(entriesPerSlice, 1)) {
        // The root first, then the groups by name: the set's address order
        // would change from one run of the daemon to the next.
        std::vector<const TaskScheduler*> schedulers(root.schedulers().begin(),
                                                     root.schedulers().end());
        std::stable_sort(schedulers.begin(), schedulers.end(),
                         [&root](const TaskScheduler* a, const TaskScheduler* b) {
                             if ((a == &root) != (b == &root)) {
                                 return a == &root;
                             }
                             return a->schedulerName().view() < b->schedulerName().view();
                         });
        for (const TaskScheduler* scheduler : schedulers) {
            const std::string name = scheduler->schedulerName().str();
            if (const RunHistograms* h = scheduler->runHistograms()) {
                schedulers_.push_back({name, scheduler == &root ? "root" : "group", *h});
            }
            for (const TaskImpl& task : scheduler->tasks()) {
                if (const RunHistograms* h = task.taskHistograms()) {
                    tasks_.push_back({task.taskDisplayName().str(), name, *h});
                }
            }
        }
    }

    bool renderSlice(std::string& out) override {
        const std::size_t total = schedulers_.size() + tasks_.size();
        if (next_ == 0) {
            json_.writer().StartObject();
            jsonKey(json_.writer(), "schedulers");
            json_.writer().StartArray();
        }
        for (std::size_t done = 0; done < perSlice_ && next_ < total; ++done, ++next_) {
            if (next_ == schedulers_.size()) {
                json_.writer().EndArray();
                jsonKey(json_.writer(), "tasks");
                json_.writer().StartArray();
            }
            const bool task = next_ >= schedulers_.size();
            renderEntry(json_.writer(),
                        task ? tasks_[next_ - schedulers_.size()] : schedulers_[next_], task);
        }
        const bool more = next_ < total;
        if (!more) {
            if (schedulers_.size() == total) {  // no task keeps its own
                json_.writer().EndArray();
                jsonKey(json_.writer(), "tasks");
                json_.writer().StartArray();
            }
            json_.writer().EndArray();
            json_.writer().EndObject();
        }
        json_.takeInto(out);
        return more;
    }

  private:
    std::vector<HistogramsEntry> schedulers_;
    std::vector<HistogramsEntry> tasks_;
    std::size_t perSlice_;
    std::size_t next_ = 0;
    SlicedJsonWriter json_;
};

}  // namespace

std::unique_ptr<StatsReplySource> makeHistogramsReplySource(const TaskSchedulerRoot& root,
                                                            std::size_t entriesPerSlice) {
    return std::make_unique<HistogramsSource>(root, entriesPerSlice);
}

}  // namespace Velik::Impl
