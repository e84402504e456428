// Walk throughput on a synthetic 256^3 pack of overlapping quartz spheres (about 20 %
// porosity, no clay), on the same rock held at four bytes a cell (a sliced grid) and at
// one byte a cell (the plain grid of a run), against a bare loop that only draws four
// numbers per step from the same kind of stream. Prints ns per step, steps per second and
// the ratio of each walk to the bare draws.
//
// Then the phase walk of a CPMG echo train on the one-byte grid, through a field map of
// four bytes a cell read trilinearly every step, with the field in bricks of 8^3 (as the
// program holds it) and laid out x fastest, and its ratio to nmrwalk's walk. A size of
// 512 puts grid and field far beyond the cache (the four-byte grid is then not timed).
//
//   walk_bench [walkers] [steps per walker] [rounds] [size]   defaults: 4000 2000 7 256

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "grid/byte_mineral_grid.h"
#include "grid/sliced_grid.h"
#include "walk/absorption_table.h"
#include "walk/field_map.h"
#include "walk/phase_walk.h"
#include "walk/random_stream.h"
#include "walk/walk.h"
#include "walk/walker_creation.h"

namespace {

using nmr::Mineral::Type;
using Clock = std::chrono::steady_clock;

std::uint32_t kSize = 256;  // the edge of the rock, set from the command line
constexpr double kGrainRadius = 10.0;
constexpr double kTargetPorosity = 0.2;

// Keeps a result alive so the timed loops are not optimised away.
volatile double gSink = 0.0;
void sink(double v) { gSink = gSink + v; }

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// CPU time of this thread: on a shared machine, time spent descheduled is not counted.
double threadSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

// Boolean model: for uniformly placed overlapping spheres of volume V at density n,
// porosity = exp(-n V), so the grain count follows from the target porosity.
void paintGrains(nmr::SlicedGrid<Type>& grid, nmr::RandomStream& stream) {
    const double volume = 4.0 / 3.0 * M_PI * kGrainRadius * kGrainRadius * kGrainRadius;
    const double cells = static_cast<double>(kSize) * kSize * kSize;
    const auto grains = static_cast<int>(-std::log(kTargetPorosity) * cells / volume);
    const int r = static_cast<int>(std::ceil(kGrainRadius));
    const int n = static_cast<int>(kSize);
    for (int g = 0; g < grains; ++g) {
        const double cx = (stream.next() - 1.0) * n;
        const double cy = (stream.next() - 1.0) * n;
        const double cz = (stream.next() - 1.0) * n;
        for (int z = static_cast<int>(cz) - r; z <= static_cast<int>(cz) + r; ++z) {
            if (z < 0 || z >= n) continue;
            for (int y = static_cast<int>(cy) - r; y <= static_cast<int>(cy) + r; ++y) {
                if (y < 0 || y >= n) continue;
                Type* row = grid.sliceData(static_cast<std::uint32_t>(z)) +
                            static_cast<std::size_t>(y) * kSize;
                for (int x = static_cast<int>(cx) - r; x <= static_cast<int>(cx) + r; ++x) {
                    if (x < 0 || x >= n) continue;
                    const double dx = x + 0.5 - cx, dy = y + 0.5 - cy, dz = z + 0.5 - cz;
                    if (dx * dx + dy * dy + dz * dz <= kGrainRadius * kGrainRadius) {
                        row[x] = nmr::Mineral::Quartz;
                    }
                }
            }
        }
    }
}

double porosityOf(const nmr::SlicedGrid<Type>& grid) {
    std::uint64_t pore = 0;
    for (std::uint32_t z = 0; z < kSize; ++z) {
        const Type* slice = grid.sliceData(z);
        for (std::size_t i = 0; i < std::size_t{kSize} * kSize; ++i) pore += slice[i] == 0;
    }
    return static_cast<double>(pore) / (static_cast<double>(kSize) * kSize * kSize);
}

// Best of several rounds of thread CPU time: on a shared machine the minimum is the
// figure least disturbed by other work, and the walks and the bare loop alternate so all
// see the same conditions.
struct Timing {
    double walk = 1e300;
    double far = 1e300;
};

// The same grain pack in 4-byte and in 1-byte cells.
struct Grids {
    nmr::SlicedGrid<Type> wide{kSize, kSize, kSize, 0, 0, 0, 1.0};
    nmr::ByteMineralGrid bytes{kSize, kSize, kSize, 0, 0, 0, 1.0};
};

// A smooth field with the scale of a grain, its values in bricks and x fastest.
struct Fields {
    std::vector<float> bricks, rows;
    nmr::FieldMap bricked;
    nmr::BasicFieldMap<nmr::RowLayout> plain;
};

std::unique_ptr<Fields> buildFields() {
    auto fields = std::make_unique<Fields>();
    const nmr::BrickLayout brickLayout(kSize, kSize, kSize);
    fields->bricks.assign(brickLayout.cells(), 0.0f);
    fields->rows.assign(std::size_t{kSize} * kSize * kSize, 0.0f);
    const nmr::RowLayout rowLayout(kSize, kSize, kSize);
    for (std::uint32_t z = 0; z < kSize; ++z)
        for (std::uint32_t y = 0; y < kSize; ++y)
            for (std::uint32_t x = 0; x < kSize; ++x) {
                const auto value =
                    static_cast<float>(1e-6 * std::sin(0.3 * x) * std::cos(0.2 * y + 0.1 * z));
                fields->bricks[brickLayout.index(x, y, z)] = value;
                fields->rows[rowLayout.index(x, y, z)] = value;
            }
    fields->bricked = nmr::FieldMap(nullptr, fields->bricks.data(), kSize, kSize, kSize);
    fields->plain =
        nmr::BasicFieldMap<nmr::RowLayout>(nullptr, fields->rows.data(), kSize, kSize, kSize);
    return fields;
}

void buildGrids(Grids& grids) {
    const auto start = Clock::now();
    nmr::RandomStream geometry(12345u);
    paintGrains(grids.wide, geometry);
    for (std::uint32_t z = 0; z < kSize; ++z)
        std::copy_n(grids.wide.sliceData(z), std::size_t{kSize} * kSize, grids.bytes.sliceData(z));
    std::printf("grid %u^3 built in %.2f s, porosity %.4f\n", kSize, secondsSince(start),
                porosityOf(grids.wide));
}

struct Workload {
    std::uint32_t stepsPerWalker;
    std::vector<nmr::Walker> walkers;
    nmr::AbsorptionTable table;
};

template <typename View>
double walkAll(nmr::RandomStream& stream, const View& view, const Workload& work,
               const std::vector<nmr::Walker>& set) {
    const double t0 = threadSeconds();
    double checksum = 0.0;
    for (nmr::Walker walker : set) {
        nmr::walkInterval(stream, walker, work.stepsPerWalker, 0.5, view, work.table);
        checksum += walker.x + walker.y + walker.z;
    }
    sink(checksum);
    return threadSeconds() - t0;
}

// The phase walk: the same walkers, each with a counter-based stream of its own, through
// echoes of 2 x 10 steps up to the same step count, gathering phase from the field.
template <typename View, typename F>
double phaseWalkAll(const View& view, const F& field, const Workload& work,
                    const std::vector<nmr::Walker>& set) {
    nmr::PhasePlan plan;
    plan.step = 0.5;
    plan.stepsPerHalfEcho = 10;
    plan.echoes = work.stepsPerWalker / 20;
    plan.table = work.table;
    plan.fieldPhase = 1e4;
    plan.gradientPhase = 1e-3;
    const double t0 = threadSeconds();
    double checksum = 0.0;
    for (std::size_t i = 0; i < set.size(); ++i) {
        nmr::CounterStream stream(7, i);
        nmr::walkEchoTrain(stream, set[i], view, field, plan,
                           [&checksum](std::uint32_t, double phase) { checksum += phase; });
    }
    sink(checksum);
    return threadSeconds() - t0;
}

// The random numbers alone: four draws per step, as a step in the walk takes.
double drawAll(nmr::RandomStream& stream, const Workload& work) {
    const double t0 = threadSeconds();
    // Four accumulators, so the loop is bound by the draws, not by one chain of adds.
    double sums[4] = {0.0, 0.0, 0.0, 0.0};
    for (std::size_t i = 0; i < work.walkers.size(); ++i) {
        for (std::uint32_t n = 0; n < work.stepsPerWalker; ++n) {
            sums[0] += stream.next();
            sums[1] += stream.next();
            sums[2] += stream.next();
            sums[3] += stream.next();
        }
    }
    sink(sums[0] + sums[1] + sums[2] + sums[3]);
    return threadSeconds() - t0;
}

void report(const char* cells, const Timing& t, double steps, double bareNs) {
    const double walkNs = t.walk * 1e9 / steps;
    const double farNs = t.far * 1e9 / steps;
    std::printf("%s cells, in the box:  %6.2f ns/step  %.3g steps/s  ratio to bare %.2f\n", cells,
                walkNs, 1e9 / walkNs, walkNs / bareNs);
    std::printf("%s cells, far out:     %6.2f ns/step  %.3g steps/s  ratio to bare %.2f\n", cells,
                farNs, 1e9 / farNs, farNs / bareNs);
}

}  // namespace

int main(int argc, char** argv) {
    const int walkerCount = argc > 1 ? std::atoi(argv[1]) : 4000;
    const auto stepsPerWalker = static_cast<std::uint32_t>(argc > 2 ? std::atol(argv[2]) : 2000);
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 7;
    if (argc > 4) kSize = static_cast<std::uint32_t>(std::atoi(argv[4]));
    const bool wideToo = kSize <= 256;

    auto grids = std::make_unique<Grids>();
    buildGrids(*grids);
    const auto fields = buildFields();

    nmr::RandomStream stream(8008u);
    Workload work{stepsPerWalker, {}, {}};
    nmr::createWalkers(stream, nmr::makeWalkGridView(grids->bytes), walkerCount, work.walkers);
    // The same walkers 20 mirror periods away: long walks spend most steps out there.
    const double shift = 20.0 * 2.0 * (kSize - 1);
    std::vector<nmr::Walker> farWalkers = work.walkers;
    for (nmr::Walker& w : farWalkers) w = {w.x + shift, w.y - shift, w.z + shift};

    // Relaxivity 0 keeps every walker for the full step count (so steps are known
    // exactly) while every wall contact still costs its test draw.
    nmr::MineralValueMap<double> relaxivity;
    buildAbsorptionTable(relaxivity, 0.5, 1e-6, 2.3e-9, work.table);

    const auto fourByteView = nmr::makeWalkGridView(grids->wide);
    const auto oneByteView = nmr::makeWalkGridView(grids->bytes);
    Timing fourBytes, oneByte;
    double bare = 1e300, phaseBricks = 1e300, phaseRows = 1e300;
    for (int r = 0; r < rounds; ++r) {
        if (wideToo)
            fourBytes.walk =
                std::min(fourBytes.walk, walkAll(stream, fourByteView, work, work.walkers));
        oneByte.walk = std::min(oneByte.walk, walkAll(stream, oneByteView, work, work.walkers));
        bare = std::min(bare, drawAll(stream, work));
        phaseBricks =
            std::min(phaseBricks, phaseWalkAll(oneByteView, fields->bricked, work, work.walkers));
        phaseRows =
            std::min(phaseRows, phaseWalkAll(oneByteView, fields->plain, work, work.walkers));
        if (wideToo)
            fourBytes.far =
                std::min(fourBytes.far, walkAll(stream, fourByteView, work, farWalkers));
        oneByte.far = std::min(oneByte.far, walkAll(stream, oneByteView, work, farWalkers));
    }

    const double steps = static_cast<double>(walkerCount) * stepsPerWalker;
    // Whole echoes of 20 steps.
    const std::uint32_t phaseStepsPerWalker = stepsPerWalker - stepsPerWalker % 20;
    const double phaseSteps = static_cast<double>(walkerCount) * phaseStepsPerWalker;
    const double bareNs = bare * 1e9 / steps;
    std::printf("walkers %d x %u steps, best of %d rounds\n", walkerCount, stepsPerWalker, rounds);
    std::printf("bare 4 draws per step:     %6.2f ns/step\n", bareNs);
    if (wideToo) report("4-byte", fourBytes, steps, bareNs);
    report("1-byte", oneByte, steps, bareNs);
    const double walkNs = oneByte.walk * 1e9 / steps;
    for (const auto& [name, seconds] :
         {std::pair{"bricks 8^3", phaseBricks}, std::pair{"x fastest ", phaseRows}}) {
        const double ns = seconds * 1e9 / phaseSteps;
        std::printf("phase walk, field in %s: %6.2f ns/step  ratio to nmrwalk's walk %.2f\n", name,
                    ns, ns / walkNs);
    }
    return 0;
}
