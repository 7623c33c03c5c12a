#include "Velik/TaskSchedulerHistory.h"

#include "Velik/Assert.h"
#include "Velik/Task.h"
#include "Velik/TaskScheduler.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <sstream>

namespace Velik {

std::string TaskSchedulerHistory::Event::display() const {
    return fmt::format("{:<12} {}", eventTypeDisplay(), name);
}

void TaskSchedulerHistory::eventTypeFailed(TaskSchedulerEventType eventType, bool taskEvent) const {
    VELIK_CLASS_ASSERT(eventType <= lastSchedulerEventType, "unexpected eventType={}",
                       static_cast<unsigned>(eventType));
    VELIK_CLASS_ASSERT(!taskEvent, "EventType: {}", eventType);
    VELIK_CLASS_ASSERT(false, "EventType: {}", eventType);
    std::abort();
}

void TaskSchedulerHistory::insert(TaskTimePoint now, TaskSchedulerEventType eventType,
                                  const _TaskBase* task) {
    insertTaskEvent(now, eventType, task->taskDisplayName());
}

void TaskSchedulerHistory::insert(TaskTimePoint now, TaskSchedulerEventType eventType,
                                  const TaskScheduler* scheduler) {
    insertSchedulerEvent(now, eventType, scheduler->schedulerName());
}

void TaskSchedulerHistory::capacityIs(std::uint32_t capacity) {
    if (capacity != events_.capacity()) {
        // Keeps the front, which is the newest events.
        events_.set_capacity(capacity);
    }
}

void TaskSchedulerHistory::renderTextForDebug(std::ostream& stream) const {
    stream << "Last " << events_.size()
           << " scheduler events, absolute timestamp and relative to last event\n";
    const Event* newer = nullptr;
    for (const Event& event : events_) {
        std::int64_t sinceNewer = newer ? (newer->time - event.time).count() / 1000 : 0;
        stream << fmt::format("{:>22} ns since boot {:>10} µs {}\n",
                              event.time.time_since_epoch().count(), sinceNewer, event.display());
        newer = &event;
    }
}

std::string TaskSchedulerHistory::renderTextForDebugToString() const {
    std::ostringstream out;
    renderTextForDebug(out);
    return out.str();
}

void TaskSchedulerHistory::renderTextForDebugStdErr() const {
    renderTextForDebug(std::cerr);
    std::cerr.flush();
}

void TaskSchedulerHistory::renderTextForDebug(int fd) const {
    std::string text = renderTextForDebugToString();
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        data += written;
        left -= static_cast<size_t>(written);
    }
}

}  // namespace Velik
