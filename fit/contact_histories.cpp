#include "fit/contact_histories.h"

#include <algorithm>

#include "common/exception.h"

namespace nmr::fit {

std::uint64_t ContactHistories::walkers() const {
    std::uint64_t n = 0;
    for (const auto& chunk : chunks) n += chunk.walkers;
    return n;
}

std::uint64_t ContactHistories::bytes() const {
    std::uint64_t n = 0;
    for (const auto& chunk : chunks) n += chunk.bytes.size();
    return n;
}

void ContactHistories::append(ContactHistories&& other) {
    for (auto& chunk : other.chunks) chunks.push_back(std::move(chunk));
    largestFine.resize(slots, 0);
    largestCoarse.resize(slots, 0);
    for (std::size_t s = 0; s < slots && s < other.largestFine.size(); ++s) {
        largestFine[s] = std::max(largestFine[s], other.largestFine[s]);
        largestCoarse[s] = std::max(largestCoarse[s], other.largestCoarse[s]);
    }
}

HistoryRecorder::HistoryRecorder(ContactHistories& out, std::uint32_t slots,
                                 std::uint32_t fineIntervals, std::uint32_t chunkWalkers)
    : out_(out), chunkWalkers_(std::max<std::uint32_t>(1, chunkWalkers)), slots_(slots) {
    out_.slots = slots;
    out_.fineIntervals = fineIntervals;
    out_.largestFine.resize(slots, 0);
    out_.largestCoarse.resize(slots, 0);
}

void HistoryRecorder::startWalkerIfNeeded() {
    if (open_) return;
    open_ = true;
    if (out_.chunks.empty() || out_.chunks.back().walkers == chunkWalkers_) {
        out_.chunks.emplace_back();
    }
}

void HistoryRecorder::putVarint(std::uint32_t value) {
    while (value >= 0x80) {
        put((value & 0x7Fu) | 0x80u);
        value >>= 7;
    }
    put(value);
}

void HistoryRecorder::interval(std::uint32_t i, const std::uint32_t* counts, int level) {
    startWalkerIfNeeded();
    std::uint32_t mask = 0;
    for (std::uint32_t s = 0; s < slots_; ++s) {
        if (counts[s] != 0) mask |= 1u << s;
    }
    const auto gap = static_cast<std::uint32_t>(static_cast<std::int64_t>(i) - previous_ - 1);
    const auto up = static_cast<std::uint32_t>(level - level_);
    const bool finePhase = i < out_.fineIntervals;
    for (std::uint32_t s = 0; s < slots_; ++s) {
        auto& largest = finePhase ? out_.largestFine[s] : out_.largestCoarse[s];
        largest = std::max(largest, counts[s]);
    }
    previous_ = i;
    level_ = level;

    const auto slot = static_cast<std::uint32_t>(__builtin_ctz(mask));
    if ((mask & (mask - 1)) == 0 && slot < 4 && gap <= 1 && up == 0 && counts[slot] <= 16) {
        put((slot << 5) | (gap << 4) | (counts[slot] - 1));
        return;
    }
    put(0x80u | (up > 0 ? 0x40u : 0u) | (std::min(gap, 3u) << 4) | (mask & 15u));
    if (slots_ > 4) put((mask >> 4) & 0xFFu);
    if (slots_ > 12) put((mask >> 12) & 15u);
    if (gap >= 3) putVarint(gap - 3);
    if (up > 0) putVarint(up - 1);
    for (std::uint32_t s = 0; s < slots_; ++s) {
        if (counts[s] != 0) putVarint(counts[s] - 1);
    }
}

void HistoryRecorder::stop(StopInterval interval) {
    startWalkerIfNeeded();
    put(0x80u);
    if (slots_ > 4) put(0);
    if (slots_ > 12) put(0);
    put(interval & 0xFFu);
    put(interval >> 8);
    ++out_.chunks.back().walkers;
    previous_ = -1;
    level_ = 0;
    open_ = false;
}

void failDamagedHistories() { throw Exception("Contact histories are damaged"); }

void checkHistories(const ContactHistories& histories, std::uint32_t intervals) {
    if (histories.slots > kLargestRecordedSlots ||
        histories.largestFine.size() != histories.slots ||
        histories.largestCoarse.size() != histories.slots)
        failDamagedHistories();
    for (const HistoryChunk& chunk : histories.chunks) {
        const std::uint8_t* p = chunk.bytes.data();
        const std::uint8_t* end = p + chunk.bytes.size();
        auto count = [&](std::uint32_t interval, std::uint32_t slot, std::uint32_t n) {
            const bool fine = interval < histories.fineIntervals;
            const auto& largest = fine ? histories.largestFine : histories.largestCoarse;
            if (interval >= intervals || n > largest[slot]) failDamagedHistories();
        };
        for (std::uint32_t w = 0; w < chunk.walkers; ++w) {
            std::uint64_t level = 0;
            auto entry = [&level, intervals](std::uint32_t interval, std::uint32_t up) {
                level += up;
                if (interval >= intervals || level > kLargestRouletteLevel) failDamagedHistories();
            };
            StopInterval stop = 0;
            p = decodeWalker<true>(p, end, histories.slots, count, entry, stop);
            if (stop > intervals) failDamagedHistories();
        }
    }
}

}  // namespace nmr::fit
