#include <gtest/gtest.h>

#include "grid/mineral.h"
#include "grid/mineral_value_map.h"

namespace nmr {
namespace {

TEST(Mineral, NameTableHoldsTheStoredCodes) {
    const std::vector<std::pair<Mineral::Type, std::string>> expected = {
        {Mineral::Pore, "Pore"},
        {Mineral::Clay, "Clay"},
        {Mineral::QuartzCement, "Quartz cement"},
        {Mineral::Quartz, "Quartz"},
        {Mineral::Mica, "Mica"},
        {Mineral::FeldsparsDissolvable, "Feldspars (dissolvable)"},
        {Mineral::CarbonateCement, "Carbonate cement"},
        {Mineral::Pyrite, "Pyrite"},
        {Mineral::FeldsparsNonDissolvable, "Feldspars (non-dissolvable)"},
        {Mineral::Matrix, "Matrix"},
        {Mineral::Unspecified1, "Unspecified 1"},
        {Mineral::Unspecified2, "Unspecified 2"},
        {Mineral::Unspecified3, "Unspecified 3"},
        {Mineral::Unspecified4, "Unspecified 4"},
    };
    ASSERT_EQ(Mineral::count(), 14);
    ASSERT_EQ(Mineral::allTypes().size(), 14u);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(static_cast<std::uint32_t>(expected[i].first), i);
        EXPECT_EQ(Mineral::allTypes().at(i), expected[i].first);
        EXPECT_EQ(Mineral::name(expected[i].first), expected[i].second);
        EXPECT_EQ(Mineral::fromName(expected[i].second), expected[i].first);
        EXPECT_TRUE(Mineral::isKnownName(expected[i].second));
    }
    EXPECT_EQ(Mineral::name(Mineral::Reserved), "");
    EXPECT_EQ(Mineral::name(Mineral::Unknown), "");
    // Lookup is exact: parameter files and grid headers spell names as the table does.
    for (const char* near : {"quartz", "Quartz ", "", "Quartzcement"}) {
        EXPECT_EQ(Mineral::fromName(near), Mineral::Unknown) << near;
        EXPECT_FALSE(Mineral::isKnownName(near)) << near;
    }
    // Codes 14 and 15 fit the cell's 4-bit field but name no mineral.
    EXPECT_TRUE(Mineral::isValid(13));
    for (std::uint32_t code : {14u, 15u, 0xFFFFFFFFu}) EXPECT_FALSE(Mineral::isValid(code));
}

TEST(GrainBedGridCell, FieldsOfTheCellWord) {
    struct Case {
        std::uint32_t word, mineral, grain, state;
        bool pore;
    };
    for (const Case c :
         {Case{0x03000005u, 3, 5, 0, false}, Case{0x00000000u, 0, 0, 0, true},
          Case{0x4A000010u, 10, 16, 4, false}, Case{0x3F123456u, 15, 0x123456, 3, false},
          Case{0x30FFFFFFu, 0, 0xFFFFFF, 3, true}}) {
        const GrainBedGridCell cell{c.word};
        EXPECT_EQ(cell.mineral(), c.mineral) << std::hex << c.word;
        EXPECT_EQ(cell.grainNumber(), c.grain) << std::hex << c.word;
        EXPECT_EQ(cell.state(), c.state) << std::hex << c.word;
        EXPECT_EQ(cell.isPore(), c.pore) << std::hex << c.word;
        EXPECT_EQ(GrainBedGridCell::make(c.grain, c.mineral, c.state).word, c.word);
    }
}

// A mineral the parameter file does not name reads as 0 and is then present, so that the
// broadcast sends it; valueOr looks without adding.
TEST(MineralValueMap, AbsentMineralReadsZeroAndIsThenPresent) {
    MineralValueMap<double> map;
    map.set(Mineral::Clay, 2.3e-9);
    EXPECT_DOUBLE_EQ(map.value(Mineral::Clay), 2.3e-9);
    EXPECT_DOUBLE_EQ(map.valueOr(Mineral::Quartz, -1.0), -1.0);
    EXPECT_FALSE(map.contains(Mineral::Quartz));
    EXPECT_DOUBLE_EQ(map.value(Mineral::Quartz), 0.0);
    EXPECT_TRUE(map.contains(Mineral::Quartz));
}

}  // namespace
}  // namespace nmr
