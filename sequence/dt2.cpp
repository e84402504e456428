#include "sequence/dt2.h"

#include <algorithm>
#include <cmath>

#include "common/exception.h"
#include "common/text.h"

namespace nmr {

std::vector<double> dt2BValues(std::vector<double> given, std::optional<std::uint32_t> points,
                               double d0) {
    std::vector<double> b = std::move(given);
    if (b.empty()) {
        const std::uint32_t n = std::max<std::uint32_t>(points.value_or(kDt2BPoints), 2);
        b.reserve(n);
        for (std::uint32_t j = 0; j < n; ++j) b.push_back(kDt2BMax / d0 * j / (n - 1));
    }
    bool encoded = false;
    for (double value : b) encoded = encoded || value > 0.0;
    if (!encoded) throw Exception("A b of 0 alone encodes no diffusion: give one above 0");
    return b;
}

Dt2Plan planDt2(const NuclearMagneticResonanceParameters& parameters, double cellSizeM,
                double diffusionTimeMs, std::vector<double> b, double echoSpacingMs,
                std::uint32_t echoes) {
    if (!(diffusionTimeMs > 0.0) || !std::isfinite(diffusionTimeMs))
        throw Exception("A diffusion time must be a positive number of ms: " +
                        shortNumber(diffusionTimeMs));
    if (!(echoSpacingMs > 0.0) || !std::isfinite(echoSpacingMs))
        throw Exception("An echo spacing must be a positive number of ms: " +
                        shortNumber(echoSpacingMs));
    if (echoes == 0) throw Exception("The echo train needs at least one echo");
    if (b.empty()) throw Exception("Give at least one b value");
    for (double value : b) {
        if (!(value >= 0.0) || !std::isfinite(value))
            throw Exception("A b value must be a number of s/m^2 from 0: " + shortNumber(value));
    }
    const double oneStep = nominalStepMs(parameters, cellSizeM);
    if (diffusionTimeMs < oneStep * (1.0 - 1e-12))
        throw Exception("A diffusion time of " + shortNumber(diffusionTimeMs) +
                        " ms is shorter than one step of the walk (" + shortNumber(oneStep) +
                        " ms at the stepLength of nmr.yaml)");
    Dt2Plan plan;
    plan.diffusionTimeMs = diffusionTimeMs;
    plan.encoding = planSteps(parameters, cellSizeM, diffusionTimeMs);
    plan.echoSpacingMs = echoSpacingMs;
    plan.halfEcho = planSteps(parameters, cellSizeM, echoSpacingMs / 2.0);
    plan.echoes = echoes;
    plan.cellSizeM = cellSizeM;
    const double seconds = diffusionTimeMs / 1000.0;
    for (double value : b) plan.q.push_back(std::sqrt(value / seconds));
    plan.b = std::move(b);
    return plan;
}

Dt2Data dt2Data(const Dt2Plan& plan, const ExactSums& sums, std::int64_t walkers, double bulkT2Ms) {
    Dt2Data data;
    data.b = plan.b;
    for (std::uint32_t k = 0; k < plan.echoes; ++k)
        data.timesMs.push_back(plan.diffusionTimeMs + (k + 1.0) * plan.echoSpacingMs);
    const auto rows = static_cast<Eigen::Index>(plan.b.size());
    const auto columns = static_cast<Eigen::Index>(plan.echoes);
    data.amplitude = Eigen::MatrixXd::Zero(rows, columns);
    for (std::size_t j = 0; j < plan.b.size(); ++j) {
        // Echo k + 1 sees the walkers that lived through K >= k + 1 echoes.
        double living = 0.0;
        for (std::uint32_t k = plan.echoes; k >= 1; --k) {
            living += sums.sum(dt2Index(plan, j, k));
            const double bulk = std::exp(-data.timesMs[k - 1] / bulkT2Ms);
            data.amplitude(static_cast<Eigen::Index>(j), static_cast<Eigen::Index>(k - 1)) =
                living / static_cast<double>(walkers) * bulk;
        }
    }
    return data;
}

}  // namespace nmr
