#include "Kiv/Ptr.h"

namespace Kiv {

namespace Impl {
std::atomic<bool> threadSafePointers{true};
}  // namespace Impl

void threadSafePointersIs(bool threadSafe) {
    Impl::threadSafePointers.store(threadSafe, std::memory_order_relaxed);
}

bool threadSafePointers() {
    return Impl::threadSafePointers.load(std::memory_order_relaxed);
}

}  // namespace Kiv
