#include "common/output_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "common/exception.h"

namespace nmr {

namespace {

[[noreturn]] void cannotWrite(const std::string& path, const std::string& reason) {
    throw FileAccessException("Cannot write " + path + ": " + reason);
}

}  // namespace

std::string systemErrorText(int error) { return std::generic_category().message(error); }

void prepareOutputFolder(const std::string& path) {
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty()) {
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error)
            cannotWrite(path, error.message() + " (making the folder " + folder.string() + ")");
        if (!std::filesystem::is_directory(folder, error))
            cannotWrite(path, folder.string() + " is not a folder");
    }
    // A probe beside the output: a folder the user may not write to is found now, not
    // after the work.
    const std::string probe = path + ".writing";
    std::FILE* file = std::fopen(probe.c_str(), "wb");
    if (file == nullptr) cannotWrite(path, systemErrorText(errno));
    std::fclose(file);
    std::remove(probe.c_str());
}

void writeTextFile(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".writing";
    std::FILE* file = std::fopen(temporary.c_str(), "wb");
    if (file == nullptr) cannotWrite(path, systemErrorText(errno));
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    int error = written ? 0 : errno;
    if (std::fclose(file) != 0 && error == 0) error = errno;
    if (!written || error != 0) {
        std::remove(temporary.c_str());
        cannotWrite(path, systemErrorText(error != 0 ? error : EIO));
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
        std::remove(temporary.c_str());
        cannotWrite(path, systemErrorText(error));
    }
}

}  // namespace nmr
