#include "tools/fit_options.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "common/exception.h"
#include "io/file_checksum.h"
#include "tools/option_parser.h"

namespace nmr::tools {

const char kFitUsage[] =
    R"USAGE(Usage: nmrwalk-fit MEASURED [--minerals NAME,NAME...] [--bounds LO:HI]
                   [--sweep NAME=LO:HI:N] [-o FILE]

Fits the surface relaxivity of each chosen mineral so that the simulated decay
matches a measured one, from a single random walk. Run it in a run directory
(nmr.yaml and its grid) under mpiexec, as nmrwalk: the walkers are created and
divided exactly as in nmrwalk, and each walker's contacts with every relaxing
mineral are recorded, interval by interval, in fit.walk. The decay for any
relaxivities then follows from those contacts without walking again, and a
later fit (another measured file, other bounds) reuses fit.walk as long as the
grid and nmr.yaml are unchanged.

MEASURED holds per line "time amplitude" or "time unused real imaginary" (time
in ms), as nmrwalk-invert reads it. The misfit is the sum of squared
differences between the simulated decay, at the measured times that the
simulation covers, and the measured decay times a free amplitude scale.

Options:
  --minerals NAME,...    minerals to fit (default: every mineral of the grid with
                         a non-zero relaxivity in nmr.yaml); the others keep
                         their nmr.yaml values
  --bounds LO:HI         bounds in m/s for every fitted mineral (default: its
                         nmr.yaml value divided and multiplied by 2). The walk
                         lasts about as long as an nmrwalk run at the lower
                         bounds, so wider bounds cost a longer walk.
  --sweep NAME=LO:HI:N   no fit: for N relaxivities of NAME on a log scale from
                         LO to HI (m/s), print the T2LM of the simulated
                         distribution and the misfit, all from the one walk
  -o, --output FILE      the fitted parameter file (default nmr.fitted.yaml);
                         T2fit.png goes beside it
  -h, --help             this text

Output: one line per fitted mineral, "Fitted <name>: <value> m/s (+- <u>)", the
misfit and the amplitude scale, and the T2LM of the measured and the fitted
distribution (both through the inversion of nmrwalk-invert, on the T2 axis of
nmr.yaml). It writes the parameter file with the fitted relaxivities and
T2fit.png (measured and fitted decays, both distributions).

Uncertainty: one standard deviation, combining in quadrature
  - the spread over 200 bootstrap resamples of the walkers (in about 128
    chunks of walkers), each refitted by one Newton step from the best fit on
    a finite-difference model of its own misfit: the uncertainty of a walk with
    a finite number of walkers;
  - the curvature of the misfit scaled by its residual variance (Gauss-Newton):
    the uncertainty from the scatter of the measurement.
)USAGE";

namespace {

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::string part;
    std::istringstream in(text);
    while (std::getline(in, part, separator)) parts.push_back(trim(part));
    if (!text.empty() && text.back() == separator) parts.emplace_back();
    return parts;
}

Mineral::Type knownMineral(const std::string& name, const std::string& option) {
    if (!Mineral::isKnownName(name)) throw Exception("Unknown mineral in " + option + ": " + name);
    return Mineral::fromName(name);
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", value);
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

FitOptions parseFitOptions(int argc, const char* const* argv) {
    const OptionParser parser(argc, argv,
                              {{"--minerals", "--bounds", "--sweep", "--output"},
                               {"--help"},
                               {{"-o", "--output"}, {"-h", "--help"}}});
    FitOptions options;
    if (parser.has("--help")) {
        options.help = true;
        return options;
    }
    options.measured = parser.onlyPositional("measured decay file");
    if (auto text = parser.value("--minerals")) {
        for (const std::string& name : split(*text, ',')) {
            knownMineral(name, "--minerals");
            if (std::find(options.minerals.begin(), options.minerals.end(), name) ==
                options.minerals.end())
                options.minerals.push_back(name);
        }
    }
    if (auto text = parser.value("--bounds")) {
        const auto parts = split(*text, ':');
        const std::string what = "--bounds needs LO:HI in m/s with 0 < LO < HI";
        if (parts.size() != 2) throw Exception(what + ": " + *text);
        options.lower = parseDouble(parts[0], what);
        options.upper = parseDouble(parts[1], what);
        if (!(*options.lower > 0.0) || !(*options.upper > *options.lower) ||
            !std::isfinite(*options.upper))
            throw Exception(what + ": " + *text);
    }
    if (auto text = parser.value("--sweep")) {
        const std::string what = "--sweep needs NAME=LO:HI:N with 0 < LO < HI and N >= 2";
        const auto equals = text->find('=');
        if (equals == std::string::npos) throw Exception(what + ": " + *text);
        SweepRequest sweep;
        sweep.mineral = knownMineral(trim(text->substr(0, equals)), "--sweep");
        const auto parts = split(text->substr(equals + 1), ':');
        if (parts.size() != 3) throw Exception(what + ": " + *text);
        sweep.lower = parseDouble(parts[0], what);
        sweep.upper = parseDouble(parts[1], what);
        const std::int64_t points = parseInteger(parts[2], what);
        if (!(sweep.lower > 0.0) || !(sweep.upper > sweep.lower) || !std::isfinite(sweep.upper) ||
            points < 2 || points > 10000)
            throw Exception(what + ": " + *text);
        sweep.points = static_cast<int>(points);
        if (!options.minerals.empty() || options.lower)
            throw Exception(
                "--sweep makes a table and fits nothing; leave out --minerals and "
                "--bounds: " +
                *text);
        options.sweep = sweep;
    }
    options.output = parser.value("--output").value_or(options.output);
    return options;
}

fit::FitRequest fitRequest(const FitOptions& options, const MineralValueMap<double>& relaxivity,
                           const std::vector<std::uint64_t>& counters,
                           const std::string& gridName) {
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
    fit::FitRequest request;
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

MineralValueMap<double> floorsOf(const fit::FitRequest& request, const FitOptions& /*options*/) {
    MineralValueMap<double> floor;
    for (std::size_t i = 0; i < request.minerals.size(); ++i) {
        floor.set(request.minerals[i], request.lower[i]);
    }
    return floor;
}

void checkFloorsCover(const fit::RecordedRun& run, const fit::FitRequest& request,
                      const FitOptions& /*options*/, const std::string& recordingPath) {
    for (std::size_t i = 0; i < request.minerals.size(); ++i) {
        const Mineral::Type code = request.minerals[i];
        const double floor = run.floor.valueOr(code, 0.0);
        // A hair of slack for bounds written with fewer digits than they were recorded with.
        if (!(floor <= request.lower[i] * (1.0 + 1e-9)) || run.plan.slotOf[code] < 0) {
            throw Exception(recordingPath + " was recorded for " + Mineral::name(code) +
                            " down to " + number(floor) + " m/s, and this fit goes down to " +
                            number(request.lower[i]) + " m/s. Delete it to walk again");
        }
    }
}

void checkOverlap(const MeasuredDecay& measured, const std::vector<double>& simulatedTimes,
                  const std::string& path) {
    const double first = simulatedTimes.front();
    const double last = simulatedTimes.back();
    std::size_t inside = 0;
    for (double t : measured.times) inside += (t >= first && t <= last) ? 1 : 0;
    if (inside < fit::MeasuredWindow::kLeastPoints) {
        throw Exception(path + " lines " + std::to_string(measured.lines.front()) + " to " +
                        std::to_string(measured.lines.back()) + ": only " + std::to_string(inside) +
                        " measured times lie within the simulated " + number(first) + " to " +
                        number(last) + " ms; a fit needs " +
                        std::to_string(fit::MeasuredWindow::kLeastPoints));
    }
}

void checkWindow(const fit::MeasuredWindow& window, const MeasuredDecay& measured,
                 const std::string& path) {
    if (window.size() >= fit::MeasuredWindow::kLeastPoints) return;
    throw Exception(path + " lines " + std::to_string(measured.lines.front()) + " to " +
                    std::to_string(measured.lines.back()) + ": only " +
                    std::to_string(window.size()) + " measured times lie within the simulated " +
                    number(window.first()) + " to " + number(window.last()) +
                    " ms that the walk reached; a fit needs " +
                    std::to_string(fit::MeasuredWindow::kLeastPoints));
}

fit::Fingerprint walkFingerprint(const NuclearMagneticResonanceParameters& p, int processes) {
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

}  // namespace nmr::tools
