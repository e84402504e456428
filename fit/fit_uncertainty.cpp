#include "fit/fit_uncertainty.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace nmr::fit {

namespace {

using Eigen::Index;
using Eigen::MatrixXd;
using Eigen::VectorXd;

// Step of the central differences, in ln(relaxivity): 5 %, small against the curvature of
// a decay in its relaxivities and large against the walk's rounding.
constexpr double kStep = 0.05;

Index at(std::size_t i) { return static_cast<Index>(i); }

VectorXd vectorOf(const std::vector<double>& v) {
    return Eigen::Map<const VectorXd>(v.data(), at(v.size()));
}

// Squared norm of the first differences down the rows, column by column.
double differenceNorm(const MatrixXd& a) {
    if (a.rows() < 2) return 0.0;
    return (a.bottomRows(a.rows() - 1) - a.topRows(a.rows() - 1)).squaredNorm();
}

// White variance x and the walk noise's factor y >= 1 from the residuals' two sums of
// squares A (plain) and B (first differences), whose expectations are
// x a1 + y a2 and x b1 + y b2.
std::pair<double, double> noiseScales(double a, double b, double a1, double a2, double b1,
                                      double b2) {
    const double det = a1 * b2 - a2 * b1;
    double x = -1.0, y = 0.0;
    if (std::abs(det) > 1e-12 * std::abs(a1 * b2)) {
        x = (a * b2 - a2 * b) / det;
        y = (a1 * b - b1 * a) / det;
    }
    if (!(y >= 1.0)) {
        // No more than the walk's own noise of that shape: the rest is white, by least
        // squares over the two equations.
        y = 1.0;
        x = std::max(0.0, (a1 * (a - a2) + b1 * (b - b2)) / (a1 * a1 + b1 * b1));
    } else if (!(x >= 0.0)) {
        x = 0.0;
        y = std::max(1.0, (a2 * a + b2 * b) / (a2 * a2 + b2 * b2));
    }
    return {x, y};
}

}  // namespace

FitUncertainty::FitUncertainty(const RelaxivityFit& fit, FitSearch& search,
                               const std::vector<double>& best)
    : m_(best.size()) {
    const Linear linear = linearise(fit, search, best);
    propagate(linear);
    intervals_.resize(m_);
    for (std::size_t i = 0; i < m_; ++i) {
        intervals_[i] = {profileEdge(search, best, linear.sumOfSquares, i, -1.0),
                         profileEdge(search, best, linear.sumOfSquares, i, 1.0)};
    }
}

FitUncertainty::Linear FitUncertainty::linearise(const RelaxivityFit& fit, FitSearch& search,
                                                 const std::vector<double>& best) const {
    const std::vector<double>& measured = fit.window().values();
    const std::size_t n = measured.size();
    auto relaxivity = [&](const std::vector<double>& u) {
        std::vector<double> values(u.size());
        for (std::size_t i = 0; i < u.size(); ++i) values[i] = std::exp(u[i]);
        return fit.relaxivities(search.request().minerals, values);
    };
    Linear linear;
    search.addEvaluations(static_cast<int>(2 * m_ + 2));
    const std::vector<double> model = fit.modelAt(relaxivity(best));
    const Misfit atBest = misfit(model, measured);
    linear.sumOfSquares = atBest.sumOfSquares;
    linear.residual = vectorOf(model) - atBest.scale * vectorOf(measured);
    linear.jacobian = MatrixXd::Zero(at(n), at(m_ + 1));
    for (std::size_t i = 0; i < m_; ++i) {
        std::vector<double> up = best, down = best;
        up[i] = std::min(best[i] + kStep, search.upper()[i]);
        down[i] = std::max(best[i] - kStep, search.lower()[i]);
        if (!(up[i] > down[i])) continue;  // a relaxivity held between equal bounds
        linear.jacobian.col(at(i)) =
            (vectorOf(fit.modelAt(relaxivity(up))) - vectorOf(fit.modelAt(relaxivity(down)))) /
            (up[i] - down[i]);
    }
    linear.jacobian.col(at(m_)) = -vectorOf(measured);

    const auto chunks = fit.chunkModels(relaxivity(best));
    const std::size_t c = chunks.size();
    linear.walk = MatrixXd::Zero(at(n), at(c));
    if (c > 1) {
        VectorXd mean = VectorXd::Zero(at(n));
        for (const auto& chunk : chunks) mean += vectorOf(chunk);
        mean /= static_cast<double>(c);
        const double norm = 1.0 / std::sqrt(static_cast<double>(c) * static_cast<double>(c - 1));
        for (std::size_t k = 0; k < c; ++k) {
            linear.walk.col(at(k)) = (vectorOf(chunks[k]) - mean) * norm;
        }
    }
    return linear;
}

void FitUncertainty::propagate(const Linear& linear) {
    const MatrixXd& j = linear.jacobian;
    const Index n = j.rows();
    const Eigen::BDCSVD<MatrixXd> svd(j, Eigen::ComputeThinU | Eigen::ComputeThinV);
    const VectorXd& s = svd.singularValues();
    Index rank = 0;
    while (rank < s.size() && s(rank) > 1e-12 * s(0)) ++rank;
    const MatrixXd u = svd.matrixU().leftCols(rank);
    const MatrixXd v = svd.matrixV().leftCols(rank);
    const VectorXd inverse = s.head(rank).cwiseInverse();

    // The noise scales from the residuals (see the class comment).
    const MatrixXd& z = linear.walk;
    const MatrixXd inside = u.transpose() * z;  // the walk's noise along the fit's directions
    const MatrixXd outside = z - u * inside;
    const double a = linear.residual.squaredNorm();
    const double b = differenceNorm(linear.residual);
    const double a1 = static_cast<double>(std::max<Index>(n - rank, 1));
    const double b1 = std::max(2.0 * static_cast<double>(n - 1) - differenceNorm(u), 1e-300);
    const auto [x, y] = noiseScales(a, b, a1, outside.squaredNorm(), b1, differenceNorm(outside));
    const double perPoint = z.squaredNorm() / static_cast<double>(std::max<Index>(n, 1));
    noise_ = {std::sqrt(perPoint), std::sqrt(x), std::sqrt((y - 1.0) * perPoint)};

    // Covariance of the parameters: V S^-1 U^T C U S^-1 V^T with C = x I + y Z Z^T.
    MatrixXd projected = y * inside * inside.transpose();
    projected.diagonal().array() += x;
    const MatrixXd a0 = v * inverse.asDiagonal();
    covariance_ = a0 * projected * a0.transpose();
    const MatrixXd gramInverse = a0 * a0.transpose();
    threshold_.assign(m_, 0.0);
    for (std::size_t i = 0; i < m_; ++i) {
        const double g = gramInverse(at(i), at(i));
        threshold_[i] = g > 0.0 ? covariance_(at(i), at(i)) / g : 0.0;
    }
}

std::vector<double> FitUncertainty::correlation() const {
    std::vector<double> r(m_ * m_, 0.0);
    for (std::size_t i = 0; i < m_; ++i) {
        for (std::size_t k = 0; k < m_; ++k) {
            const double d = std::sqrt(covariance_(at(i), at(i)) * covariance_(at(k), at(k)));
            r[i * m_ + k] = i == k ? 1.0 : (d > 0.0 ? covariance_(at(i), at(k)) / d : 0.0);
        }
    }
    return r;
}

double FitUncertainty::variance(const std::vector<double>& gradient) const {
    const VectorXd g = vectorOf(gradient);
    return g.dot(covariance_.topLeftCorner(at(m_), at(m_)) * g);
}

double FitUncertainty::profileEdge(FitSearch& search, const std::vector<double>& best, double least,
                                   std::size_t i, double side) const {
    const double u0 = best[i];
    const double bound = side > 0.0 ? search.upper()[i] : search.lower()[i];
    const double room = std::abs(bound - u0);
    const double threshold = threshold_[i];
    if (room < 1e-9) return bound;
    if (!(threshold > 0.0)) return u0;
    // The first guess is the linear one; each next one scales the last as the root of the
    // rise (a quadratic profile), kept inside what is already known to lie below and above
    // the threshold.
    const double linear = std::sqrt(covariance_(at(i), at(i)));
    double d = std::min(std::isfinite(linear) && linear > 0.0 ? linear : kStep, room);
    double below = 0.0;
    double above = std::numeric_limits<double>::infinity();
    std::vector<double> start = best;
    constexpr int kMostSteps = 10;
    constexpr double kClose = 0.15;  // a rise within 15 % of the threshold: scale and stop
    for (int step = 0; step < kMostSteps; ++step) {
        const FitSearch::Point point = search.minimiseWith(i, u0 + side * d, start);
        start = point.u;
        const double ratio = std::max(point.sumOfSquares - least, 0.0) / threshold;
        if (std::abs(ratio - 1.0) < kClose) return u0 + side * std::min(d / std::sqrt(ratio), room);
        if (ratio < 1.0) {
            below = d;
            if (d >= room) return bound;
        } else {
            above = d;
        }
        double next = ratio > 0.0 ? d / std::sqrt(ratio) : 4.0 * d;
        next = std::clamp(next, 0.25 * d, 4.0 * d);
        if (std::isfinite(above) && !(next > below && next < above)) {
            next = below > 0.0 ? std::sqrt(below * above) : 0.5 * above;
        }
        d = std::min(next, room);
    }
    return u0 + side * d;
}

}  // namespace nmr::fit
