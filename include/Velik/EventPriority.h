// The priority at which the event loop serves an event.
//
// The value goes straight to the event library as its priority number; the
// libevent base is set up with exactly two levels, so a lower number is
// served first:
//
//   auto timer = Velik::getLeTimerControl(&handler, Platform::eventPriorityStrictHigh);
//   fmt::format("{}", Platform::eventPriorityDefault);   // "eventPriorityDefault"
#pragma once

#include <fmt/format.h>

#include <cstdint>

namespace Velik::Platform {

enum EventPriority : uint8_t {
    // Served before every default-priority event that is ready in the same
    // loop pass.
    eventPriorityStrictHigh = 0,
    // The ordinary priority of every control unless a caller asks otherwise.
    eventPriorityDefault = 1,
};

// True exactly when the numeric value names one of the two priorities.
constexpr bool isEventPriorityValid(EventPriority p) {
    return static_cast<unsigned>(p) < 2;
}

// "eventPriorityStrictHigh", "eventPriorityDefault", or the empty string for
// any other value.
constexpr const char* eventPriorityToString(EventPriority p) {
    switch (static_cast<unsigned>(p)) {
        case eventPriorityStrictHigh:
            return "eventPriorityStrictHigh";
        case eventPriorityDefault:
            return "eventPriorityDefault";
        default:
            return "";
    }
}

}  // namespace Velik::Platform

// Formats a valid priority as its name and an invalid one as
// "Invalid EventPriority=<number>".
template <>
struct fmt::formatter<Velik::Platform::EventPriority> : fmt::formatter<fmt::string_view> {
    fmt::format_context::iterator format(Velik::Platform::EventPriority p,
                                         fmt::format_context& context) const {
        if (!Velik::Platform::isEventPriorityValid(p)) {
            return fmt::format_to(context.out(), "Invalid EventPriority={}",
                                  static_cast<unsigned>(p));
        }
        return fmt::formatter<fmt::string_view>::format(Velik::Platform::eventPriorityToString(p),
                                                        context);
    }
};
