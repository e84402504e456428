#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "walk/block_key_tables.h"
#include "walk/random_stream.h"
#include "walk/walker.h"

namespace nmr {

// Appends n walkers spread uniformly over the pore voxels of the view. Each attempt
// draws x, y, z in this order and maps u in [1, 2) onto [0, size - 1): the top layer of
// every axis never receives a walker, a long-standing rule kept so that a given seed
// keeps giving the same walkers. A point in a solid voxel is dropped together with its
// three draws. There is no limit on attempts: a view without reachable pore never returns.
template <typename G>
void createWalkers(RandomStream& stream, const WalkGridView<G>& view, std::int32_t n,
                   std::vector<Walker>& walkers) {
    if (n < 1) return;
    walkers.reserve(walkers.size() + static_cast<std::size_t>(n));
    std::int32_t created = 0;
    while (created < n) {
        const double x = static_cast<double>(view.sizeX - 1) * (stream.next() - 1.0);
        const double y = static_cast<double>(view.sizeY - 1) * (stream.next() - 1.0);
        const double z = static_cast<double>(view.sizeZ - 1) * (stream.next() - 1.0);
        if (view.mineralAt(x, y, z) != Mineral::Pore) continue;
        walkers.push_back(Walker{x, y, z});
        ++created;
    }
}

// Orders walkers by the block key of the voxel holding them.
inline void sortWalkersByBlock(std::vector<Walker>& walkers, const BlockKeyTables& tables) {
    std::sort(walkers.begin(), walkers.end(), [&tables](const Walker& a, const Walker& b) {
        return tables.key(a) < tables.key(b);
    });
}

// As createWalkers, then orders the whole array by block key, so that walking the array
// touches one block of a blocked grid after another. std::sort is deliberately the
// unstable introsort: walkers with equal keys end in the order it leaves them, which a
// given standard library reproduces for the same input.
template <typename G>
void createWalkersSorted(RandomStream& stream, const WalkGridView<G>& view, std::int32_t n,
                         std::vector<Walker>& walkers, const BlockKeyTables& tables) {
    createWalkers(stream, view, n, walkers);
    sortWalkersByBlock(walkers, tables);
}

// The same walkers as createWalkers, leaving the stream in the same state, for grids
// whose cells are costly to reach in random order (a compressed grid expands a whole
// block on a miss). Candidates are drawn in batches and tested block by block; the
// stream is then rewound to just after the last candidate that was needed, so the
// draws consumed are exactly those of the one-at-a-time placement.
template <typename G>
void createWalkersGrouped(RandomStream& stream, const WalkGridView<G>& view, std::int32_t n,
                          std::vector<Walker>& walkers, const BlockKeyTables& tables) {
    if (n < 1) return;
    constexpr std::size_t kBatch = std::size_t{1} << 18;
    walkers.reserve(walkers.size() + static_cast<std::size_t>(n));
    std::vector<Walker> candidates;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> order;  // (block key, candidate)
    std::vector<char> isPore;
    std::int32_t created = 0;
    while (created < n) {
        const RandomStream start = stream;
        const std::size_t batch = std::min(
            kBatch, std::max<std::size_t>(1024, 2 * static_cast<std::size_t>(n - created)));
        candidates.resize(batch);
        order.resize(batch);
        for (std::size_t c = 0; c < batch; ++c) {
            Walker& w = candidates[c];
            w.x = static_cast<double>(view.sizeX - 1) * (stream.next() - 1.0);
            w.y = static_cast<double>(view.sizeY - 1) * (stream.next() - 1.0);
            w.z = static_cast<double>(view.sizeZ - 1) * (stream.next() - 1.0);
            const Walker voxel{
                static_cast<double>(mirrorIndex(static_cast<std::int32_t>(w.x), view.sizeX) +
                                    static_cast<std::uint32_t>(view.offsetX)),
                static_cast<double>(mirrorIndex(static_cast<std::int32_t>(w.y), view.sizeY) +
                                    static_cast<std::uint32_t>(view.offsetY)),
                static_cast<double>(mirrorIndex(static_cast<std::int32_t>(w.z), view.sizeZ) +
                                    static_cast<std::uint32_t>(view.offsetZ))};
            order[c] = {tables.key(voxel), static_cast<std::uint32_t>(c)};
        }
        std::sort(order.begin(), order.end());
        isPore.assign(batch, 0);
        for (const auto& [key, c] : order) {
            const Walker& w = candidates[c];
            isPore[c] = view.mineralAt(w.x, w.y, w.z) == Mineral::Pore;
        }
        std::size_t used = 0;
        while (used < batch && created < n) {
            if (isPore[used]) {
                walkers.push_back(candidates[used]);
                ++created;
            }
            ++used;
        }
        if (used < batch) {
            stream = start;
            for (std::size_t d = 0; d < 3 * used; ++d) stream.next();
        }
    }
}

}  // namespace nmr
