// A small daemon-style walk through the library: switch tracing on, trace at
// several levels, switch it off again.
#include <Velik/Velik.h>

namespace {

class Worker : public Velik::Debuggable {
  public:
    static constexpr const char* traceClassName = "Worker";
    Worker() : Debuggable("VelikDemo") {}

    void step(int n) {
        VELIK_TRACE(debugHandler(), 5, "step {} of the routine work", n);
        VELIK_TRACE(debugHandler(), 8, "step {} detail: {} items", n, n * 3);
    }
};

}  // namespace

int main() {
    using namespace Velik::Platform;
    setTraceFormat("%f/%l %F:%L %m");
    setupVelikDebug("VelikDemo/0-5");
    std::fputs(
        "-- tracing VelikDemo at levels 0-5:"
        "\n",
        stderr);
    Worker worker;
    for (int i = 1; i <= 2; ++i) {
        worker.step(i);
    }
    setupVelikDebug("VelikDemo/8");
    std::fputs(
        "-- and level 8 too:"
        "\n",
        stderr);
    worker.step(3);
    std::fputs(
        "-- current settings:"
        "\n",
        stderr);
    dumpVelikDebugMap();
    clearVelikDebug("VelikDemo");
    std::fputs(
        "-- switched off; nothing more is traced."
        "\n",
        stderr);
    worker.step(4);
    return 0;
}
