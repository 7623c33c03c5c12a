// The text report of one realistic scheduler, as a whole.
#include <Velik/TaskSchedulerTextReport.h>

#include "report/ReportFixture.h"

namespace {

using TextReportTest = VelikTest::ReportTest;

// Queue tables, legend, both task tables (sorted by total run time, blank
// work columns for tasks that never reported work), the skipped line.
TEST_F(TextReportTest, WholeReportOfGroupsTimersAndDescriptorTasks) {
    const std::string expected =
        R"(Priority RunnableCount     IdleCount DoneCount   TotalRunCount

absolute             0             0         0               0
high                 0             0         1               1
normal               0             5         0               6
low                  0             1         0               1
scavenge             0             1         0               0
Maximum scheduler slip 0.001000 seconds

SP                = Task status and priority % two characters:
   first            T/t for active/idle timers, * for running task or blank
   second           priority and runnable status, upper case for runnable
RunCount          = Number of times task has run
TotalSec          = Total run time in seconds
LastDelay         = Scheduling delay last time task ran, in seconds
MaxDelay          = Maximum scheduling delay encountered, in seconds
200% 500%         = Number of times task used this percentage of quantum
MaxMs             = Maximum single run time in milliseconds
Completed         = Number of times a task with this name has completed
TotalWorkCount    = Counter of total work units processed
DecayAvgWorkCount =    exponential decaying average of work units processed
MaxWorkCount      =    high watermark of work units processed in one run
LastWorkPending   = Work units pending processing
MaxWorkPending    =    high watermark of work units pending processing

TaskName       SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Total/DecayA/Max-WorkCount Last/Max-WorkPending
timer          Tl          1         0.045  0.000   0.000    1    0    45                                                
worker          n          2         0.006  0.001   0.001    0    0     3         10      5.0      5         2          2
TaskGroup;pool  n          1         0.004  0.000   0.000    0    0     3          3      3.0      3         0          0
a               n          1         0.002  0.000   0.000    0    0     2                                                
b               n          1         0.002  0.002   0.002    0    0     1                                                
conn:read       n          1         0.001  0.000   0.000    0    0     0         10     10.0     10                     
Skipped 1 task with no runs
TaskName (completed) SP   RunCount      TotalSec Last/Max-Delay 200% 500% MaxMs Completed Total/DecayA/Max-WorkCount Last/Max-WorkPending
short                 h          1         0.000  0.000   0.000    0    0     0    1                                                
)";
    EXPECT_EQ(root->statsRenderTextForDebugToString(false, true, false, false), expected);
}

TEST_F(TextReportTest, KeysWidenTheNameColumnAndHistoryFollows) {
    auto another = task(Velik::TaskPriority::low, "neverRan");
    const std::string text = root->statsRenderTextForDebugToString(false, false, true, true);
    EXPECT_EQ(text.find("Completed"), std::string::npos);
    const std::string widest = "TaskGroup;pool" + pool->parentTask()->taskKey().toStrep();
    for (const std::string& part :
         {"\nTaskName" + std::string(widest.size() - 8, ' ') + " SP ", "\n" + widest + "  n ",
          std::string("\nSkipped 2 tasks with no runs\nLast 2 scheduler events")}) {
        EXPECT_NE(text.find(part), std::string::npos) << part;
    }
}

}  // namespace
