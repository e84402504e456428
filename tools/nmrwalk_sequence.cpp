// nmrwalk-sequence: the experiments a laboratory runs on a rock, simulated by walks in its
// run directory under mpiexec like nmrwalk: a CPMG echo train that feels the internal field,
// and pulsed-field-gradient diffusion.

#include <mpi.h>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <string>
#include <vector>

#include "common/exception.h"
#include "mpi/message_passing.h"
#include "sequence/cpmg.h"
#include "sequence/dt2.h"
#include "sequence/echo_train.h"
#include "sequence/pfg.h"
#include "tools/option_parser.h"
#include "tools/sequence_cpmg.h"
#include "tools/sequence_dt2.h"
#include "tools/sequence_pfg.h"
#include "tools/sequence_run.h"
#include "walk/pore_faces.h"

namespace {

using namespace nmr;
using namespace nmr::tools;

constexpr char kUsage[] =
    R"USAGE(Usage: nmrwalk-sequence EXPERIMENT [OPTIONS]

Experiments:
  cpmg    a CPMG echo train in the rock's internal field, per echo spacing
  pfg     pulsed-field-gradient diffusion, narrow or rectangular pulses, per
          diffusion time
  dt2     a D-T2 map by diffusion editing: narrow pulses, then a CPMG train

"nmrwalk-sequence EXPERIMENT --help" describes each.
)USAGE";

struct Command {
    std::string experiment;
    bool help = false;
    CpmgOptions cpmg;
    PfgRequest pfg;
    Dt2Options dt2;
};

// The options of each experiment: one that an experiment does not take is refused.
const std::vector<std::string> kCpmgOptions = {"--echo-spacing", "--echoes", "--gradient",
                                               "--field"};
const std::vector<std::string> kPfgOptions = {"--diffusion-time", "--q-max", "--q-points",
                                              "--direction", "--pulse-duration"};
const std::vector<std::string> kDt2Options = {"--diffusion-time", "--b-values", "--b-points",
                                              "--echo-spacing", "--echoes"};

const std::vector<std::string>& optionsOf(const std::string& experiment) {
    return experiment == "cpmg" ? kCpmgOptions : experiment == "pfg" ? kPfgOptions : kDt2Options;
}

Command parseCommand(int argc, char** argv) {
    OptionParser::Definition definition{{}, {"--help"}, {{"-h", "--help"}}};
    for (const auto* options : {&kCpmgOptions, &kPfgOptions, &kDt2Options})
        definition.valueOptions.insert(options->begin(), options->end());
    const OptionParser parser(argc, argv, definition);
    Command command;
    command.help = parser.has("--help");
    if (parser.positional().empty()) {
        if (command.help) return command;
        throw Exception("Give an experiment (cpmg, pfg or dt2), got none");
    }
    command.experiment = parser.positional().front();
    if (command.experiment != "cpmg" && command.experiment != "pfg" && command.experiment != "dt2")
        throw Exception("Unknown experiment: " + command.experiment);
    if (parser.positional().size() > 1)
        throw Exception("Give one experiment, got also: " + parser.positional()[1]);
    const std::vector<std::string>& own = optionsOf(command.experiment);
    for (const std::string& option : definition.valueOptions) {
        if (parser.has(option) && std::find(own.begin(), own.end(), option) == own.end())
            throw Exception(option + " is not an option of " + command.experiment);
    }
    if (command.help) return command;
    if (command.experiment == "cpmg")
        command.cpmg = parseCpmgOptions(parser);
    else if (command.experiment == "pfg")
        command.pfg = parsePfgOptions(parser);
    else
        command.dt2 = parseDt2Options(parser);
    return command;
}

// One echo train per echo spacing, each a walk of the run core.
int runCpmg(SequenceRun& run, const CpmgOptions& options) {
    const NuclearMagneticResonanceParameters& parameters = run.parameters();
    const double cellSizeM = run.grid().grid().cellSize() * 1e-6;
    if (run.root()) {
        const std::string warning = clayWarning(parameters, run.grid().grid().counters());
        if (!warning.empty()) std::cerr << warning << std::endl;
    }
    const WalkerRange walkers = run.walkers();
    std::vector<EchoTrain> trains;
    for (std::size_t i = 0; i < options.request.echoSpacingsMs.size(); ++i) {
        EchoSpacingPlan plan;
        if (!run.allSucceed([&] {
                plan = planEchoSpacing(parameters, cellSizeM, options.request.echoSpacingsMs[i],
                                       options.request.gradient, run.staticField());
            }))
            return SequenceRun::kEarlyEnd;
        plan.phase.echoes = options.request.echoes.value_or(0);
        if (plan.phase.echoes == 0) {
            // Judged on process 0 alone and sent to the others: every process must walk the
            // same train.
            if (run.root()) {
                plan.phase.echoes = run.grid().visit([&](const auto& grid) {
                    return countEchoes(grid, run.field(), plan, parameters.randomSeed(),
                                       parameters.numberOfWalkers(),
                                       parameters.bulkWaterT2() * 1000.0);
                });
            }
            mpi::broadcast(plan.phase.echoes, mpi::kRoot);
            if (run.root() && plan.phase.echoes == kMostEchoes)
                std::cerr << "Warning: at an echo spacing of " << plan.echoSpacingMs
                          << " ms the signal stays above 0.1 % of its start for " << kMostEchoes
                          << " echoes, and the train stops there. Give --echoes to choose."
                          << std::endl;
        }
        if (run.root()) {
            std::cout << "Echo spacing " << plan.echoSpacingMs
                      << " ms: " << plan.phase.stepsPerHalfEcho << " steps of " << plan.phase.step
                      << " voxels (" << plan.tauMs << " ms) per half echo, " << plan.phase.echoes
                      << " echoes" << std::endl;
        }
        RunControl control =
            run.control("te" + std::to_string(i), walkers.count, cpmgFingerprint(options, plan));
        std::optional<ExactSums> sums = run.grid().visit([&](const auto& grid) {
            return walkEchoTrains(grid, run.field(), plan.phase, parameters.randomSeed(), walkers,
                                  std::move(control));
        });
        if (!sums) return SequenceRun::kEarlyEnd;
        sums->reduce(MPI_COMM_WORLD, mpi::kRoot);
        if (!run.agree([&] {
                trains.push_back(
                    echoTrainOf(plan, *sums, parameters.numberOfWalkers(), parameters));
                std::cout << "Echo spacing " << plan.echoSpacingMs << " ms: T2LM "
                          << trains.back().logMeanT2 << " ms" << std::endl;
            }))
            return SequenceRun::kEarlyEnd;
    }
    if (!run.agree([&] { writeCpmgOutputs(trains, std::cerr); })) return SequenceRun::kEarlyEnd;
    run.complete();
    return SequenceRun::kComplete;
}

// One walk per diffusion time, each of the run core; the results on process 0.
int runPfg(SequenceRun& run, const PfgRequest& request) {
    const NuclearMagneticResonanceParameters& parameters = run.parameters();
    const double cellSizeM = run.grid().grid().cellSize() * 1e-6;
    const double d0 = parameters.diffusionConstantWater();
    const WalkerRange walkers = run.walkers();
    std::vector<double> times = request.diffusionTimesMs;
    std::sort(times.begin(), times.end());
    times.erase(std::unique(times.begin(), times.end()), times.end());
    std::vector<DiffusionTimePlan> plans(times.size());
    if (!run.allSucceed([&] {
            for (std::size_t i = 0; i < times.size(); ++i)
                plans[i] =
                    planDiffusionTime(parameters, cellSizeM, times[i], request, run.staticField());
        }))
        return SequenceRun::kEarlyEnd;
    std::vector<DiffusionTimeResult> results;
    for (std::size_t i = 0; i < plans.size(); ++i) {
        const DiffusionTimePlan& plan = plans[i];
        if (run.root()) {
            std::cout << "Diffusion time " << plan.diffusionTimeMs << " ms: " << plan.steps.steps
                      << " steps of " << plan.steps.step << " voxels (" << plan.steps.tauMs
                      << " ms)" << std::endl;
        }
        RunControl control =
            run.control("delta" + std::to_string(i), walkers.count, pfgFingerprint(plan));
        std::optional<ExactSums> sums = run.grid().visit([&](const auto& grid) {
            return walkDisplacements(grid, run.field(), plan, parameters.randomSeed(), walkers,
                                     std::move(control));
        });
        if (!sums) return SequenceRun::kEarlyEnd;
        sums->reduce(MPI_COMM_WORLD, mpi::kRoot);
        if (!run.agree([&] {
                results.push_back(diffusionTimeResult(plan, *sums));
                if (!(results.back().survivors > 0.0))
                    throw Exception("No walker lived to a diffusion time of " +
                                    std::to_string(plan.diffusionTimeMs) +
                                    " ms: surface relaxation absorbed them all");
                const DiffusionTimeResult& r = results.back();
                std::cout << "Diffusion time " << plan.diffusionTimeMs << " ms: D " << r.d
                          << " m^2/s (+- " << std::setprecision(2) << r.dError
                          << std::setprecision(6) << "), D/D0 " << r.d / d0 << " (+- "
                          << std::setprecision(2) << r.dError / d0 << std::setprecision(6) << ")"
                          << std::endl;
            }))
            return SequenceRun::kEarlyEnd;
    }
    if (!run.agree([&] {
            const double facesPerVolume = run.grid().visit([&](const auto& grid) {
                const std::vector<std::uint64_t> faces = poreFaces(grid);
                double total = 0.0;
                for (std::uint64_t f : faces) total += static_cast<double>(f);
                return total / static_cast<double>(grid.counter(Mineral::Pore)) / cellSizeM;
            });
            writePfgOutputs(results, d0, std::cerr);
            std::cout << pfgReport(results, d0, facesPerVolume) << std::flush;
        }))
        return SequenceRun::kEarlyEnd;
    run.complete();
    return SequenceRun::kComplete;
}

// One walk: the encoding over Delta and the echo train after it, the map on process 0.
int runDt2(SequenceRun& run, const Dt2Options& options) {
    const NuclearMagneticResonanceParameters& parameters = run.parameters();
    const double cellSizeM = run.grid().grid().cellSize() * 1e-6;
    const double d0 = parameters.diffusionConstantWater();
    const double bulkT2Ms = parameters.bulkWaterT2() * 1000.0;
    Dt2Plan plan;
    if (!run.allSucceed([&] {
            plan = planDt2(parameters, cellSizeM, options.diffusionTimeMs,
                           dt2BValues(options.bValues, options.bPoints, d0), options.echoSpacingMs,
                           options.echoes.value_or(1));
        }))
        return SequenceRun::kEarlyEnd;
    if (!options.echoes) {
        // The echoes of a CPMG train of the same spacing, judged on process 0 alone.
        if (run.root()) {
            EchoSpacingPlan train =
                planEchoSpacing(parameters, cellSizeM, options.echoSpacingMs, 0.0, {});
            plan.echoes = run.grid().visit([&](const auto& grid) {
                return countEchoes(grid, FieldMap(), train, parameters.randomSeed(),
                                   parameters.numberOfWalkers(), bulkT2Ms);
            });
        }
        mpi::broadcast(plan.echoes, mpi::kRoot);
    }
    if (run.root()) {
        std::cout << "Diffusion time " << plan.diffusionTimeMs << " ms: " << plan.encoding.steps
                  << " steps of " << plan.encoding.step << " voxels; echo spacing "
                  << plan.echoSpacingMs << " ms: " << plan.halfEcho.steps << " steps of "
                  << plan.halfEcho.step << " voxels per half echo, " << plan.echoes << " echoes; "
                  << plan.b.size() << " b values up to " << plan.b.back() << " s/m^2" << std::endl;
    }
    const WalkerRange walkers = run.walkers();
    RunControl control = run.control("walk", walkers.count, dt2Fingerprint(plan));
    std::optional<ExactSums> sums = run.grid().visit([&](const auto& grid) {
        return walkDiffusionEditing(grid, plan, parameters.randomSeed(), walkers,
                                    std::move(control));
    });
    if (!sums) return SequenceRun::kEarlyEnd;
    sums->reduce(MPI_COMM_WORLD, mpi::kRoot);
    if (!run.agree([&] {
            writeDt2Outputs(dt2Data(plan, *sums, parameters.numberOfWalkers(), bulkT2Ms), d0);
        }))
        return SequenceRun::kEarlyEnd;
    run.complete();
    return SequenceRun::kComplete;
}

int runSequence(int argc, char** argv) {
    const int rank = mpi::rank();
    Command command;
    try {
        command = parseCommand(argc, argv);
    } catch (const Exception& e) {
        if (rank == mpi::kRoot)
            std::cerr << "nmrwalk-sequence: error: " << e.message() << "\n" << kUsage;
        return SequenceRun::kEarlyEnd;
    }
    if (command.help) {
        if (rank == mpi::kRoot)
            std::cout << (command.experiment.empty()    ? kUsage
                          : command.experiment == "pfg" ? kPfgUsage
                          : command.experiment == "dt2" ? kDt2Usage
                                                        : kCpmgUsage);
        return SequenceRun::kEarlyEnd;
    }
    SequenceRun run(command.experiment);
    if (command.experiment == "pfg") {
        // Narrow pulses: the field has no time to act, so none is read or computed. Finite
        // ones walk through it when nmr.yaml gives one.
        const bool finite = command.pfg.pulseDurationMs.has_value();
        if (!run.prepare(std::nullopt, finite)) return SequenceRun::kEarlyEnd;
        return runPfg(run, command.pfg);
    }
    if (command.experiment == "dt2") {
        if (!run.prepare(std::nullopt, false)) return SequenceRun::kEarlyEnd;
        return runDt2(run, command.dt2);
    }
    if (!run.prepare(command.cpmg.field)) return SequenceRun::kEarlyEnd;
    return runCpmg(run, command.cpmg);
}

}  // namespace

int main(int argc, char** argv) {
    MPI_Init(&argc, &argv);
    int status = SequenceRun::kEarlyEnd;
    try {
        status = runSequence(argc, argv);
    } catch (...) {
        // A failure no phase could agree on: end the whole job rather than leave a process
        // waiting in a collective call.
        std::cerr << "nmrwalk-sequence: error: " << currentExceptionText() << std::endl;
        MPI_Abort(MPI_COMM_WORLD, 1);
    }
    MPI_Finalize();
    return status;
}
