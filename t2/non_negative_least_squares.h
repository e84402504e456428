#pragma once

#include <Eigen/Dense>
#include <cstdint>
#include <vector>

namespace nmr::t2 {

// min ||M x - b||_2 subject to x >= 0, by the active-set method of Lawson and Hanson.
//
// The variables are kept in a permutation P: positions [0, Np) are the passive (free)
// set, positions [Np, n) the active set held at zero. The passive columns of M, in the
// order of P, carry a Householder QR factorisation that grows by one column when a
// variable is freed and is redone only from the leaving position onwards when one is
// bound again, so no solve refactorises from scratch.
//
// The passive columns must stay linearly independent (M with full column rank, as the
// regularised inversion system always is); a dependent column gives a zero pivot.
class NonNegativeLeastSquares {
public:
    // iterationLimit bounds the passive least-squares solves of one solve(); a value
    // below 1 means no limit. tolerance is the smallest gradient that frees a variable.
    NonNegativeLeastSquares(const Eigen::MatrixXd& m, std::int32_t iterationLimit,
                            double tolerance);

    // True when the optimality test ends the search, false when the iteration limit
    // stops it (x() then holds the last feasible iterate).
    bool solve(const Eigen::VectorXd& b);

    const Eigen::VectorXd& x() const { return x_; }
    // Passive least-squares solves made by the last solve().
    std::int32_t solveCount() const { return solveCount_; }

private:
    // Copies the column of the variable at passive position k, applies the reflections
    // of positions [0, k) and makes reflection k from it.
    void factorColumn(Eigen::Index k);
    // Unconstrained least squares on the passive columns into y_ (zero off the set).
    void solvePassive(const Eigen::VectorXd& b);

    std::int32_t iterationLimit_;
    std::int32_t solveCount_ = 0;
    double tolerance_;
    Eigen::MatrixXd m_;    // p x n
    Eigen::MatrixXd mtm_;  // n x n, M^T M, formed once
    Eigen::VectorXd x_;
    Eigen::VectorXd w_;  // gradient M^T (b - M x)
    Eigen::VectorXd y_;
    Eigen::VectorXd mtb_;
    std::vector<Eigen::Index> p_;
    Eigen::Index np_ = 0;
    // R on and above the diagonal, the essential parts of the reflections below it;
    // column k belongs to passive position k.
    Eigen::MatrixXd qr_;
    Eigen::VectorXd hCoeffs_;
    Eigen::VectorXd scratch_;  // p: b with the reflections applied
};

}  // namespace nmr::t2
