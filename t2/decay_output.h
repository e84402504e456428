#pragma once

#include <string>
#include <vector>

namespace nmr::t2 {

// Fixed output names in the working directory; nothing in a run changes them.
inline constexpr char kDecayFileName[] = "./T2decay.out";
inline constexpr char kInversionFileName[] = "./T2inversion.out";

// Writes "x y" per line for every index of x (y must be at least as long), numbers in
// the stream's default format, no header. An existing file is replaced, and only by a
// complete one: the lines go to "<path>.writing", renamed to path when all are written.
// Returns false, writing nothing, when the file cannot be opened (or renamed into
// place); true otherwise. Throws FileAccessException "Unable to write output file: " +
// path when the lines cannot all be written (a full disk), leaving no file behind.
bool writeColumns(const std::vector<double>& x, const std::vector<double>& y,
                  const std::string& path);

// The text writeColumns writes, for writers that report their own failures.
std::string formatColumns(const std::vector<double>& x, const std::vector<double>& y);

}  // namespace nmr::t2
