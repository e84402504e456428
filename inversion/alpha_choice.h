#pragma once

#include "inversion/brd_solver.h"
#include "inversion/compression.h"

namespace nmr::inversion {

// The regularisation parameter by the discrepancy principle, measured from the best
// non-negative fit: the alpha at which the compressed residual chi(alpha) = ||m - K f||
// satisfies
//   chi(alpha)^2 = chi0^2 + 1.5 s1 s2 sigma^2,
// chi0 being the residual as alpha -> 0. The map may give up, for smoothness, 1.5 times
// the energy that noise of standard deviation sigma has in the s1 s2 compressed
// dimensions, and no more: a safety factor sqrt(1.5) = 1.22 on the noise norm, inside the
// 1.1 to 1.5 the discrepancy principle customarily takes. On the two-peak maps of the
// tests, factors 1 to 3 move the peaks by less than 0.03 decade; below 1 the map starts
// to fit noise in its corners, above 3 two peaks half a decade apart start to merge.
//
// Why from chi0 and not from zero: chi0 holds what no map on the axes can fit, the noise
// the non-negative cone cannot absorb and the misfit of peaks that fall between axis
// points. At a signal-to-noise ratio of 10^3 in the compressed space that misfit is not
// small: on the two-peak maps of the tests chi0 is 1.1 to 1.6 times sigma sqrt(s1 s2), so
// the plain principle, chi = sigma sqrt(s1 s2), often has no solution at all. The rule
// needs a noise level: exact data (sigma at its floor) get the alpha at which the map
// leaves 1.5 times the floor's energy unexplained.
//
// chi grows with alpha. It is scanned from (s1[0] s2[0])^2, the largest singular value
// of K squared, where the map is smoothed almost to nothing, down in decades to 1e-12
// of that, where the Newton systems lose their precision and chi has long reached chi0;
// the root is then refined between two decades by a secant search in ln alpha.
struct AlphaChoice {
    double alpha = 0.0;
    double residual = 0.0;  // chi(alpha)
    double floor = 0.0;     // chi0
    double target = 0.0;    // sqrt(chi0^2 + 1.5 s1 s2 sigma^2)
    int solves = 0;
};

inline constexpr double kNoiseEnergyFactor = 1.5;

AlphaChoice chooseAlpha(CompressedSolver& solver, const CompressedProblem& problem, double noise);

}  // namespace nmr::inversion
