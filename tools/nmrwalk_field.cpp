// nmrwalk-field: the internal magnetic field of the rock of a run directory, from the
// susceptibilities of its minerals. Runs under mpiexec like nmrwalk; each process computes
// a slab of the field.

#include <mpi.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>

#include "common/exception.h"
#include "field/dipole_field.h"
#include "field/field_file.h"
#include "field/gradient_statistics.h"
#include "mpi/message_passing.h"
#include "mpi/node_shared_memory.h"
#include "mpi/node_topology.h"
#include "parallel/grid_distribution.h"
#include "params/field_settings.h"
#include "params/parameter_broadcast.h"
#include "simulation/run_setup.h"
#include "tools/field_report.h"
#include "tools/option_parser.h"

namespace {

using namespace nmr;
using namespace nmr::tools;
using mpi::kRoot;

constexpr char kParameterPath[] = "./nmr.yaml";
constexpr char kTool[] = "nmrwalk-field";
constexpr double kMiB = 1024.0 * 1024.0;

// Bytes in MiB with one decimal.
template <typename Bytes>
std::string mib(Bytes bytes) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << static_cast<double>(bytes) / kMiB;
    return text.str();
}

void printError(const std::string& text) { std::cerr << kTool << ": error: " << text << std::endl; }

// VmHWM of this process in bytes.
double peakResidentBytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::atof(line.c_str() + 6) * 1024.0;
    return 0.0;
}

// One process's part. Every decision is agreed before anyone acts on it, so all processes
// leave together, with status 1 after any failure, and nothing is written before the last
// check of the input has passed.
class FieldRun {
public:
    FieldRun(int argc, char** argv)
        : argc_(argc), argv_(argv), rank_(mpi::rank()), size_(mpi::size()) {}

    int run() {
        if (!parseOptions()) return status_;
        std::ostringstream console;  // the reader's message, shown as this program's error
        parameters_ = readParametersCollectively(rank_, size_, kParameterPath, console);
        if (!parameters_) {
            std::string text = console.str();
            while (!text.empty() && text.back() == '\n') text.pop_back();
            if (rank_ == kRoot) printError(text);
            return 1;
        }
        if (!onRoot([&] { settings_ = readFieldSettings(kParameterPath); })) return 1;
        broadcastSettings();
        const auto start = std::chrono::steady_clock::now();
        DistributedGrid grid = distribute();
        if (!grid) return 1;
        const bool ok = everywhere([&] { buildTable(grid.grid()); }) && fitsInMemory(grid.grid()) &&
                        compute(grid.grid(), start);
        grid = {};  // collective over each node: every process lets go here
        return ok ? 0 : 1;
    }

private:
    // Runs step on process 0, prints what went wrong there, and tells everyone.
    template <typename Step>
    bool onRoot(Step&& step) {
        std::string failure;
        if (rank_ == kRoot) failure = attempt(step);
        bool ok = failure.empty();
        mpi::broadcast(ok, kRoot);
        return ok;
    }
    // Runs step on every process; process 0 prints the failure of the lowest process that
    // failed, and everyone learns of it.
    template <typename Step>
    bool everywhere(Step&& step) {
        std::string failure = attempt(step, false);
        const int first =
            mpi::allReduce(failure.empty() ? INT_MAX : static_cast<std::int32_t>(rank_), MPI_MIN);
        if (first == INT_MAX) return true;
        if (first != kRoot && rank_ == first) mpi::send(failure, kRoot, 0);
        if (first != kRoot && rank_ == kRoot) mpi::receive(failure, first, 0);
        if (rank_ == kRoot) printError(failure);
        return false;
    }
    template <typename Step>
    std::string attempt(Step&& step, bool print = true) {
        try {
            step();
            return {};
        } catch (...) {
            const std::string text = currentExceptionText();
            if (print) printError(text);
            return text.empty() ? "unknown failure" : text;
        }
    }

    // Every process parses the same command line; process 0 speaks.
    bool parseOptions() {
        try {
            options_ = parseFieldToolOptions(argc_, argv_);
        } catch (const Exception& e) {
            if (rank_ == kRoot) printError(e.message() + " (see " + kTool + " --help)");
            return false;
        }
        if (options_.help) {
            if (rank_ == kRoot) std::cout << kFieldUsage;
            status_ = 0;
            return false;
        }
        return true;
    }

    // What the other processes need of the settings: B0, its axis and the susceptibilities
    // (NaN for a mineral without one, as it travels).
    void broadcastSettings() {
        std::vector<double> values(17, std::nan(""));
        if (rank_ == kRoot) {
            for (const auto& [code, chi] : settings_.volumeSusceptibility.entries())
                values[code] = chi;
            values[16] = settings_.staticField;
        }
        mpi::broadcast(values, kRoot);
        std::int32_t axis = static_cast<unsigned char>(settings_.staticFieldDirection);
        mpi::broadcast(axis, kRoot);
        for (std::size_t code = 0; code < 16; ++code)
            if (!std::isnan(values[code]))
                settings_.volumeSusceptibility.set(static_cast<Mineral::Type>(code), values[code]);
        settings_.staticField = values[16];
        settings_.staticFieldDirection = static_cast<char>(axis);
    }

    // The grid as nmrwalk holds it (its region when one is on), without walkers. The
    // distribution's messages go to standard output after a success, to standard error as
    // the reason of a failure.
    DistributedGrid distribute() {
        DistributionRequest request = distributionRequest(*parameters_, rank_, size_);
        request.numberOfWalkers = 0;
        RandomStream stream(streamSeed(parameters_->randomSeed(), rank_));
        std::vector<Walker> walkers;
        std::ostringstream console;
        DistributedGrid grid = distributeGridAndWalkers(request, stream, walkers, console);
        if (rank_ == kRoot && grid) std::cout << console.str() << std::flush;
        if (rank_ == kRoot && !grid) printError(console.str() + "(grid " + request.gridPath + ")");
        return grid;
    }

    // Every mineral of the grid needs a susceptibility; the others get the fluid's, which
    // gives them no contrast should they appear in a margin.
    void buildTable(const Grid<Mineral::Type>& grid) {
        table_ = field::susceptibilityTable(settings_.volumeSusceptibility, grid);
    }

    // The field's estimate for every process of the busiest node against the memory that
    // node has left with the grid loaded.
    bool fitsInMemory(const Grid<Mineral::Type>& grid) {
        const field::Extent n{grid.nx(), grid.ny(), grid.nz()};
        const std::uint64_t perProcess = field::fieldMemoryBytes(n, options_.padding, size_);
        long long nodeNeeds = 0, nodeHas = 0;
        {
            const auto topology = mpi::NodeTopology::discover();
            nodeNeeds = static_cast<long long>(perProcess) * topology->nodeSize();
            nodeHas = topology->isLeader() ? static_cast<long long>(mpi::availableMemoryBytes())
                                           : LLONG_MAX;
        }
        nodeNeeds = mpi::allReduce(nodeNeeds, MPI_MAX);
        nodeHas = mpi::allReduce(nodeHas, MPI_MIN);
        if (rank_ != kRoot) return nodeNeeds <= nodeHas;
        const field::Extent box = field::paddedExtent(n, options_.padding);
        std::ostringstream text;
        text.precision(4);
        text << n[0] << " x " << n[1] << " x " << n[2] << " cells, FFT box " << box[0] << " x "
             << box[1] << " x " << box[2] << " (padding " << options_.padding << ")";
        if (nodeNeeds > nodeHas) {
            printError("the field of " + text.str() + " needs about " + mib(nodeNeeds) +
                       " MiB on a node, " + mib(perProcess) + " MiB per process, but a node has " +
                       mib(nodeHas) + " MiB available: use more nodes or a smaller --padding");
            return false;
        }
        std::cout << "Field of " << text.str() << ", B0 along " << settings_.staticFieldDirection
                  << ": about " << mib(perProcess) << " MiB per process" << std::endl;
        return true;
    }

    bool compute(const Grid<Mineral::Type>& grid, std::chrono::steady_clock::time_point start) {
        const field::FieldOptions options{
            field::axisFromName(std::string(1, settings_.staticFieldDirection)), options_.padding};
        field::FieldSlab slab;
        field::GradientStatistics statistics;
        if (!everywhere(
                [&] { slab = field::computeFieldSlab(grid, table_, options, mpi::world()); }))
            return false;
        if (!everywhere([&] {
                statistics =
                    field::poreGradientStatistics(grid, slab, settings_.staticField, mpi::world());
            }))
            return false;
        // The plot data wait under a temporary name until the field is whole.
        const std::string plotData = besideField(options_.output, "json");
        if (!onRoot([&] {
                writeFieldPlotData(plotData + ".writing",
                                   {options_.output, options, settings_.staticField, statistics},
                                   grid);
            }))
            return false;
        const bool written = everywhere(
            [&] { field::writeFieldSlabs(options_.output, slab, grid.cellSize(), mpi::world()); });
        if (!written) {
            if (rank_ == kRoot) std::filesystem::remove(plotData + ".writing");
            return false;
        }
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const double peak = peakResidentBytes();
        const double largest = mpi::reduce(peak, MPI_MAX, kRoot);
        const double total = mpi::reduce(peak, MPI_SUM, kRoot);
        return onRoot([&] {
            std::filesystem::rename(plotData + ".writing", plotData);
            std::cout << gradientLine(settings_.staticField, statistics) << std::endl;
            report(plotData, seconds, largest, total);
        });
    }

    void report(const std::string& plotData, double seconds, double largest, double total) {
        const std::string png = besideField(options_.output, "png");
        const std::string command = shellQuoted(programDirectory() + "/nmrwalk-plot") +
                                    " --field " + shellQuoted(plotData) + " -o " +
                                    shellQuoted(png) + " >/dev/null 2>&1";
        const std::string files = options_.output + ", " + field::fieldDataPath(options_.output);
        if (std::system(command.c_str()) == 0) {
            std::cout << "Wrote " << files << ", " << plotData << " and " << png << std::endl;
        } else {
            std::cout << "Wrote " << files << " and " << plotData << std::endl;
            std::cerr << kTool << ": warning: " << png
                      << " not drawn: nmrwalk-plot --field failed (it needs python3-matplotlib)"
                      << std::endl;
        }
        std::cout << "Field time (s): " << seconds << std::endl;
        std::cout << "Peak resident memory: " << mib(largest) << " MiB on the largest process, "
                  << mib(total) << " MiB over " << size_ << " process" << (size_ > 1 ? "es" : "")
                  << std::endl;
    }

    std::string programDirectory() const {
        std::error_code error;
        const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
        return error ? std::string(".") : self.parent_path().string();
    }

    int argc_;
    char** argv_;
    const int rank_;
    const int size_;
    int status_ = 1;
    FieldToolOptions options_;
    std::unique_ptr<NuclearMagneticResonanceParameters> parameters_;
    FieldSettings settings_;
    field::Susceptibilities table_{};
};

}  // namespace

int main(int argc, char** argv) {
    MPI_Init(&argc, &argv);
    int status = 1;
    {
        FieldRun run(argc, argv);
        try {
            status = run.run();
        } catch (...) {
            printError(nmr::currentExceptionText());
            MPI_Abort(MPI_COMM_WORLD, 1);
        }
    }
    MPI_Finalize();
    return status;
}
