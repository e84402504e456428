// nmrwalk-sequence: the experiments a laboratory runs on a rock, simulated by walks in its
// run directory under mpiexec like nmrwalk: a CPMG echo train that feels the internal field.

#include <mpi.h>

#include <iostream>
#include <string>
#include <vector>

#include "common/exception.h"
#include "mpi/message_passing.h"
#include "sequence/cpmg.h"
#include "sequence/echo_train.h"
#include "tools/option_parser.h"
#include "tools/sequence_cpmg.h"
#include "tools/sequence_run.h"

namespace {

using namespace nmr;
using namespace nmr::tools;

constexpr char kUsage[] =
    R"USAGE(Usage: nmrwalk-sequence EXPERIMENT [OPTIONS]

Experiments:
  cpmg    a CPMG echo train in the rock's internal field, per echo spacing

"nmrwalk-sequence EXPERIMENT --help" describes each.
)USAGE";

struct Command {
    std::string experiment;
    bool help = false;
    CpmgOptions cpmg;
};

Command parseCommand(int argc, char** argv) {
    const OptionParser parser(
        argc, argv,
        {{"--echo-spacing", "--echoes", "--gradient", "--field"}, {"--help"}, {{"-h", "--help"}}});
    Command command;
    command.help = parser.has("--help");
    if (parser.positional().empty()) {
        if (command.help) return command;
        throw Exception("Give an experiment (cpmg), got none");
    }
    command.experiment = parser.positional().front();
    if (command.experiment != "cpmg") throw Exception("Unknown experiment: " + command.experiment);
    if (parser.positional().size() > 1)
        throw Exception("Give one experiment, got also: " + parser.positional()[1]);
    if (!command.help) command.cpmg = parseCpmgOptions(parser);
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
        if (rank == mpi::kRoot) std::cout << (command.experiment.empty() ? kUsage : kCpmgUsage);
        return SequenceRun::kEarlyEnd;
    }
    SequenceRun run(command.experiment);
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
