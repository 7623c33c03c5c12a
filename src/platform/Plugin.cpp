#include "Velik/Plugin.h"

#include <Velik/Assert.h>
#include <Velik/Fmtrace.h>
#include <Velik/Loco.h>
#include <dlfcn.h>

#include <map>

namespace Velik::Platform {

namespace {

std::map<std::string, Plugin*>& registry() {
    // Never destroyed: plug-ins stay loaded until the process ends.
    static auto* plugins = new std::map<std::string, Plugin*>();
    return *plugins;
}

DebugHandler* pluginTrace() {
    static std::shared_ptr<DebugHandler> handle = getDebugHandler("VelikPlugin");
    return handle.get();
}

// The facility and the registry exist from load time on.
[[maybe_unused]] const bool registeredAtLoad = (registry(), pluginTrace(), true);

}  // namespace

Plugin* findPlugin(const std::string& name) {
    LocoGuard guard;
    auto it = registry().find(name);
    return it == registry().end() ? nullptr : it->second;
}

Plugin* loadPlugin(const char* name) {
    LocoGuard guard;
    if (Plugin* loaded = findPlugin(name)) {
        VELIK_FTRACE(pluginTrace(), 3, "{} already loaded", name);
        return loaded;
    }
    std::string file = fmt::format("lib{}.so", name);
    if (!dlopen(file.c_str(), RTLD_NOW | RTLD_GLOBAL)) {
        const char* error = dlerror();
        VELIK_FTRACE(pluginTrace(), 0, "Failed to load plugin {}: {}", name,
                     error ? error : "unknown error");
        return nullptr;
    }
    Plugin* plugin = findPlugin(name);
    VELIK_ASSERT(plugin, "Phooey -- plugin {} failed to register", name);
    VELIK_FTRACE(pluginTrace(), 2, "Yay!  Plugin {} loaded", name);
    return plugin;
}

bool registerPlugin(Plugin* plugin) {
    LocoGuard guard;
    std::string name = plugin->pluginName();
    VELIK_ASSERT(!registry().count(name), "Plugin {} already registered", name);
    VELIK_FTRACE(pluginTrace(), 2, "adding plugin {}", name);
    registry().emplace(name, plugin);
    return plugin->pluginRegistered();
}

}  // namespace Velik::Platform
