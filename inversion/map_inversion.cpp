#include "inversion/map_inversion.h"

#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "common/exception.h"

namespace nmr::inversion {

namespace {

std::vector<double> toVector(const Eigen::VectorXd& v) { return {v.data(), v.data() + v.size()}; }

// exp of the weighted mean of ln(axis), NaN without weight.
double logMean(const std::vector<double>& axis, const std::vector<double>& weight) {
    double total = 0.0;
    double logSum = 0.0;
    for (std::size_t k = 0; k < axis.size(); ++k) {
        total += weight[k];
        logSum += weight[k] * std::log(axis[k]);
    }
    return total > 0.0 ? std::exp(logSum / total) : std::numeric_limits<double>::quiet_NaN();
}

}  // namespace

SeparableKernel separableKernel(KernelKind kind1, const std::vector<double>& samples1,
                                std::vector<double> axis1, KernelKind kind2,
                                const std::vector<double>& samples2, std::vector<double> axis2) {
    SeparableKernel k;
    k.k1 = kernelMatrix(kind1, samples1, axis1);
    k.k2 = kernelMatrix(kind2, samples2, axis2);
    k.axis1 = std::move(axis1);
    k.axis2 = std::move(axis2);
    return k;
}

MapInversion::MapInversion(SeparableKernel kernel, MapOptions options)
    : kernel_(std::move(kernel)), options_(std::move(options)) {
    if (kernel_.k1.cols() != static_cast<Eigen::Index>(kernel_.axis1.size()) ||
        kernel_.k2.cols() != static_cast<Eigen::Index>(kernel_.axis2.size()))
        throw Exception("A kernel has " + std::to_string(kernel_.k1.cols()) + " x " +
                        std::to_string(kernel_.k2.cols()) + " columns for axes of " +
                        std::to_string(kernel_.axis1.size()) + " x " +
                        std::to_string(kernel_.axis2.size()) + " values");
    if (options_.noise && !(*options_.noise > 0.0 && std::isfinite(*options_.noise)))
        throw Exception("The noise level must be positive: " + std::to_string(*options_.noise));
    if (options_.alpha && !(*options_.alpha > 0.0 && std::isfinite(*options_.alpha)))
        throw Exception("alpha must be positive: " + std::to_string(*options_.alpha));
}

std::unique_ptr<CompressedSolver> MapInversion::makeSolver() const {
    if (options_.solver) return options_.solver(problem_);
    return std::make_unique<BrdSolver>(problem_);
}

void MapInversion::compress(const Eigen::MatrixXd& data) {
    if (!data.allFinite()) throw Exception("The data hold a value that is not a finite number");
    data_ = data;
    problem_ = compressProblem(kernel_.k1, kernel_.k2, data_, options_.relativeCut);
}

void MapInversion::chooseNoise() {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    estimatedNoise_ =
        problem_.outsideCount > 0
            ? std::sqrt(problem_.outsideSquares / static_cast<double>(problem_.outsideCount))
            : nan;
    const double floor = kNoiseFloor * data_.cwiseAbs().maxCoeff();
    if (options_.noise) {
        noise_ = *options_.noise;
        noiseSource_ = NoiseSource::Given;
    } else if (problem_.outsideCount == 0) {
        if (!options_.alpha)
            throw Exception(
                "The noise cannot be estimated: the kernels keep as many singular vectors as "
                "there are data (" +
                std::to_string(data_.size()) + "); give the noise level");
        noise_ = nan;
    } else if (estimatedNoise_ > floor) {
        noise_ = estimatedNoise_;
        noiseSource_ = NoiseSource::Estimated;
    } else if (floor > 0.0) {
        noise_ = floor;
        noiseSource_ = NoiseSource::Floor;
    } else {
        // All data zero: any positive level gives the empty map.
        noise_ = 1.0;
        noiseSource_ = NoiseSource::Floor;
    }
}

void MapInversion::chooseAlpha() {
    chooseNoise();
    if (options_.alpha) {
        choice_ = AlphaChoice{};
        choice_.alpha = *options_.alpha;
        choice_.floor = std::numeric_limits<double>::quiet_NaN();
        return;
    }
    const std::unique_ptr<CompressedSolver> solver = makeSolver();
    choice_ = inversion::chooseAlpha(*solver, problem_, noise_);
}

MapResult MapInversion::solve() const {
    MapResult r;
    const Eigen::Index n1 = kernel_.k1.cols();
    const Eigen::Index n2 = kernel_.k2.cols();
    r.map = makeSolver()->solve(choice_.alpha).reshaped(n1, n2);
    r.axis1 = kernel_.axis1;
    r.axis2 = kernel_.axis2;
    r.alpha = choice_.alpha;
    r.noise = noise_;
    r.estimatedNoise = estimatedNoise_;
    r.noiseSource = noiseSource_;
    r.residualFloor = choice_.floor;
    r.solves = choice_.solves;
    r.rank1 = problem_.k1.s.size();
    r.rank2 = problem_.k2.s.size();
    // K1 F first: N1 x n2 is the small side.
    const Eigen::MatrixXd fitted = (kernel_.k1 * r.map) * kernel_.k2.transpose();
    r.residualRms = std::sqrt((data_ - fitted).squaredNorm() / static_cast<double>(data_.size()));
    r.projection1 = toVector(r.map.rowwise().sum());
    r.projection2 = toVector(r.map.colwise().sum().transpose());
    r.logMean1 = logMean(r.axis1, r.projection1);
    r.logMean2 = logMean(r.axis2, r.projection2);
    return r;
}

MapResult invertMap(SeparableKernel kernel, const Eigen::MatrixXd& data,
                    const MapOptions& options) {
    MapInversion inversion(std::move(kernel), options);
    inversion.compress(data);
    inversion.chooseAlpha();
    return inversion.solve();
}

CurveResult invertCurve(KernelKind kind, const std::vector<double>& samples,
                        const std::vector<double>& values, std::vector<double> axis,
                        const MapOptions& options) {
    if (samples.size() != values.size())
        throw Exception("A curve needs one value per sample: " + std::to_string(samples.size()) +
                        " samples, " + std::to_string(values.size()) + " values");
    SeparableKernel kernel;
    kernel.k1 = kernelMatrix(kind, samples, axis);
    kernel.k2 = Eigen::MatrixXd::Ones(1, 1);
    kernel.axis1 = std::move(axis);
    kernel.axis2 = {1.0};
    const Eigen::MatrixXd data =
        Eigen::Map<const Eigen::VectorXd>(values.data(), static_cast<Eigen::Index>(values.size()));
    MapResult m = invertMap(std::move(kernel), data, options);
    CurveResult c;
    c.axis = std::move(m.axis1);
    c.amplitude = std::move(m.projection1);
    c.alpha = m.alpha;
    c.noise = m.noise;
    c.noiseSource = m.noiseSource;
    c.residualRms = m.residualRms;
    c.logMean = m.logMean1;
    return c;
}

}  // namespace nmr::inversion
