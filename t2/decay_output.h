#pragma once

#include <string>
#include <vector>

namespace nmr::t2 {

// Fixed output names in the working directory; nothing in a run changes them.
inline constexpr char kDecayFileName[] = "./T2decay.out";
inline constexpr char kInversionFileName[] = "./T2inversion.out";

// Writes "x y" per line for every index of x (y must be at least as long), numbers in
// the stream's default format, no header. An existing file is replaced. Each line is
// flushed so that a job killed mid-write leaves whole lines. Returns false, writing
// nothing, when the file cannot be opened; true otherwise.
bool writeColumns(const std::vector<double>& x, const std::vector<double>& y,
                  const std::string& path);

}  // namespace nmr::t2
