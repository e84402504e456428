#pragma once

#include <cstddef>
#include <string>

namespace nmr {

// A byte sink for grid files. Concrete streams keep the three state flags current; callers
// test them after each operation and raise their own FileAccessException with the file's
// name, because only the caller knows which part of the file was being written.
class OutStream {
public:
    virtual ~OutStream() = default;
    // Creates or truncates the file. Returns whether the stream is open afterwards.
    virtual bool open(const std::string& fileName) = 0;
    // Finishes the file; errors show in failed() and bad() afterwards.
    virtual void close() = 0;
    virtual void write(const char* data, std::size_t count) = 0;
    // Pushes buffered bytes towards the file without ending it.
    virtual void flush() = 0;
    virtual const std::string& fileName() const = 0;

    bool isOpen() const { return open_; }
    // A write or close went wrong, or the stream was used while closed.
    bool failed() const { return failed_; }
    // The file itself refused data (disk full, I/O error); the file is unusable.
    bool bad() const { return bad_; }

protected:
    bool open_ = false;
    bool failed_ = false;
    bool bad_ = false;
};

}  // namespace nmr
