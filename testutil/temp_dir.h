#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

namespace nmr::test {

std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& bytes);

// A fresh directory under the system temporary directory (mkdtemp, so tests running side by
// side never share one), removed with everything in it when the object goes away. Names
// are relative to it; an absolute name stands for itself.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "nmrwalk_test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }
    bool exists(const std::string& name) const { return std::filesystem::exists(path_ / name); }
    std::string read(const std::string& name) const { return readFile(path_ / name); }
    void write(const std::string& name, const std::string& bytes) const {
        writeFile(path_ / name, bytes);
    }

private:
    std::filesystem::path path_;
};

class TempDirTest : public ::testing::Test {
protected:
    std::string path(const std::string& name) const { return dir_.file(name); }
    TempDir dir_;
};

// The same directory on every rank of an MPI test (defined in nmr_testutil_mpi). Process 0
// makes it and sends its name; construction and destruction are collective, and every
// rank has left the directory before process 0 removes it.
class SharedTempDir {
public:
    SharedTempDir();
    ~SharedTempDir();
    SharedTempDir(const SharedTempDir&) = delete;
    SharedTempDir& operator=(const SharedTempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::unique_ptr<TempDir> owned_;  // process 0 only
    std::filesystem::path path_;
};

}  // namespace nmr::test
