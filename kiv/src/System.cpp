#include "Kiv/System.h"

#include "Kiv/ActivityManager.h"

namespace Kiv::System {

double currentTime() {
    return activityManager()->clock()->now();
}

void doRun() {
    activityManager()->mainLoop()->run();
}

}  // namespace Kiv::System
