#include "Attention.h"

namespace VelikTop {

Attention attentionOf(const TableLine& line, const std::set<std::string>& stalledTasks) {
    if (stalledTasks.count(line.row->name)) {
        return Attention::stalled;
    }
    if (line.stale) {
        return Attention::stale;
    }
    if (line.rates.violationsGained > 0) {
        return Attention::violations;
    }
    if (line.row->lastLatency > attentionLatency) {
        return Attention::latency;
    }
    return Attention::none;
}

bool colourWanted(bool noColourOption, const char* noColorEnvironment, bool terminalHasColours) {
    const bool refused = noColorEnvironment && *noColorEnvironment;
    return !noColourOption && !refused && terminalHasColours;
}

}  // namespace VelikTop
