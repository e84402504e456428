#include "app/driver.h"

#include <mpi.h>

#include <cstdint>
#include <memory>
#include <optional>

#include <exception>
#include <filesystem>
#include <iostream>
#include <vector>

#include "app/command_line.h"
#include "common/exception.h"
#include "common/progress_bar.h"
#include "mpi/message_passing.h"
#include "parallel/grid_distribution.h"
#include "params/nmr_parameters.h"
#include "params/parameter_broadcast.h"
#include "params/parameter_file.h"
#include "simulation/absorption_walk.h"
#include "simulation/checkpoint.h"
#include "simulation/job_control.h"
#include "simulation/rock_summary.h"
#include "simulation/run_core.h"
#include "simulation/run_results.h"
#include "simulation/run_setup.h"
#include "simulation/step_rate.h"
#include "simulation/walk_warnings.h"
#include "t2/decay_output.h"
#include "t2/t2_grid.h"
#include "t2/t2_inversion.h"
#include "walk/absorption_histogram.h"
#include "walk/decay_curve.h"
#include "walk/random_stream.h"

namespace nmr::app {

namespace {

using mpi::kRoot;

constexpr int kComplete = 0;
constexpr int kEarlyEnd = -1;  // all bits set; the shell shows 255
constexpr const char* kParameterPath = "./nmr.yaml";
constexpr std::uint32_t kInitialisationPhase = 0;
constexpr std::uint32_t kPhaseCount = 2;
// About this many progress signals per run.
constexpr double kProgressSignals = 50.0;

// One process's run, phase by phase. Every phase that can fail ends in an agreement
// among all processes before its result is tested, so every process leaves at the same
// phase and none waits alone in a collective call. The driver itself prints nothing on
// failure: the failing phase has said why.
class RunDriver {
public:
    // MPI must be initialised.
    RunDriver(int argc, char** argv)
        : argc_(argc),
          argv_(argv),
          rank_(mpi::rank()),
          size_(mpi::size()),
          stoppedFileGuard_(rank_) {}

    int run() {
        if (!readCommandLine()) return finish(kEarlyEnd);
        if (!readParameters()) return finish(kEarlyEnd);
        announceGridReading();
        if (!pollStart()) return finish(kEarlyEnd);

        seedRandomStream();
        if (!distributeGrid()) return finish(kEarlyEnd);
        sendProgressSignal("Initializing", "Reading of grid complete..", 1.0, kInitialisationPhase,
                           kPhaseCount);
        if (pollJobStatus(JobStatus::Running, rank_, std::cout) != JobStatus::Running)
            return finish(kEarlyEnd);

        summary_ = computeRockSummary(*parameters_, grid_.grid());
        if (rank_ == kRoot) printRockSummary(std::cout, summary_, *parameters_, grid_.grid());
        plan_ = buildWalkPlan(summary_, *parameters_);
        if (rank_ == kRoot) warnBeforeWalking();

        status_ = pollJobStatus(JobStatus::Running, rank_, std::cout);
        if (status_ != JobStatus::Running) return finish(kEarlyEnd);

        // A stop or abort seen during the walk discards the partial counts: no curve, no
        // output file and no timing report from this run. The last checkpoint stays, so
        // the job can be taken up again later.
        if (!walkAllWalkers()) return finish(kEarlyEnd);
        if (!collectAndWriteResults()) return finish(kEarlyEnd);
        pollJobStatus(JobStatus::Stopped, rank_, std::cout);
        if (rank_ == kRoot) printTiming();
        core_->removeCheckpoints();
        return finish(kComplete);
    }

    // The stopped-file guard's write, for a job that is about to be aborted.
    void writeStoppedFile() { stoppedFileGuard_.writeNow(); }

private:
    bool readCommandLine() {
        startTime_ = MPI_Wtime();
        memoryLimitMB_ = kDefaultMemoryLimitMb;
        return app::readCommandLine(rank_, argc_, argv_, memoryLimitMB_);
    }

    bool readParameters() {
        parameters_ = readParametersCollectively(rank_, size_, kParameterPath, std::cout);
        if (parameters_ && rank_ == kRoot) {
            for (const std::string& line : meaninglessParameterWarnings(*parameters_)) {
                std::cerr << line << std::endl;
            }
        }
        return parameters_ != nullptr;
    }

    // Settings the run's rules accept but that give a wrong decay without a word, or a walk
    // that does not end, are named on standard error; the run goes on as its rules say.
    // The step rate is measured only for a walk in which nothing is ever absorbed, to say
    // how long it will take.
    void warnBeforeWalking() {
        double stepsPerSecond = 0.0;
        if (!walkers_.empty() && nothingAbsorbs(grid_.grid(), plan_)) {
            stepsPerSecond = grid_.visit(
                [&](const auto& grid) { return measureStepRate(grid, walkers_.front(), plan_); });
        }
        for (const std::string& line :
             walkWarnings(*parameters_, summary_, plan_, grid_.grid(), stepsPerSecond, size_)) {
            std::cerr << line << std::endl;
        }
    }

    // Every process sends it, each into its own working directory; where they share one
    // the last writer wins, which is harmless because the texts are identical.
    void announceGridReading() {
        sendProgressSignal("Initializing", "Reading grid and distributing walkers..", 0.0,
                           kInitialisationPhase, kPhaseCount);
    }

    // Process 0 writes "STARTED"; a leftover "ABORT" ends the job here.
    bool pollStart() {
        status_ = pollJobStatus(JobStatus::Start, rank_, std::cout);
        return status_ == JobStatus::Running;
    }

    // One stream per process: randomSeed + rank, with 32-bit wrap.
    void seedRandomStream() {
        stream_ = std::make_unique<RandomStream>(streamSeed(parameters_->randomSeed(), rank_));
    }

    bool distributeGrid() {
        DistributionRequest request =
            distributionRequest(*parameters_, rank_, size_, memoryLimitMB_);
        request.details = &std::cerr;
        grid_ = distributeGridAndWalkers(request, *stream_, walkers_, std::cout);
        return static_cast<bool>(grid_);
    }

    // What the run core needs around the walk: the job-file polls, the progress of process
    // 0, and checkpoints of this very run (same parameters, grid, seed, processes, grid
    // mode): a run taken up from one walks the rest exactly as an uninterrupted run does.
    RunControl runControl() {
        RunControl control;
        control.program = "nmrwalk";
        control.interval = parameters_->checkpointInterval();
        control.totalWalkers = parameters_->numberOfWalkers();
        control.console = &std::cout;
        control.warnings = &std::cerr;
        // Reading the grid file for its checksum takes time: only when checkpoints are
        // taken or found.
        control.fingerprint = [this] {
            try {
                return runFingerprint(encodeParameters(*parameters_), parameters_->grid(),
                                      parameters_->randomSeed(), size_,
                                      grid_.compressed() != nullptr);
            } catch (const Exception&) {
                return std::string();  // the grid file is gone: nothing to resume or save
            }
        };
        control.poll = [this](std::uint32_t) {
            status_ = pollJobStatus(status_, rank_, std::cout);
            return status_ == JobStatus::Running;
        };
        return control;
    }

    // Process 0 shows the walk on the console bar and in the job files; every 1000 walkers
    // all processes poll the job files together, and take a checkpoint when due. A stop or
    // abort leaves the last checkpoint, so the job can be taken up again later.
    bool walkAllWalkers() {
        const auto local = static_cast<std::uint32_t>(walkers_.size());
        RunControl control = runControl();
        std::unique_ptr<ProgressBar> bar;
        // Computed once; fewer than 50 walkers give 0, and a signal every 0 walkers would
        // be a division by zero, so the signal is then skipped instead.
        const auto signalInterval =
            static_cast<std::uint32_t>(static_cast<double>(local) / kProgressSignals);
        control.afterWalker = [&](std::uint32_t i) {
            if (rank_ != 0) return;
            bar->advance();
            if (signalInterval != 0 && i % signalInterval == 0) {
                sendProgressSignal("Random walk NMR", "Simulating..",
                                   static_cast<double>(i) / static_cast<double>(local), 1, 2);
            }
        };
        core_.emplace(std::move(control));
        const WalkOutcome outcome = grid_.visit([&](const auto& grid) {
            AbsorptionWalk walk(grid, walkers_, *stream_, plan_);
            const std::uint32_t first = core_->resume(walk, histogram_, local);
            if (rank_ == kRoot) {
                bar = std::make_unique<ProgressBar>(local, std::cout);
                for (std::uint32_t i = 0; i < first; ++i) bar->advance();
            }
            return core_->walk(walk, histogram_, local, first);
        });
        simulationStart_ = outcome.startTime;
        return outcome.completed;
    }

    // The slowest process's walk time and the summed histogram reach process 0, which
    // builds the decay curve, writes it, inverts it and writes the T2 distribution. A
    // failure there (memory for the inversion, say) is agreed on, so no process is left
    // waiting in the final poll. Returns true on every process when process 0 succeeded.
    bool collectAndWriteResults() {
        simulationSeconds_ = mpi::reduce(MPI_Wtime() - simulationStart_, MPI_MAX, kRoot);
        const ReducedAbsorptions reduced = reduceAbsorptions(histogram_);
        bool written = true;
        if (rank_ == kRoot) {
            try {
                writeResults(reduced);
            } catch (...) {
                std::cout << "ERROR: " << currentExceptionText() << std::endl;
                written = false;
            }
        }
        mpi::broadcast(written, kRoot);
        return written;
    }

    // The decay is printed and written before the inversion runs, so a failing
    // inversion still leaves the decay behind.
    void writeResults(const ReducedAbsorptions& reduced) {
        const DecayCurve curve = runDecay(reduced.counts, plan_, summary_, *parameters_);
        for (std::size_t i = 0; i < curve.times.size(); ++i) {
            std::cout << curve.times[i] << ": " << curve.values[i] << std::endl;
        }
        t2::writeColumns(curve.times, curve.values, t2::kDecayFileName);
        const t2::T2Distribution d = runInversion(curve, *parameters_);
        t2::writeColumns(d.t2, d.amplitude, t2::kInversionFileName);
    }

    void printTiming() const {
        std::cout << "--------------------------------------\n"
                  << "* Spent " << simulationSeconds_ << " seconds in simulation.\n"
                  << "* Total time: " << MPI_Wtime() - startTime_ << "\n\n"
                  << std::flush;
    }

    // The runtime ends on every path out; the grid is released just before, and what else
    // the driver holds when it goes out of scope afterwards, the stopped-file guard last.
    // MPI_Finalize waits for every process, so "STOPPED" written just before it exists
    // before any process can exit.
    int finish(int status) {
        stoppedFileGuard_.writeNow();
        // A plain grid lives in memory shared by the processes of a node, and giving it
        // back is a collective step: every process reaches this line at the same phase.
        grid_ = {};
        MPI_Finalize();
        return status;
    }

    int argc_;
    char** argv_;
    const int rank_;
    const int size_;
    // Declared before every resource so that it is destroyed after all of them.
    StoppedFileGuard stoppedFileGuard_;
    double startTime_ = 0.0;  // MPI_Wtime() seconds, just before the command line
    std::uint32_t memoryLimitMB_ = kDefaultMemoryLimitMb;
    std::unique_ptr<NuclearMagneticResonanceParameters> parameters_;
    JobStatus status_ = JobStatus::Start;
    std::unique_ptr<RandomStream> stream_;
    DistributedGrid grid_;
    std::vector<Walker> walkers_;
    RockSummary summary_;
    WalkPlan plan_;
    AbsorptionHistogram histogram_{kIntervalCount};
    double simulationStart_ = 0.0;
    double simulationSeconds_ = 0.0;
    std::optional<RunCore> core_;  // the walker loop, its polls and checkpoints
};

}  // namespace

int runDriver(int argc, char** argv) {
    MPI_Init(&argc, &argv);
    // Every phase agrees on its own failures. Anything that still escapes (memory
    // exhausted in the middle of a transfer) cannot be agreed on any more: the message
    // goes out, "STOPPED" is written, and the whole job is ended so that no process waits
    // for this one. The driver stays alive until then: releasing what it holds would
    // wait for the other processes of the node, which are not coming.
    RunDriver driver(argc, argv);
    try {
        return driver.run();
    } catch (...) {
        std::cout << "ERROR: " << currentExceptionText() << std::endl;
    }
    driver.writeStoppedFile();
    MPI_Abort(MPI_COMM_WORLD, 1);
    return kEarlyEnd;
}

}  // namespace nmr::app
