// Task priorities. Scheduling order is by value, lowest first.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <ostream>
#include <string>

namespace Velik {

enum class TaskPriority : std::uint8_t {
    absolute = 0,       // always first; never gives way to lower priorities
    high = 1,           // may give way to normal and low
    normal = 2,         // may give way to low
    low = 3,            // never gives way
    scavenge = 4,       // runs only when every higher queue is empty
    oneBeyondLast = 5,  // the number of priorities, not a priority
};

inline constexpr std::size_t taskPriorityCount =
    static_cast<std::size_t>(TaskPriority::oneBeyondLast);

// "absolute", "high", "normal", "low", "scavenge", "oneBeyondLast"; any other
// value asserts with "unexpected priority value ".
const char* toStrep(TaskPriority priority);

// 'A', 'H', 'N', 'L', 'S', and '-' for oneBeyondLast; a value of 6 or more
// asserts with "unexpected priority ".
char oneChar(TaskPriority priority);

// `oneChar` as a one-character string.
std::string oneCharString(TaskPriority priority);

// Prints `toStrep`.
std::ostream& operator<<(std::ostream& stream, TaskPriority priority);

}  // namespace Velik

template <>
struct fmt::formatter<Velik::TaskPriority> : fmt::formatter<fmt::string_view> {
    template <typename Context>
    auto format(Velik::TaskPriority priority, Context& context) const {
        return fmt::formatter<fmt::string_view>::format(Velik::toStrep(priority), context);
    }
};
