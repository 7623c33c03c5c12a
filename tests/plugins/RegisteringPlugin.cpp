// A plug-in that registers itself when loaded, as plug-ins must.
#include <Velik/Plugin.h>

namespace {

class RegisteringPlugin : public Velik::Platform::Plugin {
  public:
    std::string pluginName() const override { return "VelikTestPlugin"; }
};

RegisteringPlugin plugin;
const bool registered = Velik::Platform::registerPlugin(&plugin);

}  // namespace
