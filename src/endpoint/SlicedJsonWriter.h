// A JSON writer for a document that a reply source sends in slices.
#pragma once

#include "report/JsonWriter.h"

#include <sstream>
#include <string>
#include <utility>

namespace Velik::Impl {

// One writer for the whole document, so that it keeps the nesting across
// slices; each slice takes what the writer gathered since the last one.
class SlicedJsonWriter {
  public:
    SlicedJsonWriter() = default;
    SlicedJsonWriter(const SlicedJsonWriter&) = delete;
    SlicedJsonWriter& operator=(const SlicedJsonWriter&) = delete;

    JsonWriter& writer() { return writer_; }

    // Appends what was written since the last call to `out`.
    void takeInto(std::string& out) {
        buffer_.Flush();
        out += std::move(stream_).str();
        stream_.str(std::string());
    }

  private:
    std::ostringstream stream_;
    JsonOStreamBuffer buffer_{stream_};
    JsonWriter writer_{buffer_};
};

}  // namespace Velik::Impl
