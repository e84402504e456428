#pragma once

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

}  // namespace nmr::tools
