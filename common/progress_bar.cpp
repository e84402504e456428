#include "common/progress_bar.h"

namespace nmr {

ProgressBar::ProgressBar(std::uint32_t total, std::ostream& out, std::string title,
                         std::string scaleText, std::string barText)
    : out_(out),
      title_(std::move(title)),
      scaleText_(std::move(scaleText)),
      barText_(std::move(barText)),
      total_(total == 0 ? 1 : total) {
    out_ << title_ << "0%   10   20   30   40   50   60   70   80   90   100%\n"
         << scaleText_ << "|----|----|----|----|----|----|----|----|----|----|" << std::endl
         << barText_;
    out_.flush();
}

void ProgressBar::drawMark() {
    out_ << '*';
    out_.flush();
    ++marks_;
}

void ProgressBar::advance() {
    ++done_;
    if (done_ >= nextDue_) {
        const auto target = static_cast<std::uint32_t>(static_cast<double>(done_) /
                                                       static_cast<double>(total_) * kWidth);
        // At least one mark per due point, even when the target is already reached: with
        // many items the marks then follow the due points instead of arriving in bursts.
        do {
            drawMark();
        } while (marks_ < target);
        nextDue_ = static_cast<std::uint32_t>(static_cast<double>(marks_) / kWidth *
                                              static_cast<double>(total_));
    }
    // The frame is 51 characters wide; the last mark fills it when the work is complete.
    if (done_ == total_) {
        if (marks_ < kFullBar) drawMark();
        out_ << std::endl;
    }
}

}  // namespace nmr
