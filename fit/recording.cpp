#include "fit/recording.h"

#include <algorithm>

#include "fit/recorded_walk_file.h"
#include "mpi/message_passing.h"
#include "walk/pore_faces.h"

namespace nmr::fit {

namespace {

using mpi::kRoot;

constexpr int kHistoriesTag = 41;
// Pieces of at most 1 GiB: MPI counts are ints.
constexpr std::size_t kLargestMessage = std::size_t{1} << 30;

}  // namespace

RecordedRun describeRecordedRun(NuclearMagneticResonanceParameters& parameters,
                                const RockSummary& summary, const WalkPlan& walk,
                                const DistributedGrid& held, const MineralValueMap<double>& floor) {
    const Grid<Mineral::Type>& grid = held.grid();
    RecordedRun run;
    run.intervalEndTime = walk.schedule.intervalEndTime;
    run.fineIntervals = walk.schedule.fineIntervals;
    run.numberOfWalkers = parameters.numberOfWalkers();
    run.resolutionM = summary.resolutionM;
    run.fineStep = summary.halfStep;
    run.coarseStep = summary.step;
    run.diffusionWater = parameters.diffusionConstantWater();
    run.scheduleDiffusion = summary.saturation.bulkWaterSaturation > 0.0
                                ? parameters.diffusionConstantWater()
                                : parameters.diffusionConstantOil();
    run.clayMicroPorosity = parameters.clayMicroPorosity();
    run.totalWaterSaturation = summary.saturation.totalWaterSaturation;
    run.clayFraction = summary.saturation.clayFraction;
    run.bulkT2Ms = summary.bulkT2Ms;
    run.fieldTerm = summary.fieldTerm;
    run.relaxivity = parameters.surfaceRelaxationStrengthWater();
    run.counters = grid.counters();
    run.poreFaces = held.visit([](const auto& g) { return poreFaces(g); });

    // Floors: the given ones, and every other mineral at its own value.
    for (Mineral::Type code : Mineral::allTypes()) {
        run.floor.set(
            code, floor.contains(code) ? floor.valueOr(code) : run.relaxivity.valueOr(code, 0.0));
    }
    const AbsorptionPair atFloor = absorptionFor(run, run.floor);
    // Only minerals the grid holds can be touched.
    std::vector<Mineral::Type> present;
    for (Mineral::Type code : Mineral::allTypes()) {
        if (code != Mineral::Pore && code < run.counters.size() && run.counters[code] > 0) {
            present.push_back(code);
        }
    }
    run.plan = makeRecordingPlan(present, atFloor.fine, atFloor.coarse);
    return run;
}

std::uint32_t chunkWalkersFor(std::int64_t total) {
    constexpr std::int64_t kChunks = 128;
    return static_cast<std::uint32_t>(std::max<std::int64_t>(1, (total + kChunks - 1) / kChunks));
}

ContactHistories gatherHistories(ContactHistories&& local) {
    const int rank = mpi::rank();
    const int size = mpi::size();
    if (size == 1) return std::move(local);
    if (rank != kRoot) {
        const std::vector<std::uint8_t> bytes = serialise(local);
        long long length = static_cast<long long>(bytes.size());
        mpi::send(length, kRoot, kHistoriesTag);
        for (std::size_t at = 0; at < bytes.size(); at += kLargestMessage) {
            const std::size_t piece = std::min(kLargestMessage, bytes.size() - at);
            MPI_Send(bytes.data() + at, static_cast<int>(piece), MPI_UNSIGNED_CHAR, kRoot,
                     kHistoriesTag, MPI_COMM_WORLD);
        }
        return {};
    }
    ContactHistories all = std::move(local);
    for (int from = 1; from < size; ++from) {
        long long length = 0;
        mpi::receive(length, from, kHistoriesTag);
        std::vector<std::uint8_t> bytes(static_cast<std::size_t>(length));
        for (std::size_t at = 0; at < bytes.size(); at += kLargestMessage) {
            const std::size_t piece = std::min(kLargestMessage, bytes.size() - at);
            MPI_Recv(bytes.data() + at, static_cast<int>(piece), MPI_UNSIGNED_CHAR, from,
                     kHistoriesTag, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
        }
        ContactHistories theirs = deserialise(bytes);
        if (all.slots == 0) {
            all.slots = theirs.slots;
            all.fineIntervals = theirs.fineIntervals;
        }
        all.append(std::move(theirs));
    }
    return all;
}

}  // namespace nmr::fit
