#include <Velik/Assert.h>
#include <Velik/Exception.h>
#include <Velik/Plugin.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace {

using namespace Velik::Platform;

// Captures what "VelikPlugin" writes, through a trace file.
class PluginTrace : public ::testing::Test {
  protected:
    void SetUp() override {
        int fd = mkstemp(path_);
        ASSERT_GE(fd, 0);
        close(fd);
        setenv("TRACEFILE", path_, 1);
        setTraceFormat("%l %m");
        setupVelikDebug("VelikPlugin");
    }
    void TearDown() override {
        clearVelikDebug("VelikPlugin");
        unsetenv("TRACEFILE");
        clearTraceFormat();
        unlink(path_);
    }
    std::string traced() {
        std::ifstream in(path_);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    char path_[32] = "/tmp/velikpluginXXXXXX";
};

TEST_F(PluginTrace, LoadsRegistersAndLoadsOnce) {
    Plugin* p = loadPlugin("VelikTestPlugin");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->pluginName(), "VelikTestPlugin");
    EXPECT_EQ(findPlugin("VelikTestPlugin"), p);
    EXPECT_EQ(loadPlugin("VelikTestPlugin"), p);
    EXPECT_EQ(traced(),
              "2 adding plugin VelikTestPlugin\n"
              "2 Yay!  Plugin VelikTestPlugin loaded\n"
              "3 VelikTestPlugin already loaded\n");
}

TEST_F(PluginTrace, MissingLibraryIsReportedNotThrown) {
    EXPECT_EQ(loadPlugin("VelikNoSuchPlugin"), nullptr);
    std::string t = traced();
    EXPECT_EQ(t.rfind("0 Failed to load plugin VelikNoSuchPlugin: libVelikNoSuchPlugin.so: ", 0),
              0u)
        << t;
    EXPECT_EQ(findPlugin("VelikNoSuchPlugin"), nullptr);
}

TEST(PluginDeathTest, LibraryThatDoesNotRegisterAsserts) {
    EXPECT_DEATH(loadPlugin("VelikSilentPlugin"),
                 "Velik::Assert aborting because: PluginCpp:[0-9]+: Phooey -- plugin "
                 "VelikSilentPlugin failed to register");
}

class NamedPlugin : public Plugin {
  public:
    explicit NamedPlugin(std::string name, bool result = true)
        : name_(std::move(name)), result_(result) {}
    std::string pluginName() const override { return name_; }
    bool pluginRegistered() override {
        ++registeredCalls;
        return result_;
    }
    int registeredCalls = 0;

  private:
    std::string name_;
    bool result_;
};

TEST(PluginRegistry, RegisterReturnsTheHookResultAndRejectsDuplicates) {
    static NamedPlugin first("VelikDup"), second("VelikDup"), quiet("VelikQuiet", false);
    EXPECT_TRUE(registerPlugin(&first));
    EXPECT_EQ(first.registeredCalls, 1);
    EXPECT_FALSE(registerPlugin(&quiet));
    Velik::throwOnAssertFailIs(true);
    try {
        registerPlugin(&second);
        ADD_FAILURE() << "duplicate registration accepted";
    } catch (const Velik::AssertException& e) {
        EXPECT_NE(std::string(e.what()).find("Plugin VelikDup already registered"),
                  std::string::npos);
    }
    Velik::throwOnAssertFailIs(false);
    EXPECT_EQ(findPlugin("VelikDup"), &first);
    EXPECT_EQ(second.registeredCalls, 0);
}

}  // namespace
