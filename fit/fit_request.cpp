#include "fit/fit_request.h"

#include <cmath>
#include <cstdio>

#include "analysis/t2_summary.h"
#include "common/exception.h"
#include "io/file_checksum.h"
#include "t2/t2_inversion.h"

namespace nmr::fit {

namespace {

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

// Six significant digits, as the tools print numbers, for messages.
std::string shown(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

std::string relaxivityText(const MineralValueMap<double>& map) {
    std::string text;
    for (const auto& [code, value] : map.entries()) {
        if (value == 0.0) continue;
        text += Mineral::name(code) + " " + number(value) + "; ";
    }
    return text;
}

}  // namespace

FitRequest fitRequest(const FitChoice& options, const MineralValueMap<double>& relaxivity,
                      const std::vector<std::uint64_t>& counters, const std::string& gridName) {
    auto inGrid = [&](Mineral::Type code) { return code < counters.size() && counters[code] > 0; };
    std::vector<Mineral::Type> minerals;
    if (options.sweep) {
        minerals.push_back(options.sweep->mineral);
    } else if (!options.minerals.empty()) {
        for (const auto& name : options.minerals) minerals.push_back(Mineral::fromName(name));
    } else {
        for (Mineral::Type code : Mineral::allTypes()) {
            if (code != Mineral::Pore && code != Mineral::Matrix && inGrid(code) &&
                relaxivity.valueOr(code, 0.0) > 0.0)
                minerals.push_back(code);
        }
        if (minerals.empty())
            throw Exception(
                "No mineral of the grid relaxes in nmr.yaml; name the minerals to fit "
                "with --minerals: " +
                gridName);
    }
    FitRequest request;
    for (Mineral::Type code : minerals) {
        const std::string name = Mineral::name(code);
        if (code == Mineral::Pore || !inGrid(code))
            throw Exception("Mineral not in the grid " + gridName + ": " + name);
        if (code == Mineral::Matrix)
            throw Exception("Matrix never absorbs, so it has no relaxivity to fit: " + name);
        double lower = 0.0, upper = 0.0;
        if (options.sweep) {
            lower = options.sweep->lower;
            upper = options.sweep->upper;
        } else if (options.lower) {
            lower = *options.lower;
            upper = *options.upper;
        } else {
            const double value = relaxivity.valueOr(code, 0.0);
            if (!(value > 0.0))
                throw Exception(
                    "No relaxivity in nmr.yaml to set default bounds around; give "
                    "--bounds for: " +
                    name);
            lower = value / kDefaultBoundFactor;
            upper = value * kDefaultBoundFactor;
        }
        request.minerals.push_back(code);
        request.lower.push_back(lower);
        request.upper.push_back(upper);
    }
    return request;
}

MineralValueMap<double> floorsOf(const FitRequest& request, const FitChoice& /*choice*/) {
    MineralValueMap<double> floor;
    for (std::size_t i = 0; i < request.minerals.size(); ++i) {
        floor.set(request.minerals[i], request.lower[i]);
    }
    return floor;
}

std::string floorsShortfall(const RecordedRun& run, const FitRequest& request) {
    for (std::size_t i = 0; i < request.minerals.size(); ++i) {
        const Mineral::Type code = request.minerals[i];
        const double floor = run.floor.valueOr(code, 0.0);
        // A hair of slack for bounds written with fewer digits than they were recorded with.
        if (!(floor <= request.lower[i] * (1.0 + 1e-9)) || run.plan.slotOf[code] < 0) {
            return "it was recorded for " + Mineral::name(code) + " down to " + shown(floor) +
                   " m/s, and this fit goes down to " + shown(request.lower[i]) + " m/s";
        }
    }
    return {};
}

void checkOverlap(const analysis::MeasuredDecay& measured,
                  const std::vector<double>& simulatedTimes, const std::string& path) {
    const double first = simulatedTimes.front();
    const double last = simulatedTimes.back();
    std::size_t inside = 0;
    for (double t : measured.times) inside += (t >= first && t <= last) ? 1 : 0;
    if (inside < MeasuredWindow::kLeastPoints) {
        throw Exception(path + " lines " + std::to_string(measured.lines.front()) + " to " +
                        std::to_string(measured.lines.back()) + ": only " + std::to_string(inside) +
                        " measured times lie within the simulated " + shown(first) + " to " +
                        shown(last) + " ms; a fit needs " +
                        std::to_string(MeasuredWindow::kLeastPoints));
    }
}

void checkWindow(const MeasuredWindow& window, const analysis::MeasuredDecay& measured,
                 const std::string& path) {
    if (window.size() >= MeasuredWindow::kLeastPoints) return;
    throw Exception(path + " lines " + std::to_string(measured.lines.front()) + " to " +
                    std::to_string(measured.lines.back()) + ": only " +
                    std::to_string(window.size()) + " measured times lie within the simulated " +
                    shown(window.first()) + " to " + shown(window.last()) +
                    " ms that the walk reached; a fit needs " +
                    std::to_string(MeasuredWindow::kLeastPoints));
}

Fingerprint walkFingerprint(const NuclearMagneticResonanceParameters& p, int processes) {
    std::string region = "none";
    if (const auto* r = p.regionOfInterest(); r && r->isEnabled()) {
        const auto& box = r->regionOfInterest();
        region = std::to_string(box.xMin) + ":" + std::to_string(box.xMax) + " " +
                 std::to_string(box.yMin) + ":" + std::to_string(box.yMax) + " " +
                 std::to_string(box.zMin) + ":" + std::to_string(box.zMax);
    }
    return {
        {"the grid file " + p.grid(), fileChecksum(p.grid())},
        {"the region of interest", region},
        {"the seed", std::to_string(p.randomSeed())},
        {"the step", number(p.stepLength())},
        {"the number of walkers", std::to_string(p.numberOfWalkers())},
        {"the processes", std::to_string(processes)},
        {"the water diffusion constant", number(p.diffusionConstantWater())},
        {"the oil diffusion constant", number(p.diffusionConstantOil())},
        {"the clay micro porosity", number(p.clayMicroPorosity())},
        {"the bulk water T2", number(p.bulkWaterT2())},
        {"the gradient term", number(p.gyroMagneticRatio()) + " " +
                                  number(p.magneticFieldGradient()) + " " +
                                  number(p.echoSpacing())},
        {"the water relaxivities", relaxivityText(p.surfaceRelaxationStrengthWater())},
    };
}

Distribution distributionOf(const std::vector<double>& times, const std::vector<double>& values,
                            const NuclearMagneticResonanceParameters& parameters) {
    t2::T2Distribution inverted = t2::invertDecay(
        times, values, parameters.t2Minimum(), parameters.t2Maximum(), parameters.t2Components());
    Distribution d;
    d.t2 = std::move(inverted.t2);
    d.amplitude = std::move(inverted.amplitude);
    d.logMeanT2 = analysis::summariseT2(d.t2, d.amplitude).logMeanT2;
    return d;
}

std::string boundWarning(const BoundHit& hit, const FitRequest& request,
                         const std::string& suggestion) {
    return "Warning: " + Mineral::name(request.minerals[hit.index]) + " is at its " +
           (hit.upper ? "upper" : "lower") + " bound " + shown(hit.value) +
           " m/s; the best fit may lie outside it (try " + suggestion + ")";
}

std::string boundsText(double lower, double upper) { return shown(lower) + ":" + shown(upper); }

std::string notDeterminedLine(const NotDetermined& pair, const FitRequest& request) {
    char correlation[16];
    std::snprintf(correlation, sizeof correlation, "%.2f", pair.correlation);
    return "Not separately determined: " + Mineral::name(request.minerals[pair.first]) + " and " +
           Mineral::name(request.minerals[pair.second]) + " (correlation " + correlation + ")";
}

}  // namespace nmr::fit
