#include "sentinel/FrameSymbols.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <fmt/format.h>

#include <cstdlib>
#include <memory>
#include <string_view>

namespace Velik::Impl {

namespace {

std::string demangled(const char* symbol) {
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(symbol, nullptr, nullptr, &status), &std::free);
    return status == 0 && name ? std::string(name.get()) : std::string(symbol);
}

std::string_view baseName(const char* path) {
    std::string_view text(path ? path : "");
    const auto slash = text.rfind('/');
    return slash == std::string_view::npos ? text : text.substr(slash + 1);
}

std::string lookUp(std::uintptr_t address) {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(address), &info) == 0) {
        return fmt::format("{:#x}", address);
    }
    if (info.dli_sname && info.dli_saddr) {
        return fmt::format("{}+{:#x} ({})", demangled(info.dli_sname),
                           address - reinterpret_cast<std::uintptr_t>(info.dli_saddr),
                           baseName(info.dli_fname));
    }
    return fmt::format("{:#x}({}+{:#x})", address, baseName(info.dli_fname),
                       address - reinterpret_cast<std::uintptr_t>(info.dli_fbase));
}

}  // namespace

const std::string& FrameSymbols::describe(std::uintptr_t address) {
    auto found = cache_.find(address);
    if (found != cache_.end()) {
        return found->second;
    }
    if (cache_.size() >= capacity) {
        cache_.clear();
    }
    return cache_.emplace(address, lookUp(address)).first->second;
}

}  // namespace Velik::Impl
