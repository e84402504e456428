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
relaxivities then follows from those contacts without walking again. A later
fit reuses fit.walk when it can; when it cannot (other bounds below its floor,
another grid, seed or parameter), the walk is recorded again and one line says
why. A file named fit.walk that is damaged or is no recorded walk is refused.

MEASURED holds per line "time amplitude" or "time unused real imaginary" (time
in ms), as nmrwalk-invert reads it. The misfit is the sum of squared
differences between the simulated decay, at the measured times that the
simulation covers, and the measured decay times a free amplitude scale.

Options:
  --minerals NAME,...    minerals to fit (default: every mineral of the grid with
                         a non-zero relaxivity in nmr.yaml); the others keep
                         their nmr.yaml values
  --bounds LO:HI         bounds in m/s for every fitted mineral (default: its
                         nmr.yaml value divided and multiplied by 10). The walk
                         lasts about as long as an nmrwalk run at the lower
                         bounds, so a lower LO costs a longer walk.
  --sweep NAME=LO:HI:N   no fit: for N relaxivities of NAME on a log scale from
                         LO to HI (m/s), print the T2LM of the simulated
                         distribution and the misfit, all from the one walk
  -o, --output FILE      the fitted parameter file (default nmr.fitted.yaml,
                         with T2fit.png and T2fit.json beside it; another FILE
                         gets its plot and data named after it); its folder is
                         made if need be
  -h, --help             this text

The search: a coarse look over the whole box of bounds in log space (a grid;
for more than three minerals a scattered set of points) finds the valleys of
the misfit, and NLopt's BOBYQA refines the best of them.

Output: "Fitted <name>: <value> m/s (+- <u>)" per mineral, then per mineral
its bounds and its one-deviation interval, the correlation of every pair of
fitted minerals, the noise the uncertainties rest on, the misfit and the
amplitude scale, and the T2LM of the measured and the fitted distribution
(both through the inversion of nmrwalk-invert, on the T2 axis of nmr.yaml).
It writes the parameter file with the fitted relaxivities and a plot of the
fit (measured and fitted decays, both distributions).

How to read the uncertainty: +- u is one standard deviation. The misfit is
followed along each relaxivity, every other relaxivity and the scale refitted
at each step, out to where it has risen by what one standard deviation of the
noise explains: the noise of the walk itself (known from its chunks of
walkers) and the measurement's, white or shaped like a walk's, each as large
as the residuals show. The interval of each mineral is printed; u is its
larger side. A decay's errors are strongly correlated in time, so the noise is
taken along the directions in which the relaxivities change the decay, not
from the scatter of the residuals.

"Not separately determined: A and B (correlation r)" means that A and B are
so strongly correlated (|r| above 0.9) that the decay fixes only a
combination of them, typically because both line the same pores: a larger A
with a smaller B fits as well. The next line gives the combination it does
fix, their mean relaxivity weighted by the pore surface each offers, with its
uncertainty; the interval of each of A and B then spans the whole valley of
equally good fits. To tell them apart, fix one of them at a value known from
elsewhere (leave it out of --minerals and set it in nmr.yaml), or fit a second
sample in which the two minerals line the pores in other proportions.

A value on a bound of its range is a warning on standard error, "Warning: A is
at its upper bound ... (try --bounds LO:HI)": the best fit may lie outside the
range; fit again with the range it suggests.
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
