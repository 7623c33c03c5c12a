// Scheduling, picking, running and recording history allocate nothing once
// the tasks exist: counted by replacing the global allocation functions of
// this test program.
#include "scheduler/SchedulerFixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> counting{false};
std::atomic<long> allocations{0};
std::atomic<long> allocatedBytes{0};

void* countedAllocation(std::size_t size) {
    if (counting.load(std::memory_order_relaxed)) {
        allocations.fetch_add(1, std::memory_order_relaxed);
        allocatedBytes.fetch_add(static_cast<long>(size), std::memory_order_relaxed);
    }
    if (void* p = std::malloc(size ? size : 1)) {
        return p;
    }
    throw std::bad_alloc();
}

}  // namespace

// Every form: the library uses the nothrow ones too, and under a sanitizer a
// form left out would pair the sanitizer's allocation with this free.
void* operator new(std::size_t size) {
    return countedAllocation(size);
}
void* operator new[](std::size_t size) {
    return countedAllocation(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return countedAllocation(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

using Velik::TaskPriority;
using VelikTest::ProbeTask;

class NoAllocationTest : public VelikTest::SchedulerTest {};

TEST_F(NoAllocationTest, SchedulingPickingRunningAndHistoryAllocateNothing) {
    std::vector<std::shared_ptr<ProbeTask>> tasks;
    int executed = 0;
    for (int p = 0; p < 5; ++p) {
        // No run log: its growth would allocate.
        tasks.push_back(std::make_shared<ProbeTask>(root.get(), static_cast<TaskPriority>(p),
                                                    "t" + std::to_string(p)));
        tasks.back()->body = [&executed](ProbeTask& self) {
            ++executed;
            if (!self.taskShouldYield()) {
                self.scheduleTask();
            }
            self.taskWorkCountInc(3);
            self.taskWorkPendingIs(1);
        };
        tasks.back()->scheduleTask();
    }
    ProbeTask& absolute = *tasks.front();
    // Warm up: fill the history ring and take the one-time costs (tick
    // calibration) before counting.
    runOnce(200);
    absolute.unscheduleTask();

    // The counter sees allocations made inside the library too.
    counting = true;
    task(TaskPriority::low, "probe");
    counting = false;
    EXPECT_GE(allocations.load(), 1);

    allocations = 0;
    counting = true;
    for (int i = 0; i < 1000; ++i) {
        runOnce();
        if (i % 100 == 0) {
            absolute.scheduleTask();
            absolute.unscheduleTask();
            absolute.taskSuspendedIs(true);
            absolute.scheduleTask();
            absolute.taskSuspendedIs(false);
            absolute.unscheduleTask();
        }
    }
    root->suspendedIs(true);
    runOnce();
    root->suspendedIs(false);
    counting = false;

    EXPECT_EQ(allocations.load(), 0);
    EXPECT_GT(executed, 1000);
    EXPECT_EQ(root->history()->size(), root->historyEntryCount());
}

class Plain : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override {}
};

// A plain task whose name is new (one per connection, say) takes at most 320
// bytes in all: one block for the object and its counts, one interned name,
// and its share of the name cache's growth. A known name is interned once.
TEST_F(NoAllocationTest, APlainTaskWithANewNameTakesAtMost320Bytes) {
    constexpr int count = 1000;
    std::vector<std::shared_ptr<Plain>> tasks;
    tasks.reserve(count);
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        names.push_back("c" + std::to_string(i));
    }
    const std::size_t namesBefore = Velik::ConstStringCache::forThisThread().size();
    allocations = 0;
    allocatedBytes = 0;
    counting = true;
    for (const std::string& name : names) {
        tasks.push_back(std::make_shared<Plain>(root.get(), TaskPriority::normal, name));
    }
    counting = false;
    EXPECT_LE(allocatedBytes.load(), 320 * count);
    EXPECT_LE(allocations.load(), 2 * count + 20);  // block, name, a few rehashes
    EXPECT_EQ(Velik::ConstStringCache::forThisThread().size(), namesBefore + count);
    tasks.push_back(std::make_shared<Plain>(root.get(), TaskPriority::normal, names[0]));
    EXPECT_EQ(Velik::ConstStringCache::forThisThread().size(), namesBefore + count);
}

}  // namespace
