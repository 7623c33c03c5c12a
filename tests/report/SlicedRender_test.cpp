// A snapshot or a text report rendered a slice at a time writes exactly the
// bytes of one render, whatever the slice size.
#include <Velik/TaskSchedulerPrintContext.h>
#include <Velik/TaskSchedulerSnapshot.h>
#include <Velik/TaskSchedulerTextReport.h>

#include "report/ReportFixture.h"

#include <sstream>

namespace {

class SlicedRenderTest : public VelikTest::ReportTest {};

// Zero records or rows a slice means one.
TEST_F(SlicedRenderTest, SnapshotAndTextReportSameBytesAsOneRenderForEverySliceSize) {
    jobs.clear();  // completed records in the group too
    const auto snap = root->snapshot(true, true, true);
    std::ostringstream whole;
    snap->renderJson(*Velik::TaskScheduler::PrintContextIs(whole));
    const Velik::TextReportData data = Velik::gatherTextReport(*root, true, true);
    const std::string report = root->statsRenderTextForDebugToString(true, true, false, true);
    for (unsigned perSlice : {0u, 2u, 1000u}) {
        std::ostringstream json, text;
        {
            auto context = Velik::TaskScheduler::PrintContextIs(json);
            Velik::TaskSchedulerSnapshot::SlicedRender render(snap, perSlice);
            while (render.renderSlice(*context)) {
            }
        }
        Velik::TextReportSlicedRender render(data, true);
        while (render.renderSlice(text, perSlice)) {
        }
        EXPECT_FALSE(render.renderSlice(text, 1)) << "nothing after the end";
        EXPECT_EQ(json.str(), whole.str()) << perSlice;
        EXPECT_EQ(text.str(), report) << perSlice;
    }
}

}  // namespace
