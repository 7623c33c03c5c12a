// A counters plug-in that records what it was asked to export, so tests can
// read it back through `velikTestCountersLog`.
#include <Velik/Counters.h>

#include <string>

namespace {

class TestCountersPlugin : public Velik::CountersPlugin {
  public:
    std::string pluginName() const override { return Velik::countersPluginName; }
    void countersFlush() override { log += "flush;"; }
    void group(const char* name) override { log += std::string("group:") + name + ";"; }
    void counter(const char* name, uint64_t* value) override {
        *value += 1000;  // proves the plug-in got the caller's variable
        log += std::string("counter:") + name + ";";
    }
    std::string log;
};

TestCountersPlugin plugin;
const bool registered = Velik::Platform::registerPlugin(&plugin);

}  // namespace

extern "C" const char* velikTestCountersLog() {
    return plugin.log.c_str();
}
