#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "walk/random_stream.h"

namespace nmr {

TEST(RandomStream, InlineReaderAndLibraryDrawsShareOneSequence) {
    // 1000 draws cross two block ends (382 each); the way of drawing changes every three
    // draws, so every way meets a regeneration.
    RandomStream reference(4711u), stream(4711u);
    auto draw = [&stream](int way) {
        if (way == 0) return stream.next();
        if (way == 1) return dsfmt_genrand_close1_open2(&stream.state());
        RandomStream::Reader reader(stream);  // writes its index back when it ends
        return reader.available() > 0 ? reader.nextUnchecked() : reader.next();
    };
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(draw(i / 3 % 3), dsfmt_genrand_close1_open2(&reference.state())) << i;
}

TEST(RandomStream, RankAddsToTheSeedAsUnsigned32Bit) {
    EXPECT_EQ(streamSeed(INT32_MAX, 1), 0x80000000u);
    // A run with seed + 1 draws on rank 0 what the run with the seed draws on rank 1.
    RandomStream rankOne(streamSeed(8008, 1)), nextRun(streamSeed(8009, 0));
    for (int i = 0; i < 400; ++i) ASSERT_EQ(rankOne.next(), nextRun.next()) << i;
}

TEST(RandomStream, HeapAllocationsAreSixteenByteAligned) {
    // The library regenerates with aligned 128-bit moves: a misaligned state faults.
    std::vector<RandomStream> streams;
    for (std::uint32_t seed = 0; seed < 5; ++seed) streams.emplace_back(seed);
    for (auto& s : streams) EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&s) % 16, 0u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(std::make_unique<RandomStream>(7u).get()) % 16, 0u);
}

}  // namespace nmr
