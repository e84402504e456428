#include "io/compressed_in_stream_legacy.h"

#include <zlib.h>

#include <filesystem>
#include <streambuf>
#include <vector>

namespace nmr {

namespace {
// Thrown out of the chunk buffer's underflow; std::istream turns it into badbit.
struct ChunkFormatError {};

// deflate cannot expand data by more than about 1032:1; a chunk claiming more is corrupt,
// and refusing it keeps a damaged size field from asking for gigabytes.
constexpr std::uint64_t kMaxExpansion = 1040;
}  // namespace

// Serves the decompressed bytes of one chunk at a time, loading the next chunk when the
// current one is used up.
class CompressedInStreamLegacy::ChunkBuffer final : public std::streambuf {
public:
    ChunkBuffer(std::istream& source, const LoggerClient& owner, std::uint64_t fileSize)
        : source_(source), owner_(owner), fileSize_(fileSize) {}

protected:
    int_type underflow() override {
        while (gptr() == egptr()) {
            if (broken_) throw ChunkFormatError{};
            if (ended_) return traits_type::eof();
            if (!loadChunk()) {
                broken_ = true;
                throw ChunkFormatError{};
            }
        }
        return traits_type::to_int_type(*gptr());
    }

private:
    bool fail(const char* message) {
        owner_.logger().error(message);
        return false;
    }
    bool readNumber(std::int64_t& value) { return static_cast<bool>(source_ >> value); }
    // Reads a tag that must equal expected and the number that follows it.
    bool readTagged(std::int64_t expected, std::int64_t& value) {
        std::int64_t tag = 0;
        return readNumber(tag) && tag == expected && readNumber(value);
    }
    bool readTotals() {
        std::int64_t value = 0;
        if (!readTagged(kChunkCountTag, value)) {
            return fail("Error when reading the number of chunks in file.");
        }
        if (!readTagged(kFileRealSizeTag, value)) {
            return fail("Error when reading the real size of file.");
        }
        if (!readTagged(kFileCompressedSizeTag, value)) {
            return fail("Error when reading the compressed size of file.");
        }
        ended_ = true;
        setg(nullptr, nullptr, nullptr);
        return true;
    }
    bool loadChunk();

    std::istream& source_;
    const LoggerClient& owner_;
    std::uint64_t fileSize_;
    std::vector<char> packed_;
    std::vector<char> plain_;
    bool ended_ = false;
    bool broken_ = false;
};

bool CompressedInStreamLegacy::ChunkBuffer::loadChunk() {
    std::int64_t marker = 0;
    if (readNumber(marker) && marker == kEndMarker) return readTotals();
    if (marker != kChunkMarker && marker != kChunkMarkerAlt) {
        return fail("Chunk marker value is invalid.");
    }
    std::int64_t binary = 0;
    if (!readNumber(binary) || (binary != kBinaryTag && binary != kBinaryTagAlt)) {
        return fail("COMPRESSED_CHUNK_BINARY tag not found.");
    }
    std::int64_t realSize = 0;
    if (!readTagged(kRealSizeTag, realSize) || realSize < 0) {
        return fail("COMPRESSED_CHUNK_REAL_SIZE tag not found.");
    }
    std::int64_t squashedSize = 0;
    if (!readTagged(kSquashedSizeTag, squashedSize) || squashedSize < 0) {
        return fail("COMPRESSED_CHUNK_SQUASHED_SIZE tag not found");
    }
    std::int64_t begin = 0;
    if (!readNumber(begin) || begin != kChunkBeginTag) {
        return fail("COMPRESSED_CHUNK_BEGIN tag not found.");
    }
    const auto packedBytes = static_cast<std::uint64_t>(squashedSize);
    const auto plainBytes = static_cast<std::uint64_t>(realSize);
    if (packedBytes > fileSize_ || plainBytes > packedBytes * kMaxExpansion + 64) {
        return fail("Uncompression of chunk failed.");
    }
    source_.get();  // the single separator byte between the tag and the data
    packed_.resize(packedBytes);
    plain_.resize(plainBytes);
    source_.read(packed_.data(), static_cast<std::streamsize>(packedBytes));
    if (static_cast<std::uint64_t>(source_.gcount()) != packedBytes) {
        return fail("Uncompression of chunk failed.");
    }
    uLongf produced = static_cast<uLongf>(plainBytes);
    // A zero-size chunk still carries a valid (empty) zlib stream; uncompress wants a
    // non-null destination even then.
    char empty = 0;
    const int rc =
        uncompress(reinterpret_cast<Bytef*>(plain_.empty() ? &empty : plain_.data()), &produced,
                   reinterpret_cast<const Bytef*>(packed_.data()), static_cast<uLong>(packedBytes));
    if (rc != Z_OK || produced != plainBytes) return fail("Uncompression of chunk failed.");
    std::int64_t end = 0;
    if (!readNumber(end) || end != kChunkEndTag) return fail("COMPRESSED_CHUNK_END tag not found.");
    setg(plain_.data(), plain_.data(), plain_.data() + plain_.size());
    return true;
}

CompressedInStreamLegacy::CompressedInStreamLegacy(LoggerBase* logger)
    : CompressedInStream(logger) {}

CompressedInStreamLegacy::~CompressedInStreamLegacy() { close(); }

void CompressedInStreamLegacy::open(const std::string& fileName, std::ios_base::openmode mode) {
    close();
    if (mode != (std::ios_base::in | std::ios_base::binary)) {
        logger().warn(
            "CompressedInStreamLegacy only supports std::fstream::in | std::fstream::binary, "
            "and will ignore other options");
    }
    fileName_ = fileName;
    const char last = fileName.empty() ? '\0' : fileName.back();
    std::error_code ec;
    if (last != 'c' && last != 'C' && !std::filesystem::exists(fileName, ec)) {
        fileName_ = fileName + "c";
    }
    file_.open(fileName_, std::ios_base::in | std::ios_base::binary);
    if (!file_.is_open()) return;
    const std::uintmax_t size = std::filesystem::file_size(fileName_, ec);
    chunks_ = std::make_unique<ChunkBuffer>(file_, *this, ec ? 0 : size);
    decoded_ = std::make_unique<std::istream>(chunks_.get());
    if (!readHeader()) decoded_->setstate(std::ios_base::failbit);
}

bool CompressedInStreamLegacy::readHeader() {
    char magic[6] = {};
    file_.read(magic, sizeof magic);
    if (file_.gcount() != 6 || std::string(magic, 6) != kMagic) {
        file_.clear();
        file_.seekg(0);
        logger().error("This is not a compressed file.");
        return false;
    }
    std::int64_t tag = 0;
    if (!(file_ >> tag) || tag != kVersionTag || !(file_ >> version_)) {
        logger().error("Error when reading version of compressed file.");
        return false;
    }
    if (!(file_ >> tag) || tag != kLevelTag || !(file_ >> level_)) {
        logger().error("Error when reading compression level.");
        return false;
    }
    return true;
}

void CompressedInStreamLegacy::close() {
    decoded_.reset();
    chunks_.reset();
    if (file_.is_open()) file_.close();
    file_.clear();
    version_ = -1;
    level_ = -1;
}

bool CompressedInStreamLegacy::good() const { return decoded_ && decoded_->good(); }
bool CompressedInStreamLegacy::isOpen() const { return file_.is_open(); }
bool CompressedInStreamLegacy::failed() const { return !decoded_ || decoded_->fail(); }
bool CompressedInStreamLegacy::eof() const { return decoded_ && decoded_->eof(); }

std::istream& CompressedInStreamLegacy::stream() {
    // Before a successful open there is no decoded stream; hand out a failed one.
    static thread_local std::istream closed(nullptr);
    return decoded_ ? *decoded_ : closed;
}

std::size_t CompressedInStreamLegacy::read(char* buffer, std::size_t count) {
    if (!decoded_) return 0;
    decoded_->read(buffer, static_cast<std::streamsize>(count));
    return static_cast<std::size_t>(decoded_->gcount());
}

void CompressedInStreamLegacy::getLine(char* buffer, std::size_t capacity, char delimiter) {
    if (capacity > 0) buffer[0] = '\0';
    if (!decoded_) return;
    decoded_->getline(buffer, static_cast<std::streamsize>(capacity), delimiter);
}

void CompressedInStreamLegacy::ignore(std::size_t count, int delimiter) {
    if (!decoded_) return;
    decoded_->ignore(static_cast<std::streamsize>(count), delimiter);
}

}  // namespace nmr
