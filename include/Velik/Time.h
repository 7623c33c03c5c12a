// The library clock.
#pragma once

namespace Velik {

// Now, in seconds, on the library clock. Every part of the library that needs
// "now" in seconds asks this one function (timers, the timer wheel, the
// fast-forwarding loop, backtrace time stamps).
double time();

}  // namespace Velik
