#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "field/dipole_field.h"
#include "mpi/node_topology.h"
#include "walk/field_map.h"

namespace nmr {

// The field map held once per node, in bricks, in memory the processes of the node share
// (4 bytes a cell). Collective over the world communicator: slice z (x fastest) comes
// from process ownerOf(z), which hands it over through localSlice(z); process 0 passes
// each on among the node leaders, and each leader lays it out in its node's memory. A node
// that cannot hold the field ends it on every process with MemoryAllocationException ("Not
// enough memory to hold the field once per node: ...").
FieldMap shareField(const std::shared_ptr<mpi::NodeTopology>& topology, const field::Extent& size,
                    const std::function<int(std::uint32_t z)>& ownerOf,
                    const std::function<const float*(std::uint32_t z)>& localSlice);

// The same for a field computed in slabs over the world communicator (computeFieldSlab).
FieldMap shareField(const std::shared_ptr<mpi::NodeTopology>& topology,
                    const field::FieldSlab& slab);

}  // namespace nmr
