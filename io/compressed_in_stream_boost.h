#pragma once

#include <memory>
#include <string>

#include "io/compressed_in_stream.h"

namespace nmr {

// Reads gzip files: the current grid file format.
class CompressedInStreamBoost final : public CompressedInStream {
public:
    explicit CompressedInStreamBoost(LoggerBase* logger = nullptr);
    ~CompressedInStreamBoost() override;
    CompressedInStreamBoost(const CompressedInStreamBoost&) = delete;
    CompressedInStreamBoost& operator=(const CompressedInStreamBoost&) = delete;

    // Peeks at the first decoded byte, so a file without a valid gzip header (or an empty
    // one) is not good() right after opening.
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

    static constexpr int kWindowBits = 15;
    static constexpr int kBufferBytes = 4096;

private:
    struct Chain;
    std::string fileName_;
    std::unique_ptr<Chain> chain_;
};

}  // namespace nmr
