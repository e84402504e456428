#include "io/compressed_in_stream_boost.h"
#include "io/compressed_in_stream_legacy.h"
#include "io_test_support.h"

namespace nmr::test {
namespace {

std::string sampleContent(std::size_t size) {
    std::string s(size, '\0');
    std::uint32_t state = 12345;
    for (std::size_t i = 0; i < size; ++i) {
        state = state * 1103515245u + 12345u;
        s[i] = (i % 3 == 0) ? static_cast<char>(state >> 24) : "grid\n"[i % 5];
    }
    return s;
}

using StreamTest = TempDirTest;

TEST_F(StreamTest, GzipRoundTripThroughFactoryReturnsExactBytes) {
    // Larger than the writer's 256 KiB buffers and not a multiple of the 4096-byte reader
    // buffer, so both sides cross buffer edges many times.
    const std::string content = sampleContent(600'001);
    writeGzip(path("g.binc"), content);
    auto in = openCompressedInStream(path("g.binc"));
    ASSERT_TRUE(in->good());
    EXPECT_NE(dynamic_cast<CompressedInStreamBoost*>(in.get()), nullptr);
    EXPECT_EQ(readAllThrough(*in), content);
    EXPECT_TRUE(in->eof());
}

TEST_F(StreamTest, GzipOutputIsByteForByteDeterministic) {
    const std::string content = sampleContent(300'000);
    writeGzip(path("a"), content);
    CompressedOutStream pieces;  // same bytes written in 4-byte pieces plus flushes
    ASSERT_TRUE(pieces.open(path("b")));
    for (std::size_t i = 0; i < content.size(); i += 4) {
        pieces.write(content.data() + i, std::min<std::size_t>(4, content.size() - i));
        if (i % 65536 == 0) pieces.flush();
    }
    pieces.close();
    const std::string a = readRaw(path("a"));
    EXPECT_EQ(a, readRaw(path("b")));
    // Magic, deflate, no flags, mtime 0, no extra flags at level 3, unknown OS.
    EXPECT_EQ(a.substr(0, 10), std::string("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\xff", 10));
}

TEST_F(StreamTest, LegacyFileIsReadChunkByChunk) {
    const std::string content = sampleContent(10'000) + "\nlast line\n";
    writeRaw(path("old.binc"), legacyFile(content, 777));
    RecordingLogger log;
    auto in = openCompressedInStream(path("old.binc"), &log);
    ASSERT_TRUE(in->good());
    auto* legacy = dynamic_cast<CompressedInStreamLegacy*>(in.get());
    ASSERT_NE(legacy, nullptr);
    EXPECT_EQ(legacy->formatVersion(), 1);
    EXPECT_EQ(legacy->compressionLevel(), 6);
    in->ignore(9990, -1);  // lands inside the 13th chunk
    char line[64];
    in->getLine(line, sizeof line, '\n');
    EXPECT_EQ(std::string(line), content.substr(9990, content.find('\n', 9990) - 9990));
    in->ignore(100000, -1);
    EXPECT_TRUE(in->eof());
    EXPECT_TRUE(log.errors.empty());
}

TEST_F(StreamTest, LegacyNameFallsBackToTrailingC) {
    writeRaw(path("only.binc"), legacyFile("from binc", 100));
    writeRaw(path("both.bin"), legacyFile("from bin", 100));
    writeRaw(path("both.binc"), legacyFile("from binc", 100));
    const auto mode = std::ios::in | std::ios::binary;
    for (auto [name, opened, text] : {std::tuple{"only.bin", "only.binc", "from binc"},
                                      std::tuple{"both.bin", "both.bin", "from bin"},
                                      std::tuple{"only.binc", "only.binc", "from binc"}}) {
        CompressedInStreamLegacy in;
        in.open(path(name), mode);
        EXPECT_EQ(in.fileName(), path(opened));
        EXPECT_EQ(readAllThrough(in), text) << name;
    }
    RecordingLogger log;
    CompressedInStreamLegacy in(&log);
    in.open(path("only.binc"), std::ios::in);
    EXPECT_TRUE(RecordingLogger::has(
        log.warnings,
        "CompressedInStreamLegacy only supports std::fstream::in | std::fstream::binary, and "
        "will ignore other options"));
    EXPECT_TRUE(in.good());
}

struct LegacyDamage {
    std::string from, to;  // first occurrence in a good file replaced
    std::string logged;
};

class LegacyDamageTest : public StreamTest, public ::testing::WithParamInterface<LegacyDamage> {};

TEST_P(LegacyDamageTest, LogsTheFormatErrorAndFails) {
    std::string file = legacyFile("0123456789abcdef", 10);
    const LegacyDamage& d = GetParam();
    const std::size_t at = file.find(d.from);
    ASSERT_NE(at, std::string::npos);
    file.replace(at, d.from.size(), d.to);
    writeRaw(path("bad.binc"), file);
    RecordingLogger log;
    CompressedInStreamLegacy in(&log);
    in.open(path("bad.binc"), std::ios::in | std::ios::binary);
    readAllThrough(in);
    EXPECT_TRUE(in.failed());
    EXPECT_TRUE(RecordingLogger::has(log.errors, d.logged)) << d.logged;
}

INSTANTIATE_TEST_SUITE_P(
    Tags, LegacyDamageTest,
    ::testing::Values(
        LegacyDamage{"500124", "500125", "This is not a compressed file."},
        LegacyDamage{"393988", "393987", "Error when reading version of compressed file."},
        LegacyDamage{"393989", "393980", "Error when reading compression level."},
        LegacyDamage{"393993", "393000", "Chunk marker value is invalid."},
        LegacyDamage{"393998", "393997", "COMPRESSED_CHUNK_BINARY tag not found."},
        LegacyDamage{"393990", "393900", "COMPRESSED_CHUNK_REAL_SIZE tag not found."},
        LegacyDamage{"393991", "393901", "COMPRESSED_CHUNK_SQUASHED_SIZE tag not found"},
        LegacyDamage{"377594", "377500", "COMPRESSED_CHUNK_BEGIN tag not found."},
        LegacyDamage{"\n377595\n393994", "\n393994", "COMPRESSED_CHUNK_END tag not found."},
        LegacyDamage{"393990 10", "393990 11", "Uncompression of chunk failed."},
        LegacyDamage{"393995", "393000", "Error when reading the number of chunks in file."},
        LegacyDamage{"393996", "393000", "Error when reading the real size of file."},
        LegacyDamage{"393997", "393000", "Error when reading the compressed size of file."},
        LegacyDamage{"393994", "", "Chunk marker value is invalid."}));

TEST_F(StreamTest, DamagedGzipFailsCleanly) {
    const std::string content = sampleContent(200'000);
    writeGzip(path("g"), content);
    const std::string good = readRaw(path("g"));

    writeRaw(path("truncated"), good.substr(0, good.size() / 2));
    auto in = openCompressedInStream(path("truncated"));
    EXPECT_LT(readAllThrough(*in).size(), content.size());
    EXPECT_TRUE(in->failed());

    std::string flipped = good;
    flipped[flipped.size() - 6] ^= 0x55;  // inside the CRC: all data decode, the check fails
    writeRaw(path("crc"), flipped);
    in = openCompressedInStream(path("crc"));
    readAllThrough(*in);
    EXPECT_TRUE(in->failed());

    in = openCompressedInStream(path("does-not-exist"));
    EXPECT_TRUE(in->failed());
}

}  // namespace
}  // namespace nmr::test
