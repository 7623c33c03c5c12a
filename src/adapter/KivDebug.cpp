#include "Velik/KivDebug.h"

#include <Kiv/Trace.h>

#include <cstdio>
#include <cstdlib>

namespace KivVelik {

KivDebug::KivDebug(const std::string& name)
    : DebugHandler(name), facility_(Kiv::TraceManager::instance().facility(name)) {
    activeLevelMaskIs(facility_.levelMaskPtr());
}

void KivDebug::enabledIs(unsigned level, bool enabled) {
    if (level >= 32) {
        return;
    }
    uint32_t bit = 1u << level;
    activeLevelMask() = enabled ? (activeLevelMask() | bit) : (activeLevelMask() & ~bit);
}

void KivDebug::dump(Velik::Platform::DebugStream& stream, unsigned level, const char* file,
                    int line, const char* function) const {
    std::string text = stream.str();
    Kiv::TraceManager::instance().write(name(), level, file, line, function, text.data(),
                                        text.size());
}

}  // namespace KivVelik

namespace Velik::Platform {

namespace {

void appendEnv(const char* variable, const char* value, bool append) {
    const char* current = getenv(variable);
    std::string next = (append && current) ? current : "";
    if (append && !next.empty()) {
        next += ',';
    }
    next += value;
    setenv(variable, next.c_str(), 1);
    Kiv::TraceManager::instance().readEnvironment();
}

}  // namespace

std::shared_ptr<DebugHandler> getDebugHandler(const std::string& name) {
    return std::make_shared<KivVelik::KivDebug>(name);
}

void dumpDebugMsg(const char* text, size_t length, unsigned level, DebugHandler* handle,
                  const char* file, const char* function, int line) {
    Kiv::TraceManager::instance().write(handle ? std::string_view(handle->name()) : "Velik", level,
                                        file, line, function, text, length);
}

void setupVelikDebug(const char* spec) {
    if (!spec) {
        return;
    }
    Kiv::TraceManager::instance();
    appendEnv("TRACE", spec, true);
}

void setTraceFormat(const char* format) {
    if (!format) {
        return;
    }
    Kiv::TraceManager::instance();
    appendEnv("TRACEFORMAT", format, false);
}

void clearTraceFormat() {
    appendEnv("TRACEFORMAT", "", false);
}

void dumpVelikDebugMap() {
    for (const std::string& setting : Kiv::TraceManager::instance().settings()) {
        std::printf("%s\n", setting.c_str());
        std::fflush(stdout);
    }
}

}  // namespace Velik::Platform
