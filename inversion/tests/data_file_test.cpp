// The 2-D data files: what a well-formed file gives, and a refusal with the file and line
// for every way a file can break the block layout.

#include <gtest/gtest.h>

#include "inversion/data_file.h"
#include "testutil/checks.h"
#include "testutil/temp_dir.h"

namespace nmr::inversion {
namespace {

using test::TempDir;
using test::thrownMessage;

TEST(Data2dFile, BlocksBecomeRowsAndAMapReadsBackAsData) {
    TempDir dir;
    const std::string path = dir.file("data.txt");
    test::writeFile(path,
                    "# b (s/m^2), time (ms), amplitude\n"
                    "1e8, 0.2, 0.9\n1e8\t0.4  0.8\n\n"
                    "5e8 0.2 0.5 # second block\n5e8 0.4 0.25\n"
                    "2e9 0.2000000001 0.1\n2e9 0.4 -0.01\n");
    const Data2d d = readData2d(path);
    EXPECT_EQ(d.first, (std::vector<double>{1e8, 5e8, 2e9}));
    EXPECT_EQ(d.times, (std::vector<double>{0.2, 0.4}));
    ASSERT_EQ(d.amplitude.rows(), 3);
    ASSERT_EQ(d.amplitude.cols(), 2);
    EXPECT_EQ(d.amplitude(1, 0), 0.5);
    EXPECT_EQ(d.amplitude(2, 1), -0.01);

    MapResult map;
    map.axis1 = {1e-9, 2e-9, 4e-9};
    map.axis2 = {1.0, 10.0};
    map.map = Eigen::MatrixXd{{0.0, 0.125}, {0.5, 1.0 / 3.0}, {2.0, 0.0}};
    writeMap(dir.file("DT2map.out"), map);
    EXPECT_EQ(test::readFile(dir.file("DT2map.out")).substr(0, 37),
              "1e-09 1 0\n1e-09 10 0.125\n2e-09 1 0.5\n");
    const Data2d back = readData2d(dir.file("DT2map.out"));
    EXPECT_EQ(back.first, map.axis1);
    EXPECT_EQ(back.times, map.axis2);
    EXPECT_NEAR(back.amplitude(1, 1), 1.0 / 3.0, 1e-9);  // nine significant digits
    EXPECT_FALSE(std::filesystem::exists(dir.file("DT2map.out.writing")));
}

TEST(Data2dFile, EveryBrokenLayoutIsNamedByFileAndLine) {
    TempDir dir;
    const std::string path = dir.file("bad.txt");
    const std::pair<std::string, std::string> cases[] = {
        {"", "No data lines in the 2-D data file: " + path},
        {"# comment only\n\n", "No data lines in the 2-D data file: " + path},
        {"1e8 0.2 0.9\n1e8 0.4 x\n", "Not a number in " + path + " line 2: 1e8 0.4 x"},
        {"1e8 0.2 0.9 7\n",
         "Expected 3 numbers (b in s/m^2 or recovery time in ms, time in ms, "
         "amplitude) in " +
             path + " line 1: 1e8 0.2 0.9 7"},
        {"1e8 -0.2 0.9\n",
         "Negative b, recovery time or time in " + path + " line 1: 1e8 -0.2 0.9"},
        {"1 0.2 0.9\n1 0.4 0.8\n2 0.2 0.5\n2 0.4 0.4\n1 0.2 0.3\n",
         "The first column does not repeat in blocks: 1 in " + path +
             " line 5 comes back after its block ended"},
        {"1 0.2 0.9\n2 0.2 0.5\n1 0.4 0.8\n", "The first column does not repeat in blocks: 1 in " +
                                                  path +
                                                  " line 3 comes back after its block ended"},
        {"1 0.2 0.9\n1 0.4 0.8\n2 0.2 0.5\n2 0.6 0.4\n",
         "Times differ from those of the first block in " + path +
             " line 4: 0.6 where the first block has 0.4"},
        {"1 0.2 0.9\n1 0.4 0.8\n2 0.2 0.5\n3 0.2 0.4\n3 0.4 0.3\n",
         "The block of 2 that starts in " + path +
             " line 3 ends after 1 of the 2 times of the "
             "first block"},
        {"1 0.2 0.9\n1 0.4 0.8\n2 0.2 0.5\n2 0.4 0.4\n2 0.6 0.3\n",
         "The block of 2 has more rows than the 2 of the first block in " + path + " line 5"},
        {"1 0.2 0.9\n1 0.4 0.8\n2 0.2 0.5\n", "The block of 2 that starts in " + path +
                                                  " line 3 ends after 1 of the 2 times of the "
                                                  "first block"},
        {"1 0.4 0.9\n1 0.2 0.8\n",
         "Times must increase within the first block in " + path + " line 2: 0.2 after 0.4"},
        {"1 0.2 0.9\n1 0.4 0.8\n", "Fewer than 2 blocks in " + path +
                                       ": the first column never changes (one block of 2 rows)"},
        {"1 0.2 0.9\n2 0.2 0.8\n", "Fewer than 2 times per block in " + path},
    };
    for (const auto& [content, message] : cases) {
        test::writeFile(path, content);
        EXPECT_EQ(thrownMessage([&] { readData2d(path); }), message) << content;
    }
    EXPECT_EQ(thrownMessage([&] { readData2d(dir.file("missing.txt")); }),
              "Cannot open the 2-D data file: " + dir.file("missing.txt"));
}

}  // namespace
}  // namespace nmr::inversion
