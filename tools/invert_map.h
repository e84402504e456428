#pragma once

#include <string>

#include "inversion/data_file.h"
#include "tools/option_parser.h"

namespace nmr::tools {

// The options of nmrwalk-invert that only the 2-D inversions take, and the flags that
// choose one.
inline constexpr const char* kMapFlags[] = {"--dt2", "--t1t2"};
inline constexpr const char* kMapOptions[] = {"--noise",  "--map-points", "--d-min", "--d-max",
                                              "--t1-min", "--t1-max",     "--d0"};

// nmrwalk-invert --dt2 FILE or --t1t2 FILE: reads the three-column data, inverts them into
// a D-T2 or T1-T2 map, writes the map (DT2map.out or T1T2map.out, or -o) and its PNG
// beside it, and prints the figures of the inversion. Everything is read and inverted
// before anything is printed or written, so a refusal leaves only its message.
int runMapInversion(const OptionParser& options);

// The D-T2 map of data made by `program` (and written to `source`): DT2map.out and
// DT2map.png in the current folder, on points x points cells over the ranges the data
// resolve, alpha by the rule of nmrwalk-invert, the figures printed; d0 the free-water line
// of the picture. Throws what the inversion or the writing throws, before any output.
void writeDiffusionMap(const inversion::Data2d& data, const std::string& source, int points,
                       double d0, const char* program);

}  // namespace nmr::tools
