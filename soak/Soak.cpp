// A long run of many tasks, timer tasks and descriptor tasks, churned at
// random on two threads: the main thread on the framework platform and a
// second thread on libevent (thread-local singletons), each with its own
// root. Fast-forward is switched on and off as it goes. Resident memory is
// printed at the start, after warm-up and at the end; built with
// LeakSanitizer, any leak is reported and fails the run.
//
//   velik_soak [seconds]        (default: SOAK_SECONDS, else 60)
#include <Velik/FastForward.h>
#include <Velik/LibeventFactory.h>
#include <Velik/PlatformSelection.h>
#include <Velik/Random.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/Thread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "SoakLoad.h"

extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace {

using Clock = std::chrono::steady_clock;

// Across both threads, as the soak's brief: 10 thousand tasks, 100 thousand
// timer tasks, a thousand descriptor tasks.
constexpr VelikSoak::Counts total{10'000, 100'000, 1'000};
constexpr double loopSlice = 0.05;  // platform seconds per doEventLoop call

double residentMiB() {
    long pages = 0, resident = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "re")) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) {
            resident = 0;
        }
        std::fclose(statm);
    }
    return double(resident) * double(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

void printResident(const char* when) {
    std::printf("soak: resident %-14s %8.1f MiB\n", when, residentMiB());
    std::fflush(stdout);
}

// Each socket pair takes two descriptors; the soft limit is raised as far as
// the hard one allows, and the number of descriptor tasks is cut to fit.
size_t descriptorTasksThatFit(size_t wanted) {
    constexpr rlim_t spare = 256;  // event bases, standard streams, the loader
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t needed = 2 * wanted + spare;
    if (limit.rlim_cur < needed) {
        limit.rlim_cur = std::min(needed, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    const size_t fit = limit.rlim_cur > spare ? (limit.rlim_cur - spare) / 2 : 0;
    if (fit < wanted) {
        std::printf("soak: descriptor limit %lu allows only %zu descriptor tasks\n",
                    static_cast<unsigned long>(limit.rlim_cur), fit);
    }
    return std::min(fit, wanted);
}

double soakSeconds(int argc, char** argv) {
    const char* text = argc > 1 ? argv[1] : std::getenv("SOAK_SECONDS");
    const double seconds = text ? std::atof(text) : 60.0;
    return seconds > 0 ? seconds : 60.0;
}

// libevent's fast-forward switch is process-wide and unlocked, and a loop
// that is fast-forwarding asserts that it stays on: the main thread switches
// it only while the libevent thread is between two slices.
struct SwitchGate {
    std::mutex slice;
    std::atomic<bool> switching{false};

    void switchLeFastForward(bool on) {
        switching = true;
        {
            std::lock_guard lock(slice);
            Velik::setLeFastForward(on);
        }
        switching = false;
    }
};

// The libevent thread: its own root and load, run in slices until told to stop.
void libeventThread(VelikSoak::Counts counts, uint64_t seed, const std::atomic<bool>& stop,
                    SwitchGate& gate, VelikSoak::Totals& totals) {
    Velik::useThreadLocalSingletons();
    {
        VelikSoak::Load load(Velik::schedulerRootVelik(), counts, seed);
        while (!stop.load(std::memory_order_relaxed)) {
            {
                std::lock_guard lock(gate.slice);
                Velik::Platform::doEventLoop(loopSlice);
            }
            while (gate.switching) {
                std::this_thread::yield();
            }
        }
        totals = load.totals();
    }
}

}  // namespace

int main(int argc, char** argv) {
    const double seconds = soakSeconds(argc, argv);
    Velik::Random::setSeed();
    const uint64_t seed = Velik::Random::getSeed();
    const VelikSoak::Counts perThread{total.tasks / 2, total.timers / 2,
                                      descriptorTasksThatFit(total.descriptors) / 2};
    std::printf("soak: %.0f s, per thread %zu tasks, %zu timer tasks, %zu descriptor tasks\n",
                seconds, perThread.tasks, perThread.timers, perThread.descriptors);
    printResident("at start");

    const auto start = Clock::now();
    const auto warmedUp = start + std::chrono::duration<double>(seconds / 4);
    const auto end = start + std::chrono::duration<double>(seconds);
    std::atomic<bool> stop{false};
    SwitchGate gate;
    VelikSoak::Totals mainTotals, otherTotals;
    std::thread other(libeventThread, perThread, seed + 1, std::cref(stop), std::ref(gate),
                      std::ref(otherTotals));
    {
        VelikSoak::Load load(Velik::schedulerRootVelik(), perThread, seed);
        std::mt19937_64 random(seed);
        bool warmupPrinted = false;
        auto nextSwitch = start;
        while (Clock::now() < end) {
            if (Clock::now() >= nextSwitch) {
                // Fast-forward for about a third of the time, in spells of a second or so.
                const bool on = random() % 3 == 0;
                Velik::Platform::setFastForward(on);
                gate.switchLeFastForward(on);
                nextSwitch = Clock::now() + std::chrono::milliseconds(500 + random() % 1000);
            }
            Velik::Platform::doEventLoop(loopSlice);
            if (!warmupPrinted && Clock::now() >= warmedUp) {
                printResident("after warm-up");
                warmupPrinted = true;
            }
        }
        // Measured while both loads still stand, as after warm-up.
        printResident("at end");
        Velik::Platform::setFastForward(false);
        gate.switchLeFastForward(false);
        stop = true;
        other.join();
        mainTotals = load.totals();
    }
    std::printf("soak: framework thread %s\nsoak: libevent thread  %s\n",
                mainTotals.toString().c_str(), otherTotals.toString().c_str());

    if (__lsan_do_recoverable_leak_check) {
        const bool leaks = __lsan_do_recoverable_leak_check() != 0;
        std::printf("soak: LeakSanitizer %s\n", leaks ? "found leaks (above)" : "found no leaks");
        return leaks ? 1 : 0;
    }
    std::printf("soak: not built with LeakSanitizer, no leak check\n");
    return 0;
}
