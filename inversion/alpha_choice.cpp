#include "inversion/alpha_choice.h"

#include <cmath>
#include <vector>

namespace nmr::inversion {

namespace {

constexpr int kDecades = 12;
// The refinement ends when chi is within 0.1 % of the target or the bracket is narrower
// than 1e-3 decade; a map does not change visibly on either scale.
constexpr double kResidualTolerance = 1e-3;
constexpr double kBracketTolerance = 1e-3;
constexpr int kRefineLimit = 30;

struct Point {
    double x = 0.0;  // ln alpha
    double h = 0.0;  // ln(chi / target)
    double residual = 0.0;
};

double residualAt(CompressedSolver& solver, const CompressedProblem& problem, double alpha) {
    return (problem.data - problem.kernel * solver.solve(alpha)).norm();
}

// Illinois variant of regula falsi on [lo, hi] with h(lo) <= 0 < h(hi): halving the
// weight of an end that stays put keeps the convergence superlinear.
Point refine(CompressedSolver& solver, const CompressedProblem& problem, double target, Point lo,
             Point hi, int& solves) {
    const double bracket = kBracketTolerance * std::log(10.0);
    double wLo = lo.h;
    double wHi = hi.h;
    int side = 0;
    for (int k = 0; k < kRefineLimit && hi.x - lo.x > bracket; ++k) {
        Point p;
        p.x = (lo.x * wHi - hi.x * wLo) / (wHi - wLo);
        p.residual = residualAt(solver, problem, std::exp(p.x));
        p.h = std::log(p.residual / target);
        ++solves;
        if (std::abs(p.h) <= kResidualTolerance) return p;
        if (p.h > 0.0) {
            hi = p;
            wHi = p.h;
            if (side == -1) wLo *= 0.5;
            side = -1;
        } else {
            lo = p;
            wLo = p.h;
            if (side == 1) wHi *= 0.5;
            side = 1;
        }
    }
    return std::abs(lo.h) <= std::abs(hi.h) ? lo : hi;
}

}  // namespace

AlphaChoice chooseAlpha(CompressedSolver& solver, const CompressedProblem& problem, double noise) {
    AlphaChoice choice;
    const double scale = problem.k1.s[0] * problem.k2.s[0];
    const double top = 2.0 * std::log(scale);
    const double decade = std::log(10.0);
    // The scan: chi at alpha = scale^2 10^-k, integer k, so every alpha is reproducible.
    std::vector<double> chi(kDecades + 1);
    for (int k = 0; k <= kDecades; ++k)
        chi[static_cast<std::size_t>(k)] = residualAt(solver, problem, std::exp(top - decade * k));
    choice.solves = kDecades + 1;
    choice.floor = chi.back();
    const double n = static_cast<double>(problem.data.size());
    choice.target = std::sqrt(choice.floor * choice.floor + kNoiseEnergyFactor * n * noise * noise);

    int k = 0;
    // Ends at kDecades at the latest, where chi is the floor itself.
    while (chi[static_cast<std::size_t>(k)] > choice.target) ++k;
    if (k == 0) {
        // Data within the noise of the smoothest map: alpha stays at the top.
        choice.alpha = std::exp(top);
        choice.residual = chi[0];
        return choice;
    }
    auto point = [&](int index) {
        const double r = chi[static_cast<std::size_t>(index)];
        return Point{top - decade * index, std::log(r / choice.target), r};
    };
    const Point root =
        refine(solver, problem, choice.target, point(k), point(k - 1), choice.solves);
    choice.alpha = std::exp(root.x);
    choice.residual = root.residual;
    return choice;
}

}  // namespace nmr::inversion
