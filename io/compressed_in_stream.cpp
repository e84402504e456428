#include "io/compressed_in_stream.h"

#include "io/compressed_in_stream_boost.h"
#include "io/compressed_in_stream_legacy.h"

namespace nmr {

CompressedInStream::CompressedInStream(LoggerBase* logger) {
    setLogger(logger != nullptr ? logger : &channel_);
}

std::unique_ptr<CompressedInStream> openCompressedInStream(const std::string& fileName,
                                                           LoggerBase* logger) {
    const auto mode = std::ios_base::in | std::ios_base::binary;
    auto gzip = std::make_unique<CompressedInStreamBoost>(logger);
    gzip->open(fileName, mode);
    if (gzip->good()) return gzip;
    gzip.reset();
    auto legacy = std::make_unique<CompressedInStreamLegacy>(logger);
    legacy->open(fileName, mode);
    return legacy;
}

}  // namespace nmr
