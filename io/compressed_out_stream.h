#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "io/out_stream.h"

namespace nmr {

// Writes a gzip file with fixed deflate settings (level 3, window 15, memory level 5,
// default strategy) and a fixed header (no name, no comment, mtime 0, unknown OS), so the
// same content always gives the same bytes: grid files can be compared by checksum.
class CompressedOutStream final : public OutStream {
public:
    CompressedOutStream();
    ~CompressedOutStream() override;
    CompressedOutStream(const CompressedOutStream&) = delete;
    CompressedOutStream& operator=(const CompressedOutStream&) = delete;

    bool open(const std::string& fileName) override;
    void close() override;
    void write(const char* data, std::size_t count) override;
    void flush() override;
    const std::string& fileName() const override { return fileName_; }

    static constexpr int kLevel = 3;
    static constexpr int kWindowBits = 15;
    static constexpr int kMemoryLevel = 5;

private:
    struct Deflater;
    // Runs deflate over the buffered input with the given zlib flush mode.
    void pump(int flushMode);
    void writeOut(const unsigned char* data, std::size_t count);
    void fail(bool badFile);

    std::string fileName_;
    std::FILE* file_ = nullptr;
    std::unique_ptr<Deflater> deflater_;
    std::vector<unsigned char> input_;
    std::size_t inputUsed_ = 0;
    std::vector<unsigned char> output_;
};

}  // namespace nmr
