// The metrics endpoint's HTTP requests: http_parser driven by our own reads.
#include "endpoint/MetricsRequest.h"

#include <fmt/format.h>

#include <algorithm>

namespace Velik::Impl {

MetricsRequestReader::MetricsRequestReader(MetricsRequestLimits limits) : limits_(limits) {
    http_parser_init(&parser_, HTTP_REQUEST);
    parser_.data = this;
    http_parser_settings_init(&settings_);
    settings_.on_url = onUrl;
    settings_.on_header_field = onHeaderField;
    settings_.on_header_value = onHeaderValue;
    settings_.on_headers_complete = onHeadersComplete;
    settings_.on_message_complete = onMessageComplete;
}

MetricsRequestReader& MetricsRequestReader::of(http_parser* parser) {
    return *static_cast<MetricsRequestReader*>(parser->data);
}

int MetricsRequestReader::onUrl(http_parser* parser, const char* at, std::size_t length) {
    of(parser).url_.append(at, length);  // bounded by the byte limit
    return 0;
}

int MetricsRequestReader::onHeaderField(http_parser* parser, const char*, std::size_t) {
    MetricsRequestReader& r = of(parser);
    // A field may come in several pieces; a new one starts after a value.
    if (!r.inField_) {
        r.inField_ = true;
        if (++r.headers_ > r.limits_.maxHeaders) {
            r.status_ = 431;
            return 1;
        }
    }
    return 0;
}

int MetricsRequestReader::onHeaderValue(http_parser* parser, const char*, std::size_t) {
    of(parser).inField_ = false;
    return 0;
}

int MetricsRequestReader::onHeadersComplete(http_parser* parser) {
    MetricsRequestReader& r = of(parser);
    r.headersComplete_ = true;
    r.headStatus_ = r.statusForHead();
    r.headOnly_ = parser->method == HTTP_HEAD;
    return 0;
}

int MetricsRequestReader::onMessageComplete(http_parser* parser) {
    MetricsRequestReader& r = of(parser);
    r.status_ = r.headStatus_;
    http_parser_pause(parser, 1);  // one request: what follows is not parsed
    return 0;
}

int MetricsRequestReader::statusForHead() const {
    http_parser_url url;
    http_parser_url_init(&url);
    if (http_parser_parse_url(url_.data(), url_.size(), parser_.method == HTTP_CONNECT, &url) !=
        0) {
        return 400;
    }
    const std::string_view path = (url.field_set & (1 << UF_PATH))
                                      ? std::string_view(url_).substr(url.field_data[UF_PATH].off,
                                                                      url.field_data[UF_PATH].len)
                                      : std::string_view();
    if (path != "/metrics") {
        return 404;
    }
    if (parser_.method != HTTP_GET && parser_.method != HTTP_HEAD) {
        return 405;
    }
    return 200;
}

std::size_t MetricsRequestReader::feed(std::string_view bytes) {
    if (decided()) {
        return 0;
    }
    const std::size_t n = std::min(bytes.size(), room());
    taken_ += n;
    const std::size_t parsed = http_parser_execute(&parser_, &settings_, bytes.data(), n);
    if (decided()) {
        return n;
    }
    if (parser_.upgrade) {
        status_ = headStatus_ ? headStatus_ : 400;  // answered, not switched
    } else if (HTTP_PARSER_ERRNO(&parser_) != HPE_OK || parsed != n) {
        status_ = HTTP_PARSER_ERRNO(&parser_) == HPE_HEADER_OVERFLOW ? 431 : 400;
    } else if (room() == 0) {
        status_ = headersComplete_ ? 413 : 431;
    }
    return n;
}

void MetricsRequestReader::endOfInput() {
    if (!decided()) {
        status_ = 400;
    }
}

std::string_view metricsReason(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 400:
            return "Bad Request";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 408:
            return "Request Timeout";
        case 413:
            return "Content Too Large";
        case 431:
            return "Request Header Fields Too Large";
        case 503:
            return "Service Unavailable";
        default:
            return "Error";
    }
}

std::string metricsErrorReply(int status) {
    const std::string_view reason = metricsReason(status);
    return fmt::format(
        "HTTP/1.1 {0} {1}\r\nContent-Type: text/plain; charset=utf-8\r\n"
        "Content-Length: {2}\r\n{3}Connection: close\r\n\r\n{1}\n",
        status, reason, reason.size() + 1, status == 405 ? "Allow: GET, HEAD\r\n" : "");
}

std::string_view metricsOkHead() {
    return "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"
           "Connection: close\r\n\r\n";
}

}  // namespace Velik::Impl
