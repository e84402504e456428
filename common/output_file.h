#pragma once

#include <string>

namespace nmr {

// Output files of the companion programs: a folder that does not exist yet is made before
// any work is done, and a failure says what the operating system said, so a long run
// neither ends with "cannot write" and no reason nor writes into the void.

// The operating system's text for an errno value ("No such file or directory").
std::string systemErrorText(int error);

// Makes the folder that will hold `path`, with its parents, when it does not exist, and
// checks that a file can be created there. Call it before the work whose result goes to
// `path`. Throws FileAccessException "Cannot write <path>: <reason>".
void prepareOutputFolder(const std::string& path);

// Writes text to path, whole or not at all: through "<path>.writing", renamed into place.
// Throws FileAccessException "Cannot write <path>: <reason>", leaving no file behind.
void writeTextFile(const std::string& path, const std::string& text);

}  // namespace nmr
