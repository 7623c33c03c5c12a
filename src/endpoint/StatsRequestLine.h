// Reading a stats client's request line from a non-blocking socket: shared
// by the root's connections and the side server.
#pragma once

#include <string>

namespace Velik::Impl {

struct RequestLineRead {
    enum Kind {
        // Nothing complete yet: read again when the socket is readable.
        more,
        // The line, without its "\n", is in `text`.
        complete,
        // The peer went away before sending anything (or reset): no reply.
        closed,
        // `text` is the error line to reply with.
        refused,
    };
    Kind kind = more;
    std::string text;
};

// Reads what has arrived into `request`, never beyond the longest request
// (what follows it stays unread).
RequestLineRead readRequestLine(int fd, std::string& request);

}  // namespace Velik::Impl
