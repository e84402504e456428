#include "inversion/data_file.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "common/exception.h"
#include "common/text.h"

namespace nmr::inversion {

namespace {

// Later blocks may give a time with a rounding of their own: a relative difference up to
// this counts as the same time (the first block's is used).
constexpr double kSameTime = 1e-6;

std::string number(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", v);
    return text;
}

// Writes text to path by way of "<path>.writing", so that path is whole or absent.
void writeWhole(const std::string& path, const std::string& text) {
    const std::string partial = path + ".writing";
    {
        std::ofstream out(partial, std::ios::binary | std::ios::trunc);
        out << text;
        if (!out.flush()) {
            out.close();
            std::error_code ignored;
            std::filesystem::remove(partial, ignored);
            throw FileAccessException("Unable to write output file: " + path);
        }
    }
    std::error_code error;
    std::filesystem::rename(partial, path, error);
    if (error) {
        std::filesystem::remove(partial, error);
        throw FileAccessException("Unable to write output file: " + path);
    }
}

}  // namespace

BlockAssembler::BlockAssembler(std::string source) : source_(std::move(source)) {}

void BlockAssembler::add(double first, double time, double amplitude, const std::string& where) {
    if (data_.first.empty() || first != data_.first.back()) {
        if (!data_.first.empty()) closeBlock();
        if (std::find(data_.first.begin(), data_.first.end(), first) != data_.first.end())
            throw Exception("The first column does not repeat in blocks: " + number(first) +
                            " in " + where + " comes back after its block ended");
        data_.first.push_back(first);
        blockStart_ = where;
        inBlock_ = 0;
    }
    if (data_.first.size() == 1) {
        if (!data_.times.empty() && !(time > data_.times.back()))
            throw Exception("Times must increase within the first block in " + where + ": " +
                            number(time) + " after " + number(data_.times.back()));
        data_.times.push_back(time);
    } else if (inBlock_ >= data_.times.size()) {
        throw Exception("The block of " + number(first) + " has more rows than the " +
                        std::to_string(data_.times.size()) + " of the first block in " + where);
    } else if (std::abs(time - data_.times[inBlock_]) > kSameTime * data_.times[inBlock_]) {
        throw Exception("Times differ from those of the first block in " + where + ": " +
                        number(time) + " where the first block has " +
                        number(data_.times[inBlock_]));
    }
    values_.push_back(amplitude);
    ++inBlock_;
}

void BlockAssembler::closeBlock() {
    if (data_.first.size() > 1 && inBlock_ != data_.times.size())
        throw Exception("The block of " + number(data_.first.back()) + " that starts in " +
                        blockStart_ + " ends after " + std::to_string(inBlock_) + " of the " +
                        std::to_string(data_.times.size()) + " times of the first block");
}

Data2d BlockAssembler::finish() {
    if (data_.first.empty()) throw Exception("No data in " + source_);
    closeBlock();
    if (data_.first.size() < 2)
        throw Exception("Fewer than 2 blocks in " + source_ +
                        ": the first column never changes (one block of " +
                        std::to_string(data_.times.size()) + " rows)");
    if (data_.times.size() < 2) throw Exception("Fewer than 2 times per block in " + source_);
    const auto rows = static_cast<Eigen::Index>(data_.first.size());
    const auto cols = static_cast<Eigen::Index>(data_.times.size());
    // values_ holds one block (one row of the matrix) after another.
    data_.amplitude =
        Eigen::Map<const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>(
            values_.data(), rows, cols);
    return std::move(data_);
}

Data2d readData2d(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw Exception("Cannot open the 2-D data file: " + path);
    BlockAssembler blocks(path);
    std::string line;
    bool any = false;
    for (std::size_t number = 1; std::getline(in, line); ++number) {
        std::string text = line.substr(0, line.find('#'));
        std::replace(text.begin(), text.end(), ',', ' ');
        std::istringstream fields(text);
        std::vector<double> values;
        const std::string where = path + " line " + std::to_string(number);
        for (std::string field; fields >> field;) {
            try {
                values.push_back(parseDouble(field, "number"));
            } catch (const Exception&) {
                throw Exception("Not a number in " + where + ": " + trim(line));
            }
        }
        if (values.empty()) continue;
        if (values.size() != 3)
            throw Exception(
                "Expected 3 numbers (b in s/m^2 or recovery time in ms, time in ms, "
                "amplitude) in " +
                where + ": " + trim(line));
        if (values[0] < 0.0 || values[1] < 0.0)
            throw Exception("Negative b, recovery time or time in " + where + ": " + trim(line));
        blocks.add(values[0], values[1], values[2], where);
        any = true;
    }
    if (!any) throw Exception("No data lines in the 2-D data file: " + path);
    return blocks.finish();
}

void writeData2d(const std::string& path, const Data2d& data) {
    std::string text;
    for (std::size_t i = 0; i < data.first.size(); ++i) {
        const std::string first = number(data.first[i]) + " ";
        for (std::size_t j = 0; j < data.times.size(); ++j) {
            text +=
                first + number(data.times[j]) + " " +
                number(data.amplitude(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(j))) +
                "\n";
        }
    }
    writeWhole(path, text);
}

void writeMap(const std::string& path, const MapResult& map) {
    Data2d cells{map.axis1, map.axis2, map.map};
    writeData2d(path, cells);
}

}  // namespace nmr::inversion
