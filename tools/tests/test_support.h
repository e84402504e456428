#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "grid/mineral.h"

namespace nmr::tools::testing {

// A fresh directory per test, removed with everything in it when the test ends.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

struct CommandResult {
    int status = -1;     // exit status, -1 when the command did not exit normally
    std::string output;  // stdout and stderr together
};
CommandResult runCommand(const std::string& command);
// Quotes an argument for /bin/sh.
std::string shellQuote(const std::string& text);
// A tool built into the build directory's root, e.g. "nmrwalk-grid".
std::string toolPath(const std::string& name);

// A grain bed grid file decompressed and split into its header keys and its cells.
struct GridFile {
    std::map<std::string, std::string> header;  // "nx" -> "10", ...; mineral lines left out
    std::vector<GrainBedGridCell> cells;
    std::string bytes;  // the whole decompressed content
};
GridFile readGridFile(const std::string& path);

void writeBytes(const std::string& path, const std::string& bytes);
std::string readText(const std::string& path);

// The shared real-data folder beside the checkout, or an empty path when it is absent.
std::filesystem::path sharedDataDir();

}  // namespace nmr::tools::testing
