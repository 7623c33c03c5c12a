// The endpoint's replies in slices: the JSON snapshot, the text report and
// the history lines.
#include "endpoint/StatsReplySource.h"

#include "endpoint/HistogramsReply.h"
#include "endpoint/WaitsReply.h"

#include "Velik/Inbox.h"
#include "Velik/Task.h"
#include "Velik/TaskSchedulerPrintContext.h"
#include "Velik/TaskSchedulerRoot.h"
#include "Velik/TaskSchedulerSnapshot.h"
#include "Velik/TaskSchedulerTextReport.h"
#include "endpoint/StallReplies.h"
#include "report/StatsPrintable.h"

#include <fmt/format.h>

#include <iterator>
#include <sstream>

namespace Velik::Impl {

namespace {

class SnapshotSource : public StatsReplySource {
  public:
    SnapshotSource(std::shared_ptr<const TaskSchedulerSnapshot> snapshot, std::size_t records)
        : context_(TaskScheduler::PrintContextIs(out_)), render_(std::move(snapshot), records) {}
    // A reply dropped half way is left unclosed.
    ~SnapshotSource() override {
        if (!finished_) {
            context_->abandonJson();
        }
    }
    bool renderSlice(std::string& out) override {
        if (!render_.renderSlice(*context_)) {
            context_->closeJson();
            finished_ = true;
        }
        context_->flush();
        out += std::move(out_).str();
        out_.str(std::string());
        return !finished_;
    }

  private:
    std::ostringstream out_;
    std::unique_ptr<TaskSchedulerPrintContext> context_;
    TaskSchedulerSnapshot::SlicedRender render_;
    bool finished_ = false;
};

class ReportSource : public StatsReplySource {
  public:
    ReportSource(TextReportData data, std::size_t rows)
        : data_(std::move(data)),
          render_(data_, false, [](std::string_view name) { return printableText(name); }),
          rows_(rows) {}
    bool renderSlice(std::string& out) override {
        std::ostringstream stream;
        const bool more = render_.renderSlice(stream, rows_);
        out += std::move(stream).str();
        return more;
    }

  private:
    TextReportData data_;
    TextReportSlicedRender render_;
    std::size_t rows_;
};

// "<nsSinceBoot> <schedulerName> <eventType> <eventId>", oldest first.
class HistorySource : public StatsReplySource {
  public:
    HistorySource(const TaskSchedulerRoot& root, std::size_t events)
        : scheduler_(printableText(root.schedulerName().str())),
          events_(root.history()->events().rbegin(), root.history()->events().rend()),
          perSlice_(std::max<std::size_t>(events, 1)) {}
    bool renderSlice(std::string& out) override {
        fmt::memory_buffer buffer;
        const std::size_t end = std::min(events_.size(), next_ + perSlice_);
        for (; next_ < end; ++next_) {
            const TaskSchedulerHistory::Event& event = events_[next_];
            fmt::format_to(std::back_inserter(buffer), "{} {} {} {}\n",
                           event.time.time_since_epoch().count(), scheduler_,
                           event.eventTypeDisplay(), printableText(event.displayName()));
        }
        out.append(buffer.data(), buffer.size());
        return next_ < events_.size();
    }

  private:
    std::string scheduler_;
    // A copy: the ring goes on changing between slices.
    std::vector<TaskSchedulerHistory::Event> events_;
    std::size_t perSlice_;
    std::size_t next_ = 0;
};

// One line per live inbox of the process: small, so one slice.
class InboxSource : public StatsReplySource {
  public:
    InboxSource() {
        for (const std::shared_ptr<Inbox>& inbox : liveInboxes()) {
            fmt::format_to(std::back_inserter(text_),
                           "{} length {} highWaterMark {} dropped {} posted {} run {} wakeUps {}\n",
                           printableText(inbox->rootName()), inbox->length(),
                           inbox->highWaterMark(), inbox->droppedCount(), inbox->postedCount(),
                           inbox->runCount(), inbox->wakeUpCount());
        }
    }
    bool renderSlice(std::string& out) override {
        out += text_;
        return false;
    }

  private:
    std::string text_;
};

// A reply made whole when asked: the status lines and the stall records.
class WholeSource : public StatsReplySource {
  public:
    explicit WholeSource(std::string text) : text_(std::move(text)) {}
    bool renderSlice(std::string& out) override {
        out += text_;
        return false;
    }

  private:
    std::string text_;
};

// The status lines, asked on the root's own thread: the running task is
// alive here, so it is named even when no backtrace caught it.
std::string statusOnRootThread(const TaskSchedulerRoot& root) {
    const RunPublication& publication = root.runPublication();
    std::optional<std::string> ownTask;
    if (const TaskImpl* task = publication.current().task) {
        ownTask = std::string(task->taskDisplayName().view());
    }
    return renderStatusReply(&publication, ownTask);
}

}  // namespace

std::unique_ptr<StatsReplySource> makeStatsReplySource(const TaskSchedulerRoot& root,
                                                       StatsVerb verb, bool includeNoRuns,
                                                       const StatsSliceSizes& sizes) {
    switch (verb) {
        case StatsVerb::snapshot:
            return std::make_unique<SnapshotSource>(root.snapshot(includeNoRuns, true, true),
                                                    sizes.snapshotRecords);
        case StatsVerb::report:
            return std::make_unique<ReportSource>(gatherTextReport(root, includeNoRuns, true),
                                                  sizes.reportRows);
        case StatsVerb::history:
            return std::make_unique<HistorySource>(root, sizes.historyEvents);
        case StatsVerb::inbox:
            return std::make_unique<InboxSource>();
        case StatsVerb::histograms:
            return makeHistogramsReplySource(root, sizes.histogramEntries);
        case StatsVerb::status:
            return std::make_unique<WholeSource>(statusOnRootThread(root));
        case StatsVerb::stalls:
            return std::make_unique<WholeSource>(renderStallsReply(&root.runPublication()));
        case StatsVerb::waits:
            return makeWaitsReplySource(root, sizes.waitsEntries);
    }
    return nullptr;
}

}  // namespace Velik::Impl
