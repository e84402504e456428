#pragma once

#include <cstdint>
#include <vector>

#include "fit/contact_histories.h"
#include "walk/step_schedule.h"

namespace nmr::fit {

// The contact histories laid out for evaluating them many times: one fixed-width record
// per factor of a walker's weighted survival, so that an evaluation is a branch-free loop
// over an array instead of a byte-by-byte decode.
//
// A walker's weighted survival is a single running product: every interval with contacts
// multiplies it by q^count per touched mineral (q = 1 - p, p of that phase's step), every
// roulette passed multiplies it by 2^1/4, and the walker's stop sets it to 0. So each record names
// the interval where the factor applies and the factor's place in a table of values that an
// evaluation fills for its relaxivities:
//   bits 0-8    the interval (one past the schedule's last for a walker that never stopped)
//   bits 9-31   the table entry: 0 is the stop (factor 0, then the next walker starts at
//               1); from `tableBase` q^n per phase and slot, n = 0 .. the largest count
//               kept; from `levelBase` the weight of n roulettes passed at once
// A count above kLargestTableCount is split into several factors of the same interval, so
// the table stays small whatever the counts.
//
// Why a second form next to the byte stream: the byte stream's entries have several
// lengths, and the branch on each entry's kind mispredicts often enough that decoding it
// costs about four times the arithmetic. Records take 4 bytes per factor, about 2.7 times
// the byte stream (some 55 factors and 220 bytes a walker on the bundled example), so they
// are made only for a fit, from the byte stream that a recorded walk keeps and saves.
struct ExpandedChunk {
    std::vector<std::uint32_t> records;
    std::uint32_t walkers = 0;
};

struct ExpandedHistories {
    static constexpr unsigned kIntervalBits = 9;
    static constexpr std::uint32_t kIntervalMask = (1u << kIntervalBits) - 1;
    static constexpr std::uint32_t kStopEntry = 0;
    static_assert(kIntervalCount <= kIntervalMask, "an interval must fit in its bits");
    // The largest count per slot and phase a table holds: at most 1 MB of table, filled
    // at every evaluation, even with 16 slots. Counts above it are rare (a walker touching
    // one mineral at nearly every step of a long interval) and cost a record more each.
    static constexpr std::uint32_t kLargestTableCount = 1u << 12;
    static_assert(1 + 2 * kLargestRecordedSlots * (kLargestTableCount + 1) + kLargestRouletteLevel +
                          1 <
                      (1u << (32 - kIntervalBits)),
                  "every table entry must fit in its bits");

    std::uint32_t slots = 0;
    // Entry of q^0 for slot s in the fine (tableBase[s]) and the coarse
    // (tableBase[slots + s]) phase, and the largest count held after it.
    std::vector<std::uint32_t> tableBase;
    std::vector<std::uint32_t> tableCount;
    std::uint32_t levelBase = 0;  // entry of 2^0, the table's last part
    std::uint32_t largestLevelUp = 0;
    std::vector<ExpandedChunk> chunks;

    std::uint32_t tableSize() const { return levelBase + largestLevelUp + 1; }
};

// The records of every walker, chunk for chunk. `largestTableCount` (at most
// kLargestTableCount) is a parameter only so that tests can make the splitting of large
// counts happen. Throws nmr::Exception for histories beyond the limits above, which
// checkHistories also refuses.
ExpandedHistories expandHistories(
    const ContactHistories& histories,
    std::uint32_t largestTableCount = ExpandedHistories::kLargestTableCount);

}  // namespace nmr::fit
