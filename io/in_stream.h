#pragma once

#include <ios>
#include <istream>
#include <string>

namespace nmr {

// A readable grid file. States mirror std::istream's so that callers can test them after
// every operation; failed() is also true for a stream that is not open.
class InStream {
public:
    virtual ~InStream() = default;
    virtual void open(const std::string& fileName, std::ios_base::openmode mode) = 0;
    virtual void close() = 0;
    virtual bool good() const = 0;
    virtual bool isOpen() const = 0;
    virtual bool failed() const = 0;
    virtual bool eof() const = 0;
    // The standard stream the decoded bytes come from.
    virtual std::istream& stream() = 0;
    // The name of the file actually opened (it can differ from the requested one).
    virtual const std::string& fileName() const = 0;
};

}  // namespace nmr
