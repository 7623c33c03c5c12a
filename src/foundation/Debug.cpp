#include "Velik/Debug.h"

namespace Velik {

namespace {

// The library's trace facilities, registered when the library loads so that
// `TRACE` settings and listings know them before any of them traces.
const char* const libraryFacilities[] = {"Velik", "VelikLibevent", "VelikPlugin", "VelikUtil",
                                         "KivVelik"};

struct DefaultHandle {
    std::shared_ptr<Platform::DebugHandler> handle;
    DefaultHandle() {
        for (const char* name : libraryFacilities) {
            auto h = Platform::getDebugHandler(name);
            if (!handle) {
                handle = std::move(h);
            }
        }
        VELIK_DEFAULT_HANDLE = handle.get();
    }
};

}  // namespace

Platform::DebugHandler* VELIK_DEFAULT_HANDLE = nullptr;

// Kept alive for the life of the process (released at exit).
static DefaultHandle defaultHandle;

Debuggable::Debuggable(const std::string& facility)
    : debugHandler_(Platform::getDebugHandler(facility)) {}

namespace Platform {

std::string negateTraceSpec(const char* spec) {
    std::string out = "-";
    for (const char* p = spec; *p; ++p) {
        out += *p;
        if (*p == ',') {
            out += '-';
        }
    }
    return out;
}

void clearVelikDebug(const char* spec) {
    if (!spec) {
        return;
    }
    setupVelikDebug(negateTraceSpec(spec).c_str());
}

}  // namespace Platform
}  // namespace Velik
