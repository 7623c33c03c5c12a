#include "Velik/TaskPriority.h"

#include "Velik/Assert.h"

namespace Velik {

const char* toStrep(TaskPriority priority) {
    switch (priority) {
        case TaskPriority::absolute:
            return "absolute";
        case TaskPriority::high:
            return "high";
        case TaskPriority::normal:
            return "normal";
        case TaskPriority::low:
            return "low";
        case TaskPriority::scavenge:
            return "scavenge";
        case TaskPriority::oneBeyondLast:
            return "oneBeyondLast";
    }
    VELIK_ASSERT(false, "unexpected priority value {}", static_cast<unsigned>(priority));
    return "";
}

char oneChar(TaskPriority priority) {
    static constexpr char letters[] = {'A', 'H', 'N', 'L', 'S', '-'};
    auto index = static_cast<unsigned>(priority);
    VELIK_ASSERT(index < sizeof(letters), "unexpected priority {}", index);
    return letters[index];
}

std::string oneCharString(TaskPriority priority) {
    return std::string(1, oneChar(priority));
}

std::ostream& operator<<(std::ostream& stream, TaskPriority priority) {
    return stream << toStrep(priority);
}

}  // namespace Velik
