#include <gtest/gtest.h>

#include "mpi/message_passing.h"
#include "simulation/job_control.h"
#include "testutil/temp_dir.h"

namespace nmr {
namespace {

// The other processes ask for Stopped, which must be ignored in favour of process 0's
// request: only process 0 looks at the job directory.
TEST(JobPoll, EveryProcessGetsProcessZerosVerdict) {
    if (mpi::size() < 2) GTEST_SKIP() << "needs 2+ ranks";
    const int rank = mpi::rank();
    const test::SharedTempDir dir;
    if (rank == 0) ::testing::internal::CaptureStdout();
    const auto request = [rank](JobStatus zero) { return rank == 0 ? zero : JobStatus::Stopped; };
    EXPECT_EQ(pollJobStatus(request(JobStatus::Start), rank, std::cout, dir.path()),
              JobStatus::Running);
    if (rank == 0) test::writeFile(dir.path() / "ABORT", "");
    EXPECT_EQ(pollJobStatus(request(JobStatus::Running), rank, std::cout, dir.path()),
              JobStatus::Aborted);
    EXPECT_EQ(pollJobStatus(JobStatus::Stopped, rank, std::cout, dir.path()), JobStatus::Stopped);
    if (rank == 0) {
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Job aborted!\nJob stopped\n");
        EXPECT_TRUE(std::filesystem::exists(dir.path() / "STARTED") &&
                    std::filesystem::exists(dir.path() / "STOPPED"));
    }
}

}  // namespace
}  // namespace nmr
