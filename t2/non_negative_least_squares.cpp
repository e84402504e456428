#include "t2/non_negative_least_squares.h"

#include <algorithm>
#include <numeric>
#include <utility>
#include <vector>

namespace nmr::t2 {

NonNegativeLeastSquares::NonNegativeLeastSquares(const Eigen::MatrixXd& m,
                                                 std::int32_t iterationLimit, double tolerance)
    : iterationLimit_(iterationLimit),
      tolerance_(tolerance),
      m_(m),
      mtm_(m.transpose() * m),
      x_(Eigen::VectorXd::Zero(m.cols())),
      w_(Eigen::VectorXd::Zero(m.cols())),
      y_(Eigen::VectorXd::Zero(m.cols())),
      mtb_(Eigen::VectorXd::Zero(m.cols())),
      p_(static_cast<std::size_t>(m.cols())),
      qr_(m.rows(), m.cols()),
      hCoeffs_(m.cols()),
      scratch_(m.rows()) {}

void NonNegativeLeastSquares::factorColumn(Eigen::Index k) {
    const Eigen::Index rows = m_.rows();
    auto column = qr_.col(k);
    column = m_.col(p_[static_cast<std::size_t>(k)]);
    double workspace = 0.0;
    for (Eigen::Index j = 0; j < k; ++j) {
        column.tail(rows - j).applyHouseholderOnTheLeft(qr_.col(j).tail(rows - j - 1), hCoeffs_[j],
                                                        &workspace);
    }
    double beta = 0.0;
    column.tail(rows - k).makeHouseholderInPlace(hCoeffs_[k], beta);
    qr_(k, k) = beta;
}

void NonNegativeLeastSquares::solvePassive(const Eigen::VectorXd& b) {
    const Eigen::Index rows = m_.rows();
    scratch_ = b;
    double workspace = 0.0;
    for (Eigen::Index j = 0; j < np_; ++j) {
        scratch_.tail(rows - j).applyHouseholderOnTheLeft(qr_.col(j).tail(rows - j - 1),
                                                          hCoeffs_[j], &workspace);
    }
    qr_.topLeftCorner(np_, np_).triangularView<Eigen::Upper>().solveInPlace(scratch_.head(np_));
    y_.setZero();
    for (Eigen::Index k = 0; k < np_; ++k) y_[p_[static_cast<std::size_t>(k)]] = scratch_[k];
}

bool NonNegativeLeastSquares::solve(const Eigen::VectorXd& b) {
    const Eigen::Index n = m_.cols();
    const auto at = [this](Eigen::Index position) {
        return p_[static_cast<std::size_t>(position)];
    };
    solveCount_ = 0;
    x_.setZero();
    std::iota(p_.begin(), p_.end(), Eigen::Index{0});
    np_ = 0;
    mtb_.noalias() = m_.transpose() * b;
    w_ = mtb_;
    w_.noalias() -= mtm_ * x_;

    // Variables that entered and were pushed straight out again with a step of zero.
    // In exact arithmetic a variable with a positive gradient cannot do that; in floating
    // point nearly parallel columns (neighbouring T2 values) can make it happen, and
    // choosing the same variable again would repeat the same passes forever. Such a
    // variable is passed over until the solution moves.
    std::vector<char> stalled(static_cast<std::size_t>(n), 0);
    while (np_ < n) {
        Eigen::Index best = -1;
        for (Eigen::Index k = np_; k < n; ++k) {
            if (stalled[static_cast<std::size_t>(at(k))]) continue;
            if (best < 0 || w_[at(k)] > w_[at(best)]) best = k;
        }
        if (best < 0 || w_[at(best)] - tolerance_ < 0.0) return true;
        const Eigen::Index entering = at(best);
        std::swap(p_[static_cast<std::size_t>(best)], p_[static_cast<std::size_t>(np_)]);
        ++np_;
        factorColumn(np_ - 1);

        bool firstPass = true;
        for (;;) {
            if (iterationLimit_ >= 1 && solveCount_ >= iterationLimit_) return false;
            solvePassive(b);
            ++solveCount_;
            // Step length to the first passive variable that the move to y would drive
            // negative.
            Eigen::Index blocking = -1;
            double alpha = 0.0;
            for (Eigen::Index k = 0; k < np_; ++k) {
                const Eigen::Index v = at(k);
                if (y_[v] < 0.0) {
                    const double a = x_[v] / (x_[v] - y_[v]);
                    if (blocking < 0 || a < alpha) {
                        alpha = a;
                        blocking = k;
                    }
                }
            }
            if (blocking < 0) break;
            if (firstPass && alpha == 0.0 && at(blocking) == entering) {
                stalled[static_cast<std::size_t>(entering)] = 1;
            } else {
                std::fill(stalled.begin(), stalled.end(), 0);
            }
            firstPass = false;
            for (Eigen::Index k = 0; k < np_; ++k) {
                const Eigen::Index v = at(k);
                x_[v] += alpha * (y_[v] - x_[v]);
            }
            // Exactly one variable leaves per pass, even when others reach zero with it:
            // they leave on the next passes, with a step of zero.
            std::swap(p_[static_cast<std::size_t>(blocking)],
                      p_[static_cast<std::size_t>(np_ - 1)]);
            --np_;
            for (Eigen::Index k = blocking; k < np_; ++k) factorColumn(k);
        }

        if (!stalled[static_cast<std::size_t>(entering)]) {
            std::fill(stalled.begin(), stalled.end(), 0);  // the solution moved
        }
        x_ = y_;
        w_ = mtb_;
        w_.noalias() -= mtm_ * x_;
        if (np_ == n) return true;
    }
    return true;
}

}  // namespace nmr::t2
