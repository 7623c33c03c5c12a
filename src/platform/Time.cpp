#include "Velik/Time.h"

#include "Velik/FastForward.h"

#include <Kiv/System.h>

namespace Velik {

// The offset is zero on every thread whose libevent loop never
// fast-forwarded (framework threads among them, whose clock is virtual by
// itself), so it is added without asking `hasThreadLocalSingletons()`, which
// would pin the thread's choice of singletons.
double time() { return Kiv::System::currentTime() + leVirtualTimeOffset(); }

}  // namespace Velik
