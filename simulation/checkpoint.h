#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace nmr {

// Where one process stood in its walk at a poll: enough to take the walk up again and
// finish it exactly as an uninterrupted run would. `state` is the experiment's own (its
// random streams and tallies as they stood), opaque here. Each process keeps its own file,
// "<program>.checkpoint.<rank>" in its working directory.
struct Checkpoint {
    std::string fingerprint;  // the run it belongs to
    std::int32_t rank = 0;
    std::int32_t size = 1;
    std::uint32_t localWalkers = 0;
    std::uint32_t nextWalker = 0;  // walkers 0 .. nextWalker - 1 are walked and counted
    std::string state;
};

// The latest checkpoint of a rank, and the one before it. A job killed while its
// processes write a checkpoint leaves some with the new one and some with the old one
// still as their latest; keeping the one before lets all of them go back to the last
// checkpoint they all hold.
std::filesystem::path checkpointPath(const std::string& program, int rank,
                                     const std::filesystem::path& directory = ".");
std::filesystem::path previousCheckpointPath(const std::string& program, int rank,
                                             const std::filesystem::path& directory = ".");

// Writes under a temporary name, moves the latest checkpoint to the previous one's place
// and renames, so each checkpoint is whole or absent. Throws FileAccessException when it
// cannot be written.
void writeCheckpoint(const std::string& program, const Checkpoint& checkpoint,
                     const std::filesystem::path& directory = ".");

// The checkpoint in a file, or nothing when there is none. A file that is damaged or not a
// checkpoint gives nothing and sets `problem`.
std::optional<Checkpoint> readCheckpoint(const std::filesystem::path& path, std::string& problem);

// Removes both checkpoints of the rank.
void removeCheckpoint(const std::string& program, int rank,
                      const std::filesystem::path& directory = ".");

// What makes two runs the same walk: the parameters as the file encodes them (the
// checkpoint interval is not among them), the grid file's checksum, the seed, the process
// count and how the grid is held (plain or compressed: the walkers differ). Process 0.
std::string runFingerprint(const std::string& encodedParameters, const std::string& gridPath,
                           std::int32_t seed, int size, bool compressedGrid);

}  // namespace nmr
