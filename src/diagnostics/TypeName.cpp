#include "Velik/TypeName.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

#include "Velik/Assert.h"

namespace Velik {

namespace {

struct FreeDeleter {
    void operator()(char* text) const noexcept { std::free(text); }
};

// The demangler's status for a successful demangling.
constexpr int demangleSuccess = 0;

// The line the demangling assertion reports, fixed so that its message stays
// the same whatever edits move the code.
constexpr int demangleAssertLine = 27;

}  // namespace

std::string typeName(const char* mangledName) noexcept {
    if (mangledName == nullptr) {
        return {};
    }
    int status = demangleSuccess;
    std::unique_ptr<char, FreeDeleter> demangled(
        abi::__cxa_demangle(mangledName, nullptr, nullptr, &status));
    if (status != demangleSuccess) {
        return mangledName;
    }
    if (!demangled) {
        // Escapes as AssertException into noexcept and terminates; kept that way.
        Impl::assertFailed(VELIK_SOURCE_NAME, demangleAssertLine, false, __func__, nullptr,
                           "unable to demangle type {} status:{}", mangledName, status);
    }
    return demangled.get();
}

std::string dumpHex(const void* data, int length) {
    if (length <= 0) {
        return {};
    }
    static constexpr char digits[] = "0123456789abcdef";
    constexpr int groupBytes = 4;
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::string text;
    text.reserve(size_t(length) * 2 + size_t(length - 1) / groupBytes);
    for (int i = 0; i < length; ++i) {
        text.push_back(digits[bytes[i] >> 4]);
        text.push_back(digits[bytes[i] & 0xf]);
        if ((i + 1) % groupBytes == 0 && i + 1 < length) {
            text.push_back(' ');
        }
    }
    return text;
}

}  // namespace Velik
