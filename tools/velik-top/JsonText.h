// What `velik-top --json` prints of a reply: the JSON document the reply
// holds and nothing else, safe for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace VelikTop {

// The document in `reply` written out again: whatever follows it (bytes
// after a NUL included) is left out, and the control characters the JSON
// grammar lets stand raw in strings (DEL, U+0080 to U+009F) are written as
// "\u00XX", like the others. Throws `TopError` (`exitMalformed`) for a reply
// that is not JSON or not UTF-8.
std::string terminalSafeJson(const std::string& thread, std::string_view reply);

}  // namespace VelikTop
