#pragma once

#include <cstddef>
#include <vector>

namespace nmr::fit {

// A measured decay, times in ms, in any amplitude unit.
struct MeasuredDecay {
    std::vector<double> times;
    std::vector<double> values;
};

// The measured points inside the simulated times, with each point's place between two
// interval end times (linear in log time), fixed once: the simulated curve always has a
// point at every interval end up to the same cut.
class MeasuredWindow {
public:
    // Fewer than kLeastPoints points inside is too few to fit; the caller says so.
    MeasuredWindow(const MeasuredDecay& measured, const std::vector<double>& simulatedTimes);
    static constexpr std::size_t kLeastPoints = 10;

    std::size_t size() const { return values_.size(); }
    double first() const { return first_; }
    double last() const { return last_; }
    // The simulated amplitudes (one per simulated time) at the measured times.
    void interpolate(const std::vector<double>& simulated, std::vector<double>& out) const;
    const std::vector<double>& values() const { return values_; }
    const std::vector<double>& times() const { return times_; }
    // Index in the measurement of each point inside.
    const std::vector<std::size_t>& source() const { return source_; }

private:
    std::vector<double> times_;
    std::vector<double> values_;
    std::vector<std::size_t> below_;
    std::vector<double> weight_;  // of the point above
    std::vector<std::size_t> source_;
    double first_ = 0.0;
    double last_ = 0.0;
};

// Sum of squared differences between the simulation and the measurement times a free
// amplitude scale, minimised over the scale in closed form.
struct Misfit {
    double sumOfSquares = 0.0;
    double scale = 0.0;
};
Misfit misfit(const std::vector<double>& simulatedAtMeasured, const std::vector<double>& measured);

}  // namespace nmr::fit
