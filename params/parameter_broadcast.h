#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "params/nmr_parameters.h"

namespace nmr {

// Bytes of the packed parameter message: 2 ints, 9 doubles, two doubles per mineral,
// 6 unsigned bounds and one char (mineral count * 16 + 105).
int packedParameterSize();

// Only what every process needs for the walk travels: counts, seed, the nine physical
// doubles, both relaxivity tables for every mineral code, and the region. The grid name,
// the oil components and the T2 axis stay on process 0, which alone loads the grid and
// inverts the decay curve; on the others those fields keep their construction values.
//
// A mineral the record's table does not hold is packed as 0.0, the value its lookup
// yields, and arrives as an explicit entry. A record without a region is packed with a
// fresh, disabled region. Needs an initialised MPI.
std::vector<char> packParameters(const NuclearMagneticResonanceParameters& parameters);
std::unique_ptr<NuclearMagneticResonanceParameters> unpackParameters(
    const std::vector<char>& buffer);

// Collective. Process 0 passes its record, which it gets back; every other process passes
// nothing and receives a new record built from the message. Called only with two or more
// processes.
std::unique_ptr<NuclearMagneticResonanceParameters> broadcastParameters(
    int rank, std::unique_ptr<NuclearMagneticResonanceParameters> parameters);

// Collective. Process 0 reads path; a failure is printed on its console as
// "An error occurred while reading the input file <path>: <text>" and every process gets
// nothing. Otherwise every process gets the record (the full one on process 0, the
// broadcast part elsewhere) only if every process managed to build one.
std::unique_ptr<NuclearMagneticResonanceParameters> readParametersCollectively(
    int rank, int size, const std::string& path, std::ostream& console);

}  // namespace nmr
