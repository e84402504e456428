#include <gtest/gtest.h>

#include <sstream>

#include "simulation/job_control.h"
#include "testutil/temp_dir.h"

namespace nmr {
namespace {

using nmr::test::TempDir;

TEST(ProgressSignal, WritesMessageThenProgress) {
    TempDir dir("nmr_job");
    dir.write("PROGRESS", "older and longer content that must be truncated\n");
    EXPECT_TRUE(sendProgressSignal("Random walk NMR", "Simulating..", 0.25, 1, 2, dir.path()));
    EXPECT_EQ(dir.read("message.txt"), "Random walk NMR#Simulating..#0.25#1#2\n");
    EXPECT_EQ(dir.read("PROGRESS"), "Progress: 0.25\n");
    // Default stream formatting: six significant digits, no fixed point.
    EXPECT_TRUE(sendProgressSignal("Initializing", "x", 1.0 / 3.0, 0, 2, dir.path()));
    EXPECT_EQ(dir.read("message.txt"), "Initializing#x#0.333333#0#2\n");
    EXPECT_EQ(dir.read("PROGRESS"), "Progress: 0.333333\n");
    EXPECT_FALSE(sendProgressSignal("a", "b", 0.0, 0, 2, dir / "missing"));
}

TEST(StatusEvaluation, FilesConsoleAndVerdict) {
    struct Case {
        std::int32_t request;
        bool abortFile;
        JobStatus result;
        std::string writtenFile, content, console;  // writtenFile "": none
    };
    for (const Case& c : {
             Case{0, false, JobStatus::Running, "STARTED", "", ""},
             Case{0, true, JobStatus::Aborted, "STARTED", "", "Job aborted!\n"},
             Case{2, true, JobStatus::Aborted, "PROGRESS", "Progress Signal\n", "Job aborted!\n"},
             Case{3, true, JobStatus::Stopped, "STOPPED", "", "Job stopped\n"},  // stop wins
             Case{4, true, JobStatus::Aborted, "", "", "Job aborted!\n"},
             Case{7, false, JobStatus::Running, "", "", ""},
         }) {
        TempDir dir("nmr_job");
        if (c.abortFile) dir.write("ABORT", "");
        std::ostringstream out;
        EXPECT_EQ(evaluateJobStatus(static_cast<JobStatus>(c.request), out, dir.path()), c.result);
        EXPECT_EQ(out.str(), c.console) << c.request;
        for (const std::string name : {"STARTED", "PROGRESS", "STOPPED"}) {
            EXPECT_EQ(dir.exists(name), name == c.writtenFile) << c.request << name;
        }
        EXPECT_EQ(c.writtenFile.empty() ? "" : dir.read(c.writtenFile), c.content);
        EXPECT_EQ(dir.exists("ABORT"), c.abortFile);  // never removed by the job
    }
    TempDir dir("nmr_job");
    for (auto [request, file] : {std::pair{JobStatus::Start, "STARTED"},
                                 {JobStatus::Running, "PROGRESS"},
                                 {JobStatus::Stopped, "STOPPED"}}) {
        std::ostringstream out;
        EXPECT_EQ(evaluateJobStatus(request, out, dir / "gone"), JobStatus::Aborted);
        EXPECT_EQ(out.str(),
                  std::string("ERROR: Unable to write ") + file + " file\nJob aborted!\n");
    }
}

TEST(StoppedFileGuard, OnlyProcessZeroLeavesAnEmptyStoppedFile) {
    TempDir dir("nmr_job");
    dir.write("STOPPED", "stale");
    { StoppedFileGuard other(1, dir.path()); }
    EXPECT_EQ(dir.read("STOPPED"), "stale");
    { StoppedFileGuard root(0, dir.path()); }
    EXPECT_EQ(dir.read("STOPPED"), "");
    { StoppedFileGuard root(0, dir / "gone"); }  // must not throw out of the destructor
}

}  // namespace
}  // namespace nmr
