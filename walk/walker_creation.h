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

// As createWalkers, then orders the whole array by block key, so that walking the array
// touches one block of a blocked grid after another. std::sort is deliberately the
// unstable introsort: walkers with equal keys end in the order it leaves them, which a
// given standard library reproduces for the same input.
template <typename G>
void createWalkersSorted(RandomStream& stream, const WalkGridView<G>& view, std::int32_t n,
                         std::vector<Walker>& walkers, const BlockKeyTables& tables) {
    createWalkers(stream, view, n, walkers);
    std::sort(walkers.begin(), walkers.end(), [&tables](const Walker& a, const Walker& b) {
        return tables.key(a) < tables.key(b);
    });
}

}  // namespace nmr
