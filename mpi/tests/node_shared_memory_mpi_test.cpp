#include <gtest/gtest.h>

#include <numeric>

#include "mpi/message_passing.h"
#include "mpi/node_shared_memory.h"

namespace nmr {
namespace {

// Run once as plain ranks (one real node) and once with NMRWALK_RANKS_PER_NODE=2.
TEST(NodeTopology, GroupsConsecutiveRanksAndElectsOneLeaderPerNode) {
    const auto topology = mpi::NodeTopology::discover();
    const int rank = mpi::rank();
    const int size = mpi::size();
    const int k = mpi::ranksPerNodeForTests();
    // Every rank of a test job runs on this machine, so without the grouping it is one node.
    const int perNode = k > 0 ? k : size;
    const int first = rank / perNode * perNode;
    EXPECT_EQ(topology->nodeRank(), rank - first);
    EXPECT_EQ(topology->nodeSize(), std::min(perNode, size - first));
    EXPECT_EQ(topology->isLeader(), topology->leaders() != MPI_COMM_NULL);
    const int leaders = mpi::allReduce(topology->isLeader() ? 1 : 0, MPI_SUM);
    EXPECT_EQ(leaders, (size + perNode - 1) / perNode);
    if (topology->isLeader()) {
        int leaderRank = -1;
        MPI_Comm_rank(topology->leaders(), &leaderRank);
        EXPECT_EQ(leaderRank, rank / perNode);  // world rank 0 is leader rank 0
    }
}

TEST(NodeSharedBuffer, LeaderWritesOnceAndTheWholeNodeReads) {
    const auto topology = mpi::NodeTopology::discover();
    const std::uint64_t bytes = 3 * 1024 * 1024 + 7;
    const mpi::NodeAllocation memory = mpi::NodeAllocation::allocate(topology, bytes);
    ASSERT_TRUE(memory.buffer);
    EXPECT_EQ(memory.buffer->size(), bytes);
    EXPECT_GE(memory.availableBytes, bytes);
    // Each node writes a pattern of its own, so reading another node's memory would show.
    int node = mpi::rank();
    MPI_Bcast(&node, 1, MPI_INT, 0, topology->node());
    if (topology->isLeader()) {
        for (std::uint64_t i = 0; i < bytes; ++i)
            memory.buffer->data()[i] = static_cast<std::uint8_t>((i * 7 + node) & 0xFF);
    }
    memory.buffer->publish();
    std::uint64_t wrong = 0;
    for (std::uint64_t i = 0; i < bytes; ++i)
        wrong += memory.buffer->data()[i] != static_cast<std::uint8_t>((i * 7 + node) & 0xFF);
    EXPECT_EQ(wrong, 0u);
}

TEST(NodeSharedBuffer, RequestBeyondTheMachineFailsOnEveryProcessWithoutHanging) {
    const auto topology = mpi::NodeTopology::discover();
    const std::uint64_t huge = std::uint64_t{1} << 52;  // 4 PiB
    const mpi::NodeAllocation memory = mpi::NodeAllocation::allocate(topology, huge);
    EXPECT_FALSE(memory.buffer);
    EXPECT_EQ(memory.requestedBytes, huge);
    EXPECT_LT(memory.availableBytes, huge);
    EXPECT_GT(memory.availableBytes, 0u);
    // The job goes on: an empty request still works afterwards.
    const mpi::NodeAllocation none = mpi::NodeAllocation::allocate(topology, 0);
    ASSERT_TRUE(none.buffer);
    EXPECT_EQ(none.buffer->size(), 0u);
}

}  // namespace
}  // namespace nmr
