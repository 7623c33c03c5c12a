#include "Velik/Time.h"

#include "Velik/FastForward.h"

#include <chrono>

namespace Velik {

// The offset is zero on every thread whose libevent loop never
// fast-forwarded (framework threads among them), so it is added without
// asking `hasThreadLocalSingletons()`, which would pin the thread's choice.
double time() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count() + leVirtualTimeOffset();
}

}  // namespace Velik
