#include "app/driver.h"

#include <mpi.h>

#include <cstdint>
#include <memory>

#include "app/command_line.h"
#include "app/job_control.h"
#include "parallel/message_passing.h"
#include "params/nmr_parameters.h"
#include "params/parameter_broadcast.h"

namespace nmr::app {

namespace {

constexpr int kComplete = 0;
constexpr int kEarlyEnd = -1;  // all bits set; the shell shows 255
constexpr const char* kParameterPath = "./nmr.yaml";
constexpr std::uint32_t kInitialisationPhase = 0;
constexpr std::uint32_t kPhaseCount = 2;

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

        // ---- Later phases go here, in order: seed the random streams with randomSeed +
        // rank; read the grid and distribute the walkers; the second progress signal and a
        // Running poll; the rock summary and walk set-up; the walker loop; reductions,
        // decay curve, inversion, output files, the Stopped poll and the timing report
        // (which uses startTime_). Each ends with return finish(kEarlyEnd) on failure.

        return finish(kComplete);
    }

private:
    bool readCommandLine() {
        startTime_ = MPI_Wtime();
        memoryLimitMB_ = kDefaultMemoryLimitMB;
        return app::readCommandLine(rank_, argc_, argv_, memoryLimitMB_);
    }

    bool readParameters() {
        parameters_ = readParametersCollectively(rank_, size_, kParameterPath);
        return parameters_ != nullptr;
    }

    // Every process sends it, each into its own working directory; where they share one
    // the last writer wins, which is harmless because the texts are identical.
    void announceGridReading() {
        sendProgressSignal("Initializing", "Reading grid and distributing walkers..", 0.0,
                           kInitialisationPhase, kPhaseCount);
    }

    // Process 0 writes "STARTED"; a leftover "ABORT" ends the job here.
    bool pollStart() {
        status_ = pollJobStatus(JobStatus::Start, rank_);
        return status_ == JobStatus::Running;
    }

    // The runtime ends on every path out; what the driver holds is released when it goes
    // out of scope afterwards, the stopped-file guard last. MPI_Finalize waits for every
    // process, so "STOPPED" written just before it exists before any process can exit.
    int finish(int status) {
        stoppedFileGuard_.writeNow();
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
    std::uint32_t memoryLimitMB_ = kDefaultMemoryLimitMB;
    std::unique_ptr<NuclearMagneticResonanceParameters> parameters_;
    JobStatus status_ = JobStatus::Start;
};

}  // namespace

int runDriver(int argc, char** argv) {
    MPI_Init(&argc, &argv);
    RunDriver driver(argc, argv);
    return driver.run();
}

}  // namespace nmr::app
