// Plug-ins: shared objects that add to the library at run time.
//
// A plug-in called NAME lives in "libNAME.so". Loading it runs its static
// initialisers, which must hand an object to `registerPlugin`; the registry
// keeps the pointer (not owned) under the name the object reports. Plug-ins
// are never unloaded.
//
//   // in the plug-in
//   static MyPlugin plugin;
//   static bool registered = (Velik::Platform::registerPlugin(&plugin), true);
//
//   // in the application
//   auto* p = dynamic_cast<MyInterface*>(Velik::Platform::loadPlugin("MyPlugin"));
//
// Loading and registering take the platform lock (`LocoGuard`), so they may
// be called from any thread, and a plug-in's initialiser may register from
// inside `loadPlugin` on the same thread.
#pragma once

#include <string>

namespace Velik::Platform {

class Plugin {
  public:
    virtual ~Plugin() = default;
    // The name the plug-in is registered under ("libNAME.so" holds NAME).
    virtual std::string pluginName() const = 0;
    // Called once, after the plug-in entered the registry.
    virtual bool pluginRegistered() { return true; }
};

// Loads "lib{name}.so" (RTLD_NOW | RTLD_GLOBAL) unless a plug-in of that name
// is registered already, and returns the registered plug-in. A library that
// cannot be opened is reported at level 0 of "VelikPlugin" and yields null;
// one that opens but does not register is an assertion failure.
Plugin* loadPlugin(const char* name);

// Enters `plugin` into the registry under its name and returns its
// `pluginRegistered()`. A name registered twice is an assertion failure.
bool registerPlugin(Plugin* plugin);

// The registered plug-in called `name`, or null.
Plugin* findPlugin(const std::string& name);

}  // namespace Velik::Platform
