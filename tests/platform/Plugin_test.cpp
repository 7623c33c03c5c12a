#include "foundation/ThrowingAsserts.h"
#include "util/Scratch.h"

#include <Velik/Plugin.h>
#include <gmock/gmock.h>

namespace {

using namespace Velik::Platform;

// Loads through the test plug-ins that tests/CMakeLists.txt builds, and
// reads the failure "VelikPlugin" reports.
TEST(Plugin, LoadsOnceAndReportsAMissingLibrary) {
    VelikTest::Scratch traces;
    setupVelikDebug("VelikPlugin");
    Plugin* p = loadPlugin("VelikTestPlugin");
    EXPECT_EQ(loadPlugin("VelikTestPlugin"), p);
    EXPECT_EQ(loadPlugin("VelikNoSuchPlugin"), nullptr);
    clearVelikDebug("VelikPlugin");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->pluginName(), "VelikTestPlugin");
    EXPECT_EQ(findPlugin("VelikTestPlugin"), p);
    EXPECT_EQ(findPlugin("VelikNoSuchPlugin"), nullptr);
    EXPECT_TRUE(
        traces.traced("0 Failed to load plugin VelikNoSuchPlugin: libVelikNoSuchPlugin.so: "
                      "cannot open shared object file: No such file or directory"));
}

TEST(PluginDeathTest, LibraryThatDoesNotRegisterAsserts) {
    EXPECT_DEATH(loadPlugin("VelikSilentPlugin"),
                 "Velik::Assert aborting because: PluginCpp:[0-9]+: Phooey -- plugin "
                 "VelikSilentPlugin failed to register");
}

struct NamedPlugin : Plugin {
    NamedPlugin(std::string name, bool result) : name(std::move(name)), result(result) {}
    std::string pluginName() const override { return name; }
    bool pluginRegistered() override { return ++registeredCalls, result; }
    std::string name;
    bool result;
    int registeredCalls = 0;
};

// Registration returns the plug-in's own answer; a second plug-in of a name
// is refused before it is told anything.
TEST(PluginRegistry, RegisterReturnsTheHookResultAndRejectsDuplicates) {
    static NamedPlugin first("VelikDup", true), second("VelikDup", true),
        quiet("VelikQuiet", false);
    if (findPlugin("VelikDup") == nullptr) {  // once per process
        EXPECT_TRUE(registerPlugin(&first));
        EXPECT_FALSE(registerPlugin(&quiet));
    }
    EXPECT_THAT(VelikTest::assertMessageOf([] { registerPlugin(&second); }),
                testing::HasSubstr("Plugin VelikDup already registered"));
    EXPECT_EQ(findPlugin("VelikDup"), &first);
    EXPECT_EQ(first.registeredCalls, 1);
    EXPECT_EQ(second.registeredCalls, 0);
}

}  // namespace
