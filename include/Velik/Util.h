// Short, stable identifiers: hashes of byte strings, their printable codes,
// and the names of trace handles built from them.
//
//   uint32_t h = Velik::Util::hash(path);
//   std::string code = Velik::Util::base64Encode(h);          // six characters
//   std::string handle = Velik::Util::traceHandleName("/var/run/sock/", "Reader", false);
//                                                            // "Reader-<code>-sock"
//
// The hashes are the word-at-a-time FNV-1a of `Impl::HashMix`: they differ
// from published FNV-1a values and are stable across processes and releases.
// All functions are pure and may be called from any thread, except `mkpath`,
// which changes the process umask while it runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Velik::Util {

// 32-bit hash of `length` bytes: `HashMix<uint32_t>` started at 2166136261.
// No bytes hash to 2166136261.
uint32_t hash(const void* data, size_t length) noexcept;
// 32-bit hash of the string's characters (its size, no terminator).
uint32_t hash(const std::string& text) noexcept;

// 64-bit hash of `length` bytes: `HashMix<uint64_t>` started at
// 14695981039346656037. No bytes hash to that value.
uint64_t hash64(const void* data, size_t length) noexcept;
// 64-bit hash of the string's characters (its size, no terminator).
uint64_t hash64(const std::string& text) noexcept;

// Exactly six characters of "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=",
// six bits each, least significant bits first, no padding. The sixth
// character carries only the top two bits, so it is one of A, B, C, D. Meant
// for use inside names; this is not standard Base64 and is not decoded.
std::string base64Encode(uint32_t value);

// The name of a trace handle for the file at `path`: `name`, then "Temp-" if
// `temporary` else "-", then `base64Encode(hash(p))`, "-" and the base name of
// p, where p is `path` without its trailing slashes. For "/var/run/sock/",
// "Reader", false: "Reader-" + base64Encode(hash("/var/run/sock")) + "-sock".
std::string traceHandleName(std::string path, const std::string& name, bool temporary);

// Creates the directory `path` and any missing ancestors, each with exactly
// `mode` (the umask is set to 0 for the duration of the call and restored on
// every way out). Returns 0 on success, including when `path` already exists
// (an existing directory keeps its mode). Otherwise returns -1 with `errno` as
// the failing `mkdir` left it: ENOTDIR for a path under a regular file,
// ENOENT for an empty path. A trailing "/" is accepted.
//
// The umask is process-wide: files created by other threads while this runs
// get their modes unmasked.
int mkpath(const std::string& path, unsigned int mode);

}  // namespace Velik::Util
