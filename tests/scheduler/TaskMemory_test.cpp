// The memory budget of one task: its shared-pointer block and the names it
// interns. Daemons keep many thousands of tasks, so growth here should be a
// deliberate decision, not an accident.
#include "scheduler/SchedulerFixture.h"

#include <Velik/ConstStringCache.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>

namespace {

using Velik::TaskPriority;

// Hands out memory through std::allocator and remembers how much.
template <typename T>
struct CountingAllocator {
    using value_type = T;
    std::size_t* bytes;

    explicit CountingAllocator(std::size_t* counter) : bytes(counter) {}
    template <typename U>
    CountingAllocator(const CountingAllocator<U>& other) : bytes(other.bytes) {}

    T* allocate(std::size_t n) {
        *bytes += n * sizeof(T);
        return std::allocator<T>().allocate(n);
    }
    void deallocate(T* p, std::size_t n) { std::allocator<T>().deallocate(p, n); }

    template <typename U>
    bool operator==(const CountingAllocator<U>& other) const {
        return bytes == other.bytes;
    }
};

class Plain : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override {}
};

class TaskMemoryTest : public VelikTest::SchedulerTest {
  protected:
    std::shared_ptr<Plain> make(const char* name, std::size_t* bytes) {
        return std::allocate_shared<Plain>(CountingAllocator<Plain>(bytes), root.get(),
                                           TaskPriority::normal, name);
    }
};

TEST_F(TaskMemoryTest, OneBlockWithinBudgetAndNamesInternedOnce) {
    Velik::ConstStringCache& cache = Velik::ConstStringCache::forThisThread();
    const std::size_t namesBefore = cache.size();
    std::size_t bytes = 0;
    auto first = make("budget", &bytes);
    // The object and the shared-pointer counts in one allocation.
    EXPECT_GE(bytes, sizeof(Plain));
    EXPECT_LE(bytes, 320u);
    // A new name interns itself only; the display name "N budget" is made
    // when shown.
    EXPECT_EQ(cache.size(), namesBefore + 1);
    EXPECT_EQ(fmt::format("{}", first->taskDisplayName()), "N budget");

    std::size_t secondBytes = 0;
    auto second = make("budget", &secondBytes);
    EXPECT_EQ(secondBytes, bytes);
    EXPECT_EQ(cache.size(), namesBefore + 1);
}

}  // namespace
