#include "mpi/node_shared_memory.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <new>
#include <sstream>
#include <string>

#include "mpi/message_passing.h"

namespace nmr::mpi {

namespace {

constexpr std::uint64_t kUnlimited = std::numeric_limits<std::int64_t>::max();

// Open MPI keeps a shared window in a file of its backing directory (an MCA setting,
// /dev/shm unless the user moved it), and the window can be no larger than the free
// space there.
std::uint64_t availableSharedFileSpace() {
    std::string directory = "/dev/shm";
    if (const char* configured = std::getenv("OMPI_MCA_osc_sm_backing_directory")) {
        directory = configured;
    }
    struct statvfs fs {};
    if (statvfs(directory.c_str(), &fs) != 0) {
        if (statvfs(std::filesystem::temp_directory_path().c_str(), &fs) != 0) return kUnlimited;
    }
    return static_cast<std::uint64_t>(fs.f_bavail) * fs.f_frsize;
}

}  // namespace

std::uint64_t availableMemoryBytes() {
    std::uint64_t available = kUnlimited;
    std::ifstream meminfo("/proc/meminfo");
    for (std::string line; std::getline(meminfo, line);) {
        if (line.rfind("MemAvailable:", 0) != 0) continue;
        std::istringstream fields(line.substr(13));
        std::uint64_t kib = 0;
        if (fields >> kib) available = kib * 1024;
        break;
    }
    return std::min(available, memoryCapBytes());
}

std::uint64_t memoryCapBytes() {
    const char* text = std::getenv("NMRWALK_NODE_MEMORY_MB");
    if (text == nullptr) return kUnlimited;
    char* end = nullptr;
    const double mib = std::strtod(text, &end);
    // Like the node grouping, a setting that is no number is ignored rather than thrown
    // from the node leaders alone, which would leave the other processes waiting.
    if (end == text || *end != '\0' || !(mib >= 0.0) || mib >= 0x1p43) return kUnlimited;
    return static_cast<std::uint64_t>(mib * 1048576.0);
}

NodeSharedBuffer::~NodeSharedBuffer() {
    if (window_ != MPI_WIN_NULL) MPI_Win_free(&window_);
}

void NodeSharedBuffer::publish() {
    if (window_ != MPI_WIN_NULL) MPI_Win_fence(0, window_);
}

NodeAllocation NodeAllocation::allocate(const std::shared_ptr<NodeTopology>& topology,
                                        std::uint64_t bytes) {
    NodeAllocation result;
    result.requestedBytes = bytes;
    const bool shared = topology->nodeSize() > 1;

    long long available = static_cast<long long>(kUnlimited);
    if (topology->isLeader()) {
        std::uint64_t room = availableMemoryBytes();
        if (shared) room = std::min(room, availableSharedFileSpace());
        available = static_cast<long long>(std::min(room, kUnlimited));
    }
    available = allReduce(available, MPI_MIN);
    result.availableBytes = static_cast<std::uint64_t>(available);
    if (bytes > result.availableBytes) return result;

    auto buffer = std::shared_ptr<NodeSharedBuffer>(new NodeSharedBuffer());
    buffer->topology_ = topology;
    buffer->bytes_ = bytes;
    bool allocated = true;
    if (shared) {
        // Errors come back as codes so that a refusal is agreed on like any other.
        MPI_Comm_set_errhandler(topology->node(), MPI_ERRORS_RETURN);
        void* base = nullptr;
        const auto mine = static_cast<MPI_Aint>(topology->isLeader() ? bytes : 0);
        allocated = MPI_Win_allocate_shared(mine, 1, MPI_INFO_NULL, topology->node(), &base,
                                            &buffer->window_) == MPI_SUCCESS;
        if (allocated && bytes > 0) {
            MPI_Aint size = 0;
            int unit = 0;
            void* leaderBase = nullptr;
            allocated = MPI_Win_shared_query(buffer->window_, 0, &size, &unit, &leaderBase) ==
                            MPI_SUCCESS &&
                        static_cast<std::uint64_t>(size) == bytes;
            buffer->data_ = static_cast<std::uint8_t*>(leaderBase);
        }
        MPI_Comm_set_errhandler(topology->node(), MPI_ERRORS_ARE_FATAL);
    } else if (bytes > 0) {
        buffer->own_.reset(new (std::nothrow) std::uint8_t[bytes]);
        buffer->data_ = buffer->own_.get();
        allocated = buffer->data_ != nullptr;
    }
    if (allTrue(allocated)) result.buffer = std::move(buffer);
    return result;
}

}  // namespace nmr::mpi
