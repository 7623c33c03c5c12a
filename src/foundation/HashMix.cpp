#include "Velik/HashMix.h"

namespace Velik::Impl {

template <typename W>
HashMix<W>& HashMix<W>::mix(const void* data, size_t length) noexcept {
    return mixInline(data, length);
}

template class HashMix<uint32_t>;
template class HashMix<uint64_t>;

}  // namespace Velik::Impl
