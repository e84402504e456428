#include "mpi/node_topology.h"

#include <cstdlib>
#include <string>

#include "mpi/message_passing.h"

namespace nmr::mpi {

int ranksPerNodeForTests() {
    const char* text = std::getenv("NMRWALK_RANKS_PER_NODE");
    if (text == nullptr) return 0;
    char* end = nullptr;
    const long k = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || k <= 0 || k > 1 << 20) return 0;
    return static_cast<int>(k);
}

std::shared_ptr<NodeTopology> NodeTopology::discover() {
    std::shared_ptr<NodeTopology> topology(new NodeTopology());
    const int worldRank = rank();
    MPI_Comm shared = MPI_COMM_NULL;
    MPI_Comm_split_type(world(), MPI_COMM_TYPE_SHARED, worldRank, MPI_INFO_NULL, &shared);
    // The test grouping only ever narrows a real node, so a group can always share memory.
    if (const int k = ranksPerNodeForTests(); k > 0) {
        MPI_Comm_split(shared, worldRank / k, worldRank, &topology->node_);
        MPI_Comm_free(&shared);
    } else {
        topology->node_ = shared;
    }
    MPI_Comm_rank(topology->node_, &topology->nodeRank_);
    MPI_Comm_size(topology->node_, &topology->nodeSize_);
    MPI_Comm_split(world(), topology->isLeader() ? 0 : MPI_UNDEFINED, worldRank,
                   &topology->leaders_);
    return topology;
}

NodeTopology::~NodeTopology() {
    if (leaders_ != MPI_COMM_NULL) MPI_Comm_free(&leaders_);
    if (node_ != MPI_COMM_NULL) MPI_Comm_free(&node_);
}

}  // namespace nmr::mpi
