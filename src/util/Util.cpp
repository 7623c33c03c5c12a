#include "Velik/Util.h"

#include "Velik/Debug.h"
#include "Velik/Fmtrace.h"
#include "Velik/HashMix.h"

#include <sys/stat.h>

#include <cerrno>
#include <memory>

namespace Velik::Util {

namespace {

using Hash32 = Impl::HashMix<uint32_t>;
using Hash64 = Impl::HashMix<uint64_t>;

constexpr char nameCodeAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=";
static_assert(sizeof(nameCodeAlphabet) == 64 + 1);

constexpr size_t nameCodeLength = 6;

Platform::DebugHandler* utilTrace() {
    static const std::shared_ptr<Platform::DebugHandler> handle =
        Platform::getDebugHandler("VelikUtil");
    return handle.get();
}

// Sets the umask to 0 so modes apply exactly, and puts the old one back
// however the scope is left.
class ZeroUmask {
  public:
    ZeroUmask() : previous_(::umask(0)) {}
    ~ZeroUmask() { ::umask(previous_); }
    ZeroUmask(const ZeroUmask&) = delete;
    ZeroUmask& operator=(const ZeroUmask&) = delete;

  private:
    mode_t previous_;
};

// mkpath without the umask handling, which the outermost call does once.
int makePath(const std::string& path, unsigned int mode) {
    VELIK_FTRACE(utilTrace(), 9, "creating path: {} mode: {:o}", path, mode);
    if (::mkdir(path.c_str(), mode) == 0 || errno == EEXIST) {
        return 0;
    }
    if (errno != ENOENT) {
        return -1;
    }
    const size_t lastSlash = path.rfind('/');
    if (lastSlash == std::string::npos) {
        // No parent to make: recursing would only retry this same path.
        return -1;
    }
    if (makePath(path.substr(0, lastSlash), mode) != 0) {
        return -1;
    }
    if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST) {
        return -1;
    }
    ::chmod(path.c_str(), mode);
    return 0;
}

}  // namespace

int mkpath(const std::string& path, unsigned int mode) {
    ZeroUmask zeroUmask;
    return makePath(path, mode);
}

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
