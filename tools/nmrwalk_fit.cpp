// nmrwalk-fit: surface relaxivities per mineral fitted to a measured decay from one
// recorded walk. Runs in a run directory under mpiexec like nmrwalk.

#include <mpi.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

#include "analysis/decay_file.h"
#include "common/exception.h"
#include "common/progress_bar.h"
#include "fit/recorded_walk_file.h"
#include "fit/recording.h"
#include "fit/relaxivity_fit.h"
#include "mpi/message_passing.h"
#include "parallel/grid_distribution.h"
#include "params/parameter_broadcast.h"
#include "simulation/run_setup.h"
#include "simulation/walk_warnings.h"
#include "tools/fit_options.h"
#include "tools/fit_report.h"
#include "tools/plot_script.h"

namespace {

using namespace nmr;
using namespace nmr::tools;
using namespace nmr::analysis;
using mpi::kRoot;

constexpr char kParameterPath[] = "./nmr.yaml";
constexpr char kRecordingPath[] = "fit.walk";

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// One process's part in a fit. Process 0 reads every file, decides and reports; every
// decision is broadcast before anyone acts on it, so all processes leave together.
class FitRun {
public:
    FitRun(int argc, char** argv)
        : argc_(argc), argv_(argv), rank_(mpi::rank()), size_(mpi::size()) {}

    int run() {
        if (!parseOptions()) return status_;
        parameters_ = readParametersCollectively(rank_, size_, kParameterPath, std::cout);
        if (!parameters_) return 1;
        if (!agree([&] {
                const std::string refusal = negativeRelaxivityRefusal(*parameters_);
                if (!refusal.empty()) throw Exception(refusal);
                prepareOutputFolder();
                readMeasured();
            }))
            return 1;
        if (!agree([&] { tryRecordedWalk(); })) return 1;
        bool reuse = recorded_.has_value();
        mpi::broadcast(reuse, kRoot);
        if (!reuse && !recordWalk()) return 1;
        // The other processes wait without spinning while process 0 fits.
        const bool fitted = rank_ == kRoot ? agreeLater([&] { fitOnRoot(); }) : waitForRoot();
        return fitted ? 0 : 1;
    }

private:
    // Runs step on process 0, prints what went wrong there, and tells everyone.
    template <typename Step>
    bool agree(Step&& step) {
        bool ok = true;
        if (rank_ == kRoot) ok = succeeded(step);
        mpi::broadcast(ok, kRoot);
        return ok;
    }
    template <typename Step>
    bool succeeded(Step&& step) {
        try {
            step();
            return true;
        } catch (...) {
            std::cerr << "nmrwalk-fit: error: " << currentExceptionText() << std::endl;
        }
        return false;
    }
    template <typename Step>
    bool agreeLater(Step&& step) {
        bool ok = succeeded(step);
        MPI_Request request;
        MPI_Ibarrier(MPI_COMM_WORLD, &request);
        MPI_Wait(&request, MPI_STATUS_IGNORE);
        mpi::broadcast(ok, kRoot);
        return ok;
    }
    bool waitForRoot() {
        MPI_Request request;
        MPI_Ibarrier(MPI_COMM_WORLD, &request);
        for (int done = 0; !done;) {
            MPI_Test(&request, &done, MPI_STATUS_IGNORE);
            if (!done) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        bool ok = true;
        mpi::broadcast(ok, kRoot);
        return ok;
    }

    // Every process parses the same command line; process 0 speaks.
    bool parseOptions() {
        try {
            options_ = parseFitOptions(argc_, argv_);
        } catch (const Exception& e) {
            if (rank_ == kRoot) std::cerr << "nmrwalk-fit: error: " << e.message() << std::endl;
            status_ = 1;
            return false;
        }
        if (options_.help) {
            if (rank_ == kRoot) std::cout << kFitUsage;
            status_ = 0;
            return false;
        }
        return true;
    }

    void readMeasured() {
        measured_ = readDecayFile(options_.measured);
        if (measured_.times.size() < fit::MeasuredWindow::kLeastPoints) {
            throw Exception(
                options_.measured + " lines " + std::to_string(measured_.lines.front()) + " to " +
                std::to_string(measured_.lines.back()) + " hold " +
                std::to_string(measured_.times.size()) + " points; a fit needs at least " +
                std::to_string(fit::MeasuredWindow::kLeastPoints));
        }
    }

    // Process 0: the folder of -o exists before any work is done, so that a typing error
    // costs no walk.
    void prepareOutputFolder() const {
        const auto folder = std::filesystem::path(options_.output).parent_path();
        if (folder.empty()) return;
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error) {
            throw FileAccessException("Cannot create the folder of -o (" + error.message() +
                                      "): " + folder.string());
        }
    }

    // Process 0: a recording left by an earlier fit serves when it was made from the same
    // grid and parameters and reaches low enough; otherwise the walk is recorded again, with
    // one line that says why. Only a file that is no recorded walk, or a damaged one, is
    // refused: overwriting it could destroy something that is not ours.
    void tryRecordedWalk() {
        fingerprint_ = fit::walkFingerprint(*parameters_, size_);
        if (!std::filesystem::exists(kRecordingPath)) return;
        const std::optional<int> format = fit::recordedWalkFormat(kRecordingPath);
        if (!format) {
            throw Exception(std::string(kRecordingPath) +
                            " is not a recorded walk; move it away or delete it to walk again");
        }
        std::string why;
        if (*format != fit::kRecordedWalkFormat) {
            why = "it was recorded in format " + std::to_string(*format) + ", and this is format " +
                  std::to_string(fit::kRecordedWalkFormat);
        } else {
            fit::RecordedWalk walk = readIntact();
            why = fit::fingerprintDifference(walk.fingerprint, fingerprint_);
            if (why.empty()) {
                request_ = fit::fitRequest(options_.choice, walk.run.relaxivity, walk.run.counters,
                                           parameters_->grid());
                why = fit::floorsShortfall(walk.run, request_);
            }
            if (why.empty()) {
                std::cout << "Reusing the recorded walk " << kRecordingPath << ": "
                          << walk.histories.walkers() << " walkers, " << walk.histories.bytes()
                          << " bytes of contact histories" << std::endl;
                recorded_ = std::move(walk);
                return;
            }
        }
        std::cout << "Recording the walk again, since " << kRecordingPath
                  << " cannot serve this fit: " << why << std::endl;
    }

    fit::RecordedWalk readIntact() const {
        try {
            return fit::readRecordedWalk(kRecordingPath);
        } catch (const Exception& e) {
            throw FileAccessException(e.message() + " (delete it to walk again)");
        }
    }

    // All processes: the walk of nmrwalk, with every walker's contacts recorded.
    bool recordWalk() {
        auto stream = std::make_unique<RandomStream>(streamSeed(parameters_->randomSeed(), rank_));
        const DistributionRequest request = distributionRequest(*parameters_, rank_, size_);
        std::vector<Walker> walkers;
        std::ostringstream quiet;
        DistributedGrid grid =
            distributeGridAndWalkers(request, *stream, walkers, rank_ == kRoot ? std::cout : quiet);
        if (!grid) return false;

        const RockSummary summary = computeRockSummary(*parameters_, grid.grid());
        const WalkPlan walk = buildWalkPlan(summary, *parameters_);
        // The walk's own traps (a step switch that never fires, say) hold for the recording
        // as for nmrwalk, and are named the same way.
        if (rank_ == kRoot) {
            const std::string warning = stepSwitchWarning(summary, walk, *parameters_);
            if (!warning.empty()) std::cerr << warning << std::endl;
        }
        fit::RecordedRun run;
        if (!agree([&] {
                request_ =
                    fit::fitRequest(options_.choice, parameters_->surfaceRelaxationStrengthWater(),
                                    grid.grid().counters(), parameters_->grid());
                fit::checkOverlap(measured_, walk.schedule.intervalEndTime, options_.measured);
            })) {
            return false;
        }
        broadcastRequest();
        run = fit::describeRecordedRun(*parameters_, summary, walk, grid,
                                       fit::floorsOf(request_, options_.choice));

        const auto start = std::chrono::steady_clock::now();
        RandomStream roulette(fit::rouletteSeed(parameters_->randomSeed(), rank_));
        const std::uint32_t chunk = fit::chunkWalkersFor(parameters_->numberOfWalkers());
        // The bar of nmrwalk: process 0's own walkers.
        std::unique_ptr<ProgressBar> bar;
        fit::RecordingHooks hooks;
        if (rank_ == kRoot) {
            bar = std::make_unique<ProgressBar>(static_cast<std::uint32_t>(walkers.size()),
                                                std::cout);
            hooks.afterWalker = [&bar] { bar->advance(); };
        }
        fit::ContactHistories local = grid.visit([&](const auto& g) {
            return *fit::recordWalkers(g, walkers, *stream, roulette, run, walk, chunk, hooks);
        });
        const double walkSeconds = mpi::reduce(secondsSince(start), MPI_MAX, kRoot);
        grid = {};  // collective over each node: every process lets go here
        fit::ContactHistories all = fit::gatherHistories(std::move(local));
        return agree([&] {
            std::cout << "* Recording walk time: " << walkSeconds << std::endl;
            recorded_ = fit::RecordedWalk{fingerprint_, std::move(run), std::move(all)};
            fit::writeRecordedWalk(kRecordingPath, *recorded_);
            std::cout << "Recorded walk " << kRecordingPath << ": "
                      << recorded_->histories.walkers() << " walkers, "
                      << recorded_->histories.bytes() << " bytes of contact histories" << std::endl;
        });
    }

    // The request as process 0 built it (its checks passed), on every process.
    void broadcastRequest() {
        std::vector<std::uint32_t> minerals(request_.minerals.begin(), request_.minerals.end());
        mpi::broadcast(minerals, kRoot);
        mpi::broadcast(request_.lower, kRoot);
        mpi::broadcast(request_.upper, kRoot);
        request_.minerals.clear();
        for (std::uint32_t code : minerals)
            request_.minerals.push_back(static_cast<Mineral::Type>(code));
    }

    void fitOnRoot() {
        const auto start = std::chrono::steady_clock::now();
        const unsigned threads = std::max(1u, std::thread::hardware_concurrency());
        fit::MeasuredDecay measured{measured_.times, measured_.values};
        const fit::RelaxivityFit fitter(recorded_->histories, recorded_->run, measured, threads);
        recorded_->histories = {};  // the fitter evaluates its own expanded copy
        fit::checkWindow(fitter.window(), measured_, options_.measured);
        if (options_.choice.sweep) {
            printSweep(std::cout, fitter, *options_.choice.sweep, *parameters_);
        } else {
            const fit::FitResult result = fitter.fit(request_);
            reportFit(std::cout, std::cerr, fitter, result, request_, measured_, *parameters_,
                      options_, kParameterPath, tools::programDirectory());
        }
        std::cout << "Fit time (s): " << secondsSince(start) << std::endl;
    }

    int argc_;
    char** argv_;
    const int rank_;
    const int size_;
    int status_ = 1;
    FitOptions options_;
    std::unique_ptr<NuclearMagneticResonanceParameters> parameters_;
    MeasuredDecay measured_;
    fit::Fingerprint fingerprint_;
    fit::FitRequest request_;
    std::optional<fit::RecordedWalk> recorded_;
};

}  // namespace

int main(int argc, char** argv) {
    MPI_Init(&argc, &argv);
    int status = 1;
    {
        FitRun run(argc, argv);
        try {
            status = run.run();
        } catch (...) {
            std::cerr << "nmrwalk-fit: error: " << nmr::currentExceptionText() << std::endl;
            MPI_Abort(MPI_COMM_WORLD, 1);
        }
    }
    MPI_Finalize();
    return status;
}
