#include "fit/measured_window.h"

#include <algorithm>
#include <cmath>

namespace nmr::fit {

MeasuredWindow::MeasuredWindow(const MeasuredDecay& measured,
                               const std::vector<double>& simulatedTimes) {
    if (simulatedTimes.size() < 2) return;
    first_ = simulatedTimes.front();
    last_ = simulatedTimes.back();
    std::size_t k = 0;
    for (std::size_t j = 0; j < measured.times.size(); ++j) {
        const double t = measured.times[j];
        if (!(t >= first_ && t <= last_)) continue;
        while (k + 2 < simulatedTimes.size() && simulatedTimes[k + 1] < t) ++k;
        const double lo = std::log(simulatedTimes[k]);
        const double hi = std::log(simulatedTimes[k + 1]);
        times_.push_back(t);
        values_.push_back(measured.values[j]);
        source_.push_back(j);
        below_.push_back(k);
        weight_.push_back(hi > lo ? std::clamp((std::log(t) - lo) / (hi - lo), 0.0, 1.0) : 0.0);
    }
}

void MeasuredWindow::interpolate(const std::vector<double>& simulated,
                                 std::vector<double>& out) const {
    out.resize(values_.size());
    for (std::size_t j = 0; j < values_.size(); ++j) {
        const std::size_t k = below_[j];
        out[j] = simulated[k] + weight_[j] * (simulated[k + 1] - simulated[k]);
    }
}

Misfit misfit(const std::vector<double>& simulated, const std::vector<double>& measured) {
    double sd = 0.0, dd = 0.0;
    for (std::size_t j = 0; j < simulated.size(); ++j) {
        sd += simulated[j] * measured[j];
        dd += measured[j] * measured[j];
    }
    Misfit result;
    result.scale = dd > 0.0 ? sd / dd : 0.0;
    // Summed directly rather than as ss - sd^2/dd, which cancels badly near a good fit.
    for (std::size_t j = 0; j < simulated.size(); ++j) {
        const double r = simulated[j] - result.scale * measured[j];
        result.sumOfSquares += r * r;
    }
    return result;
}

}  // namespace nmr::fit
