#include <gtest/gtest.h>

#include "mpi/message_passing.h"
#include "walk/absorption_histogram.h"

namespace nmr {

TEST(ReduceAbsorptions, MaximumFirstThenTruncatedSumOnRankZero) {
    // Rank r counts results 0 .. 5 + r, r + 1 times each: M = 5 + size - 1.
    const auto rank = static_cast<std::uint32_t>(mpi::rank());
    const auto size = static_cast<std::uint32_t>(mpi::size()), m = size + 4;
    AbsorptionHistogram histogram;
    for (std::uint32_t k = 0; k <= 5 + rank; ++k)
        for (std::uint32_t n = 0; n <= rank; ++n) countAbsorption(histogram, k);
    const auto reduced = reduceAbsorptions(histogram);
    EXPECT_EQ(reduced.intervalsReached, m);
    EXPECT_EQ(histogram.counts().size(), m) << "local histogram cut to M on every rank";
    ASSERT_EQ(reduced.counts.size(), m);
    for (std::uint32_t k = 0; k < m && rank == 0; ++k) {
        std::uint32_t expected = 0;  // r + 1 from every rank r with 5 + r >= k
        for (std::uint32_t r = 0; r < size; ++r) expected += 5 + r >= k ? r + 1 : 0;
        EXPECT_EQ(reduced.counts[k], expected) << "index " << k;
    }
}

}  // namespace nmr
