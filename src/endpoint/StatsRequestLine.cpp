// One non-blocking read towards a stats request line.
#include "endpoint/StatsRequestLine.h"

#include "Velik/StatsEndpoint.h"
#include "endpoint/StatsRequest.h"

#include <sys/socket.h>

#include <cerrno>

namespace Velik::Impl {

RequestLineRead readRequestLine(int fd, std::string& request) {
    char buffer[StatsEndpoint::maxRequestSize];
    const std::size_t room = StatsEndpoint::maxRequestSize - request.size();
    const ssize_t n = recv(fd, buffer, room, MSG_DONTWAIT);
    if (n < 0) {
        if (errno == EAGAIN || errno == EINTR) {
            return {};
        }
        return {RequestLineRead::closed, {}};  // reset by the peer
    }
    if (n == 0) {
        // The peer stopped sending; it may still read.
        if (request.empty()) {
            return {RequestLineRead::closed, {}};
        }
        return {RequestLineRead::refused, statsErrorLine("malformed request, the line has no end")};
    }
    const std::size_t searchFrom = request.size();
    request.append(buffer, static_cast<std::size_t>(n));
    const std::size_t newline = request.find('\n', searchFrom);
    if (newline != std::string::npos) {
        return {RequestLineRead::complete, request.substr(0, newline)};
    }
    if (request.size() == StatsEndpoint::maxRequestSize) {
        return {RequestLineRead::refused, statsErrorLine("request too long, at most 256 bytes")};
    }
    return {};
}

}  // namespace Velik::Impl
