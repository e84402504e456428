#pragma once

#include <cstdint>
#include <ostream>
#include <string>

namespace nmr {

// A console bar of 51 '*' under a 0..100% scale, drawn as work items complete. Marks are
// written one at a time and flushed, so the bar grows while the work runs; at most 51
// marks are drawn however large the total.
class ProgressBar {
public:
    // A total of 0 counts as 1. title is written before the scale (a line end for the
    // walker loop), scaleText between scale and bar frame, barText after the frame.
    ProgressBar(std::uint32_t total, std::ostream& out, std::string title = "\n",
                std::string scaleText = "", std::string barText = "");

    // One more item done.
    void advance();

private:
    static constexpr double kWidth = 50.0;
    static constexpr std::uint32_t kFullBar = 51;

    void drawMark();

    std::ostream& out_;
    std::string title_;
    std::string scaleText_;
    std::string barText_;
    std::uint32_t done_ = 0;
    std::uint32_t total_;
    std::uint32_t nextDue_ = 0;
    std::uint32_t marks_ = 0;
};

}  // namespace nmr
