#include "tools/sequence_cpmg.h"

#include <cmath>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "common/exception.h"
#include "common/output_file.h"
#include "common/text.h"
#include "io/file_checksum.h"
#include "tools/plot_script.h"

namespace nmr::tools {

const char kCpmgUsage[] =
    R"USAGE(Usage: nmrwalk-sequence cpmg --echo-spacing MS[,MS...] [--echoes N]
                             [--gradient T/m] [--field FILE.mhd]

A CPMG echo train that feels the rock's internal magnetic field, for every echo
spacing given. Run it in a run directory (nmr.yaml and its grid) under mpiexec,
as nmrwalk. Each walker walks by nmrwalk's step and kill rule (the same
absorption tables) and gathers phase every step: gamma B0 (dB/B0) tau from the
field map, read by trilinear interpolation at its position, and gamma G x tau
from a uniform gradient G along B0, x the position along B0 (taken from the
walker's start: a constant field refocuses). gamma = 2 pi gyroMagneticRatio
rad/(s T). A pi pulse at (k + 1/2) TE reverses the phase; the echo at k TE is
the mean over the walkers of cos(phase) (0 for a walker absorbed), times
exp(-t / bulkWaterT2).

The field comes from --field (a MetaImage of dB/B0 as nmrwalk-field writes it,
with staticField in nmr.yaml for B0), or is computed as nmrwalk-field computes
it when nmr.yaml has staticField and volumeSusceptibility; with neither, only
the gradient dephases.

Unlike nmrwalk's decay, the train carries no clay micro-porosity signal (a
warning says so when the rock holds clay and clayMicroPorosity is above 0) and
no analytic gradient factor: the gradient is walked through. Free diffusion in
a uniform gradient decays as exp(-gamma^2 G^2 D TE^2 t / 12); nmrwalk's own
factor, exp(-t gyroMagneticRatio^2 G^2 D TE^2 / 1000) with t in ms, has neither
the 2 pi nor the 1/12.

A half echo is a whole number N >= 8 of steps: the step of nmr.yaml is
shortened for an echo spacing that it would divide in fewer, or not evenly, and
the step and N used are printed. The echo train's decay has a term in 1/N^2
(about 1/(2 N^2) of the exponent in a uniform gradient).

Each walker draws from its own counter-based stream (Philox) keyed by the seed
and its index, and the sums over walkers are exact: cpmg.out is the same, bit
for bit, at any number of processes.

Options:
  --echo-spacing MS,...  echo spacings TE in ms
  --echoes N             echoes per spacing (default: until the signal falls
                         below 0.1 % of its start, judged from the first 2000
                         walkers and, where they sink into their noise first,
                         carried on at their decay rate, to at most four times
                         that echo)
  --gradient T/m         uniform gradient along B0 (default 0)
  --field FILE.mhd       the field map to walk through
  -h, --help             this text

Output: cpmg.out ("<echo spacing ms> <time ms> <amplitude>" per echo),
cpmg_inversion.out ("<echo spacing ms> <T2 ms> <amplitude>", through nmrwalk's
inversion on the T2 axis of nmr.yaml), "Echo spacing <te> ms: T2LM <x> ms" per
spacing on standard output, and cpmg.png (the distributions on one axis). The
progress bar, ABORT, checkpoints and the exit status are those of nmrwalk.
)USAGE";

CpmgOptions parseCpmgOptions(const OptionParser& parser) {
    CpmgOptions options;
    const auto spacing = parser.value("--echo-spacing");
    if (!spacing) throw Exception("Missing option (0.2,1): --echo-spacing");
    options.request.echoSpacingsMs =
        parsePositiveList(*spacing, "--echo-spacing needs echo spacings in ms above 0, as 0.2,1");
    if (const auto echoes = parser.value("--echoes")) {
        const std::int64_t n = parseInteger(
            *echoes, "--echoes needs a whole number from 1 to " + std::to_string(kMostEchoes));
        if (n < 1 || n > kMostEchoes)
            throw Exception("--echoes needs a whole number from 1 to " +
                            std::to_string(kMostEchoes) + ": " + *echoes);
        options.request.echoes = static_cast<std::uint32_t>(n);
    }
    if (const auto gradient = parser.value("--gradient")) {
        options.request.gradient = parseDouble(*gradient, "--gradient needs T/m");
    }
    options.field = parser.value("--field");
    return options;
}

std::string cpmgFingerprint(const CpmgOptions& options, const EchoSpacingPlan& plan) {
    return "cpmg; echo spacing " + fullNumber(plan.echoSpacingMs) + "; echoes " +
           std::to_string(plan.phase.echoes) + "; gradient " +
           fullNumber(options.request.gradient) + "; field " +
           (options.field ? fileChecksum(*options.field) : "of nmr.yaml");
}

void writeCpmgOutputs(const std::vector<EchoTrain>& trains, std::ostream& err) {
    // Amplitudes with every digit of their double, so that the same bits at any process
    // count can be seen in the file; times with ten.
    std::ostringstream decay, distribution;
    for (const EchoTrain& train : trains) {
        for (std::size_t k = 0; k < train.times.size(); ++k) {
            decay << std::setprecision(10) << train.echoSpacingMs << " " << train.times[k] << " "
                  << std::setprecision(17) << train.amplitudes[k] << "\n";
        }
        for (std::size_t j = 0; j < train.distribution.t2.size(); ++j) {
            distribution << train.echoSpacingMs << " " << train.distribution.t2[j] << " "
                         << train.distribution.amplitude[j] << "\n";
        }
    }
    writeTextFile("cpmg.out", decay.str());
    writeTextFile("cpmg_inversion.out", distribution.str());
    if (!runPlotScript(programDirectory(), {"--sequence", "cpmg_inversion.out", "-o", "cpmg.png"}))
        err << "nmrwalk-sequence: warning: cpmg.png not drawn: nmrwalk-plot failed (it needs "
               "python3-matplotlib)"
            << std::endl;
}

}  // namespace nmr::tools
