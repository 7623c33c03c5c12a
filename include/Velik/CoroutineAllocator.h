// Where coroutine tasks get their memory.
//
// A coroutine task costs one allocation: its task object, the shared
// pointer's counts and its coroutine frame share one block, taken from the
// hook below when the task is spawned and given back when the last shared
// or weak pointer to the task is gone. Nothing else a coroutine task does
// (awaiting, resuming) allocates, apart from the first descriptor wait
// (the platform's descriptor control, kept for the task's life) and a move
// to another thread (see `moveTo`).
//
// Replace the hook to count coroutine memory or to draw it from a pool:
//
//   Velik::coroutineAllocatorIs({&poolAllocate, &poolDeallocate});
//
// Set it before any coroutine task exists: a block is given back to the
// hook in force when it is released. The hook may be called from any
// thread that spawns or releases coroutine tasks.
#pragma once

#include <cstddef>

namespace Velik {

struct CoroutineAllocator {
    // `size` bytes aligned as `::operator new` aligns them; throws (or
    // does not return) when there is no memory.
    void* (*allocate)(std::size_t size);
    // Gives back a block `allocate` returned, with the size asked for.
    void (*deallocate)(void* block, std::size_t size) noexcept;
};

// The hook in force; `::operator new` and `::operator delete` by default.
const CoroutineAllocator& coroutineAllocator();
// Replaces the hook; a hook with a null member restores the default.
void coroutineAllocatorIs(const CoroutineAllocator& allocator);

}  // namespace Velik
