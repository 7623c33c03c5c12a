// The JSON writer of the statistics snapshot: rapidjson's streaming `Writer`
// over a buffered wrapper of a std::ostream. Private to the library.
#pragma once

#include "Velik/Assert.h"
#include "Velik/TaskSchedulerPrintContext.h"

#include <ostream>
#include <string_view>

// The writer's own invariants (balanced objects and arrays, a key before
// every value) stay checked in optimised builds, as library assertions.
#ifndef RAPIDJSON_ASSERT
#define RAPIDJSON_ASSERT(x) VELIK_ASSERT(x, "{}", #x)
#endif
#include <rapidjson/writer.h>

namespace Velik::Impl {

// Gathers the writer's characters and hands them to the stream in large
// pieces: one virtual stream call per character would dominate the render.
class JsonOStreamBuffer {
  public:
    using Ch = char;

    explicit JsonOStreamBuffer(std::ostream& stream) : stream_(stream) {}
    JsonOStreamBuffer(const JsonOStreamBuffer&) = delete;
    JsonOStreamBuffer& operator=(const JsonOStreamBuffer&) = delete;
    ~JsonOStreamBuffer() { Flush(); }

    void Put(char c) {
        if (used_ == sizeof(buffer_)) {
            Flush();
        }
        buffer_[used_++] = c;
    }
    void Flush() {
        if (used_ != 0) {
            stream_.write(buffer_, static_cast<std::streamsize>(used_));
            used_ = 0;
        }
    }

  private:
    std::ostream& stream_;
    std::size_t used_ = 0;
    char buffer_[16384];
};

using JsonWriter = rapidjson::Writer<JsonOStreamBuffer>;

// Writes `text` as a JSON string (or key) whatever its bytes: the writer
// escapes quotes, backslashes and control characters; bytes that do not form
// UTF-8 are replaced by U+FFFD so that the document stays valid.
void jsonString(JsonWriter& writer, std::string_view text);
// A key of the document's own (plain ASCII, nothing to check).
inline void jsonKey(JsonWriter& writer, std::string_view key) {
    writer.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
}

}  // namespace Velik::Impl

namespace Velik {

class TaskSchedulerPrintContext::Writer : public Impl::JsonWriter {
  public:
    using Impl::JsonWriter::JsonWriter;
};

}  // namespace Velik
