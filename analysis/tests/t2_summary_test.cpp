#include <gtest/gtest.h>

#include <cmath>

#include "analysis/t2_summary.h"
#include "t2/t2_grid.h"

namespace nmr::analysis {
namespace {

// Ten points per decade from 0.1 to 1000 ms: 41 points, bins 0.1 decade wide.
const std::vector<double> kAxis = t2::makeT2Grid(0.1, 1000.0, 41);

T2Summary summarise(std::initializer_list<std::pair<std::size_t, double>> spikes,
                    double cutoff = 33.0) {
    std::vector<double> a(kAxis.size(), 0.0);
    for (auto [j, v] : spikes) a[j] = v;
    return summariseT2(kAxis, a, cutoff);
}

TEST(T2Summary, SpikesGiveTheirOwnT2AndLogMean) {
    const T2Summary one = summarise({{10, 2.0}});  // 1 ms
    EXPECT_NEAR(one.logMeanT2, 1.0, 1e-12);
    EXPECT_NEAR(one.peakT2, 1.0, 1e-12);
    EXPECT_DOUBLE_EQ(one.boundFraction, 1.0);
    EXPECT_DOUBLE_EQ(one.totalAmplitude, 2.0);
    // Weights 1 : 3 at 1 ms and 100 ms: log-mean 10^(0.25*0 + 0.75*2) = 10^1.5.
    const T2Summary two = summarise({{10, 1.0}, {30, 3.0}});
    EXPECT_NEAR(two.logMeanT2, std::pow(10.0, 1.5), 1e-9);
    EXPECT_NEAR(two.peakT2, 100.0, 1e-9);
    EXPECT_NEAR(two.boundFraction, 0.25, 1e-12);
    EXPECT_NEAR(two.freeFraction, 0.75, 1e-12);
    EXPECT_NEAR(summarise({{10, 1.0}, {30, 1.0}}).peakT2, 1.0, 1e-12);  // first of equals
}

TEST(T2Summary, CutoffSplitsTheBinThatHoldsItInLogT2) {
    // Spike at 10^1.5 ms, bin 10^1.45 .. 10^1.55; the outer bins are as wide as their
    // inner halves.
    const std::tuple<std::size_t, double, double> cases[] = {{25, 1.45, 0.0},   {25, 1.5, 0.5},
                                                             {25, 1.53, 0.8},   {25, 1.6, 1.0},
                                                             {40, 3.025, 0.75}, {0, -1.025, 0.25}};
    for (const auto& [j, logCutoff, bound] : cases)
        EXPECT_NEAR(summarise({{j, 1.0}}, std::pow(10.0, logCutoff)).boundFraction, bound, 1e-9)
            << j << " " << logCutoff;
}

}  // namespace
}  // namespace nmr::analysis
