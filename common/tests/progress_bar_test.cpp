#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "common/progress_bar.h"

namespace nmr {
namespace {

// Marks standing after the first and after the last advances. A total of 3 draws 16, 17,
// 17 and the 51st at the end; 0 behaves as 1; with more items than marks each due point
// draws one mark even when its target is already met.
TEST(ProgressBar, MarksGrowStepByStepAndFillTheFrameOnce) {
    struct Case {
        std::uint32_t total;
        std::vector<std::size_t> first, last;
    };
    for (const Case& c : {Case{3, {16, 33, 51}, {}}, Case{0, {51}, {}}, Case{7, {7, 14}, {42, 51}},
                          Case{100, {1, 2, 2, 3, 3, 4}, {49, 50, 50, 51}}, Case{12345, {1}, {}}}) {
        std::ostringstream out;
        ProgressBar bar(c.total, out, "title\n", "scale\n", "bar:");
        EXPECT_EQ(out.str(),
                  "title\n0%   10   20   30   40   50   60   70   80   90   100%\nscale\n"
                  "|----|----|----|----|----|----|----|----|----|----|\nbar:");
        std::vector<std::size_t> marks;
        for (std::uint32_t i = 0; i < std::max(c.total, 1u); ++i) {
            bar.advance();
            marks.push_back(static_cast<std::size_t>(std::ranges::count(out.str(), '*')));
        }
        EXPECT_TRUE(std::equal(c.first.begin(), c.first.end(), marks.begin())) << c.total;
        EXPECT_TRUE(std::equal(c.last.rbegin(), c.last.rend(), marks.rbegin())) << c.total;
        EXPECT_TRUE(out.str().ends_with("|\nbar:" + std::string(51, '*') + "\n")) << c.total;
    }
}

}  // namespace
}  // namespace nmr
