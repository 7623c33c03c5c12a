// Thread identity: kernel ids, names, the main-thread test, and the
// per-thread switch to thread-local singletons.
//
// A thread that runs its own libevent loop must switch to thread-local
// singletons before anything fetches a per-thread singleton:
//
//   std::thread worker([] {
//       Velik::useThreadLocalSingletons();   // first thing, always
//       Velik::threadNameIs("worker");
//       ...
//   });
#pragma once

#include <sys/types.h>

#include <string>
#include <thread>

namespace Velik {

// The kernel thread id of the caller.
pid_t gettid();

// Whether the caller is the process's main thread (its kernel thread id is
// the process id).
bool isMainThread();

// Switches the host framework's reference-counted pointers between atomic
// (thread-safe) and plain counting.
void threadSafePointerIs(bool threadSafe);

// Whether the calling thread uses thread-local singletons. Also marks that
// the thread has asked, i.e. that a singleton has been or is being created
// for it; from then on it can no longer switch.
bool hasThreadLocalSingletons();

// Switches the calling thread to thread-local singletons (its own event base,
// timer wheel and controls). Must come before the thread's first
// `hasThreadLocalSingletons()`; asserts otherwise. Calling it twice is
// harmless.
void useThreadLocalSingletons();

// Names the calling thread and returns the name as cached (at most 15
// characters, the kernel's limit). A name the system refuses (too long)
// asserts. The main thread's name is never changed: on the main thread this
// only returns `threadName()`.
const char* threadNameIs(const char* name);

// The calling thread's name, valid for the life of the thread.
const char* threadName();

// The standard text form of a thread id: the thread handle in decimal, or
// "thread::id of a non-executing thread" for the id that names no thread.
std::string toThreadIdString(std::thread::id id);

// The process-wide count of auxiliary threads: threads that touch scheduler
// objects of another thread under their own locking, which the scheduler's
// thread checks then tolerate.
unsigned auxThreadCount();
void auxThreadCountInc();
void auxThreadCountDec();

}  // namespace Velik
