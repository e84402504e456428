#pragma once

#include <Eigen/Dense>
#include <string>
#include <vector>

#include "inversion/map_inversion.h"

namespace nmr::inversion {

// A two-dimensional measurement: amplitude(i, j) at first[i] (a b value in s/m^2 or a
// recovery time in ms) and times[j] (echo times, ms).
struct Data2d {
    std::vector<double> first;
    std::vector<double> times;
    Eigen::MatrixXd amplitude;  // first.size() x times.size()
};

// Assembles a data set from rows "<first> <time> <amplitude>" in the order of the files:
// the first column repeats in blocks (every echo of the first b, then every echo of the
// second, ...) and each block holds the times of the first block in the same order
// (within a relative 1e-6; the first block's are kept).
// Every failure is an nmr::Exception naming the row by the `where` given with it.
class BlockAssembler {
public:
    // source names the whole input in messages ("data.txt", "the array").
    explicit BlockAssembler(std::string source);
    void add(double first, double time, double amplitude, const std::string& where);
    // Throws when the input is empty, has fewer than 2 blocks or fewer than 2 times, or its
    // last block is short.
    Data2d finish();

private:
    void closeBlock();

    std::string source_;
    Data2d data_;
    std::vector<double> values_;  // row by row, so block-major
    std::string blockStart_;      // where the current block began
    std::size_t inBlock_ = 0;     // rows of the current block so far
};

// The three-column file: numbers separated by blanks, tabs or commas, "#" starting a
// comment, blank lines skipped. Negative first columns or times are refused. Throws
// nmr::Exception naming the file and the line.
Data2d readData2d(const std::string& path);

// The data in the layout readData2d reads, nine significant digits. The lines go to
// "<path>.writing", renamed to path once all are written; throws FileAccessException
// naming the path when it cannot be written.
void writeData2d(const std::string& path, const Data2d& data);

// A map as "<axis1> <axis2> <amplitude>", one line per cell, axis 1 in blocks like a data
// file (so a map reads back with readData2d), nine significant digits, written like
// writeData2d.
void writeMap(const std::string& path, const MapResult& map);

}  // namespace nmr::inversion
