// Exporting counters through an optional counters plug-in.
//
// A daemon that links a counters plug-in ("libThrobCountersPlugin.so") gets
// its 64-bit counters exported by it; one without the plug-in pays nothing:
//
//   static uint64_t tasksRun = 0;
//   Velik::Counters counters("scheduler");   // a group, if the plug-in exists
//   counters.counter("tasksRun", &tasksRun); // registered for export
//   ++tasksRun;                              // updated directly
//
// The caller keeps each counter variable alive for as long as it is exported.
#pragma once

#include <Velik/Plugin.h>

#include <cstdint>

namespace Velik {

// The interface a counters plug-in implements, in this order of operations.
class CountersPlugin : public Platform::Plugin {
  public:
    // Reserved for the plug-in's own use; the library does not call it.
    virtual void countersFlush() = 0;
    // Starts a group of counters called `name`.
    virtual void group(const char* name) = 0;
    // Registers the counter variable at `value` under `name` for export.
    virtual void counter(const char* name, uint64_t* value) = 0;
};

// The name the counters plug-in is loaded and registered under.
inline constexpr const char* countersPluginName = "ThrobCountersPlugin";

class Counters {
  public:
    // Loads the counters plug-in (once per process) and, when there is one
    // and `name` is not null, starts the group `name`.
    explicit Counters(const char* name);

    // Registers `value` under `name` with the plug-in; without one, nothing.
    void counter(const char* name, uint64_t* value);

    // The plug-in in use, or null.
    CountersPlugin* plugin() const { return plugin_; }

  private:
    CountersPlugin* plugin_;
};

}  // namespace Velik
