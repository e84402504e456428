#pragma once

#include <Eigen/Dense>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "inversion/alpha_choice.h"
#include "inversion/brd_solver.h"
#include "inversion/compression.h"
#include "inversion/kernel.h"

namespace nmr::inversion {

// A separable kernel K1 (x) K2: data M (N1 x N2) ~ K1 F K2^T for a map F (n1 x n2) on the
// axes. K1 and K2 may be any matrices (the exact encoding kernel of a diffusion
// experiment, say); separableKernel builds them from kinds.
struct SeparableKernel {
    Eigen::MatrixXd k1;  // N1 x n1
    Eigen::MatrixXd k2;  // N2 x n2
    std::vector<double> axis1;
    std::vector<double> axis2;
};

SeparableKernel separableKernel(KernelKind kind1, const std::vector<double>& samples1,
                                std::vector<double> axis1, KernelKind kind2,
                                const std::vector<double>& samples2, std::vector<double> axis2);

// Noise levels are never taken below this fraction of the largest |datum|: exact
// synthetic data (or a walk's curve, whose Monte Carlo noise looks like signal and stays
// inside the kept subspace) would otherwise estimate a noise of the size of the signal in
// the dropped singular components, and alpha would let the map fit structure far below
// what the dropped singular values (kRelativeSingularValueCut) already discard.
inline constexpr double kNoiseFloor = 1e-4;

enum class NoiseSource {
    Given,      // by the caller
    Estimated,  // the rms of the data outside the kept subspace
    Floor,      // the estimate was below kNoiseFloor times the largest |datum|
};

struct MapOptions {
    // Standard deviation of the data's noise, in the data's units; estimated when absent.
    std::optional<double> noise;
    // The regularisation parameter itself, instead of the discrepancy rule's.
    std::optional<double> alpha;
    double relativeCut = kRelativeSingularValueCut;
    // The solver of the compressed problem; the non-negative one (BrdSolver) when empty.
    std::function<std::unique_ptr<CompressedSolver>(const CompressedProblem&)> solver;
};

struct MapResult {
    Eigen::MatrixXd map;  // n1 x n2, F(p, q) at (axis1[p], axis2[q]), in the data's units
    std::vector<double> axis1;
    std::vector<double> axis2;
    double alpha = 0.0;
    double noise = 0.0;           // the standard deviation the alpha was chosen for (NaN
                                  // when alpha was given and no noise could be had)
    double estimatedNoise = 0.0;  // from the data outside the kept subspace (NaN without any)
    NoiseSource noiseSource = NoiseSource::Estimated;
    double residualFloor = 0.0;       // the compressed residual as alpha -> 0 (AlphaChoice)
    double residualRms = 0.0;         // rms(M - K1 F K2^T) over all N1 N2 data
    std::vector<double> projection1;  // sum over axis 2: one value per axis1 point
    std::vector<double> projection2;  // sum over axis 1
    double logMean1 = 0.0;            // exp of the projection-weighted mean of ln(axis)
    double logMean2 = 0.0;            // NaN for an empty map
    Eigen::Index rank1 = 0;           // singular values kept of each kernel
    Eigen::Index rank2 = 0;
    int solves = 0;  // compressed solves of the alpha search
};

// The inversion in its stages, each needing the one before: compress the data, choose
// the noise and alpha, solve. invertMap runs them in order; a benchmark times them.
class MapInversion {
public:
    MapInversion(SeparableKernel kernel, MapOptions options);

    void compress(const Eigen::MatrixXd& data);
    // The noise level (the caller's, or estimated, never below the floor) and alpha by the
    // discrepancy principle for it (chooseAlpha).
    void chooseAlpha();
    // The map at the chosen alpha by a solver started afresh, so that it depends on the
    // data and alpha alone, not on the path of the search; and the figures of the result.
    MapResult solve() const;

    const CompressedProblem& problem() const { return problem_; }

private:
    std::unique_ptr<CompressedSolver> makeSolver() const;
    void chooseNoise();

    SeparableKernel kernel_;
    MapOptions options_;
    Eigen::MatrixXd data_;
    CompressedProblem problem_;
    double estimatedNoise_ = 0.0;
    double noise_ = 0.0;
    NoiseSource noiseSource_ = NoiseSource::Estimated;
    AlphaChoice choice_;
};

MapResult invertMap(SeparableKernel kernel, const Eigen::MatrixXd& data,
                    const MapOptions& options = {});

// A one-dimensional distribution (a T1 distribution from a recovery curve, say): the map
// of a 1 x 1 second kernel, so the same compression, alpha rule and solver.
struct CurveResult {
    std::vector<double> axis;
    std::vector<double> amplitude;
    double alpha = 0.0;
    double noise = 0.0;
    NoiseSource noiseSource = NoiseSource::Estimated;
    double residualRms = 0.0;
    double logMean = 0.0;
};

CurveResult invertCurve(KernelKind kind, const std::vector<double>& samples,
                        const std::vector<double>& values, std::vector<double> axis,
                        const MapOptions& options = {});

}  // namespace nmr::inversion
