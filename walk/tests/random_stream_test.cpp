#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "walk/random_stream.h"

namespace nmr {
namespace {

TEST(RandomStream, InlineReaderAndLibraryDrawsShareOneSequence) {
    RandomStream reference(4711u), stream(4711u);
    // 1000 draws cross two block ends (382 each); the way of drawing changes every
    // few draws, so every way meets a regeneration.
    for (int i = 0; i < 1000; ++i) {
        const double expected = dsfmt_genrand_close1_open2(&reference.state());
        switch ((i / 3) % 3) {
            case 0:
                ASSERT_EQ(stream.next(), expected) << i;
                break;
            case 1:
                ASSERT_EQ(dsfmt_genrand_close1_open2(&stream.state()), expected) << i;
                break;
            default: {
                // A reader must write its index back when it ends.
                RandomStream::Reader reader(stream);
                ASSERT_EQ(reader.available() > 0 ? reader.nextUnchecked() : reader.next(), expected)
                    << i;
            }
        }
    }
}

TEST(RandomStream, SeedOfRankAddsAsUnsigned32Bit) {
    EXPECT_EQ(streamSeed(8008, 0), 8008u);
    EXPECT_EQ(streamSeed(-1, 1), 0u);
    EXPECT_EQ(streamSeed(INT32_MAX, 1), 0x80000000u);
    EXPECT_EQ(streamSeed(INT32_MIN, 2), 0x80000002u);
    // Runs whose seeds differ by one share a stream across neighbouring ranks, and
    // differ from the other rank.
    RandomStream rankOne(streamSeed(8008, 1)), nextSeed(streamSeed(8009, 0));
    RandomStream rankZero(streamSeed(8008, 0));
    bool anyDifferent = false;
    for (int i = 0; i < 800; ++i) {
        const double a = rankOne.next();
        ASSERT_EQ(a, nextSeed.next()) << i;
        anyDifferent |= a != rankZero.next();
    }
    EXPECT_TRUE(anyDifferent);
}

TEST(RandomStream, HeapAllocationsAreSixteenByteAligned) {
    // The library regenerates with aligned 128-bit moves, so a misaligned state faults.
    // Array elements stay aligned only if the size is a multiple of the alignment.
    std::vector<RandomStream> streams;
    for (std::uint32_t seed = 0; seed < 5; ++seed) streams.emplace_back(seed);
    auto single = std::make_unique<RandomStream>(7u);
    std::vector<const void*> addresses = {single.get()};
    for (auto& s : streams) {
        addresses.push_back(&s);
        for (int i = 0; i < 400; ++i) s.next();
    }
    for (const void* p : addresses) EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
}

}  // namespace
}  // namespace nmr
