#pragma once

#include <cstddef>
#include <vector>

#include "fit/relaxivity_fit.h"

namespace nmr::fit {

// The search of a fit in u = ln(relaxivity) inside the bounds: the coarse look over the
// whole box, the local refinement from its best valleys, and the minimisation with one
// coordinate held fixed that the profiles of the uncertainty need. Counts evaluations.
class FitSearch {
public:
    struct Point {
        std::vector<double> u;
        double sumOfSquares = 0.0;
    };

    FitSearch(const RelaxivityFit& fit, const FitRequest& request);

    // The best fit: the coarse look, then BOBYQA from each of its best valleys.
    Point best();
    // The least misfit with coordinate `fixed` held at `value`, every other coordinate free
    // inside its bounds, from `start` (whose own `fixed` entry is ignored).
    Point minimiseWith(std::size_t fixed, double value, const std::vector<double>& start);

    // Sum of squares at exp(u), the scale free; every stride-th chunk of walkers.
    double sumOfSquares(const std::vector<double>& u, std::size_t stride = 1);

    std::size_t dimensions() const { return lower_.size(); }
    const std::vector<double>& lower() const { return lower_; }
    const std::vector<double>& upper() const { return upper_; }
    const FitRequest& request() const { return request_; }
    int evaluations() const { return evaluations_; }
    // Evaluations made elsewhere on the search's behalf (the linearised fit's).
    void addEvaluations(int count) { evaluations_ += count; }

    // The look uses every kScanStride-th chunk of walkers: a quarter of the walkers tells
    // the valleys apart at a quarter of the cost.
    static constexpr std::size_t kScanStride = 4;
    // Valleys of the look that are refined.
    static constexpr std::size_t kValleys = 3;

private:
    std::vector<std::vector<double>> scanPoints() const;
    std::vector<Point> valleys(const std::vector<std::vector<double>>& points,
                               const std::vector<double>& values) const;
    Point refine(const std::vector<double>& start, double initialStep);

    const RelaxivityFit& fit_;
    const FitRequest& request_;
    std::vector<double> lower_;
    std::vector<double> upper_;
    int evaluations_ = 0;
};

}  // namespace nmr::fit
