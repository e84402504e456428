#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "common/logger.h"
#include "io/in_stream.h"

namespace nmr {

// A reader of compressed grid files. Format errors are logged at error level and leave the
// stream failed; callers test good() or failed() and raise their own exception.
class CompressedInStream : public InStream, public LoggerClient {
public:
    static constexpr const char* kLogChannel = "common.io.CompressedInStream";

    // Without a logger the stream logs on its own channel of the process-wide log core.
    explicit CompressedInStream(LoggerBase* logger = nullptr);

    // Returns the number of bytes delivered, which is short only at the end or on failure.
    virtual std::size_t read(char* buffer, std::size_t count) = 0;
    // Reads up to capacity - 1 characters or up to the delimiter (consumed, not stored) and
    // terminates the buffer; a line that does not fit fails the stream, as std::getline does.
    virtual void getLine(char* buffer, std::size_t capacity, char delimiter = '\n') = 0;
    // Skips count bytes or up to and including the delimiter.
    virtual void ignore(std::size_t count, int delimiter) = 0;

private:
    Logger channel_{kLogChannel};
};

// Opens the file as gzip when it has a gzip header and as a legacy chunked file otherwise.
// The result is never null; test good() to see whether either format could be read.
std::unique_ptr<CompressedInStream> openCompressedInStream(const std::string& fileName,
                                                           LoggerBase* logger = nullptr);

}  // namespace nmr
