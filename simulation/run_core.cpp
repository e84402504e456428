#include "simulation/run_core.h"

#include <algorithm>
#include <filesystem>
#include <limits>

namespace nmr {

namespace {
using mpi::kRoot;
}  // namespace

RunCore::RunCore(RunControl control) : control_(std::move(control)) {
    MPI_Comm_rank(control_.comm, &rank_);
    MPI_Comm_size(control_.comm, &size_);
}

bool RunCore::prepareCheckpoints() {
    const MPI_Comm comm = control_.comm;
    const bool any = !control_.program.empty();
    const bool found = mpi::allReduce(
        any && (std::filesystem::exists(checkpointPath(control_.program, rank_)) ||
                std::filesystem::exists(previousCheckpointPath(control_.program, rank_))),
        MPI_LOR, comm);
    bool wanted = rank_ == kRoot && any && control_.interval > 0.0;
    mpi::broadcast(wanted, kRoot, comm);
    checkpointsOn_ = wanted;
    lastCheckpoint_ = MPI_Wtime();
    if (!found && !wanted) return false;
    fingerprint_ = rank_ == kRoot && control_.fingerprint ? control_.fingerprint() : std::string();
    mpi::broadcast(fingerprint_, kRoot, comm);
    if (fingerprint_.empty()) checkpointsOn_ = false;
    return found && !fingerprint_.empty();
}

std::vector<Checkpoint> RunCore::mine(std::uint32_t localWalkers, std::string& problem) const {
    std::vector<Checkpoint> found;
    for (const auto& path : {checkpointPath(control_.program, rank_),
                             previousCheckpointPath(control_.program, rank_)}) {
        auto saved = readCheckpoint(path, problem);
        if (!saved) continue;
        if (saved->fingerprint != fingerprint_) {
            problem = "it belongs to another run (" + saved->fingerprint + ")";
        } else if (saved->rank == rank_ && saved->size == size_ &&
                   saved->localWalkers == localWalkers) {
            found.push_back(std::move(*saved));
        }
    }
    return found;
}

std::uint32_t RunCore::agree(const std::vector<Checkpoint>& candidates, const std::string& problem,
                             const Checkpoint*& chosen) const {
    // Every process saves at the same polls, so the latest checkpoint that all hold is the
    // smallest of their latest ones; each must hold that one too. A checkpoint of a finished
    // walk (a program of several walks keeps those) stands above every poll: the processes
    // agree on it although their walker counts, and so its walker indices, differ.
    constexpr std::uint32_t kFinished = std::numeric_limits<std::uint32_t>::max();
    auto key = [](const Checkpoint& c) {
        return c.nextWalker >= c.localWalkers ? kFinished : c.nextWalker;
    };
    std::uint32_t latest = 0;
    for (const auto& c : candidates) latest = std::max(latest, key(c));
    const std::uint32_t common =
        mpi::allReduce(candidates.empty() ? 0u : latest, MPI_MIN, control_.comm);
    chosen = nullptr;
    for (const auto& c : candidates) {
        if (common == kFinished ? key(c) == kFinished : c.nextWalker == common) chosen = &c;
    }
    if (!mpi::allTrue(chosen != nullptr, control_.comm)) {
        if (rank_ == kRoot && control_.warnings != nullptr) {
            *control_.warnings << "Warning: ignoring the checkpoint files, the walk starts afresh: "
                               << (problem.empty() ? "they do not all belong to this run" : problem)
                               << std::endl;
        }
        chosen = nullptr;
        return 0;
    }
    const long long done =
        mpi::allReduce(static_cast<long long>(chosen->nextWalker), MPI_SUM, control_.comm);
    if (rank_ == kRoot && control_.console != nullptr) {
        *control_.console << "Resuming from checkpoint: " << done << " of " << control_.totalWalkers
                          << " walkers" << std::endl;
    }
    return chosen->nextWalker;
}

bool RunCore::checkpointDue() {
    bool due = rank_ == kRoot && MPI_Wtime() - lastCheckpoint_ >= control_.interval;
    mpi::broadcast(due, kRoot, control_.comm);
    return due;
}

void RunCore::reportWritten(bool written) {
    if (!mpi::allTrue(written, control_.comm) && rank_ == kRoot && control_.warnings != nullptr) {
        *control_.warnings << "Warning: a checkpoint could not be written; the walk goes on"
                           << std::endl;
    }
    lastCheckpoint_ = MPI_Wtime();
}

void RunCore::removeCheckpoints() const {
    if (!control_.program.empty()) removeCheckpoint(control_.program, rank_);
}

}  // namespace nmr
