#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "walk/recording_walk.h"

namespace nmr::fit {

// The contact histories of a recording walk, kept per walker as a byte stream. For every
// interval in which the walker touched a recorded mineral there is an entry: the slots it
// touched, the gap to the previous entry, the roulettes it passed in this interval if any,
// and a count per touched slot. A mask of no slots ends the walker, followed by the
// interval where it stopped.
//
// Why per walker and not aggregated: a walker's counts keep growing until the roulette
// stops it, so by then nearly every walker's history differs from every other's and
// grouping walkers by history saves nothing; the history of one walker, on the other hand,
// is short (some tens of entries) and made of small numbers. So an entry is packed into as
// few whole bytes as it needs, and the most common kind (one slot of the first four, a gap
// of 0 or 1, a count of at most 16, no roulette) is a single byte:
//   0 s s g c c c c          short entry: slot s, gap g, count c + 1
//   1 r G G m m m m          entry: slots in mask m (more mask bytes follow when there
//                            are over four slots), gap G (3: a varint gap - 3 follows),
//                            roulettes passed r (1: a varint count - 1 follows), then
//                            per slot a varint count - 1
//   1 0 0 0 0 0 0 0 + 2 bytes   end of the walker, then its stop interval (little-endian)
// On a grain pack with three relaxing minerals and the floor at half their relaxivities a
// walker takes about 80 bytes, so 10^6 walkers fit in well under 100 MB. Whole bytes
// rather than nibbles: nibbles were about as small and twice as slow to read. This is the
// form that is recorded, gathered and saved; a fit decodes it once into fixed-width
// records (see ExpandedHistories) and evaluates those.
//
// Walkers are kept in chunks of consecutive walkers: an evaluation reports one sum per
// chunk, and the chunks are the units a bootstrap resamples.
struct HistoryChunk {
    std::vector<std::uint8_t> bytes;
    std::uint32_t walkers = 0;
};

struct ContactHistories {
    std::uint32_t slots = 0;
    std::uint32_t fineIntervals = 0;  // K of the schedule: intervals below it are fine-step
    std::vector<HistoryChunk> chunks;
    // Largest count per slot in one interval of the fine and of the coarse phase: the
    // length of the tables of powers an evaluation needs.
    std::vector<std::uint32_t> largestFine;
    std::vector<std::uint32_t> largestCoarse;

    std::uint64_t walkers() const;
    std::uint64_t bytes() const;
    // Appends another set of histories recorded with the same plan and schedule.
    void append(ContactHistories&& other);
};

// Receives one walker after another from recordWalker and appends them to `out`, starting
// a new chunk every chunkWalkers walkers.
class HistoryRecorder {
public:
    HistoryRecorder(ContactHistories& out, std::uint32_t slots, std::uint32_t fineIntervals,
                    std::uint32_t chunkWalkers);

    // The sink interface of recordWalker.
    void interval(std::uint32_t i, const std::uint32_t* counts, int level);
    void stop(StopInterval interval);

private:
    void startWalkerIfNeeded();
    void put(std::uint32_t byte) {
        out_.chunks.back().bytes.push_back(static_cast<std::uint8_t>(byte));
    }
    void putVarint(std::uint32_t value);

    ContactHistories& out_;
    std::uint32_t chunkWalkers_;
    std::uint32_t slots_;
    std::int64_t previous_ = -1;
    int level_ = 0;
    bool open_ = false;
};

// Decodes every walker of every chunk with bounds checks: the intervals rise below
// `intervals`, the schedule's length, no stream runs past its chunk, and no count passes the
// largest counts recorded for its slot and phase. Throws nmr::Exception otherwise. Histories
// that come from outside (a file) pass through here before anything reads them unchecked.
void checkHistories(const ContactHistories& histories, std::uint32_t intervals = kIntervalCount);

[[noreturn]] void failDamagedHistories();

// Decodes one walker's history starting at p and returns where the next walker starts.
// For every entry it calls onCount(interval, slot, count) for each slot touched, then
// onEntry(interval, levelUp) with the roulettes passed in that interval; finally it sets
// `stop` to the interval where the walker stopped. Checked decoding throws nmr::Exception
// instead of reading past `end` or naming a slot beyond `slots`.
template <bool Checked, typename OnCount, typename OnEntry>
const std::uint8_t* decodeWalker(const std::uint8_t* p, const std::uint8_t* end,
                                 std::uint32_t slots, OnCount&& onCount, OnEntry&& onEntry,
                                 StopInterval& stop) {
    auto byte = [&p, end]() -> std::uint32_t {
        if (Checked && p == end) failDamagedHistories();
        return *p++;
    };
    // Seven bits a byte, low first, the top bit set while more follow.
    auto varint = [&byte]() {
        std::uint32_t value = 0;
        for (unsigned shift = 0;; shift += 7) {
            if (Checked && shift > 28) failDamagedHistories();
            const std::uint32_t b = byte();
            value |= (b & 0x7Fu) << shift;
            if (b < 0x80) return value;
        }
    };
    std::uint32_t interval = ~0u;  // the entry before the first: interval -1
    while (true) {
        const std::uint32_t b = byte();
        if (b < 0x80) {
            interval += ((b >> 4) & 1u) + 1;
            const std::uint32_t slot = (b >> 5) & 3u;
            if (Checked && slot >= slots) failDamagedHistories();
            onCount(interval, slot, (b & 15u) + 1);
            onEntry(interval, 0u);
            continue;
        }
        std::uint32_t mask = b & 15u;
        if (slots > 4) mask |= byte() << 4;
        if (slots > 12) mask |= byte() << 12;
        if (mask == 0) break;
        if (Checked && (mask >> slots) != 0) failDamagedHistories();
        std::uint32_t gap = (b >> 4) & 3u;
        if (gap == 3) gap = 3 + varint();
        const std::uint32_t levelUp = (b & 0x40u) ? varint() + 1 : 0;
        interval += gap + 1;
        for (; mask != 0; mask &= mask - 1) {
            onCount(interval, static_cast<std::uint32_t>(__builtin_ctz(mask)), varint() + 1);
        }
        onEntry(interval, levelUp);
    }
    const std::uint32_t lo = byte();
    stop = lo | (byte() << 8);
    return p;
}

}  // namespace nmr::fit
