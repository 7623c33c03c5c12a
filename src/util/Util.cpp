#include "Velik/Util.h"

#include "Velik/HashMix.h"

namespace Velik::Util {

namespace {

using Hash32 = Impl::HashMix<uint32_t>;
using Hash64 = Impl::HashMix<uint64_t>;

constexpr char nameCodeAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=";
static_assert(sizeof(nameCodeAlphabet) == 64 + 1);

constexpr size_t nameCodeLength = 6;

}  // namespace

uint32_t hash(const void* data, size_t length) noexcept {
    return Hash32(Hash32::offsetBasis).mixInline(data, length).value();
}

uint32_t hash(const std::string& text) noexcept {
    return hash(text.data(), text.size());
}

uint64_t hash64(const void* data, size_t length) noexcept {
    return Hash64(Hash64::offsetBasis).mixInline(data, length).value();
}

uint64_t hash64(const std::string& text) noexcept {
    return hash64(text.data(), text.size());
}

std::string base64Encode(uint32_t value) {
    char code[nameCodeLength];
    for (char& c : code) {
        c = nameCodeAlphabet[value & 63];
        value >>= 6;
    }
    return std::string(code, nameCodeLength);
}

std::string traceHandleName(std::string path, const std::string& name, bool temporary) {
    // find_last_not_of gives npos for "" and "///", so npos + 1 == 0 empties them.
    path.erase(path.find_last_not_of('/') + 1);
    const size_t lastSlash = path.rfind('/');
    const std::string baseName = lastSlash == std::string::npos ? path : path.substr(lastSlash + 1);
    return name + (temporary ? "Temp-" : "-") + base64Encode(hash(path)) + "-" + baseName;
}

}  // namespace Velik::Util
