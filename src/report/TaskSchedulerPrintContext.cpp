#include "Velik/TaskSchedulerPrintContext.h"

#include "Velik/Assert.h"
#include "report/JsonWriter.h"

#include <utility>

namespace Velik {

TaskSchedulerPrintContext::TaskSchedulerPrintContext(std::ostream& stream) : stream_(&stream) {
    open();
}

TaskSchedulerPrintContext::TaskSchedulerPrintContext(std::unique_ptr<std::ostream> stream)
    : owned_(std::move(stream)), stream_(owned_.get()) {
    open();
}

void TaskSchedulerPrintContext::open() {
    buffer_ = std::make_unique<Impl::JsonOStreamBuffer>(*stream_);
    writer_ = std::make_unique<Writer>(*buffer_);
    writer_->StartObject();
    Impl::jsonKey(*writer_, "schedulers");
    writer_->StartObject();
}

TaskSchedulerPrintContext::~TaskSchedulerPrintContext() {
    if (!closed_) {
        closeJson();
    }
    flush();
}

void TaskSchedulerPrintContext::closeJson() {
    VELIK_CLASS_ASSERT(!closed_, "{}", "JSON already closed");
    writer_->EndObject();
    writer_->EndObject();
    closed_ = true;
    flush();
}

void TaskSchedulerPrintContext::flush() {
    buffer_->Flush();
    stream_->flush();
}

}  // namespace Velik
