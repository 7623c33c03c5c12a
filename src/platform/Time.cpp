#include "Velik/Time.h"

#include <chrono>

namespace Velik {

double time() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace Velik
