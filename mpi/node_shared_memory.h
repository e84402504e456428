#pragma once

#include <mpi.h>

#include <cstdint>
#include <memory>

#include "mpi/node_topology.h"

namespace nmr::mpi {

// MemAvailable of this machine (/proc/meminfo): what can be allocated without swapping, in
// bytes; the largest int64 when the kernel does not say. No more than memoryCapBytes().
std::uint64_t availableMemoryBytes();

// NMRWALK_NODE_MEMORY_MB (MiB, fractions allowed): the most a job may take of a node that
// it shares with others, whatever the node has free; the largest int64 when unset.
std::uint64_t memoryCapBytes();

// A block of bytes that every process of a node reads through its own pointer. Processes
// that share their node with others see one MPI-3 shared-memory window allocated by the
// node leader; a process alone on its node gets ordinary memory instead, so that it does
// not depend on the size of the shared-memory file system at all. Only the node leader
// writes, and the writes become visible to the node at publish().
class NodeSharedBuffer {
public:
    ~NodeSharedBuffer();
    NodeSharedBuffer(const NodeSharedBuffer&) = delete;
    NodeSharedBuffer& operator=(const NodeSharedBuffer&) = delete;

    std::uint8_t* data() const { return data_; }
    std::uint64_t size() const { return bytes_; }
    // Collective over the node: the leader's writes so far are seen by every process of
    // the node when this returns.
    void publish();

private:
    friend struct NodeAllocation;
    NodeSharedBuffer() = default;

    std::shared_ptr<NodeTopology> topology_;
    MPI_Win window_ = MPI_WIN_NULL;
    std::unique_ptr<std::uint8_t[]> own_;
    std::uint8_t* data_ = nullptr;
    std::uint64_t bytes_ = 0;
};

// The outcome of a node-wide allocation, the same verdict on every process.
struct NodeAllocation {
    // Empty on every process when any node could not hold the bytes.
    std::shared_ptr<NodeSharedBuffer> buffer;
    std::uint64_t requestedBytes = 0;
    // The least memory any node leader found available, for the failure message.
    std::uint64_t availableBytes = 0;

    // Collective over the world communicator; every process passes the same byte count.
    // Each node leader first checks that its node can hold the bytes (free memory, and
    // for a window the free space of the shared-memory file system), and all processes
    // agree on the result before anyone allocates: a shared-memory allocation that fails
    // part-way can leave the other processes of the node waiting for ever, and one that
    // overcommits a file system fails with a bus error when the memory is first touched.
    static NodeAllocation allocate(const std::shared_ptr<NodeTopology>& topology,
                                   std::uint64_t bytes);
};

}  // namespace nmr::mpi
