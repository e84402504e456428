#include <gtest/gtest.h>

#include <fstream>
#include <optional>

#include "app/job_control.h"
#include "e2e_support.h"
#include "parallel/message_passing.h"

namespace nmr::app {
namespace {

// Only process 0 touches the files and owns the scratch directory; the others get its
// path so that every process makes the same calls.
TEST(JobPoll, EveryProcessGetsProcessZerosVerdict) {
    if (mpi::size() < 2) GTEST_SKIP() << "needs 2+ ranks";
    const int rank = mpi::rank();
    std::optional<test::ScratchDirectory> scratch;
    std::string dir;
    if (rank == 0) {
        scratch.emplace("nmr_poll");
        dir = scratch->path().string();
        ::testing::internal::CaptureStdout();
    }
    mpi::broadcast(dir, 0);
    // The other processes ask for Stopped: ignored, only process 0's request counts.
    const JobStatus otherRequest = JobStatus::Stopped;
    EXPECT_EQ(pollJobStatus(rank == 0 ? JobStatus::Start : otherRequest, rank, dir),
              JobStatus::Running);
    if (rank == 0) scratch->write("ABORT", "");
    EXPECT_EQ(pollJobStatus(rank == 0 ? JobStatus::Running : otherRequest, rank, dir),
              JobStatus::Aborted);
    EXPECT_EQ(pollJobStatus(JobStatus::Stopped, rank, dir), JobStatus::Stopped);
    if (rank == 0) {
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Job aborted!\nJob stopped\n");
        EXPECT_TRUE(scratch->exists("STARTED") && scratch->exists("STOPPED"));
    }
}

}  // namespace
}  // namespace nmr::app
