// A fresh directory under /tmp for one test, and what trace facility
// "UtilTest" writes meanwhile, as "<level> <message>" lines in a file beside
// it (forked children write there too). Both are removed with the object.
#pragma once

#include <Velik/Debug.h>

#include <filesystem>
#include <fstream>

namespace VelikTest {

struct Scratch {
    Scratch() {
        char name[] = "/tmp/velikutilXXXXXX";
        path = mkdtemp(name);
        setenv("TRACEFILE", (path + ".trace").c_str(), 1);
        Velik::Platform::setTraceFormat("%l %m");
        Velik::Platform::setupVelikDebug("UtilTest");
    }
    ~Scratch() {
        Velik::Platform::clearVelikDebug("UtilTest");
        unsetenv("TRACEFILE");
        Velik::Platform::clearTraceFormat();
        std::filesystem::remove_all(path);
        std::filesystem::remove(path + ".trace");
    }
    std::string operator/(const std::string& name) const { return path + "/" + name; }

    // Whether `line` (without its line end) was traced.
    bool traced(const std::string& line) const {
        std::stringstream text;
        text << "\n" << std::ifstream(path + ".trace").rdbuf();
        return text.str().find("\n" + line + "\n") != std::string::npos;
    }

    std::shared_ptr<Velik::Platform::DebugHandler> handler =
        Velik::Platform::getDebugHandler("UtilTest");
    std::string path;
};

}  // namespace VelikTest
