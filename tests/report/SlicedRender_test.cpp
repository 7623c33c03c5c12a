// A snapshot or a text report rendered a slice at a time writes exactly the
// bytes of one render, whatever the slice size.
#include <Velik/TaskSchedulerPrintContext.h>
#include <Velik/TaskSchedulerSnapshot.h>
#include <Velik/TaskSchedulerTextReport.h>

#include "report/ReportFixture.h"

#include <sstream>

namespace {

class SlicedRenderTest : public VelikTest::ReportTest {};

TEST_F(SlicedRenderTest, SameBytesAsOneRenderForEverySliceSize) {
    std::vector<std::shared_ptr<VelikTest::ProbeTask>> more;
    for (int i = 0; i < 7; ++i) {
        more.push_back(task(Velik::TaskPriority::low, "more" + std::to_string(i)));
        more.back()->scheduleTask();
        runOnce();
    }
    jobs.clear();  // completed records in the group too
    const auto snap = root->snapshot(true, true, true);
    std::ostringstream whole;
    snap->renderJson(*Velik::TaskScheduler::PrintContextIs(whole));
    // The live list alone has more than 14 records.
    for (auto [perSlice, fewest, most] :
         {std::tuple{0u, 1, 999}, {1u, 1, 999}, {2u, 8, 999}, {5u, 1, 999}, {1000u, 1, 1}}) {
        std::ostringstream out;
        auto context = Velik::TaskScheduler::PrintContextIs(out);
        Velik::TaskSchedulerSnapshot::SlicedRender render(snap, perSlice);
        int slices = 1;
        for (; render.renderSlice(*context); ++slices) {
        }
        context.reset();
        EXPECT_EQ(out.str(), whole.str()) << perSlice;
        EXPECT_TRUE(slices >= fewest && slices <= most) << perSlice << ": " << slices;
    }
}

TEST_F(SlicedRenderTest, TextReportSlicesAddUpToTheWholeReport) {
    jobs.clear();  // a completed table too
    const Velik::TextReportData data = Velik::gatherTextReport(*root, true, true);
    const std::string whole = root->statsRenderTextForDebugToString(true, true, false, true);
    // Slices run across the two tables; zero rows a slice means one.
    const std::size_t rows = data.live.size() + data.completed.size();
    for (std::size_t perSlice : {0u, 1u, 2u, 1000u}) {
        std::ostringstream out;
        Velik::TextReportSlicedRender render(data, true);
        std::size_t slices = 1;
        for (; render.renderSlice(out, perSlice); ++slices) {
        }
        EXPECT_FALSE(render.renderSlice(out, 1)) << "nothing after the end";
        EXPECT_EQ(out.str(), whole) << perSlice;
        const std::size_t per = std::max<std::size_t>(perSlice, 1);
        EXPECT_EQ(slices, (rows + per - 1) / per) << perSlice;
    }
}

}  // namespace
