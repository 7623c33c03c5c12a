// Reading each thread's figures on its own thread, through its inbox.
#include "endpoint/MetricsGather.h"

#include "Velik/Inbox.h"
#include "Velik/TaskSchedulerRoot.h"

#include <utility>

namespace Velik::Impl {

MetricsThreadFigures metricsFiguresOfThisThread(const std::string& name) {
    const std::shared_ptr<TaskSchedulerRoot> root = schedulerRootVelik();
    // The snapshot holds interned names of this thread, and the histograms
    // are this thread's to read: both here.
    return metricsFiguresOf(*root, name.empty() ? root->schedulerName().str() : name);
}

MetricsGather::MetricsGather(const std::vector<MetricsThread>& threads, TaskPriority priority,
                             std::function<void()> done)
    : threads_(threads),
      priority_(priority),
      done_(std::move(done)),
      figures_(threads.size()),
      pending_(threads.size()) {}

void MetricsGather::start() {
    const std::shared_ptr<MetricsGather> keep = shared_from_this();  // `done` may drop it
    started_ = true;
    if (threads_.empty()) {
        done_();
        return;
    }
    const std::shared_ptr<Inbox> own = existingInbox();
    for (std::size_t i = 0; i < threads_.size(); ++i) {
        const MetricsThread& thread = threads_[i];
        if (!thread.inbox || thread.inbox == own) {
            arrived(i, metricsFiguresOfThisThread(thread.name));
            continue;
        }
        const std::string name = thread.name.empty() ? thread.inbox->rootName() : thread.name;
        // Filled on the other thread; read here once the completion comes
        // back through our inbox, which orders the two.
        auto figures = std::make_shared<MetricsThreadFigures>();
        std::weak_ptr<MetricsGather> self = weak_from_this();
        const bool posted = post(
            thread.inbox, priority_, "MetricsEndpoint:gather",
            [figures, name] { *figures = metricsFiguresOfThisThread(name); },
            [self, figures, i] {
                if (const auto gather = self.lock()) {
                    gather->arrived(i, std::move(*figures));
                }
            });
        if (!posted) {
            arrived(i, std::nullopt);  // that thread has ended
        }
    }
}

void MetricsGather::arrived(std::size_t index, std::optional<MetricsThreadFigures> figures) {
    figures_[index] = std::move(figures);
    if (--pending_ == 0 && started_) {
        done_();
    }
}

std::vector<MetricsThreadFigures> MetricsGather::take() {
    std::vector<MetricsThreadFigures> out;
    for (std::optional<MetricsThreadFigures>& f : figures_) {
        if (f) {
            out.push_back(std::move(*f));
            f.reset();
        }
    }
    return out;
}

}  // namespace Velik::Impl
