// Text from task names made safe for a terminal: what the stats endpoint
// sends in its text replies and what velik-top prints. Depends on nothing
// but the standard library, so that the viewer can build it in without
// linking the library.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Velik::Impl {

// `text` with every control character shown as "\x" and two lower-case hex
// digits: C0 controls (0x00 to 0x1f), DEL (0x7f) and the C1 controls U+0080
// to U+009F (each byte of their UTF-8 form: "\xc2\x9b"). Bytes that do not
// form UTF-8 are shown the same way, one escape per byte, so that the result
// is valid UTF-8 and a terminal in an 8-bit mode sees no C1 byte either.
// Everything else, backslashes and other characters included, is kept.
//
//   printableText("a\x1b[2Jb")  ->  "a\\x1b[2Jb"
std::string printableText(std::string_view text);

// Whether `printableText(text)` differs from `text`.
bool needsPrintable(std::string_view text);

// The length of the well-formed UTF-8 sequence at the start of `text`, or 0
// (empty text, a stray byte, an overlong form, a surrogate, beyond U+10FFFF).
std::size_t utf8SequenceLength(std::string_view text);

}  // namespace Velik::Impl
