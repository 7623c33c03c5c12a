#include "Kiv/ActivityManager.h"

#include <cmath>

namespace Kiv {

void ActivityManagerConfig::executionTimeIs(double seconds) noexcept {
    if (std::isnan(seconds)) {
        seconds = std::numeric_limits<double>::infinity();
    }
    executionTime_.store(seconds, std::memory_order_relaxed);
}

ActivityManager::ActivityManager() : config_(&clock_), mainLoop_(clock_, config_) {}

ActivityManager* activityManager() {
    // Never destroyed: objects with static lifetime may still use the clock
    // and the loop while the process exits.
    static ActivityManager* const manager = new ActivityManager;
    return manager;
}

}  // namespace Kiv
