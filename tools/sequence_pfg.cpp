#include "tools/sequence_pfg.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <sstream>

#include "common/exception.h"
#include "common/output_file.h"
#include "common/text.h"
#include "tools/plot_script.h"

namespace nmr::tools {

const char kPfgUsage[] =
    R"USAGE(Usage: nmrwalk-sequence pfg --diffusion-time MS[,MS...] [--q-max 1/m]
                            [--q-points N] [--direction x|y|z|all]
                            [--pulse-duration MS]

Pulsed-field-gradient diffusion with narrow gradient pulses, for every
diffusion time Delta given. Run it in a run directory (nmr.yaml and its grid)
under mpiexec, as nmrwalk. Each walker walks for Delta by nmrwalk's step and
kill rule (the same absorption tables; bulk relaxation is the same at every q
and cancels). Its signal at wave vector q along an axis is its survival times
cos(q . (r(Delta) - r(0))); E(q, Delta) is the mean over the walkers over the
same at q = 0, and "all" averages the three axes. b = q^2 Delta (q = gamma g
delta for a pulse of gradient g and length delta), and free diffusion gives
E = exp(-b D0).

With --pulse-duration delta, the pulses are rectangular, of length delta, the
first from 0 and the second from Delta, with the pi pulse of the spin echo
halfway through Delta + delta. The walker's phase is gamma g times the time
integral of its position under each pulse (the first reversed by the pi pulse),
read after each step, and q = gamma g delta (gamma = 2 pi gyroMagneticRatio),
so b = q^2 (Delta - delta/3) = gamma^2 g^2 delta^2 (Delta - delta/3). The
field of the rock, when nmr.yaml gives staticField and volumeSusceptibility,
adds its phase over the whole of Delta + delta, as in cpmg. delta is a whole
number n >= 8 of steps and Delta a whole number of the same steps (Delta /
delta is taken as a ratio of whole numbers). Sums of positions after each step
make -ln E of free diffusion q^2 D0 (Delta - delta/3 + tau^2/(3 delta)), tau
the step's duration: at most 1/(2 n^2) of it, 0.8 % for n = 8.

Delta is filled by a whole number N >= 8 of steps: the step of nmr.yaml is
shortened for a time it would fill in fewer, or not evenly. A time shorter than
one step of nmr.yaml is refused. Steps of fixed length make -ln E of free
diffusion q^2 D0 Delta (1 + c (q s)^2), c about 0.038 along an axis, s the
step in m: below 0.4 % for q s <= 0.3. D itself has no such term.

D(Delta) is the initial slope of ln E against b: the least-squares line
through the origin over the points with E >= 0.7. The mean-square-displacement
D is <dr^2> / (2 Delta) per axis from the same walkers (/(6 Delta) for all
three). Surface-to-volume comes from Mitra's short-time law
  D(t)/D0 = a - (4 / (9 sqrt(pi))) (S/V) sqrt(D0 t) + c t
fitted by least squares over the diffusion times with D/D0 >= 0.6 (three at
least). The intercept a is fitted, not fixed at 1: a walk that undoes a step
into a wall also slows the motion along it, which lowers a by a term of order
(S/V) s that does not depend on t. The voxel faces' S/V is printed beside it:
a voxel surface has more area than the smooth one it stands for, and the walk
does not feel all of it. Tortuosity is D0 / D(Delta) at the longest Delta.

Every result has its standard error, (+- u) after it: the jackknife's over 32
batches of walkers (walker j in batch j mod 32), each left out in turn, with
the points and times chosen from all the walkers. S/V or the tortuosity that is
not above twice its error is reported as not determined.

Each walker draws from its own counter-based stream (Philox) keyed by the seed
and its index, and the sums over walkers are exact: every output is the same,
bit for bit, at any number of processes.

Options:
  --diffusion-time MS,...  diffusion times Delta in ms
  --q-max 1/m              largest q (default: sqrt(3 / (D0 (Delta - delta/3)))
                           at each Delta, where free water's E is exp(-3))
  --q-points N             q values from 0 to the largest, evenly (default 16)
  --direction x|y|z|all    the gradient's axis (default all)
  --pulse-duration MS      rectangular pulses of this length, not narrow ones
  -h, --help               this text

Output: pfg.out ("<Delta ms> <q 1/m> <b s/m^2> <E>"), diffusion.out ("<Delta ms>
<D(Delta) m^2/s> <D(Delta)/D0> <mean-square-displacement D m^2/s>"), the
surface-to-volume and tortuosity lines on standard output, and pfg.png (E
against b per Delta, and D/D0 against sqrt(D0 Delta)). The progress bar, ABORT,
checkpoints and the exit status are those of nmrwalk.
)USAGE";

PfgRequest parsePfgOptions(const OptionParser& parser) {
    PfgRequest request;
    const auto times = parser.value("--diffusion-time");
    if (!times) throw Exception("Missing option (1,4,16): --diffusion-time");
    request.diffusionTimesMs = parsePositiveList(
        *times, "--diffusion-time needs diffusion times in ms above 0, as 1,4,16");
    if (const auto qMax = parser.value("--q-max"))
        request.qMax = parseDouble(*qMax, "--q-max needs a wave vector in 1/m");
    if (const auto points = parser.value("--q-points")) {
        const std::int64_t n =
            parseInteger(*points, "--q-points needs a whole number from 2 to 1000");
        if (n < 2 || n > 1000)
            throw Exception("--q-points needs a whole number from 2 to 1000: " + *points);
        request.qPoints = static_cast<std::uint32_t>(n);
    }
    if (const auto pulse = parser.value("--pulse-duration"))
        request.pulseDurationMs =
            parseDouble(*pulse, "--pulse-duration needs a pulse length in ms");
    const std::string direction = parser.value("--direction").value_or("all");
    const auto axes = axesNamed(direction);
    if (!axes) throw Exception("--direction needs x, y, z or all: " + direction);
    request.axes = *axes;
    checkPfgRequest(request);
    return request;
}

std::string pfgFingerprint(const DiffusionTimePlan& plan) {
    std::ostringstream text;
    text << "pfg; diffusion time " << fullNumber(plan.diffusionTimeMs) << "; steps "
         << plan.steps.steps << "; pulse " << fullNumber(plan.pulseDurationMs) << " in "
         << plan.pulseSteps << " steps, field phase " << fullNumber(plan.fieldPhase) << "; axes";
    for (int axis : plan.axes) text << ' ' << axis;
    text << "; q";
    for (double q : plan.q) text << ' ' << fullNumber(q);
    return text.str();
}

std::string pfgReport(const std::vector<DiffusionTimeResult>& results, double d0,
                      double voxelFacesSurfaceToVolume) {
    std::ostringstream out;
    out << std::setprecision(6);
    const ShortTimeFit fit = fitShortTimes(results, d0);
    const auto shortTimes = [&] {
        std::ostringstream text;
        text << "over the " << fit.timesMs.size()
             << " diffusion times with D/D0 >= " << kShortTimeFloor;
        return text.str();
    };
    if (fit.determined) {
        out << "Surface-to-volume from short-time diffusion: " << fit.surfaceToVolume << " 1/m (+- "
            << std::setprecision(2) << fit.surfaceToVolumeError << std::setprecision(6)
            << ") (voxel faces: " << voxelFacesSurfaceToVolume << " 1/m)\n"
            << "  fit of D(t)/D0 = a - (4/(9 sqrt(pi))) (S/V) sqrt(D0 t) + c t, intercept a "
               "fitted (a = "
            << fit.intercept << " (+- " << std::setprecision(2) << fit.interceptError
            << std::setprecision(6) << "), c = " << fit.curvature << " 1/s), " << shortTimes()
            << "; errors: jackknife over " << kBatches << " batches of walkers\n";
    } else {
        out << "Surface-to-volume from short-time diffusion: not determined (voxel faces: "
            << voxelFacesSurfaceToVolume << " 1/m)\n";
        if (fit.fitted) {
            out << "  the fit of Mitra's law " << shortTimes() << " gives " << fit.surfaceToVolume
                << " 1/m (+- " << std::setprecision(2) << fit.surfaceToVolumeError
                << std::setprecision(6)
                << "), which the walkers cannot tell from 0: give more walkers\n";
        } else {
            out << "  the fit of Mitra's law needs " << kShortTimesNeeded
                << " diffusion times with D/D0 >= " << kShortTimeFloor << ", and "
                << fit.timesMs.size() << " have it: give shorter ones\n";
        }
    }
    const TortuosityResult tortuosity = tortuosityAtLongestTime(results, d0);
    if (const DiffusionTimeResult* longest = tortuosity.longest) {
        std::ostringstream basis;
        basis << "D0 / D(Delta) at Delta = " << longest->diffusionTimeMs
              << " ms, D the initial slope of ln E against b over " << longest->slopePoints
              << (longest->slopePoints == 1 ? " point" : " points") << " with E >= " << kSlopeFloor;
        if (tortuosity.determined) {
            out << "Tortuosity from the longest diffusion time: " << tortuosity.value << " (+- "
                << std::setprecision(2) << tortuosity.error << std::setprecision(6) << ")\n"
                << "  " << basis.str() << "; error: jackknife over " << kBatches
                << " batches of walkers\n";
        } else {
            out << "Tortuosity from the longest diffusion time: not determined\n"
                << "  " << basis.str() << ": D = " << longest->d << " m^2/s (+- "
                << std::setprecision(2) << longest->dError << std::setprecision(6)
                << "), which the walkers cannot tell from 0\n";
        }
    }
    return out.str();
}

void writePfgOutputs(const std::vector<DiffusionTimeResult>& results, double d0,
                     std::ostream& err) {
    // E with every digit of its double, so that the same bits at any process count can be
    // seen in the file; the rest with ten.
    std::ostringstream signal, diffusion;
    for (const DiffusionTimeResult& r : results) {
        for (std::size_t m = 0; m < r.q.size(); ++m) {
            signal << std::setprecision(10) << r.diffusionTimeMs << " " << r.q[m] << " " << r.b[m]
                   << " " << std::setprecision(17) << r.e[m] << "\n";
        }
        diffusion << std::setprecision(10) << r.diffusionTimeMs << " " << std::setprecision(17)
                  << r.d << " " << r.d / d0 << " " << r.msdD << "\n";
    }
    writeTextFile("pfg.out", signal.str());
    writeTextFile("diffusion.out", diffusion.str());
    if (!runPlotScript(programDirectory(),
                       {"--pfg", "pfg.out", "--d0", fullNumber(d0), "-o", "pfg.png"}))
        err << "nmrwalk-sequence: warning: pfg.png not drawn: nmrwalk-plot failed (it needs "
               "python3-matplotlib)"
            << std::endl;
}

}  // namespace nmr::tools
