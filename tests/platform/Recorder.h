// A handler of every platform notification for the control tests. It logs
// each one ("r<fd>", "w<fd>", "t", "c"), runs `inside`, then throws when
// `throws` is set; every exception hook counts itself and answers `swallow`.
#pragma once

#include <Velik/Platform.h>
#include <Velik/Time.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace VelikTest {

struct Recorder : Velik::Platform::FdEventHandler,
                  Velik::Platform::TimeoutHandler,
                  Velik::Platform::CallbackHandler {
    std::vector<std::string> log;
    std::vector<double> firedAt;  // Velik::time() at each expiry
    std::function<void()> inside;
    bool throws = false;
    bool swallow = false;
    std::vector<int> hookFds;
    int hooks = 0;  // of timers and callbacks

    void readFdEvent(int fd) override { note("r" + std::to_string(fd)); }
    void writeFdEvent(int fd) override { note("w" + std::to_string(fd)); }
    void timeout() override {
        firedAt.push_back(Velik::time());
        note("t");
    }
    void callback() override { note("c"); }
    void note(const std::string& what) {
        log.push_back(what);
        if (inside) {
            inside();
        }
        if (throws) {
            throw std::runtime_error(what);
        }
    }
    bool handleFdException(int fd) override {
        hookFds.push_back(fd);
        return swallow;
    }
    bool handleTimeoutException() override { return ++hooks, swallow; }
    bool handleCallbackException() override { return ++hooks, swallow; }
};

}  // namespace VelikTest
