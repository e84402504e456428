#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/job_control.h"
#include "e2e_support.h"

namespace nmr::app {
namespace {

using nmr::test::ScratchDirectory;

TEST(ProgressSignal, WritesMessageThenProgress) {
    ScratchDirectory dir("nmr_job");
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

struct PollCase {
    const char* name;
    std::int32_t request;
    bool abortFile;
    JobStatus result;
    const char* writtenFile;  // nullptr: none
    const char* content;
    const char* console;
};

class StatusEvaluation : public ::testing::TestWithParam<PollCase> {};

TEST_P(StatusEvaluation, FilesConsoleAndVerdict) {
    const auto& c = GetParam();
    ScratchDirectory dir("nmr_job");
    if (c.abortFile) dir.write("ABORT", "");
    std::ostringstream out;
    EXPECT_EQ(evaluateJobStatus(static_cast<JobStatus>(c.request), out, dir.path()), c.result);
    EXPECT_EQ(out.str(), c.console);
    for (const char* name : {"STARTED", "PROGRESS", "STOPPED"}) {
        const bool expected = c.writtenFile != nullptr && std::string(name) == c.writtenFile;
        EXPECT_EQ(dir.exists(name), expected) << name;
        if (expected) {
            EXPECT_EQ(dir.read(name), c.content);
        }
    }
    EXPECT_EQ(dir.exists("ABORT"), c.abortFile);  // never removed by the job
}

INSTANTIATE_TEST_SUITE_P(
    Requests, StatusEvaluation,
    ::testing::Values(
        PollCase{"Start", 0, false, JobStatus::Running, "STARTED", "", ""},
        PollCase{"StartAborted", 0, true, JobStatus::Aborted, "STARTED", "", "Job aborted!\n"},
        PollCase{"Running", 2, false, JobStatus::Running, "PROGRESS", "Progress Signal\n", ""},
        PollCase{"RunningAborted", 2, true, JobStatus::Aborted, "PROGRESS", "Progress Signal\n",
                 "Job aborted!\n"},
        // Stopping wins over a pending abort.
        PollCase{"Stopped", 3, true, JobStatus::Stopped, "STOPPED", "", "Job stopped\n"},
        PollCase{"PlainCheck", 4, true, JobStatus::Aborted, nullptr, "", "Job aborted!\n"},
        PollCase{"UnknownRequest", 7, false, JobStatus::Running, nullptr, "", ""}),
    [](const ::testing::TestParamInfo<PollCase>& testCase) { return testCase.param.name; });

TEST(StatusEvaluation, UnwritableJobFileAborts) {
    ScratchDirectory dir("nmr_job");
    const auto gone = dir / "gone";
    for (auto [request, file] :
         {std::pair{JobStatus::Start, "STARTED"}, std::pair{JobStatus::Running, "PROGRESS"},
          std::pair{JobStatus::Stopped, "STOPPED"}}) {
        std::ostringstream out;
        EXPECT_EQ(evaluateJobStatus(request, out, gone), JobStatus::Aborted);
        EXPECT_EQ(out.str(),
                  std::string("ERROR: Unable to write ") + file + " file\nJob aborted!\n");
    }
}

TEST(StoppedFileGuard, OnlyProcessZeroLeavesAnEmptyStoppedFile) {
    ScratchDirectory dir("nmr_job");
    dir.write("STOPPED", "stale");
    { StoppedFileGuard other(1, dir.path()); }
    EXPECT_EQ(dir.read("STOPPED"), "stale");
    { StoppedFileGuard root(0, dir.path()); }
    EXPECT_EQ(dir.read("STOPPED"), "");
    // An unwritable directory is ignored rather than thrown out of a destructor.
    { StoppedFileGuard root(0, dir / "gone"); }
}

}  // namespace
}  // namespace nmr::app
