// The scheduling core is spread over several files but reports its
// assertions and traces under one source name, so a message reads the same
// whichever file of the core raised it. Include this last, after every header.
#pragma once

#undef VELIK_SOURCE_NAME
#define VELIK_SOURCE_NAME "TaskSchedulerCpp"
