#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "common/progress_bar.h"
#include "field/dipole_field.h"
#include "mpi/node_topology.h"
#include "parallel/grid_distribution.h"
#include "params/field_settings.h"
#include "params/nmr_parameters.h"
#include "sequence/cpmg.h"
#include "sequence/indexed_walkers.h"
#include "simulation/job_control.h"
#include "simulation/run_core.h"
#include "walk/field_map.h"

namespace nmr::tools {

// What every experiment of nmrwalk-sequence shares with a run of nmrwalk: the run
// directory (./nmr.yaml and its grid), the job files (STARTED, PROGRESS, ABORT, STOPPED),
// the progress bar, checkpoints, and the exit status (0 complete, -1 for any early end, on
// every process together). Process 0 reads and speaks; every decision is agreed before
// anyone acts on it.
class SequenceRun {
public:
    static constexpr int kComplete = 0;
    static constexpr int kEarlyEnd = -1;

    explicit SequenceRun(std::string experiment);

    int rank() const { return rank_; }
    int size() const { return size_; }
    bool root() const { return rank_ == mpi::kRoot; }

    // Runs step on process 0 and tells every process whether it went through; a failure is
    // printed there as "nmrwalk-sequence: error: <text>".
    bool agree(const std::function<void()>& step);
    // Runs step on every process; true only when it went through on all of them.
    bool allSucceed(const std::function<void()>& step);

    // The parameter file, the job's start, the grid (no walkers of nmrwalk's own) and, for
    // an experiment that walks through it, the rock's field: from fieldFile, or computed
    // when nmr.yaml has what it takes. False on every process when any of it failed.
    bool prepare(const std::optional<std::string>& fieldFile, bool walksThroughField = true);

    const NuclearMagneticResonanceParameters& parameters() const { return *parameters_; }
    const DistributedGrid& grid() const { return grid_; }
    const FieldMap& field() const { return field_; }
    StaticField staticField() const { return staticField_; }
    WalkerRange walkers() const;

    // The run core's control for walk `index` of the experiment: polls of the job files, a
    // progress bar on process 0 over this process's `walkers`, and checkpoints named after
    // the walk, which belong to this run when `fingerprint` (everything the walk depends
    // on beyond the parameter file and the grid) agrees.
    RunControl control(const std::string& walk, std::uint32_t walkers,
                       const std::string& fingerprint);
    // A poll stopped a walk: the job is ending.
    bool stopped() const { return status_ != JobStatus::Running; }

    // The end of a run: "STOPPED" and "Job stopped" as nmrwalk writes them, the
    // checkpoints of every walk removed.
    void complete();

private:
    bool readFieldSettings();
    bool distributeField(const std::optional<std::string>& fieldFile);
    // Collective: throws MemoryAllocationException on every process when a node cannot
    // hold the field's computation and the field.
    void requireFieldMemory(const mpi::NodeTopology& topology, const field::Extent& size) const;
    // B0, its axis and the susceptibilities, for the checkpoints' fingerprint (process 0).
    std::string fieldFingerprint() const;

    std::string experiment_;
    int rank_;
    int size_;
    StoppedFileGuard stoppedFileGuard_;
    std::unique_ptr<NuclearMagneticResonanceParameters> parameters_;
    std::optional<FieldSettings> fieldSettings_;
    DistributedGrid grid_;
    FieldMap field_;
    StaticField staticField_;
    JobStatus status_ = JobStatus::Start;
    std::unique_ptr<ProgressBar> bar_;
    std::vector<std::string> walks_;
};

}  // namespace nmr::tools
