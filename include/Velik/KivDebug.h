// The trace handler backed by the framework's trace facility.
//
// Its level mask *is* the framework facility's mask, so `TRACE` settings and
// `enabledIs` calls act on every handler of that facility at once.
#pragma once

#include <Velik/Debug.h>

namespace Kiv {
class TraceFacility;
}

namespace KivVelik {

class KivDebug : public Velik::Platform::DebugHandler {
  public:
    // Registers (or finds) the framework facility `name`.
    explicit KivDebug(const std::string& name);

    void enabledIs(unsigned level, bool enabled) override;
    void dump(Velik::Platform::DebugStream& stream, unsigned level, const char* file, int line,
              const char* function) const override;

  private:
    Kiv::TraceFacility& facility_;
};

}  // namespace KivVelik
