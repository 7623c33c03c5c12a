// The framework's trace facility.
//
// Code that traces does so through a named *facility* (for example "Velik" or
// "VelikLibevent"). Each facility has a 32-bit level mask; level N (0..31) is
// enabled when bit N is set. Trace sites test the bit themselves before they
// format anything, so a disabled level costs one load and one test.
//
// The masks are set from the `TRACE` environment variable, which the trace
// manager reads when it is first used and again whenever it is asked to
// (`TraceManager::readEnvironment`). Its syntax is a comma-separated list of
// settings, applied in order, a later one winning over an earlier one:
//
//   Facility            every level of Facility on
//   Facility/0-5,9      levels 0 to 5 and 9 on (digits and ranges after the
//                       slash; a comma followed by a digit continues the list)
//   Velik*              `*` matches any run of characters in a name
//   -Facility[/levels]  the same levels off
//
// A malformed setting is reported once on standard error, naming the
// offending text, and skipped; the others still apply.
//
// Lines are written by `TraceManager::write`, one `write(2)` per line, to
// standard error or, when `TRACEFILE` names a file, appended to that file.
// `TRACEFORMAT` shapes the line with these conversions:
//
//   %t  wall-clock time stamp, "YYYY-MM-DD HH:MM:SS.uuuuuu"
//   %f  facility name        %l  level
//   %F  source file name     %L  source line
//   %n  function name        %m  the message text
//   %%  a percent sign
//
// An empty or unset `TRACEFORMAT` means the default, "%t %f/%l %F:%L %n: %m".
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace Kiv {

// One named trace facility. Facilities live until process exit, so pointers
// to them and to their masks stay valid.
class TraceFacility {
  public:
    explicit TraceFacility(std::string name) : name_(std::move(name)) {}
    TraceFacility(const TraceFacility&) = delete;
    TraceFacility& operator=(const TraceFacility&) = delete;

    const std::string& name() const { return name_; }
    uint32_t levelMask() const { return levelMask_; }
    // The mask's address, for handlers that test bits without a call.
    uint32_t* levelMaskPtr() { return &levelMask_; }
    bool enabled(unsigned level) const { return level < 32 && (levelMask_ >> level) & 1u; }

  private:
    friend class TraceManager;
    std::string name_;
    uint32_t levelMask_ = 0;  // read without a lock: a stale read only delays a change
};

// One parsed `TRACE` setting: a name pattern, the levels it covers and
// whether it switches them on or off.
struct TraceSetting {
    std::string pattern;
    uint32_t levels = 0;
    bool on = true;

    // The setting in `TRACE` syntax, for listings ("-Velik/0-3,7").
    std::string toString() const;
};

// Parses a `TRACE` value. Malformed settings are skipped and their texts
// appended to `errors` (when given).
std::vector<TraceSetting> parseTraceSettings(std::string_view spec,
                                             std::vector<std::string>* errors = nullptr);

// Whether `name` matches `pattern`, where `*` matches any run of characters.
bool traceNameMatches(std::string_view pattern, std::string_view name);

// Expands a `TRACEFORMAT` value into one trace line (without the line end).
void formatTraceLine(std::string& out, std::string_view format, std::string_view facility,
                     unsigned level, std::string_view file, int line, std::string_view function,
                     std::string_view text);

// The process's trace manager: facilities, settings and the writer.
class TraceManager {
  public:
    // The manager, made (and the environment read) on first use.
    static TraceManager& instance();

    // The facility called `name`, registered on first use with the levels
    // the current settings give it.
    TraceFacility& facility(std::string_view name);

    // Reads `TRACE`, `TRACEFORMAT` and `TRACEFILE` again and recomputes every
    // facility's mask.
    void readEnvironment();

    // The current settings in the order they apply, in `TRACE` syntax.
    std::vector<std::string> settings() const;

    // Writes one trace line. Safe from any thread; never throws.
    void write(std::string_view facility, unsigned level, const char* file, int line,
               const char* function, const char* text, size_t length) noexcept;

  private:
    TraceManager();
    uint32_t levelsFor(std::string_view name) const;
    void reportMalformed(const std::vector<std::string>& errors);
    void openOutput(const char* path);

    // Where lines go: standard error, or an opened `TRACEFILE`, closed when
    // the last writer using it lets go.
    struct Output {
        std::string path;  // empty for standard error
        int fd = 2;
        ~Output();
    };

    mutable std::mutex mutex_;
    std::vector<std::unique_ptr<TraceFacility>> facilities_;
    std::vector<TraceSetting> settings_;
    std::unordered_set<std::string> reported_;
    std::shared_ptr<const std::string> format_;
    std::shared_ptr<const Output> output_;
};

// The default line shape when `TRACEFORMAT` is empty or unset.
inline constexpr std::string_view defaultTraceFormat = "%t %f/%l %F:%L %n: %m";

}  // namespace Kiv
