#include "fit/fit_search.h"

#include <nlopt.hpp>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "common/exception.h"

namespace nmr::fit {

namespace {

// Points per axis of the look's grid for one, two and three relaxivities; more take a
// low-discrepancy set of kScatteredPerDimension points per relaxivity instead, since a grid
// would grow as its power.
constexpr std::size_t kGridPoints[] = {0, 25, 11, 7};
constexpr std::size_t kScatteredPerDimension = 64;

// The k-th point of the Halton sequence in base b, in [0, 1).
double halton(std::size_t k, std::size_t base) {
    double value = 0.0;
    double fraction = 1.0;
    for (std::size_t i = k; i > 0; i /= base) {
        fraction /= static_cast<double>(base);
        value += fraction * static_cast<double>(i % base);
    }
    return value;
}

constexpr std::size_t kPrimes[] = {2,  3,  5,  7,  11, 13, 17, 19, 23,
                                   29, 31, 37, 41, 43, 47, 53, 59, 61};

struct Objective {
    FitSearch* search;
    std::vector<double> full;  // every coordinate; the free ones are filled in
    std::size_t fixed;         // the coordinate left out of x, or dimensions() for none
};

double evaluate(const std::vector<double>& x, std::vector<double>& /*gradient*/, void* data) {
    auto* o = static_cast<Objective*>(data);
    for (std::size_t i = 0, k = 0; i < o->full.size(); ++i) {
        if (i != o->fixed) o->full[i] = x[k++];
    }
    return o->search->sumOfSquares(o->full);
}

// Minimises over the coordinates of `o.full` other than o.fixed, from their values there.
double minimise(Objective& o, const std::vector<double>& lower, const std::vector<double>& upper,
                double initialStep, double tolerance, int maxEvaluations) {
    std::vector<double> x, lo, hi, step;
    for (std::size_t i = 0; i < o.full.size(); ++i) {
        if (i == o.fixed) continue;
        x.push_back(std::clamp(o.full[i], lower[i], upper[i]));
        lo.push_back(lower[i]);
        hi.push_back(upper[i]);
        step.push_back(std::max(1e-6, std::min(initialStep, 0.25 * (upper[i] - lower[i]))));
    }
    // BOBYQA needs two or more variables; a single one goes to Powell's COBYLA, the same
    // family of derivative-free model-based methods.
    nlopt::opt optimiser(x.size() >= 2 ? nlopt::LN_BOBYQA : nlopt::LN_COBYLA,
                         static_cast<unsigned>(x.size()));
    optimiser.set_lower_bounds(lo);
    optimiser.set_upper_bounds(hi);
    optimiser.set_min_objective(evaluate, &o);
    optimiser.set_xtol_abs(tolerance);
    optimiser.set_maxeval(maxEvaluations);
    optimiser.set_initial_step(step);
    double value = 0.0;
    try {
        optimiser.optimize(x, value);
    } catch (const nlopt::roundoff_limited&) {
        // The misfit no longer changes at double precision: x holds the best point.
        std::vector<double> unused;
        value = evaluate(x, unused, &o);
    } catch (const std::exception& e) {
        throw Exception(std::string("The optimiser failed: ") + e.what());
    }
    for (std::size_t i = 0, k = 0; i < o.full.size(); ++i) {
        if (i != o.fixed) o.full[i] = x[k++];
    }
    return value;
}

}  // namespace

FitSearch::FitSearch(const RelaxivityFit& fit, const FitRequest& request)
    : fit_(fit), request_(request) {
    for (std::size_t i = 0; i < request.minerals.size(); ++i) {
        lower_.push_back(std::log(request.lower[i]));
        upper_.push_back(std::log(request.upper[i]));
    }
}

double FitSearch::sumOfSquares(const std::vector<double>& u, std::size_t stride) {
    ++evaluations_;
    std::vector<double> values(u.size());
    for (std::size_t i = 0; i < u.size(); ++i) values[i] = std::exp(u[i]);
    const auto relaxivity = fit_.relaxivities(request_.minerals, values);
    return misfit(fit_.modelAt(relaxivity, stride), fit_.window().values()).sumOfSquares;
}

std::vector<std::vector<double>> FitSearch::scanPoints() const {
    const std::size_t m = dimensions();
    std::vector<std::vector<double>> points;
    if (m < std::size(kGridPoints)) {
        const std::size_t g = kGridPoints[m];
        std::size_t count = 1;
        for (std::size_t i = 0; i < m; ++i) count *= g;
        for (std::size_t k = 0; k < count; ++k) {
            std::vector<double> u(m);
            for (std::size_t i = 0, rest = k; i < m; ++i, rest /= g) {
                u[i] = lower_[i] + (upper_[i] - lower_[i]) * static_cast<double>(rest % g) /
                                       static_cast<double>(g - 1);
            }
            points.push_back(std::move(u));
        }
        return points;
    }
    for (std::size_t k = 1; k <= kScatteredPerDimension * m; ++k) {
        std::vector<double> u(m);
        for (std::size_t i = 0; i < m; ++i) {
            u[i] = lower_[i] + (upper_[i] - lower_[i]) * halton(k, kPrimes[i % std::size(kPrimes)]);
        }
        points.push_back(std::move(u));
    }
    return points;
}

std::vector<FitSearch::Point> FitSearch::valleys(const std::vector<std::vector<double>>& points,
                                                 const std::vector<double>& values) const {
    // A valley is a point no higher than its 2M nearest neighbours (on a grid: the points
    // next to it along each axis), distances measured as fractions of each range.
    const std::size_t m = dimensions();
    const std::size_t n = points.size();
    auto distance = [&](std::size_t a, std::size_t b) {
        double sum = 0.0;
        for (std::size_t i = 0; i < m; ++i) {
            const double d = (points[a][i] - points[b][i]) / (upper_[i] - lower_[i]);
            sum += d * d;
        }
        return sum;
    };
    std::vector<Point> found;
    std::vector<std::size_t> order(n);
    for (std::size_t a = 0; a < n; ++a) {
        std::iota(order.begin(), order.end(), 0);
        const std::size_t k = std::min(2 * m + 1, n);
        std::partial_sort(
            order.begin(), order.begin() + static_cast<std::ptrdiff_t>(k), order.end(),
            [&](std::size_t x, std::size_t y) { return distance(a, x) < distance(a, y); });
        bool lowest = true;
        for (std::size_t j = 0; j < k; ++j) lowest = lowest && values[a] <= values[order[j]];
        if (lowest) found.push_back({points[a], values[a]});
    }
    std::sort(found.begin(), found.end(),
              [](const Point& a, const Point& b) { return a.sumOfSquares < b.sumOfSquares; });
    if (found.size() > kValleys) found.resize(kValleys);
    return found;
}

FitSearch::Point FitSearch::refine(const std::vector<double>& start, double initialStep) {
    Objective o{this, start, dimensions()};
    constexpr double kTolerance = 1e-5;  // 0.001 % of a relaxivity
    constexpr int kMostEvaluations = 600;
    const double value = minimise(o, lower_, upper_, initialStep, kTolerance, kMostEvaluations);
    return {o.full, value};
}

FitSearch::Point FitSearch::best() {
    const auto points = scanPoints();
    std::vector<double> values;
    values.reserve(points.size());
    for (const auto& u : points) values.push_back(sumOfSquares(u, kScanStride));
    // Start half a spacing of the look's grid wide: the refinement then stays in its valley.
    double spacing = 1.0;
    if (dimensions() < std::size(kGridPoints)) {
        spacing = 1.0 / static_cast<double>(kGridPoints[dimensions()] - 1);
    }
    double step = 0.0;
    for (std::size_t i = 0; i < dimensions(); ++i) {
        step = std::max(step, 0.5 * spacing * (upper_[i] - lower_[i]));
    }
    Point best;
    best.sumOfSquares = HUGE_VAL;
    for (const Point& valley : valleys(points, values)) {
        Point refined = refine(valley.u, step);
        if (refined.sumOfSquares < best.sumOfSquares) best = std::move(refined);
    }
    return best;
}

FitSearch::Point FitSearch::minimiseWith(std::size_t fixed, double value,
                                         const std::vector<double>& start) {
    Objective o{this, start, fixed};
    o.full[fixed] = value;
    if (dimensions() == 1) return {o.full, sumOfSquares(o.full)};
    constexpr double kTolerance = 1e-4;
    constexpr double kInitialStep = 0.1;
    constexpr int kMostEvaluations = 200;
    const double least = minimise(o, lower_, upper_, kInitialStep, kTolerance, kMostEvaluations);
    return {o.full, least};
}

}  // namespace nmr::fit
