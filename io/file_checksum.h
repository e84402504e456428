#pragma once

#include <string>

namespace nmr {

// The size and CRC-32 of a file's bytes, as text ("crc32 1a2b3c4d, 1234 bytes"): what a
// recording or a checkpoint notes of the grid file it was made from, to tell it from any
// other. Reads the whole file (a gzip-compressed grid file reads at well over 100 MB/s).
// Throws FileAccessException when the file cannot be read.
std::string fileChecksum(const std::string& path);

}  // namespace nmr
