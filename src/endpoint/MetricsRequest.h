// One HTTP request to the metrics endpoint, read with http_parser and bounded.
#pragma once

#include <http_parser.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace Velik::Impl {

struct MetricsRequestLimits {
    // The request line, the headers and any body together.
    std::size_t maxBytes = 8192;
    std::size_t maxHeaders = 64;
};

// Fed the bytes of a connection as they come, it decides the reply: 200 for
// GET or HEAD of "/metrics" (a query string is ignored), 404 for another
// path, 405 for another method on "/metrics", 400 for anything malformed or
// cut short, 431 when the request line and headers pass `maxBytes` or the
// headers `maxHeaders`, 413 when a body does. It decides once; bytes after
// the first request are not looked at (the connection closes after its
// reply).
class MetricsRequestReader {
  public:
    explicit MetricsRequestReader(MetricsRequestLimits limits = {});
    MetricsRequestReader(const MetricsRequestReader&) = delete;
    MetricsRequestReader& operator=(const MetricsRequestReader&) = delete;

    // Reads what fits of `bytes`; returns how many were taken (after a
    // decision, none). Never more than the limit in all.
    std::size_t feed(std::string_view bytes);
    // The peer will send nothing more: a request not complete is malformed.
    void endOfInput();

    bool decided() const { return status_ != 0; }
    // 0 until decided.
    int status() const { return status_; }
    // A HEAD request: headers without the body.
    bool headOnly() const { return headOnly_; }
    // The room left for bytes before the limit.
    std::size_t room() const { return limits_.maxBytes - taken_; }

  private:
    static int onUrl(http_parser* parser, const char* at, std::size_t length);
    static int onHeaderField(http_parser* parser, const char* at, std::size_t length);
    static int onHeaderValue(http_parser* parser, const char* at, std::size_t length);
    static int onHeadersComplete(http_parser* parser);
    static int onMessageComplete(http_parser* parser);
    static MetricsRequestReader& of(http_parser* parser);

    // The status the request line and headers call for.
    int statusForHead() const;

    MetricsRequestLimits limits_;
    http_parser parser_;
    http_parser_settings settings_;
    std::string url_;
    std::size_t taken_ = 0;
    std::size_t headers_ = 0;
    bool inField_ = false;
    bool headersComplete_ = false;
    int headStatus_ = 0;  // decided at the end of the headers
    int status_ = 0;
    bool headOnly_ = false;
};

// The reason phrase of the statuses above: "OK", "Not Found", ...
std::string_view metricsReason(int status);

// A complete reply without a body of interest: the status line, a text
// body of the reason and "Connection: close".
std::string metricsErrorReply(int status);

// The head of a 200 reply: the exposition's content type, "Connection:
// close" and no length (the body ends when the connection does).
std::string_view metricsOkHead();

}  // namespace Velik::Impl
