#include "Velik/Platform.h"

#include "Velik/Time.h"
#include "Velik/TypeName.h"

#include <cmath>
#include <map>
#include <mutex>

namespace Velik::Platform {

namespace {

bool refCounting = true;

// The introspection map: type key to formatting routine.
struct ValueFormatters {
    std::mutex mutex;
    std::map<std::string, ValueFormatter, std::less<>> byKey;
};

ValueFormatters& valueFormatters() {
    static ValueFormatters formatters;
    return formatters;
}

}  // namespace

void TimerControl::setTimeoutAt(double expiry) {
    setTimeout(std::isnan(expiry) ? 0.0 : expiry - Velik::time());
}

bool refCountingEnabled() {
    return refCounting;
}

void refCountingEnabledIs(bool enabled) {
    refCounting = enabled;
}

void registerValueFormatter(const std::string& typeKey, ValueFormatter formatter) {
    ValueFormatters& formatters = valueFormatters();
    std::lock_guard guard(formatters.mutex);
    formatters.byKey[typeKey] = formatter;
}

ValueFormatter valueFormatter(const std::string& typeKey) {
    ValueFormatters& formatters = valueFormatters();
    std::lock_guard guard(formatters.mutex);
    auto it = formatters.byKey.find(typeKey);
    return it == formatters.byKey.end() ? nullptr : it->second;
}

std::string ValuePrinter::customToString(const void* value) const {
    ValueFormatter formatter = valueFormatter(typeKey_);
    return formatter ? formatter(value) : std::string();
}

std::string ValuePrinter::toString(const void* value) const {
    std::string text = customToString(value);
    if (text.empty()) {
        return dumpHex(value, static_cast<int>(size_));
    }
    return text;
}

}  // namespace Velik::Platform
