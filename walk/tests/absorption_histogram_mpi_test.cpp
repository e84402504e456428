#include <gtest/gtest.h>

#include "parallel/message_passing.h"
#include "walk/absorption_histogram.h"

namespace nmr {
namespace {

TEST(ReduceAbsorptions, MaximumFirstThenTruncatedSumOnRankZero) {
    const int rank = mpi::rank();
    const int size = mpi::size();
    // Rank r reports results 0 .. 5 + r, each (r + 1) times: the largest index
    // overall is M = 5 + (size - 1).
    AbsorptionHistogram histogram;
    for (std::uint32_t k = 0; k <= 5u + static_cast<std::uint32_t>(rank); ++k)
        for (int n = 0; n <= rank; ++n) countAbsorption(histogram, k);
    EXPECT_EQ(histogram.localMaximum(), 5u + static_cast<std::uint32_t>(rank));

    const auto reduced = reduceAbsorptions(histogram);
    const std::uint32_t m = 5u + static_cast<std::uint32_t>(size - 1);
    EXPECT_EQ(reduced.intervalsReached, m);
    EXPECT_EQ(histogram.counts().size(), m) << "local histogram cut to M on every rank";
    ASSERT_EQ(reduced.counts.size(), m);
    if (rank == 0) {
        // Index k is counted (r + 1) times by every rank r with 5 + r >= k; index M
        // itself, reached only by the last rank, is dropped.
        for (std::uint32_t k = 0; k < m; ++k) {
            std::uint32_t expected = 0;
            for (int r = 0; r < size; ++r)
                if (5u + static_cast<std::uint32_t>(r) >= k)
                    expected += static_cast<std::uint32_t>(r + 1);
            EXPECT_EQ(reduced.counts[k], expected) << "index " << k;
        }
    }
}

TEST(ReduceAbsorptions, AllResultsZeroGiveAnEmptyHistogram) {
    AbsorptionHistogram histogram;
    for (int n = 0; n < 10; ++n) countAbsorption(histogram, 0);
    const auto reduced = reduceAbsorptions(histogram);
    EXPECT_EQ(reduced.intervalsReached, 0u);
    EXPECT_TRUE(reduced.counts.empty());
    EXPECT_TRUE(histogram.counts().empty());
}

TEST(ReduceAbsorptions, ShorterLocalHistogramsAreZeroExtended) {
    if (mpi::size() < 2) GTEST_SKIP() << "needs 2+ ranks";
    // Only the last rank reaches far; the others' (already short) histograms grow.
    AbsorptionHistogram histogram(mpi::rank() == mpi::size() - 1 ? 300u : 3u);
    countAbsorption(histogram, 1);
    if (mpi::rank() == mpi::size() - 1) countAbsorption(histogram, 200);
    const auto reduced = reduceAbsorptions(histogram);
    EXPECT_EQ(reduced.intervalsReached, 200u);
    EXPECT_EQ(histogram.counts().size(), 200u);
    if (mpi::rank() == 0) {
        EXPECT_EQ(reduced.counts[1], static_cast<std::uint32_t>(mpi::size()));
        EXPECT_EQ(reduced.counts[199], 0u);
    }
}

}  // namespace
}  // namespace nmr
