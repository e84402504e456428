#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "t2/t2_grid.h"

namespace nmr::t2 {
namespace {

TEST(T2Grid, LogarithmicAxisWithExactEnds) {
    EXPECT_TRUE(makeT2Grid(0.0001, 10000.0, 0).empty());
    EXPECT_EQ(makeT2Grid(0.0001, 10000.0, 1), std::vector<double>{10000.0});
    EXPECT_EQ(makeT2Grid(0.0001, 10000.0, 2), (std::vector<double>{0.0001, 10000.0}));
    EXPECT_EQ(makeT2Grid(2.0, 8.0, 3), (std::vector<double>{2.0, 4.0, 8.0}));
    const std::vector<double> grid = makeT2Grid(0.0001, 10000.0, 100);
    ASSERT_EQ(grid.size(), 100u);
    EXPECT_EQ(grid.front(), 0.0001);
    EXPECT_EQ(grid.back(), 10000.0);
    // The running product drifts by a few ulps per step, the last step included.
    for (std::size_t k = 1; k < grid.size(); ++k)
        EXPECT_NEAR(grid[k] / grid[k - 1], std::pow(1e8, 1.0 / 99.0), 1e-12);
}

}  // namespace
}  // namespace nmr::t2
