#include "sequence/field_share.h"

#include <mpi.h>

#include <cstring>
#include <vector>

#include "common/exception.h"
#include "mpi/message_passing.h"
#include "mpi/node_shared_memory.h"

namespace nmr {

namespace {

using mpi::kRoot;
constexpr int kSliceTag = 53;
constexpr std::uint64_t kMib = std::uint64_t{1} << 20;

}  // namespace

FieldMap shareField(const std::shared_ptr<mpi::NodeTopology>& topology, const field::Extent& size,
                    const std::function<int(std::uint32_t z)>& ownerOf,
                    const std::function<const float*(std::uint32_t z)>& localSlice) {
    const auto [nx, ny, nz] = size;
    const BrickLayout layout(nx, ny, nz);
    const mpi::NodeAllocation memory =
        mpi::NodeAllocation::allocate(topology, layout.cells() * sizeof(float));
    if (!memory.buffer) {
        throw MemoryAllocationException(
            "Not enough memory to hold the field once per node: " +
            std::to_string((memory.requestedBytes + kMib - 1) / kMib) + " MB needed, " +
            std::to_string(memory.availableBytes / kMib) + " MB available");
    }
    const int rank = mpi::rank();
    auto* values = reinterpret_cast<float*>(memory.buffer->data());
    const std::size_t cells = static_cast<std::size_t>(nx) * ny;
    std::vector<float> slice(cells);
    for (std::uint32_t z = 0; z < nz; ++z) {
        const int owner = ownerOf(z);
        if (owner == rank && rank != kRoot) {
            MPI_Send(localSlice(z), static_cast<int>(cells), MPI_FLOAT, kRoot, kSliceTag,
                     MPI_COMM_WORLD);
        }
        if (rank == kRoot) {
            if (owner == kRoot) {
                std::memcpy(slice.data(), localSlice(z), cells * sizeof(float));
            } else {
                MPI_Recv(slice.data(), static_cast<int>(cells), MPI_FLOAT, owner, kSliceTag,
                         MPI_COMM_WORLD, MPI_STATUS_IGNORE);
            }
        }
        if (topology->isLeader()) {
            mpi::broadcast(slice.data(), static_cast<int>(cells), kRoot, topology->leaders());
            for (std::uint32_t y = 0; y < ny; ++y)
                for (std::uint32_t x = 0; x < nx; ++x)
                    values[layout.index(x, y, z)] = slice[static_cast<std::size_t>(y) * nx + x];
        }
    }
    memory.buffer->publish();
    return {memory.buffer, values, nx, ny, nz};
}

FieldMap shareField(const std::shared_ptr<mpi::NodeTopology>& topology,
                    const field::FieldSlab& slab) {
    const int size = mpi::size();
    const std::uint32_t nz = slab.size[2];
    std::vector<int> owners(nz, 0);
    for (int r = 0; r < size; ++r) {
        const field::Slab s = field::slabOf(nz, r, size);
        for (std::uint32_t z = s.zBegin; z < s.zBegin + s.zCount; ++z) owners[z] = r;
    }
    const std::size_t cells = static_cast<std::size_t>(slab.size[0]) * slab.size[1];
    return shareField(
        topology, slab.size, [&owners](std::uint32_t z) { return owners[z]; },
        [&](std::uint32_t z) { return slab.values.data() + (z - slab.slab.zBegin) * cells; });
}

}  // namespace nmr
