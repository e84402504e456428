#include "inversion/brd_solver.h"

#include <vector>

namespace nmr::inversion {

namespace {

// A solve ends when the dual gradient is below this fraction of ||m||, or when a full
// Newton step leaves the active set as it was: the step then minimised the dual's
// quadratic piece exactly, which is the minimiser itself.
constexpr double kGradientTolerance = 1e-12;
constexpr int kStepLimit = 500;
// Armijo's sufficient decrease, and the shortest step tried before accepting any.
constexpr double kSufficientDecrease = 1e-4;
constexpr double kShortestStep = 1e-12;

std::vector<Eigen::Index> activeColumns(const Eigen::VectorXd& z) {
    std::vector<Eigen::Index> active;
    for (Eigen::Index j = 0; j < z.size(); ++j)
        if (z[j] > 0.0) active.push_back(j);
    return active;
}

void gather(const Eigen::MatrixXd& kernel, const std::vector<Eigen::Index>& columns,
            Eigen::MatrixXd& out) {
    out.resize(kernel.rows(), static_cast<Eigen::Index>(columns.size()));
    for (std::size_t k = 0; k < columns.size(); ++k)
        out.col(static_cast<Eigen::Index>(k)) = kernel.col(columns[k]);
}

}  // namespace

BrdSolver::BrdSolver(const CompressedProblem& problem)
    : kernel_(problem.kernel),
      data_(problem.data),
      top_(problem.k1.s[0] * problem.k2.s[0] * problem.k1.s[0] * problem.k2.s[0]) {
    gram_.setZero(kernel_.rows(), kernel_.rows());
    gram_.selfadjointView<Eigen::Lower>().rankUpdate(kernel_);
}

void BrdSolver::assemble(const std::vector<Eigen::Index>& active, double alpha,
                         Eigen::MatrixXd& activeColumns, Eigen::MatrixXd& h) const {
    gather(kernel_, active, activeColumns);
    const auto n = static_cast<std::size_t>(kernel_.cols());
    // Eigen's blocked products divide by the inner dimension: an empty set of columns
    // must not reach rankUpdate.
    if (2 * active.size() <= n) {
        h.setZero(kernel_.rows(), kernel_.rows());
        if (!active.empty()) h.selfadjointView<Eigen::Lower>().rankUpdate(activeColumns);
    } else {
        // Mostly active (large alpha): the whole Gram matrix less the few inactive columns.
        std::vector<Eigen::Index> inactive;
        inactive.reserve(n - active.size());
        std::size_t a = 0;
        for (std::size_t j = 0; j < n; ++j) {
            if (a < active.size() && static_cast<std::size_t>(active[a]) == j) {
                ++a;
            } else {
                inactive.push_back(static_cast<Eigen::Index>(j));
            }
        }
        h = gram_;
        if (!inactive.empty()) {
            Eigen::MatrixXd rest;
            gather(kernel_, inactive, rest);
            h.selfadjointView<Eigen::Lower>().rankUpdate(rest, -1.0);
        }
    }
    h.diagonal().array() += alpha;
}

double BrdSolver::dual(const Eigen::VectorXd& c, double alpha) const {
    const Eigen::VectorXd z = (kernel_.transpose() * c).cwiseMax(0.0);
    return 0.5 * z.squaredNorm() + 0.5 * alpha * c.squaredNorm() - c.dot(data_);
}

Eigen::VectorXd BrdSolver::solve(double alpha) {
    lastSteps_ = 0;
    if (!(lastAlpha_ > 0.0)) {
        c_ = data_ / top_;
        lastAlpha_ = top_;
        for (double a = top_; a > 10.0 * alpha; a *= 0.1) descend(a);
    }
    descend(alpha);
    return (kernel_.transpose() * c_).cwiseMax(0.0);
}

void BrdSolver::descend(double alpha) {
    c_ *= lastAlpha_ / alpha;
    lastAlpha_ = alpha;
    lastConverged_ = false;
    const double tolerance = kGradientTolerance * data_.norm();
    std::vector<Eigen::Index> previous;
    bool fullStep = false;
    Eigen::MatrixXd h;
    Eigen::MatrixXd gathered;
    for (int iteration = 0; iteration < kStepLimit; ++iteration, ++lastSteps_) {
        const Eigen::VectorXd z = kernel_.transpose() * c_;
        std::vector<Eigen::Index> active = activeColumns(z);
        if (fullStep && active == previous) {
            lastConverged_ = true;
            break;
        }
        assemble(active, alpha, gathered, h);
        const Eigen::VectorXd zActive = z(active);
        const Eigen::VectorXd gradient = gathered * zActive + alpha * c_ - data_;
        if (gradient.norm() <= tolerance) {
            lastConverged_ = true;
            break;
        }
        const Eigen::LLT<Eigen::MatrixXd, Eigen::Lower> llt(h);
        const Eigen::VectorXd dc = llt.solve(data_) - c_;
        const double slope = gradient.dot(dc);
        const double start = dual(c_, alpha);
        double t = 1.0;
        while (t > kShortestStep &&
               dual(c_ + t * dc, alpha) > start + kSufficientDecrease * t * slope)
            t *= 0.5;
        c_ += t * dc;
        fullStep = t == 1.0;
        previous = std::move(active);
    }
}

}  // namespace nmr::inversion
