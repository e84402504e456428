#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "app/progress_bar.h"

namespace nmr::app {
namespace {

struct BarCase {
    std::uint32_t total;
    std::vector<std::size_t> first;  // marks standing after the first advances
    std::vector<std::size_t> last;   // marks standing after the last advances
};

class ProgressBarMarks : public ::testing::TestWithParam<BarCase> {};

// Whatever the total, the finished bar shows exactly 51 marks and ends its line once.
TEST_P(ProgressBarMarks, GrowStepByStepAndFillTheFrame) {
    const auto& c = GetParam();
    std::ostringstream out;
    ProgressBar bar(c.total, out, "title\n", "scale\n", "bar:");
    EXPECT_EQ(out.str(),
              "title\n0%   10   20   30   40   50   60   70   80   90   100%\nscale\n"
              "|----|----|----|----|----|----|----|----|----|----|\nbar:");
    std::vector<std::size_t> marks;
    for (std::uint32_t i = 0; i < std::max(c.total, 1u); ++i) {
        bar.advance();
        const std::string text = out.str();
        marks.push_back(static_cast<std::size_t>(std::count(text.begin(), text.end(), '*')));
    }
    EXPECT_TRUE(std::equal(c.first.begin(), c.first.end(), marks.begin()));
    EXPECT_TRUE(std::equal(c.last.rbegin(), c.last.rend(), marks.rbegin()));
    EXPECT_EQ(marks.back(), 51u);
    const std::string tail = "|\nbar:" + std::string(51, '*') + "\n";
    EXPECT_EQ(out.str().substr(out.str().size() - tail.size()), tail);
}

// A total of 3 draws 16, 17, 17 and the 51st at the end; 0 behaves as 1; with more items
// than marks each due point draws one mark even when its target is already met.
INSTANTIATE_TEST_SUITE_P(Totals, ProgressBarMarks,
                         ::testing::Values(BarCase{3, {16, 33, 51}, {}}, BarCase{0, {51}, {}},
                                           BarCase{1, {51}, {}}, BarCase{7, {7, 14}, {42, 51}},
                                           BarCase{100, {1, 2, 2, 3, 3, 4}, {49, 50, 50, 51}},
                                           BarCase{51, {}, {}}, BarCase{12345, {1}, {}}));

}  // namespace
}  // namespace nmr::app
