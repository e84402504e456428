#include "io/grain_bed_grid_reader.h"

#include <limits>

#include <sstream>

#include "common/exception.h"

namespace nmr {

namespace {

// Lines longer than this fail the stream and end the header.
constexpr std::size_t kLineBufferBytes = 255;

std::vector<std::string> split(const std::string& text, const std::string& separators) {
    std::vector<std::string> pieces(1);
    for (char c : text) {
        if (separators.find(c) != std::string::npos) {
            pieces.emplace_back();
        } else {
            pieces.back() += c;
        }
    }
    return pieces;
}

// Whole-value extraction: "12" and "+12" parse, "12x" and "" do not.
template <typename V>
bool parseWhole(const std::string& text, V& value) {
    std::istringstream in(text);
    V parsed{};
    if (!(in >> parsed)) return false;
    if (in.peek() != std::char_traits<char>::eof()) return false;
    value = parsed;
    return true;
}

// The sizes are signed 16-bit to the checks below: an unset size (-1) has half 0, so a
// margin line before its size line fails, and a ny line before the nx line fails too.
std::int16_t asSigned(std::uint16_t v) { return static_cast<std::int16_t>(v); }

class HeaderParser {
public:
    HeaderParser(GrainBedGridHeader& header, LoggerBase& logger) : h_(header), logger_(logger) {}

    // Returns false when the value makes the header unusable.
    bool line(const std::string& text, bool& done) {
        if (!text.empty() && text[0] == '#') return true;
        const std::vector<std::string> pieces = split(text, "=");
        const std::string key = trim(pieces[0]);
        if (key.empty()) {
            logger_.warn("Invalid header line: " + text);
            return true;
        }
        const std::string value = pieces.size() > 1 ? trim(pieces[1]) : std::string();
        if (key == "version") return version(value);
        if (key == "nx") return size(value, h_.nx, false);
        if (key == "ny") return size(value, h_.ny, true);
        if (key == "nz") return size(value, h_.nz, false);
        if (key == "marginX") return margin(value, h_.marginX, h_.nx);
        if (key == "marginY") return margin(value, h_.marginY, h_.ny);
        if (key == "marginZ") return margin(value, h_.marginZ, h_.nz);
        if (key == "cellSize") return cellSize(value);
        if (key == "mineral") return mineral(value);
        if (key == "cells") {
            done = true;
            return true;
        }
        logger_.warn("Unexpected token: " + key + " Ignored.");
        return true;
    }

private:
    bool version(const std::string& value) {
        const std::vector<std::string> pieces = split(value, "v\\.");
        int major = 0, minor = 0;
        if (pieces.size() != 3 || !parseWhole(pieces[1], major) || !parseWhole(pieces[2], minor)) {
            return true;  // an unreadable version is simply not set
        }
        if (major > grain_bed_grid::majorVersion() ||
            (major == grain_bed_grid::majorVersion() && minor > grain_bed_grid::minorVersion())) {
            throw FileAccessException(
                "File version mismatch. Result is unpredictable.\n"
                "Binary handles at most: " +
                grain_bed_grid::magic() + std::to_string(grain_bed_grid::majorVersion()) + "." +
                std::to_string(grain_bed_grid::minorVersion()) + "\n" + "Found: " + value + "\n");
        }
        h_.majorVersion = major;
        h_.minorVersion = minor;
        return true;
    }

    bool integer(const std::string& value, int& parsed) {
        if (parseWhole(value, parsed)) return true;
        logger_.error("Type mismatch. Integer expected: " + value);
        return false;
    }

    // For ny the range test looks at nx, not ny, so a non-positive ny passes: a quirk of
    // the format's reader, kept so that every file accepted before is accepted now.
    bool size(const std::string& value, std::uint16_t& target, bool testNx) {
        int parsed = 0;
        if (!integer(value, parsed)) return false;
        // Sizes are held in 16 bits; a larger one would wrap into a different, wrong
        // stride through the records, so it is refused rather than stored.
        if (parsed > std::numeric_limits<std::int16_t>::max()) {
            logger_.error("Invalid grid size specifier: " + value);
            return false;
        }
        target = static_cast<std::uint16_t>(parsed);
        const int tested = testNx ? asSigned(h_.nx) : parsed;
        if (tested < 1) {
            logger_.error("Invalid grid size specifier: " + value);
            return false;
        }
        return true;
    }

    bool margin(const std::string& value, std::uint16_t& target, std::uint16_t size) {
        int parsed = 0;
        if (!integer(value, parsed)) return false;
        if (parsed < 0 || parsed > asSigned(size) / 2) {
            logger_.error("Invalid grid margin specifier: " + value);
            return false;
        }
        target = static_cast<std::uint16_t>(parsed);
        return true;
    }

    bool cellSize(const std::string& value) {
        double parsed = 0.0;
        if (!parseWhole(value, parsed)) {
            logger_.error("Type mismatch. Float expected: " + value);
            return false;
        }
        if (!(parsed > 0.0)) {
            logger_.error("Invalid cell size specifier: " + value);
            return false;
        }
        h_.cellSize = parsed;
        return true;
    }

    bool mineral(const std::string& value) {
        if (h_.majorVersion == -1) {
            throw FileAccessException(
                "No version tag found before minerals. Result is unpredictable.\n");
        }
        ++mineralCounter_;
        const std::vector<std::string> pieces = split(value, ":");
        const std::string codeText = trim(pieces[0]);
        int code = -1;
        bool codeOk = false;
        if (codeText.empty()) {
            logger_.warn("Missing mineral specifier.");
        } else {
            codeOk = parseWhole(codeText, code);
        }
        // Files before 1.2 knew ten minerals; 14 has been accepted since, though unlisted.
        const bool oldFile = h_.majorVersion < 2 && h_.minorVersion < 2;
        const int highest = oldFile ? 9 : 14;
        if (!codeOk || code < 0 || code > highest) {
            logger_.warn("Unexpected mineral code: " + (codeText.empty() ? "-1" : codeText) +
                         ". Using counter instead.");
            code = mineralCounter_;
        }
        std::string name = "Not specified";
        if (pieces.size() < 2) {
            logger_.warn("Missing mineral specifier.");
        } else {
            name = trim(pieces[1]);
            if (!Mineral::isKnownName(name)) logger_.warn("Unknown mineral: " + name);
        }
        for (std::size_t i = 2; i < pieces.size(); ++i) {
            logger_.warn("Unexpected token: " + trim(pieces[i]));
        }
        h_.minerals[code] = name;
        return true;
    }

    GrainBedGridHeader& h_;
    LoggerBase& logger_;
    int mineralCounter_ = -1;
};

}  // namespace

bool readGrainBedGridHeader(CompressedInStream& in, GrainBedGridHeader& header,
                            LoggerBase& logger) {
    header = GrainBedGridHeader{};
    HeaderParser parser(header, logger);
    char line[kLineBufferBytes];
    bool done = false;
    while (!done) {
        in.getLine(line, sizeof line, '\n');
        if (in.failed()) break;  // end of stream, a decoding error or an overlong line
        if (!parser.line(line, done)) return false;
        if (in.eof()) break;
    }
    const auto unset = GrainBedGridHeader::kUnset;
    return header.nx != unset && header.ny != unset && header.nz != unset &&
           header.marginX != unset && header.marginY != unset && header.marginZ != unset &&
           header.cellSize != -1.0;
}

std::unique_ptr<CompressedInStream> openGrainBedGridFile(const std::string& fileName,
                                                         GrainBedGridHeader& header,
                                                         LoggerBase& logger) {
    auto in = openCompressedInStream(fileName, &logger);
    if (!in->good()) {
        logger.error("Unable to open: " + fileName);
        throw FileAccessException("Unable to open file " + fileName);
    }
    if (!readGrainBedGridHeader(*in, header, logger)) {
        logger.error("Error reading header: " + fileName);
        throw FileAccessException("An error occurred when reading file header.");
    }
    return in;
}

GrainBedGridHeader readGrainBedGridFileHeader(const std::string& fileName, LoggerBase& logger) {
    GrainBedGridHeader header;
    openGrainBedGridFile(fileName, header, logger);
    return header;
}

GrainBedGridSliceReader::GrainBedGridSliceReader(CompressedInStream& in, std::uint32_t nx,
                                                 std::uint32_t ny, std::uint32_t nz,
                                                 LoggerBase& logger)
    : in_(in),
      logger_(logger),
      nx_(nx),
      ny_(ny),
      nz_(nz),
      records_(static_cast<std::size_t>(nx) * ny),
      buffer_(records_ * grain_bed_grid::kRecordBytes) {}

const char* GrainBedGridSliceReader::next() {
    const std::size_t got = in_.read(buffer_.data(), buffer_.size());
    if (got != buffer_.size()) {
        logger_.error("Binary grain bed grid file corrupted. Did not find enough data for a grid");
        // A file cut short (a copy or a download that stopped) is the usual cause; the
        // sizes tell how much is missing.
        const std::uint64_t missing =
            static_cast<std::uint64_t>(nz_ > slicesRead_ ? nz_ - slicesRead_ : 1) * buffer_.size() -
            got;
        throw FileAccessException(
            "Did not find enough data for a grid",
            in_.fileName() + ": its header gives " + std::to_string(nx_) + " x " +
                std::to_string(ny_) + " x " + std::to_string(nz_) + " cells of " +
                std::to_string(grain_bed_grid::kRecordBytes) + " bytes, but slice z = " +
                std::to_string(slicesRead_) + " holds only " + std::to_string(got) + " of its " +
                std::to_string(buffer_.size()) + " bytes and " + std::to_string(missing) +
                " bytes are missing: the file was cut short (an incomplete copy or download?)");
    }
    ++slicesRead_;
    return buffer_.data();
}

}  // namespace nmr
