#include "io/compressed_out_stream.h"

#include <zlib.h>

#include <cstring>

namespace nmr {

namespace {
// Large enough that a slice row costs one memcpy and deflate runs on big spans.
constexpr std::size_t kInputBufferBytes = std::size_t{256} * 1024;
constexpr std::size_t kOutputBufferBytes = std::size_t{256} * 1024;
// Gzip's "unknown" operating system code keeps the header independent of the build host.
constexpr int kOsUnknown = 255;
}  // namespace

struct CompressedOutStream::Deflater {
    z_stream stream{};
    // zlib keeps a pointer to the header until it has written it.
    gz_header header{};
    bool active = false;
};

CompressedOutStream::CompressedOutStream() : deflater_(std::make_unique<Deflater>()) {}

CompressedOutStream::~CompressedOutStream() {
    if (open_) close();
    if (deflater_->active) deflateEnd(&deflater_->stream);
}

bool CompressedOutStream::open(const std::string& fileName) {
    if (open_) close();
    fileName_ = fileName;
    failed_ = false;
    bad_ = false;
    file_ = std::fopen(fileName.c_str(), "wb");
    if (file_ == nullptr) {
        failed_ = true;
        return false;
    }
    Deflater& d = *deflater_;
    if (d.active) deflateEnd(&d.stream);
    d.stream = z_stream{};
    // Window bits above 15 select the gzip wrapper instead of the zlib one.
    if (deflateInit2(&d.stream, kLevel, Z_DEFLATED, kWindowBits + 16, kMemoryLevel,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        std::fclose(file_);
        file_ = nullptr;
        failed_ = true;
        return false;
    }
    d.active = true;
    d.header = gz_header{};
    d.header.time = 0;
    d.header.os = kOsUnknown;
    deflateSetHeader(&d.stream, &d.header);
    input_.resize(kInputBufferBytes);
    output_.resize(kOutputBufferBytes);
    inputUsed_ = 0;
    open_ = true;
    return true;
}

void CompressedOutStream::write(const char* data, std::size_t count) {
    if (!open_ || failed_) {
        failed_ = true;
        return;
    }
    while (count > 0) {
        const std::size_t n = std::min(count, input_.size() - inputUsed_);
        std::memcpy(input_.data() + inputUsed_, data, n);
        inputUsed_ += n;
        data += n;
        count -= n;
        if (inputUsed_ == input_.size()) {
            pump(Z_NO_FLUSH);
            if (failed_) return;
        }
    }
}

void CompressedOutStream::pump(int flushMode) {
    z_stream& s = deflater_->stream;
    s.next_in = input_.data();
    s.avail_in = static_cast<uInt>(inputUsed_);
    for (;;) {
        s.next_out = output_.data();
        s.avail_out = static_cast<uInt>(output_.size());
        const int rc = deflate(&s, flushMode);
        if (rc == Z_STREAM_ERROR) {
            fail(false);
            return;
        }
        writeOut(output_.data(), output_.size() - s.avail_out);
        if (failed_) return;
        if (flushMode == Z_FINISH ? rc == Z_STREAM_END : (s.avail_out != 0 && s.avail_in == 0)) {
            break;
        }
    }
    inputUsed_ = 0;
}

void CompressedOutStream::writeOut(const unsigned char* data, std::size_t count) {
    if (count > 0 && std::fwrite(data, 1, count, file_) != count) fail(true);
}

void CompressedOutStream::fail(bool badFile) {
    failed_ = true;
    bad_ = bad_ || badFile;
}

void CompressedOutStream::flush() {
    if (!open_ || failed_) {
        failed_ = true;
        return;
    }
    // Z_NO_FLUSH keeps the compressed bytes independent of when callers flush.
    pump(Z_NO_FLUSH);
    if (!failed_ && std::fflush(file_) != 0) fail(true);
}

void CompressedOutStream::close() {
    if (!open_) return;
    if (!failed_) pump(Z_FINISH);
    deflateEnd(&deflater_->stream);
    deflater_->active = false;
    if (std::fclose(file_) != 0) fail(true);
    file_ = nullptr;
    open_ = false;
    input_ = {};
    output_ = {};
    inputUsed_ = 0;
}

}  // namespace nmr
