#include <array>
#include <tuple>

#include "io/compressed_in_stream_boost.h"
#include "io/compressed_in_stream_legacy.h"
#include "io_test_support.h"

namespace nmr::test {
namespace {

// Text with numbers that do not repeat, so it neither packs down to nothing nor fails to pack.
std::string sampleContent(std::size_t size) {
    std::string s;
    for (std::uint32_t i = 0; s.size() < size; ++i)
        s += std::to_string(i * 2654435761u) + " \n"[i % 7 == 0];
    return s.substr(0, size);
}

using StreamTest = TempDirTest;

TEST_F(StreamTest, GzipIsDeterministicAndRoundTripsThroughTheFactory) {
    // Larger than the writer's 256 KiB buffers and not a multiple of the 4096-byte reader
    // buffer, so both sides cross buffer edges many times.
    const std::string content = sampleContent(600'001);
    writeGzip(path("a"), content);
    CompressedOutStream pieces;  // same bytes written in 4-byte pieces plus flushes
    ASSERT_TRUE(pieces.open(path("b")));
    for (std::size_t i = 0; i < content.size(); i += 4) {
        pieces.write(content.data() + i, std::min<std::size_t>(4, content.size() - i));
        if (i % 65536 == 0) pieces.flush();
    }
    pieces.close();
    const std::string a = readFile(path("a"));
    EXPECT_EQ(a, readFile(path("b")));
    // Magic, deflate, no flags, mtime 0, no extra flags at level 3, unknown OS.
    EXPECT_EQ(a.substr(0, 10), std::string("\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\xff", 10));

    auto in = openCompressedInStream(path("a"));
    EXPECT_NE(dynamic_cast<CompressedInStreamBoost*>(in.get()), nullptr);
    EXPECT_EQ(readAllThrough(*in), content);
    EXPECT_TRUE(in->eof());
}

TEST_F(StreamTest, LegacyFileIsReadChunkByChunkAndFoundUnderTheNameWithC) {
    const std::string content = sampleContent(10'000) + "\nlast line\n";
    writeFile(path("only.binc"), legacyFile(content, 777));
    writeFile(path("both.bin"), legacyFile("from bin", 100));
    writeFile(path("both.binc"), legacyFile("from binc", 100));
    for (auto [name, opened, text] : {std::tuple{"only.bin", "only.binc", content},
                                      std::tuple{"both.bin", "both.bin", std::string("from bin")},
                                      std::tuple{"only.binc", "only.binc", content}}) {
        CompressedInStreamLegacy in;
        in.open(path(name), std::ios::in | std::ios::binary);
        EXPECT_EQ(in.fileName(), path(opened));
        EXPECT_EQ(readAllThrough(in), text) << name;
    }
    RecordingLogger log;
    auto in = openCompressedInStream(path("only.binc"), &log);
    ASSERT_NE(dynamic_cast<CompressedInStreamLegacy*>(in.get()), nullptr);
    in->ignore(9990, -1);  // lands inside the 13th chunk
    char line[64];
    in->getLine(line, sizeof line, '\n');
    EXPECT_EQ(std::string(line), content.substr(9990, content.find('\n', 9990) - 9990));
    in->ignore(100000, -1);
    EXPECT_TRUE(in->eof());
    EXPECT_TRUE(log.errors.empty());
}

TEST_F(StreamTest, DamagedLegacyFilesLogTheFormatError) {
    const std::string good = legacyFile("0123456789abcdef", 10);
    // clang-format off
    const std::vector<std::array<std::string, 3>> cases = {  // replace first a by b: logged
        {"500124", "500125", "This is not a compressed file."},
        {"393993", "393000", "Chunk marker value is invalid."},
        {"\n377595\n393994", "\n393994", "COMPRESSED_CHUNK_END tag not found."},
        {"393990 10", "393990 11", "Uncompression of chunk failed."}};
    // clang-format on
    for (const auto& [from, to, logged] : cases) {
        std::string file = good;
        writeFile(path("bad.binc"), file.replace(file.find(from), from.size(), to));
        RecordingLogger log;
        CompressedInStreamLegacy in(&log);
        in.open(path("bad.binc"), std::ios::in | std::ios::binary);
        readAllThrough(in);
        EXPECT_TRUE(in.failed()) << logged;
        EXPECT_TRUE(RecordingLogger::has(log.errors, logged)) << logged;
    }
}

}  // namespace
}  // namespace nmr::test
