#include "Velik/TaskRunQueue.h"

#include "Velik/Assert.h"

namespace Velik {

void TaskRunQueue::checkTemporaryEmpty() const {
    VELIK_CLASS_ASSERT(temporary.isEmpty(), "{}",
                       "The temporary run queue should always be empty at this point");
}

void TaskRunQueue::movePersistentToTemporary() {
    checkTemporaryEmpty();
    temporary.spliceBack(persistent);
    active = &temporary;
}

void TaskRunQueue::moveTemporaryToPersistent() {
    persistent.spliceFront(temporary);
    checkTemporaryEmpty();
    active = &persistent;
}

}  // namespace Velik
