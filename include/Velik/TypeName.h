// Readable text for diagnostic output: demangled type names and hex dumps of
// values that have no formatter of their own.
//
//   Velik::typeName(typeid(*task).name());     // "Velik::TimerTask"
//   Velik::dumpHex(&value, sizeof value);      // "01020304 05060708"
#pragma once

#include <string>

namespace Velik {

// Demangles a type name as run-time type information gives it
// ("N5Velik13TaskSchedulerE" -> "Velik::TaskScheduler"). Text that is not a
// mangled name is returned unchanged; a null name gives the empty string.
// Never lets an exception out: should the demangler report success without a
// result, that is an assertion failure, and the process ends.
std::string typeName(const char* mangledName) noexcept;

// The bytes at `data` as lower-case hexadecimal, two digits each, in groups
// of four bytes separated by single spaces: 01 02 03 04 05 gives
// "01020304 05". No leading or trailing space; a length of 0 or less gives
// the empty string.
std::string dumpHex(const void* data, int length);

}  // namespace Velik
