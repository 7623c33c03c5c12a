#include "Velik/Counters.h"

namespace Velik {

Counters::Counters(const char* name)
    : plugin_(dynamic_cast<CountersPlugin*>(Platform::loadPlugin(countersPluginName))) {
    if (plugin_ && name) {
        plugin_->group(name);
    }
}

void Counters::counter(const char* name, uint64_t* value) {
    if (plugin_) {
        plugin_->counter(name, value);
    }
}

}  // namespace Velik
