#include "tools/sequence_run.h"

#include <mpi.h>

#include <algorithm>
#include <climits>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "common/exception.h"
#include "field/dipole_field.h"
#include "field/field_file.h"
#include "mpi/message_passing.h"
#include "mpi/node_shared_memory.h"
#include "params/parameter_broadcast.h"
#include "params/parameter_file.h"
#include "sequence/field_share.h"
#include "simulation/checkpoint.h"
#include "simulation/run_setup.h"

namespace nmr::tools {

namespace {

using mpi::kRoot;
constexpr char kParameterPath[] = "./nmr.yaml";
constexpr char kProgram[] = "nmrwalk-sequence";

}  // namespace

SequenceRun::SequenceRun(std::string experiment)
    : experiment_(std::move(experiment)),
      rank_(mpi::rank()),
      size_(mpi::size()),
      stoppedFileGuard_(rank_) {}

bool SequenceRun::agree(const std::function<void()>& step) {
    bool ok = true;
    if (root()) {
        try {
            step();
        } catch (...) {
            ok = false;
            std::cerr << kProgram << ": error: " << currentExceptionText() << std::endl;
            const std::string detail = currentExceptionDetail();
            if (!detail.empty()) std::cerr << kProgram << ": " << detail << std::endl;
        }
    }
    mpi::broadcast(ok, kRoot);
    return ok;
}

bool SequenceRun::allSucceed(const std::function<void()>& step) {
    bool ok = true;
    std::string text;
    try {
        step();
    } catch (...) {
        ok = false;
        text = currentExceptionText();
    }
    // The first process that failed says why.
    const int failing = mpi::allReduce(ok ? size_ : rank_, MPI_MIN);
    if (failing == size_) return true;
    if (failing != kRoot) {
        if (rank_ == failing) mpi::send(text, kRoot, 0);
        if (root()) mpi::receive(text, failing, 0);
    }
    if (root()) std::cerr << kProgram << ": error: " << text << std::endl;
    return false;
}

bool SequenceRun::prepare(const std::optional<std::string>& fieldFile, bool walksThroughField) {
    parameters_ = readParametersCollectively(rank_, size_, kParameterPath, std::cout);
    if (!parameters_) return false;
    if (!agree([&] {
            if (parameters_->numberOfWalkers() <= 0)
                throw Exception("numberOfWalkers must be above 0: " +
                                std::to_string(parameters_->numberOfWalkers()));
        }))
        return false;
    if (!readFieldSettings()) return false;
    if (fieldFile && !agree([&] {
            if (!fieldSettings_)
                throw Exception(
                    "A field file gives dB/B0; nmr.yaml needs staticField (B0 in T) "
                    "to turn it into a field: " +
                    *fieldFile);
        }))
        return false;
    status_ = pollJobStatus(JobStatus::Start, rank_, std::cout);
    if (status_ != JobStatus::Running) return false;

    DistributionRequest request = distributionRequest(*parameters_, rank_, size_);
    request.numberOfWalkers = 0;  // the experiment places its own
    request.details = &std::cerr;
    std::vector<Walker> none;
    RandomStream unused(streamSeed(parameters_->randomSeed(), rank_));
    grid_ = distributeGridAndWalkers(request, unused, none, std::cout);
    if (!grid_) return false;
    // Walkers start in pore: a grid (or region) without any would never place one.
    if (!agree([&] {
            if (grid_.grid().counter(Mineral::Pore) == 0)
                throw Exception("The grid holds no pore cell to start a walker in: " +
                                parameters_->grid());
        }))
        return false;
    if (walksThroughField && !distributeField(fieldFile)) return false;
    status_ = pollJobStatus(JobStatus::Running, rank_, std::cout);
    return status_ == JobStatus::Running;
}

bool SequenceRun::readFieldSettings() {
    if (!agree([&] { fieldSettings_ = readOptionalFieldSettings(kParameterPath); })) return false;
    // Every process needs B0 and its axis, only process 0 the susceptibilities (it reads
    // them again where the field is computed in slabs: see distributeField).
    double b0 = fieldSettings_ ? fieldSettings_->staticField : 0.0;
    int axis = fieldSettings_ ? fieldSettings_->staticFieldDirection - 'x' : 2;
    mpi::broadcast(b0, kRoot);
    mpi::broadcast(axis, kRoot);
    staticField_ = {b0, axis};
    return true;
}

bool SequenceRun::distributeField(const std::optional<std::string>& fieldFile) {
    const Grid<Mineral::Type>& grid = grid_.grid();
    const field::Extent size{grid.nx(), grid.ny(), grid.nz()};
    // What only process 0 can find wrong comes first, agreed before any collective step.
    std::vector<float> cells;
    field::Susceptibilities table{};
    bool computed = false;
    if (!agree([&] {
            if (fieldFile) {
                cells = field::readFieldFile(*fieldFile, size);
            } else if (fieldSettings_ && !fieldSettings_->volumeSusceptibility.entries().empty()) {
                table = field::susceptibilityTable(fieldSettings_->volumeSusceptibility, grid);
                computed = true;
            }
        }))
        return false;
    mpi::broadcast(computed, kRoot);
    if (!fieldFile && !computed) return true;
    // Every process takes part from here on, and fails together.
    return allSucceed([&] {
        const auto topology = mpi::NodeTopology::discover();
        if (fieldFile) {
            const std::size_t slice = static_cast<std::size_t>(size[0]) * size[1];
            field_ = shareField(
                topology, size, [](std::uint32_t) { return kRoot; },
                [&](std::uint32_t z) { return cells.data() + z * slice; });
            return;
        }
        mpi::broadcast(table.data(), static_cast<int>(table.size()), kRoot);
        requireFieldMemory(*topology, size);
        field::FieldOptions options;
        options.direction = static_cast<field::Axis>(staticField_.axis);
        field_ =
            shareField(topology, field::computeFieldSlab(grid, table, options, MPI_COMM_WORLD));
    });
}

void SequenceRun::requireFieldMemory(const mpi::NodeTopology& topology,
                                     const field::Extent& size) const {
    // The computation's transforms on every process of the busiest node, and the field it
    // then holds once per node, against what that node has left with the grid loaded.
    const std::uint64_t perProcess = field::fieldMemoryBytes(size, field::kDefaultPadding, size_);
    const std::uint64_t shared = BrickLayout(size[0], size[1], size[2]).cells() * sizeof(float);
    const std::uint64_t nodeBytes =
        perProcess * static_cast<std::uint64_t>(topology.nodeSize()) + shared;
    auto needs = static_cast<long long>(std::min<std::uint64_t>(nodeBytes, LLONG_MAX));
    auto has = topology.isLeader() ? static_cast<long long>(std::min<std::uint64_t>(
                                         mpi::availableMemoryBytes(), LLONG_MAX))
                                   : LLONG_MAX;
    needs = mpi::allReduce(needs, MPI_MAX);
    has = mpi::allReduce(has, MPI_MIN);
    if (needs > has) {
        throw MemoryAllocationException(
            "Not enough memory to compute the field: about " + std::to_string(needs >> 20) +
            " MiB a node needed, " + std::to_string(has >> 20) +
            " MiB available: use more nodes, or compute it with nmrwalk-field and give --field");
    }
}

WalkerRange SequenceRun::walkers() const {
    return walkerRange(parameters_->numberOfWalkers(), rank_, size_);
}

std::string SequenceRun::fieldFingerprint() const {
    if (!fieldSettings_) return "no field";
    std::ostringstream text;
    text << std::setprecision(17) << "B0 " << fieldSettings_->staticField << " along "
         << fieldSettings_->staticFieldDirection << "; susceptibilities";
    for (const auto& [code, chi] : fieldSettings_->volumeSusceptibility.entries())
        text << " " << static_cast<int>(code) << "=" << chi;
    return text.str();
}

RunControl SequenceRun::control(const std::string& walk, std::uint32_t walkers,
                                const std::string& fingerprint) {
    RunControl control;
    const std::string program = std::string(kProgram) + "." + experiment_ + "." + walk;
    walks_.push_back(program);
    control.program = program;
    control.interval = parameters_->checkpointInterval();
    control.totalWalkers = parameters_->numberOfWalkers();
    control.console = &std::cout;
    control.warnings = &std::cerr;
    control.fingerprint = [this, fingerprint] {
        try {
            return runFingerprint(encodeParameters(*parameters_), parameters_->grid(),
                                  parameters_->randomSeed(), size_, grid_.compressed() != nullptr) +
                   "; " + fingerprint + "; " + fieldFingerprint();
        } catch (const Exception&) {
            return std::string();
        }
    };
    control.poll = [this](std::uint32_t) {
        status_ = pollJobStatus(status_, rank_, std::cout);
        return status_ == JobStatus::Running;
    };
    if (root()) {
        bar_ = std::make_unique<ProgressBar>(walkers, std::cout);
        control.started = [this](std::uint32_t first) {
            for (std::uint32_t i = 0; i < first; ++i) bar_->advance();
        };
        control.afterWalker = [this](std::uint32_t) { bar_->advance(); };
    }
    return control;
}

void SequenceRun::complete() {
    pollJobStatus(JobStatus::Stopped, rank_, std::cout);
    for (const std::string& program : walks_) removeCheckpoint(program, rank_);
}

}  // namespace nmr::tools
