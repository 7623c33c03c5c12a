// Code addresses as text, for stall backtraces: looked up on the sentinel
// thread, and remembered, since a stuck thread shows the same frames again
// and again.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace Velik::Impl {

class FrameSymbols {
  public:
    // "symbol+0x1f (libfoo.so)" with the symbol demangled, where the dynamic
    // loader knows one; "0x7f12...(libfoo.so+0x1234)" where it knows only
    // the object; the bare address otherwise.
    const std::string& describe(std::uintptr_t address);

  private:
    // Bounded: a process that loads and unloads code could make it grow.
    static constexpr std::size_t capacity = 8192;
    std::unordered_map<std::uintptr_t, std::string> cache_;
};

}  // namespace Velik::Impl
