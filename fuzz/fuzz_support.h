#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Shared by the fuzz targets: a scratch directory of this process for the files a reader
// insists on opening by name.
namespace nmr::fuzz {

// A directory under $TMPDIR (or /tmp) named after the process id, made on first use and
// removed at exit. libFuzzer's -jobs/-fork workers are separate processes, so each gets its
// own; nothing is ever written into the working directory.
const std::string& scratchDir();
// scratchDir() + "/" + name.
std::string scratchPath(const std::string& name);
// Writes the bytes to scratchPath(name), replacing what was there, and returns the path.
std::string writeScratch(const std::string& name, const std::uint8_t* data, std::size_t size);
// Removes every file of the scratch directory: a reader may have made more than the target
// wrote (the text grid conversion writes "<name>.binc" next to its input).
void clearScratch();

// Ends the process with a message when a property the readers promise does not hold, so
// that libFuzzer records the input as a crash.
[[noreturn]] void violated(const std::string& what);

}  // namespace nmr::fuzz
