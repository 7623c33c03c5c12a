// What the fuzz targets share: a check that stops the run on a broken
// property (libFuzzer then keeps the input as a crash artifact).
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace VelikFuzz {

inline void check(bool holds, const char* property) {
    if (!holds) {
        std::fprintf(stderr, "fuzz property broken: %s\n", property);
        std::abort();
    }
}

inline std::string_view asText(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

}  // namespace VelikFuzz
