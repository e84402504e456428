#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fit/contact_histories.h"
#include "fit/reweighted_decay.h"

namespace nmr::fit {

// What a recorded walk was made from, as (what, value) pairs in a fixed order: the grid
// file's checksum, the seed, the step and every other setting that shapes the walk. Two
// walks with equal fingerprints are the same walk.
using Fingerprint = std::vector<std::pair<std::string, std::string>>;

// The first difference as a sentence ("the grid file rock.binc has changed", "the seed
// was 8008 and is now 8009"), or empty when the fingerprints agree.
std::string fingerprintDifference(const Fingerprint& recorded, const Fingerprint& now);

struct RecordedWalk {
    Fingerprint fingerprint;
    RecordedRun run;
    ContactHistories histories;
};

// Histories as bytes, for sending them between processes and for the file.
std::vector<std::uint8_t> serialise(const ContactHistories& histories);
// Throws nmr::Exception on bytes that are not a whole set of histories.
ContactHistories deserialise(const std::vector<std::uint8_t>& bytes);

// Writes the file under a temporary name in the same folder and renames it, so that a
// crash never leaves a half-written recording under the real name. Throws
// FileAccessException.
void writeRecordedWalk(const std::string& path, const RecordedWalk& walk);
// Throws FileAccessException for a file that cannot be read, is not a recorded walk of
// this format, or is damaged.
RecordedWalk readRecordedWalk(const std::string& path);

// The format this build writes, and the format of the recorded walk at `path`: nothing for
// a file that cannot be read or is no recorded walk at all.
inline constexpr int kRecordedWalkFormat = 2;
std::optional<int> recordedWalkFormat(const std::string& path);

}  // namespace nmr::fit
