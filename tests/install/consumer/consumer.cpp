// Built against the installed package only: proves the headers stand alone
// and the libraries link and run a task through the event loop.
#include <Velik/Velik.h>

#include <cstdio>

namespace {

class Compactor : public Velik::Task {
  public:
    explicit Compactor(Velik::TaskScheduler* s) : Task(s, Velik::TaskPriority::low, "compactor") {}

    void taskExecute() override {
        while (--left_ > 0) {
            taskWorkCountInc(1);
            if (taskShouldYield()) {
                scheduleTask();
                return;
            }
        }
    }
    int left_ = 100000;
};

}  // namespace

int main() {
    Velik::Debuggable d("Consumer");
    Velik::Platform::setupVelikDebug("Consumer/5");
    if (!d.debugHandler()->enabled(5) || d.debugHandler()->enabled(6)) {
        std::puts("consumer: trace levels wrong");
        return 1;
    }
    auto root = Velik::schedulerRootVelik();
    auto compactor = std::make_shared<Compactor>(root.get());
    compactor->scheduleTask();
    Velik::Platform::doEventLoop();
    if (compactor->left_ != 0 || compactor->taskRunCount() == 0) {
        std::puts("consumer: task did not finish");
        return 1;
    }
    std::printf("consumer: ok, %u runs\n", compactor->taskRunCount());
    return 0;
}
