#include "Velik/Loco.h"

#include <Velik/KivActivityLock.h>

namespace Velik::Platform {

Loco& loco() {
    static KivVelik::ActivityLock lock;
    return lock;
}

}  // namespace Velik::Platform
