#pragma once

#include <mpi.h>

#include <memory>

namespace nmr::mpi {

// The processes of the world communicator grouped by the machine they run on: a node
// communicator per group of processes that can share memory, and a communicator of node
// leaders (node rank 0 of every node; world rank 0 is always the leader of its node and
// rank 0 among the leaders). Collective over the world communicator to build, and
// collective over every communicator it holds to release, so every process must drop it
// at the same point of the run.
class NodeTopology {
public:
    static std::shared_ptr<NodeTopology> discover();
    ~NodeTopology();
    NodeTopology(const NodeTopology&) = delete;
    NodeTopology& operator=(const NodeTopology&) = delete;

    MPI_Comm node() const { return node_; }
    // MPI_COMM_NULL on processes that do not lead their node.
    MPI_Comm leaders() const { return leaders_; }
    int nodeRank() const { return nodeRank_; }
    int nodeSize() const { return nodeSize_; }
    bool isLeader() const { return nodeRank_ == 0; }

private:
    NodeTopology() = default;

    MPI_Comm node_ = MPI_COMM_NULL;
    MPI_Comm leaders_ = MPI_COMM_NULL;
    int nodeRank_ = 0;
    int nodeSize_ = 1;
};

// For tests only: NMRWALK_RANKS_PER_NODE=k makes the node split group consecutive world
// ranks k at a time, within each real node, as if every group ran on a machine of its own.
// That lets a test on one machine take the path of a job spread over several nodes.
// Returns 0 (use the real split) when the variable is absent or not a positive number.
int ranksPerNodeForTests();

}  // namespace nmr::mpi
