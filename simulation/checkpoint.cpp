#include "simulation/checkpoint.h"

#include <zlib.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <type_traits>

#include "common/exception.h"
#include "io/file_checksum.h"

namespace nmr {

namespace {

constexpr char kMagic[] = "nmrwalk checkpoint 2\n";

std::uint32_t crcOf(const std::string& bytes) {
    return static_cast<std::uint32_t>(crc32(crc32(0L, Z_NULL, 0),
                                            reinterpret_cast<const Bytef*>(bytes.data()),
                                            static_cast<uInt>(bytes.size())));
}

template <typename T>
void put(std::string& out, const T& value) {
    static_assert(std::is_trivially_copyable_v<T>);
    out.append(reinterpret_cast<const char*>(&value), sizeof(T));
}

template <typename T>
bool get(const std::string& in, std::size_t& at, T& value) {
    if (in.size() - at < sizeof(T)) return false;
    std::memcpy(&value, in.data() + at, sizeof(T));
    at += sizeof(T);
    return true;
}

}  // namespace

std::filesystem::path checkpointPath(const std::string& program, int rank,
                                     const std::filesystem::path& directory) {
    return directory / (program + ".checkpoint." + std::to_string(rank));
}

std::filesystem::path previousCheckpointPath(const std::string& program, int rank,
                                             const std::filesystem::path& directory) {
    return directory / (program + ".checkpoint." + std::to_string(rank) + ".previous");
}

void writeCheckpoint(const std::string& program, const Checkpoint& c,
                     const std::filesystem::path& directory) {
    std::string body;
    put(body, static_cast<std::uint64_t>(c.fingerprint.size()));
    body += c.fingerprint;
    put(body, c.rank);
    put(body, c.size);
    put(body, c.localWalkers);
    put(body, c.nextWalker);
    put(body, static_cast<std::uint64_t>(c.state.size()));
    body += c.state;
    put(body, crcOf(body));

    const std::filesystem::path target = checkpointPath(program, c.rank, directory);
    std::filesystem::path temporary = target;
    temporary += ".writing";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out.write(kMagic, sizeof kMagic - 1);
        out.write(body.data(), static_cast<std::streamsize>(body.size()));
        out.flush();
        if (!out) {
            std::error_code ignored;
            std::filesystem::remove(temporary, ignored);
            throw FileAccessException("Unable to write checkpoint: " + target.string());
        }
    }
    std::error_code error;
    if (std::filesystem::exists(target)) {
        std::filesystem::rename(target, previousCheckpointPath(program, c.rank, directory), error);
    }
    if (!error) std::filesystem::rename(temporary, target, error);
    if (error) {
        std::filesystem::remove(temporary, error);
        throw FileAccessException("Unable to write checkpoint: " + target.string());
    }
}

std::optional<Checkpoint> readCheckpoint(const std::filesystem::path& path, std::string& problem) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::size_t magic = sizeof kMagic - 1;
    std::uint32_t stored = 0;
    if (bytes.size() < magic + sizeof stored || bytes.compare(0, magic, kMagic) != 0) {
        problem = "not a checkpoint of this program: " + path.string();
        return std::nullopt;
    }
    const std::string body = bytes.substr(magic, bytes.size() - magic - sizeof stored);
    std::memcpy(&stored, bytes.data() + bytes.size() - sizeof stored, sizeof stored);
    if (crcOf(body) != stored) {
        problem = "damaged checkpoint: " + path.string();
        return std::nullopt;
    }
    Checkpoint c;
    std::size_t at = 0;
    std::uint64_t length = 0, stateLength = 0;
    bool ok = get(body, at, length) && length <= body.size() - at;
    if (ok) {
        c.fingerprint = body.substr(at, length);
        at += length;
    }
    ok = ok && get(body, at, c.rank) && get(body, at, c.size) && get(body, at, c.localWalkers) &&
         get(body, at, c.nextWalker) && get(body, at, stateLength) &&
         stateLength == body.size() - at && c.nextWalker <= c.localWalkers;
    if (!ok) {
        problem = "damaged checkpoint: " + path.string();
        return std::nullopt;
    }
    c.state = body.substr(at);
    return c;
}

void removeCheckpoint(const std::string& program, int rank,
                      const std::filesystem::path& directory) {
    std::error_code ignored;
    std::filesystem::remove(checkpointPath(program, rank, directory), ignored);
    std::filesystem::remove(previousCheckpointPath(program, rank, directory), ignored);
}

std::string runFingerprint(const std::string& encodedParameters, const std::string& gridPath,
                           std::int32_t seed, int size, bool compressedGrid) {
    char parameters[16];
    std::snprintf(parameters, sizeof parameters, "%08x", crcOf(encodedParameters));
    return std::string("parameters crc32 ") + parameters + "; grid " + fileChecksum(gridPath) +
           "; seed " + std::to_string(seed) + "; processes " + std::to_string(size) + "; grid " +
           (compressedGrid ? "compressed" : "plain");
}

}  // namespace nmr
