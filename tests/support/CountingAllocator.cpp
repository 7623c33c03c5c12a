#include "CountingAllocator.h"

#include <cstdlib>
#include <new>

namespace {

constinit thread_local VelikTest::AllocationLog* current = nullptr;

void* counted(std::size_t size) {
    if (current) {
        current->record(size);
    }
    if (void* p = std::malloc(size ? size : 1)) {
        return p;
    }
    throw std::bad_alloc();
}

void* countedNoThrow(std::size_t size) noexcept {
    try {
        return counted(size);
    } catch (...) {
        return nullptr;
    }
}

}  // namespace

namespace VelikTest {

AllocationLog::AllocationLog() : outer_(current) {
    current = this;
}

AllocationLog::~AllocationLog() {
    stop();
}

void AllocationLog::stop() {
    if (active_) {
        active_ = false;
        current = outer_;
    }
}

void AllocationLog::record(std::size_t size) {
    if (count_++ == 0) {
        first_ = size;
    }
    last_ = size;
    bytes_ += size;
}

}  // namespace VelikTest

// Every form: the library uses the nothrow ones too, and under a sanitizer a
// form left out would pair the sanitizer's allocation with this free.
void* operator new(std::size_t size) {
    return counted(size);
}
void* operator new[](std::size_t size) {
    return counted(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return countedNoThrow(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return countedNoThrow(size);
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
void operator delete(void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    std::free(p);
}
