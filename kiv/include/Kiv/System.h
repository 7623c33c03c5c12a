// The process-level entry points of the framework: its notion of now, and the
// main loop.
#pragma once

namespace Kiv::System {

// Now, in seconds on the framework clock (`Clock::now()` of the activity
// manager's clock): monotonic, and virtual while virtual time is on. Callable
// from any thread.
double currentTime();

// Runs the main loop (`MainLoop::run()`) on the calling thread until no work
// is left or the configured execution time has passed. Exceptions thrown by
// notifications propagate to the caller; calling `doRun()` again continues.
void doRun();

}  // namespace Kiv::System
