#include "Velik/TaskRunQueue.h"

#include "Velik/Assert.h"

namespace Velik {

void TaskRunQueue::checkTemporaryEmpty() const {
    VELIK_CLASS_ASSERT(temporary_.isEmpty(), "{}",
                       "The temporary run queue should always be empty at this point");
}

void TaskRunQueue::pickedBeyondQueued(const TaskImpl& task) const {
    // Named as the scheduler's unlinking step, where the pick is made.
    Impl::assertFailed(VELIK_SOURCE_NAME, __LINE__, true, "taskSchedulerUnlinkTask",
                       "TaskScheduler", "Priority: {} queuedCount: {} pickedCount: {}",
                       task.taskPriority(), queuedCount_, pickedCount_);
}

void TaskRunQueue::movePersistentToTemporary() {
    checkTemporaryEmpty();
    temporary_.spliceBack(persistent_);
    active_ = &temporary_;
}

void TaskRunQueue::moveTemporaryToPersistent() {
    persistent_.spliceFront(temporary_);
    checkTemporaryEmpty();
    active_ = &persistent_;
}

}  // namespace Velik
