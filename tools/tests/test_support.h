#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "grid/mineral.h"

namespace nmr::tools::testing {

// A fresh directory per test, removed with everything in it when the test ends.
class TempDir {
public:
    TempDir();
    ~TempDir() { std::filesystem::remove_all(path_, ignored_); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
    std::error_code ignored_;
};

struct CommandResult {
    int status = -1;     // -1 when the command did not exit normally
    std::string output;  // stdout and stderr together
};
// Runs argv through /bin/sh, every word quoted.
CommandResult run(const std::vector<std::string>& argv);
// A tool built into the build directory's root, e.g. "nmrwalk-grid".
inline std::string toolPath(const std::string& name) { return NMR_TOOLS_BINARY_DIR "/" + name; }

// A grain bed grid file decompressed: its cells, and every line of its header.
struct GridFile {
    std::vector<GrainBedGridCell> cells;
    std::string bytes;  // the whole decompressed content
    bool hasLine(const std::string& line) const {
        return bytes.find("\n" + line + "\n") < bytes.find("\ncells\n");
    }
};
GridFile readGridFile(const std::string& path);

void writeBytes(const std::string& path, const std::string& bytes);
std::string readText(const std::string& path);

}  // namespace nmr::tools::testing
