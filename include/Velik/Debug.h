// Named trace handles and the controls that switch trace facilities on and off.
//
// All diagnostic text of the library goes to a `Platform::DebugHandler`: a
// handle on one trace facility ("Velik", "VelikLibevent", ...) with a 32-bit
// level mask. Trace sites test the level bit before formatting anything (see
// `VELIK_TRACE` in Velik/Fmtrace.h), so disabled tracing costs a load and a
// test. Facilities are switched at run time with the `TRACE` syntax:
//
//   Velik::Platform::setupVelikDebug("Velik/0-5,VelikLibevent");
//   Velik::Platform::clearVelikDebug("VelikLibevent");
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

namespace Velik {
namespace Platform {

// A message under construction: the usual stream insertions, handed to
// `DebugHandler::dump` or to `debugAndThrowAssertException`.
class DebugStream : public std::stringstream {};

// A handle on one trace facility. Always owned by a shared pointer, so that
// `Debuggable` can take further shared pointers from a plain reference.
class DebugHandler : public std::enable_shared_from_this<DebugHandler> {
  public:
    explicit DebugHandler(std::string name) : name_(std::move(name)) {}
    DebugHandler(const DebugHandler&) = delete;
    DebugHandler& operator=(const DebugHandler&) = delete;
    virtual ~DebugHandler() = default;

    // Switches one level (0..31) of the facility on or off.
    virtual void enabledIs(unsigned level, bool enabled) = 0;

    // Writes the stream's text as one trace line at `level`, with its source
    // location.
    virtual void dump(DebugStream& stream, unsigned level, const char* file, int line,
                      const char* function) const = 0;

    // Whether bit `level` of the active mask is set. Every trace site asks
    // this before it formats.
    bool enabled(unsigned level) const { return level < 32 && ((*activeLevelMask_ >> level) & 1u); }

    const std::string& name() const { return name_; }
    uint32_t levelMask() const { return *activeLevelMask_; }

  protected:
    // Points the handler at the facility's own mask; null falls back to the
    // handler's local mask.
    void activeLevelMaskIs(uint32_t* mask) { activeLevelMask_ = mask ? mask : &localLevelMask_; }
    uint32_t& activeLevelMask() { return *activeLevelMask_; }

  private:
    uint32_t localLevelMask_ = 0;
    uint32_t* activeLevelMask_ = &localLevelMask_;
    std::string name_;
};

// A new handler for trace facility `name`, backed by the framework's trace
// facility of that name.
std::shared_ptr<DebugHandler> getDebugHandler(const std::string& name);

// Writes one finished message through the framework's trace writer, which adds
// time stamp, facility and location as `TRACEFORMAT` says.
void dumpDebugMsg(const char* text, size_t length, unsigned level, DebugHandler* handle,
                  const char* file, const char* function, int line);

// Appends `spec` (in `TRACE` syntax) to `TRACE` and re-reads the environment,
// so the named facilities switch on. A null spec does nothing.
void setupVelikDebug(const char* spec);

// Switches the facilities of `spec` off: "A,B" is appended as "-A,-B".
// A null spec does nothing.
void clearVelikDebug(const char* spec);

// The negation `clearVelikDebug` appends: "-" before the first character and
// after every ",". An empty spec yields "-".
std::string negateTraceSpec(const char* spec);

// Sets `TRACEFORMAT` (overwriting) and re-reads the environment. A null
// format does nothing.
void setTraceFormat(const char* format);

// Sets `TRACEFORMAT` to the empty string (the default line shape).
void clearTraceFormat();

// Prints every current trace setting to standard output, one per line.
void dumpVelikDebugMap();

}  // namespace Platform

// The handler of trace facility "Velik", through which every assertion
// message is written. Set during the library's static initialisation and
// valid until process exit.
extern Platform::DebugHandler* VELIK_DEFAULT_HANDLE;

// Base for objects that trace: holds a shared pointer to their handler.
class Debuggable {
  public:
    Debuggable() = default;
    explicit Debuggable(std::shared_ptr<Platform::DebugHandler> handler)
        : debugHandler_(std::move(handler)) {}
    // Shares ownership of `handler`; throws std::bad_weak_ptr when it is not
    // owned by a shared pointer.
    explicit Debuggable(Platform::DebugHandler& handler)
        : debugHandler_(handler.shared_from_this()) {}
    // The handler of trace facility `facility`.
    explicit Debuggable(const std::string& facility);
    explicit Debuggable(const char* facility) : Debuggable(std::string(facility)) {}
    Debuggable(const Debuggable&) = default;
    Debuggable& operator=(const Debuggable&) = default;

    const std::shared_ptr<Platform::DebugHandler>& debugHandler() const { return debugHandler_; }

  protected:
    std::shared_ptr<Platform::DebugHandler> debugHandler_;
};

}  // namespace Velik
