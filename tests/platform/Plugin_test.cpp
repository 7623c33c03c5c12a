#include "foundation/ThrowingAsserts.h"

#include <Velik/Plugin.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace {

using namespace Velik::Platform;

// Loads through the test plug-ins that tests/CMakeLists.txt builds, and
// reads what "VelikPlugin" writes through a trace file.
TEST(Plugin, LoadsOnceAndReportsAMissingLibrary) {
    char path[] = "/tmp/velikpluginXXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    setenv("TRACEFILE", path, 1);
    setTraceFormat("%l %m");
    setupVelikDebug("VelikPlugin");
    Plugin* p = loadPlugin("VelikTestPlugin");
    Plugin* again = loadPlugin("VelikTestPlugin");
    Plugin* missing = loadPlugin("VelikNoSuchPlugin");
    clearVelikDebug("VelikPlugin");
    unsetenv("TRACEFILE");
    clearTraceFormat();
    std::stringstream traced;
    traced << std::ifstream(path).rdbuf();
    unlink(path);

    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->pluginName(), "VelikTestPlugin");
    EXPECT_EQ(findPlugin("VelikTestPlugin"), p);
    EXPECT_EQ(again, p);
    EXPECT_EQ(missing, nullptr);
    EXPECT_EQ(findPlugin("VelikNoSuchPlugin"), nullptr);
    // A repeated run finds the plug-in loaded from the start.
    const std::string loadedNow =
        "2 adding plugin VelikTestPlugin\n2 Yay!  Plugin VelikTestPlugin loaded\n";
    const std::string loadedBefore = "3 VelikTestPlugin already loaded\n";
    std::string expected = (traced.str().rfind(loadedNow, 0) == 0 ? loadedNow : loadedBefore) +
                           loadedBefore +
                           "0 Failed to load plugin VelikNoSuchPlugin: libVelikNoSuchPlugin.so: ";
    EXPECT_EQ(traced.str().substr(0, expected.size()), expected) << traced.str();
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
    EXPECT_NE(VelikTest::assertMessageOf([] {
                  registerPlugin(&second);
              }).find("Plugin VelikDup already registered"),
              std::string::npos);
    EXPECT_EQ(findPlugin("VelikDup"), &first);
    EXPECT_EQ(first.registeredCalls, 1);
    EXPECT_EQ(second.registeredCalls, 0);
}

}  // namespace
