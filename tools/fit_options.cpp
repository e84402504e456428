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
    options.choice.measured = options.measured;
    if (auto text = parser.value("--minerals")) {
        for (const std::string& name : split(*text, ',')) {
            knownMineral(name, "--minerals");
            if (std::find(options.choice.minerals.begin(), options.choice.minerals.end(), name) ==
                options.choice.minerals.end())
                options.choice.minerals.push_back(name);
        }
    }
    if (auto text = parser.value("--bounds")) {
        const auto parts = split(*text, ':');
        const std::string what = "--bounds needs LO:HI in m/s with 0 < LO < HI";
        if (parts.size() != 2) throw Exception(what + ": " + *text);
        options.choice.lower = parseDouble(parts[0], what);
        options.choice.upper = parseDouble(parts[1], what);
        if (!(*options.choice.lower > 0.0) || !(*options.choice.upper > *options.choice.lower) ||
            !std::isfinite(*options.choice.upper))
            throw Exception(what + ": " + *text);
    }
    if (auto text = parser.value("--sweep")) {
        const std::string what = "--sweep needs NAME=LO:HI:N with 0 < LO < HI and N >= 2";
        const auto equals = text->find('=');
        if (equals == std::string::npos) throw Exception(what + ": " + *text);
        fit::SweepRequest sweep;
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
        if (!options.choice.minerals.empty() || options.choice.lower)
            throw Exception(
                "--sweep makes a table and fits nothing; leave out --minerals and "
                "--bounds: " +
                *text);
        options.choice.sweep = sweep;
    }
    options.output = parser.value("--output").value_or(options.output);
    return options;
}

}  // namespace nmr::tools
