// Built against the installed package only: proves the headers stand alone
// and the libraries link and run.
#include <Velik/Velik.h>

#include <cstdio>

int main() {
    Velik::Debuggable d("Consumer");
    Velik::Platform::setupVelikDebug("Consumer/5");
    if (!d.debugHandler()->enabled(5) || d.debugHandler()->enabled(6)) {
        std::puts("consumer: trace levels wrong");
        return 1;
    }
    std::puts("consumer: ok");
    return 0;
}
