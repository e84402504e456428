#include <gtest/gtest.h>

#include <optional>

#include "app/job_control.h"
#include "e2e_support.h"
#include "mpi/message_passing.h"

namespace nmr::app {
namespace {

// Only process 0 owns the scratch directory; the others ask for Stopped, which must be
// ignored in favour of process 0's request.
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
    const auto request = [rank](JobStatus zero) { return rank == 0 ? zero : JobStatus::Stopped; };
    EXPECT_EQ(pollJobStatus(request(JobStatus::Start), rank, dir), JobStatus::Running);
    if (rank == 0) scratch->write("ABORT", "");
    EXPECT_EQ(pollJobStatus(request(JobStatus::Running), rank, dir), JobStatus::Aborted);
    EXPECT_EQ(pollJobStatus(JobStatus::Stopped, rank, dir), JobStatus::Stopped);
    if (rank == 0) {
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Job aborted!\nJob stopped\n");
        EXPECT_TRUE(scratch->exists("STARTED") && scratch->exists("STOPPED"));
    }
}

}  // namespace
}  // namespace nmr::app
