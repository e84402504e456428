#pragma once

#include <Eigen/Dense>
#include <vector>

#include "inversion/compression.h"

namespace nmr::inversion {

// A solver of the compressed, regularised problem
//   min ||m - K f||^2 + alpha ||f||^2
// for the K and m of one CompressedProblem, solved for one alpha after another. It may
// keep state between calls (a warm start), so the order of calls can change the last
// bits of a map but not its value within the solver's tolerance.
class CompressedSolver {
public:
    CompressedSolver() = default;
    CompressedSolver(const CompressedSolver&) = delete;
    CompressedSolver& operator=(const CompressedSolver&) = delete;
    virtual ~CompressedSolver() = default;
    // vec(F), n1 n2 values.
    virtual Eigen::VectorXd solve(double alpha) = 0;
};

// The constrained problem (f >= 0) by the method of Butler, Reeds and Dawson: the
// minimiser is f = max(0, K^T c) for the c that minimises the convex dual
//   phi(c) = 1/2 ||max(0, K^T c)||^2 + 1/2 alpha ||c||^2 - c^T m,
// found by Newton steps H dc = -grad, H = K_A K_A^T + alpha I over the active columns A
// (those with K^T c > 0), with backtracking on phi. The unknowns are the s1 s2 entries of
// c, not the n1 n2 of the map, and at the solution m - K f = alpha c.
//
// Newton's method converges in a few steps from the solution of a nearby alpha but can
// take hundreds from far away (the active set then changes a few columns per step). So
// each solve starts from the previous one's c scaled to the new alpha (the residual
// alpha c changes little between nearby alphas), and the first solve of a solver walks
// down to its alpha in decades from the largest singular value squared of K, where c is
// nearly m / alpha. A first solve therefore depends on alpha alone.
class BrdSolver final : public CompressedSolver {
public:
    explicit BrdSolver(const CompressedProblem& problem);
    Eigen::VectorXd solve(double alpha) override;

    // Newton steps of the last solve, and whether its alpha's descent ended on the
    // optimality test rather than the step limit.
    int lastSteps() const { return lastSteps_; }
    bool lastConverged() const { return lastConverged_; }

private:
    // Newton steps from c_, scaled from the last alpha to this one.
    void descend(double alpha);
    // The active columns of the kernel, and H = K_A K_A^T + alpha I in the lower triangle.
    void assemble(const std::vector<Eigen::Index>& active, double alpha,
                  Eigen::MatrixXd& activeColumns, Eigen::MatrixXd& h) const;
    double dual(const Eigen::VectorXd& c, double alpha) const;

    const Eigen::MatrixXd& kernel_;
    const Eigen::VectorXd& data_;
    double top_;            // (s1[0] s2[0])^2, where the first solve starts
    Eigen::MatrixXd gram_;  // K K^T, lower triangle
    Eigen::VectorXd c_;
    double lastAlpha_ = 0.0;
    int lastSteps_ = 0;
    bool lastConverged_ = false;
};

}  // namespace nmr::inversion
