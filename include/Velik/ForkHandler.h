// Knowing that the process has forked.
//
// At load the library registers `handleFork` as a `pthread_atfork` child
// handler, so a forked child can tell that it is one (`isForkedChild()`):
// per-thread state it inherited belongs to threads that do not exist in it.
// `leForkReinit()` makes an inherited libevent base usable there.
#pragma once

namespace Velik::Platform {

// Registers `handleFork` with `pthread_atfork`; aborts if that fails. Run
// once at library load.
void setupHandler();

// The child handler: marks the process as a forked child.
void handleFork();

bool isForkedChild();
void forkedChildIs(bool forkedChild);

}  // namespace Velik::Platform
