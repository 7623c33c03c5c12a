// Counts the allocations a thread makes, for the tests and benchmarks that
// check what an operation allocates. The program that uses it links
// CountingAllocator.cpp, which replaces the global allocation functions;
// outside an `AllocationLog` they only forward to malloc and free.
#pragma once

#include <cstddef>

namespace VelikTest {

// Counts the allocations made on the constructing thread, by anyone
// (the library included), from construction until `stop()` or destruction.
// Logs nest: an inner log pauses the outer one.
class AllocationLog {
  public:
    AllocationLog();
    ~AllocationLog();
    AllocationLog(const AllocationLog&) = delete;
    AllocationLog& operator=(const AllocationLog&) = delete;

    void stop();

    std::size_t count() const { return count_; }
    std::size_t bytes() const { return bytes_; }
    // The sizes of the first and the last allocation; 0 when none was made.
    std::size_t firstSize() const { return first_; }
    std::size_t lastSize() const { return last_; }

    // Called by the replaced allocation functions.
    void record(std::size_t size);

  private:
    AllocationLog* outer_;
    bool active_ = true;
    std::size_t count_ = 0;
    std::size_t bytes_ = 0;
    std::size_t first_ = 0;
    std::size_t last_ = 0;
};

}  // namespace VelikTest
