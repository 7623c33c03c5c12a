// velik-top reading a reply as a snapshot and printing it every way it can
// (--once table and summary, the history lines, --prometheus, --json): a
// hostile reply is refused with TopError or printed without one control
// character, and --json prints a document that parses again.
#include <rapidjson/document.h>

#include <string>

#include "FuzzCheck.h"
#include "HistoryText.h"
#include "JsonText.h"
#include "Prometheus.h"
#include "SnapshotDiff.h"
#include "SnapshotModel.h"
#include "TableText.h"
#include "TaskTable.h"
#include "TopError.h"
#include "report/StatsPrintable.h"

using VelikFuzz::check;

namespace {

// No control character but the line ends, nothing that is not UTF-8.
void checkPrintable(const std::string& text, const char* what) {
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        check(!Velik::Impl::needsPrintable(std::string_view(text).substr(start, end - start)),
              what);
    }
    check(!Velik::Impl::needsPrintable(std::string_view(text).substr(start)), what);
}

void printAll(const std::string& reply) {
    const VelikTop::ThreadSnapshot snap = VelikTop::parseSnapshot("t\x1b", reply);
    const std::vector<VelikTop::TaskRates> rates = VelikTop::rates(&snap, snap, 1.0);
    const std::vector<VelikTop::ThreadView> views{{&snap, rates}};
    VelikTop::ViewOptions options;
    options.showCompleted = true;
    const auto lines = VelikTop::buildTable(views, options);
    for (const std::string& s : VelikTop::formatSummary(views, options, lines.size(), 1.0)) {
        checkPrintable(VelikTop::printable(s), "--once summary");
    }
    const VelikTop::TableLayout layout(lines, true);
    checkPrintable(layout.heading(), "--once heading");
    for (const VelikTop::TableLine& line : lines) {
        checkPrintable(layout.line(line), "--once row");
    }
    for (const std::string& s : VelikTop::formatHistory({&snap}, 50)) {
        checkPrintable(VelikTop::printable(s), "history line");
    }
    checkPrintable(VelikTop::prometheusText({snap}), "--prometheus");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string reply(VelikFuzz::asText(data, size));
    try {
        printAll(reply);
    } catch (const VelikTop::TopError& e) {
        check(e.status() == VelikTop::exitMalformed, "a bad reply is malformed");
    }
    try {
        const std::string json = VelikTop::terminalSafeJson("t", reply);
        check(!Velik::Impl::needsPrintable(json), "--json prints no control character");
        rapidjson::Document again;
        again.Parse(json.data(), json.size());
        check(!again.HasParseError(), "--json prints JSON");
    } catch (const VelikTop::TopError& e) {
        check(e.status() == VelikTop::exitMalformed, "a bad reply is malformed");
    }
    return 0;
}
