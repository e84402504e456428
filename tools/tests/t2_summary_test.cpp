#include <gtest/gtest.h>

#include <cmath>

#include "t2/t2_grid.h"
#include "tools/t2_summary.h"

namespace nmr::tools {
namespace {

// Ten points per decade from 0.1 to 1000 ms: 41 points, bins 0.1 decade wide.
std::vector<double> axis() { return t2::makeT2Grid(0.1, 1000.0, 41); }

std::vector<double> spikes(const std::vector<double>& grid,
                           std::initializer_list<std::pair<std::size_t, double>> at) {
    std::vector<double> a(grid.size(), 0.0);
    for (auto [j, v] : at) a[j] = v;
    return a;
}

TEST(T2Summary, SpikesGiveTheirOwnT2AndLogMean) {
    const auto grid = axis();
    const T2Summary one = summariseT2(grid, spikes(grid, {{10, 2.0}}));  // 1 ms
    EXPECT_TRUE(one.hasSignal);
    EXPECT_NEAR(one.logMeanT2, 1.0, 1e-12);
    EXPECT_NEAR(one.peakT2, 1.0, 1e-12);
    EXPECT_DOUBLE_EQ(one.boundFraction, 1.0);
    EXPECT_DOUBLE_EQ(one.totalAmplitude, 2.0);

    // Weights 1 : 3 at 1 ms and 100 ms: log-mean 10^(0.25*0 + 0.75*2) = 10^1.5.
    const T2Summary two = summariseT2(grid, spikes(grid, {{10, 1.0}, {30, 3.0}}));
    EXPECT_NEAR(two.logMeanT2, std::pow(10.0, 1.5), 1e-9);
    EXPECT_NEAR(two.peakT2, 100.0, 1e-9);
    EXPECT_NEAR(two.boundFraction, 0.25, 1e-12);
    EXPECT_NEAR(two.freeFraction, 0.75, 1e-12);

    // Equal amplitudes: the first (smaller T2) is the peak.
    EXPECT_NEAR(summariseT2(grid, spikes(grid, {{10, 1.0}, {30, 1.0}})).peakT2, 1.0, 1e-12);
}

TEST(T2Summary, CutoffSplitsTheBinThatHoldsItInLogT2) {
    const auto grid = axis();
    const auto a = spikes(grid, {{25, 1.0}});  // 10^1.5 = 31.6 ms, bin 10^1.45 .. 10^1.55
    EXPECT_NEAR(summariseT2(grid, a, std::pow(10.0, 1.45)).boundFraction, 0.0, 1e-9);
    EXPECT_NEAR(summariseT2(grid, a, std::pow(10.0, 1.5)).boundFraction, 0.5, 1e-9);
    EXPECT_NEAR(summariseT2(grid, a, std::pow(10.0, 1.53)).boundFraction, 0.8, 1e-9);
    EXPECT_NEAR(summariseT2(grid, a, std::pow(10.0, 1.6)).boundFraction, 1.0, 1e-9);
    // The outer bins are as wide as their inner halves.
    const auto last = spikes(grid, {{40, 1.0}});
    EXPECT_NEAR(summariseT2(grid, last, std::pow(10.0, 3.025)).boundFraction, 0.75, 1e-9);
    EXPECT_NEAR(summariseT2(grid, spikes(grid, {{0, 1.0}}), std::pow(10.0, -1.025)).boundFraction,
                0.25, 1e-9);
}

TEST(T2Summary, NoSignalIsReportedNotInvented) {
    const auto grid = axis();
    const T2Summary s = summariseT2(grid, std::vector<double>(grid.size(), 0.0));
    EXPECT_FALSE(s.hasSignal);
    EXPECT_TRUE(std::isnan(s.logMeanT2));
    EXPECT_NE(summaryJson(s).find("\"logMeanT2Ms\": null"), std::string::npos);
    EXPECT_NE(formatSummary(s).find("No signal"), std::string::npos);
}

}  // namespace
}  // namespace nmr::tools
