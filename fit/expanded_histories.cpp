#include "fit/expanded_histories.h"

#include <algorithm>

namespace nmr::fit {

ExpandedHistories expandHistories(const ContactHistories& histories,
                                  std::uint32_t largestTableCount) {
    ExpandedHistories out;
    const std::uint32_t slots = histories.slots;
    if (slots > kLargestRecordedSlots) failDamagedHistories();
    largestTableCount = std::min(largestTableCount, ExpandedHistories::kLargestTableCount);
    out.slots = slots;
    std::uint32_t next = 1;  // after the stop's entry
    for (std::uint32_t phase = 0; phase < 2; ++phase) {
        const auto& largest = phase == 0 ? histories.largestFine : histories.largestCoarse;
        for (std::uint32_t s = 0; s < slots; ++s) {
            out.tableBase.push_back(next);
            out.tableCount.push_back(std::min(largest[s], largestTableCount));
            next += out.tableCount.back() + 1;
        }
    }
    out.levelBase = next;

    const std::uint32_t fineIntervals = histories.fineIntervals;
    auto record = [](std::uint32_t interval, std::uint32_t entry) {
        if (interval > ExpandedHistories::kIntervalMask) failDamagedHistories();
        return (entry << ExpandedHistories::kIntervalBits) | interval;
    };
    for (const HistoryChunk& chunk : histories.chunks) {
        ExpandedChunk& expanded = out.chunks.emplace_back();
        expanded.walkers = chunk.walkers;
        std::vector<std::uint32_t>& records = expanded.records;
        auto count = [&](std::uint32_t interval, std::uint32_t slot, std::uint32_t n) {
            const std::size_t table = (interval < fineIntervals ? 0 : slots) + slot;
            const std::uint32_t base = out.tableBase[table];
            const std::uint32_t most = out.tableCount[table];
            if (n > most && most == 0) failDamagedHistories();
            for (; n > most; n -= most) records.push_back(record(interval, base + most));
            records.push_back(record(interval, base + n));
        };
        auto entry = [&](std::uint32_t interval, std::uint32_t up) {
            if (up == 0) return;
            if (up > kLargestRouletteLevel) failDamagedHistories();
            out.largestLevelUp = std::max(out.largestLevelUp, up);
            records.push_back(record(interval, out.levelBase + up));
        };
        const std::uint8_t* p = chunk.bytes.data();
        const std::uint8_t* end = p + chunk.bytes.size();
        for (std::uint32_t w = 0; w < chunk.walkers; ++w) {
            StopInterval stop = 0;
            p = decodeWalker<false>(p, end, slots, count, entry, stop);
            records.push_back(record(stop, ExpandedHistories::kStopEntry));
        }
        records.shrink_to_fit();
    }
    return out;
}

}  // namespace nmr::fit
