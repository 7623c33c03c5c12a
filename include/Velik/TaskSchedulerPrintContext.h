// Where a JSON snapshot is being written: the output stream and the
// streaming JSON writer on it.
//
// Creating a context opens the document, `{"schedulers":{`; each rendered
// snapshot adds one member; closing (explicitly with `closeJson`, or when the
// context ends) writes `}}`:
//
//   auto context = Velik::TaskScheduler::PrintContextIs(std::cout);
//   root->snapshot(false, true, true)->renderJson(*context);
//   context.reset();   // {"schedulers":{"main":{...}}}
//
// The writer checks its own invariants (balanced objects and arrays, a key
// before every value) with assertions.
#pragma once

#include <memory>
#include <ostream>

namespace Velik {

namespace Impl {
class JsonOStreamBuffer;
}  // namespace Impl

class TaskSchedulerPrintContext {
  public:
    static constexpr const char* traceClassName = "TaskSchedulerPrintContext";

    // Writes to `stream`, which must outlive the context.
    explicit TaskSchedulerPrintContext(std::ostream& stream);
    // Writes to a stream the context owns (a descriptor stream, say).
    explicit TaskSchedulerPrintContext(std::unique_ptr<std::ostream> stream);
    TaskSchedulerPrintContext(const TaskSchedulerPrintContext&) = delete;
    TaskSchedulerPrintContext& operator=(const TaskSchedulerPrintContext&) = delete;
    // Closes the document unless already closed, and flushes.
    ~TaskSchedulerPrintContext();

    // Closes the "schedulers" object and the document, and flushes. Asserts
    // "JSON already closed" the second time.
    void closeJson();
    bool jsonClosed() const { return closed_; }
    // Gives the document up as it stands, unclosed: for a render abandoned
    // half way (its reader gone), whose output nobody will read. The context
    // then ends without writing anything more.
    void abandonJson() { closed_ = true; }

    // Hands everything written so far to the stream and flushes it.
    void flush();

    std::ostream& stream() const { return *stream_; }

    // The writer; its type is private to the library.
    class Writer;
    Writer& writer() const { return *writer_; }

  private:
    void open();

    std::unique_ptr<std::ostream> owned_;
    std::ostream* stream_;
    std::unique_ptr<Impl::JsonOStreamBuffer> buffer_;
    std::unique_ptr<Writer> writer_;
    bool closed_ = false;
};

}  // namespace Velik
