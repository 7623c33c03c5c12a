// The short, always-on record of what a root's schedulers and tasks did.
//
// A fixed-capacity ring of events, newest first. Each event is its kind, its
// steady-clock time and a reference to the task's display name or the
// scheduler's name, so names outlive deleted tasks. Inserting never allocates:
// the storage is allocated when the capacity is set.
//
//   Velik::TaskSchedulerHistory history(100);
//   history.insert(Velik::taskSteadyNow(), Velik::TaskSchedulerEventType::schedule, task);
//   std::cerr << history.renderTextForDebugToString();
#pragma once

#include <Velik/ConstStringCache.h>
#include <Velik/TaskSchedulerEventType.h>
#include <Velik/TaskTime.h>

#include <boost/circular_buffer.hpp>

#include <cstdint>
#include <ostream>
#include <string>

namespace Velik {

class _TaskBase;
class TaskScheduler;

class TaskSchedulerHistory {
  public:
    static constexpr const char* traceClassName = "TaskSchedulerHistory";

    struct Event {
        TaskSchedulerEventType eventType;
        TaskTimePoint time;
        // The task's display name ("N reader") or the scheduler's name.
        ConstStringRef name;

        const char* eventTypeDisplay() const { return Velik::eventTypeDisplay(eventType); }
        // The recorded name's text.
        std::string displayName() const { return name.str(); }
        // The event type's display name padded with blanks to 12 characters
        // (longer names are not cut), one blank, then the display name.
        std::string display() const;
    };
    using Events = boost::circular_buffer<Event>;

    explicit TaskSchedulerHistory(std::uint32_t capacity) : events_(capacity) {}

    // Records a task event (types 0 to 16) under the task's display name. A
    // scheduler event type asserts with "EventType: ", an unknown one with
    // "unexpected eventType=".
    void insert(TaskTimePoint now, TaskSchedulerEventType eventType, const _TaskBase* task);
    // Records a scheduler event (types 17 to 25) under the scheduler's name; a
    // task event type or an unknown one asserts as above.
    void insert(TaskTimePoint now, TaskSchedulerEventType eventType,
                const TaskScheduler* scheduler);

    // The same checks and records, given the name directly. Inline: a task
    // run records three events, and the checks of a constant type fold away.
    void insertTaskEvent(TaskTimePoint now, TaskSchedulerEventType eventType,
                         const ConstStringRef& name) {
        if (eventType > lastTaskEventType) [[unlikely]] {
            eventTypeFailed(eventType, true);
        }
        record(now, eventType, name);
    }
    void insertSchedulerEvent(TaskTimePoint now, TaskSchedulerEventType eventType,
                              const ConstStringRef& name) {
        if (eventType <= lastTaskEventType || eventType > lastSchedulerEventType) [[unlikely]] {
            eventTypeFailed(eventType, false);
        }
        record(now, eventType, name);
    }

    // Room for this many events.
    std::uint32_t capacity() const { return static_cast<std::uint32_t>(events_.capacity()); }
    // Changes the room, keeping the newest events that fit, in order. The
    // same capacity does nothing; one beyond the buffer's maximum size throws
    // std::length_error ("circular_buffer").
    void capacityIs(std::uint32_t capacity);

    std::size_t size() const { return events_.size(); }
    // Removes every event, releasing the names.
    void clear() { events_.clear(); }

    // Newest first.
    const Events& events() const { return events_; }

    // The text dump: a header line, then one line per event, newest first,
    // with the absolute time and the time to the previous (newer) line.
    void renderTextForDebug(std::ostream& stream) const;
    std::string renderTextForDebugToString() const;
    void renderTextForDebugStdErr() const;
    // Writes the dump to descriptor `fd`; a write error ends the dump early.
    void renderTextForDebug(int fd) const;

  private:
    // Asserts "unexpected eventType=" or "EventType: " for a type that is not
    // a task event (`taskEvent`) or not a scheduler event.
    [[noreturn]] void eventTypeFailed(TaskSchedulerEventType eventType, bool taskEvent) const;

    void record(TaskTimePoint now, TaskSchedulerEventType eventType, const ConstStringRef& name) {
        events_.push_front(Event{eventType, now, name});
    }

    Events events_;
};

}  // namespace Velik
