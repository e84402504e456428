#pragma once

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>

#include "io/compressed_in_stream.h"

namespace nmr {

// Reads the older chunked grid files: decimal tags and sizes as text, each chunk's data a
// zlib stream. Read only; nothing writes this format any more.
class CompressedInStreamLegacy final : public CompressedInStream {
public:
    // Tag values of the format.
    static constexpr std::int64_t kVersionTag = 393988;
    static constexpr std::int64_t kLevelTag = 393989;
    static constexpr std::int64_t kRealSizeTag = 393990;
    static constexpr std::int64_t kSquashedSizeTag = 393991;
    static constexpr std::int64_t kChunkMarker = 393992;
    static constexpr std::int64_t kChunkMarkerAlt = 393993;
    static constexpr std::int64_t kEndMarker = 393994;
    static constexpr std::int64_t kChunkCountTag = 393995;
    static constexpr std::int64_t kFileRealSizeTag = 393996;
    static constexpr std::int64_t kFileCompressedSizeTag = 393997;
    static constexpr std::int64_t kBinaryTag = 393998;
    static constexpr std::int64_t kBinaryTagAlt = 393999;
    static constexpr std::int64_t kChunkBeginTag = 377594;
    static constexpr std::int64_t kChunkEndTag = 377595;
    static constexpr const char* kMagic = "500124";

    explicit CompressedInStreamLegacy(LoggerBase* logger = nullptr);
    ~CompressedInStreamLegacy() override;
    CompressedInStreamLegacy(const CompressedInStreamLegacy&) = delete;
    CompressedInStreamLegacy& operator=(const CompressedInStreamLegacy&) = delete;

    // Only std::ios::in | std::ios::binary makes sense; other modes are warned about and
    // ignored. A name not ending in 'c' or 'C' falls back to the name with "c" appended
    // when the given name does not exist (grid.bin -> grid.binc).
    void open(const std::string& fileName, std::ios_base::openmode mode) override;
    void close() override;
    bool good() const override;
    bool isOpen() const override;
    bool failed() const override;
    bool eof() const override;
    std::istream& stream() override;
    const std::string& fileName() const override { return fileName_; }

    std::size_t read(char* buffer, std::size_t count) override;
    void getLine(char* buffer, std::size_t capacity, char delimiter = '\n') override;
    void ignore(std::size_t count, int delimiter) override;

    int formatVersion() const { return version_; }
    int compressionLevel() const { return level_; }

private:
    class ChunkBuffer;
    bool readHeader();

    std::string fileName_;
    std::ifstream file_;
    std::unique_ptr<ChunkBuffer> chunks_;
    std::unique_ptr<std::istream> decoded_;
    int version_ = -1;
    int level_ = -1;
};

}  // namespace nmr
