#include <gtest/gtest.h>

#include "grid/mineral.h"
#include "grid/mineral_value_map.h"
#include "grid/region_of_interest.h"

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
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(static_cast<std::uint32_t>(expected[i].first), i);
        EXPECT_EQ(Mineral::name(expected[i].first), expected[i].second);
        EXPECT_EQ(Mineral::fromName(expected[i].second), expected[i].first);
    }
    EXPECT_EQ(Mineral::name(Mineral::Reserved), "");
    EXPECT_EQ(Mineral::name(Mineral::Unknown), "");
}

TEST(Mineral, NameLookupIsExact) {
    EXPECT_EQ(Mineral::fromName("quartz"), Mineral::Unknown);
    EXPECT_EQ(Mineral::fromName("Quartz "), Mineral::Unknown);
    EXPECT_EQ(Mineral::fromName(""), Mineral::Unknown);
    EXPECT_EQ(Mineral::fromName("Quartz"), Mineral::Quartz);
    EXPECT_EQ(Mineral::fromName("Quartz cement"), Mineral::QuartzCement);
    EXPECT_FALSE(Mineral::isKnownName("Quartz "));
    EXPECT_TRUE(Mineral::isKnownName("Matrix"));
}

TEST(Mineral, ValidCodesAndTypeList) {
    EXPECT_TRUE(Mineral::isValid(0));
    EXPECT_TRUE(Mineral::isValid(13));
    EXPECT_FALSE(Mineral::isValid(14));
    EXPECT_FALSE(Mineral::isValid(15));
    EXPECT_FALSE(Mineral::isValid(0xFFFFFFFFu));
    const auto& all = Mineral::allTypes();
    ASSERT_EQ(all.size(), 14u);
    for (std::size_t i = 0; i < all.size(); ++i) EXPECT_EQ(static_cast<std::size_t>(all[i]), i);
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

TEST(MineralValueMap, AbsentMineralReadsZeroAndCopiesAreDeep) {
    MineralValueMap<double> map;
    map.set(Mineral::Clay, 2.3e-9);
    EXPECT_DOUBLE_EQ(map.value(Mineral::Clay), 2.3e-9);
    EXPECT_DOUBLE_EQ(map.valueOr(Mineral::Quartz, -1.0), -1.0);
    EXPECT_DOUBLE_EQ(map.value(Mineral::Quartz), 0.0);
    EXPECT_TRUE(map.contains(Mineral::Quartz));

    MineralValueMap<double> copy(map);
    copy.value(Mineral::Clay) = 1.0;
    EXPECT_DOUBLE_EQ(map.value(Mineral::Clay), 2.3e-9);
}

TEST(RegionOfInterest, StartingValuesDifferBetweenRecordAndHolder) {
    const RegionOfInterest record;
    EXPECT_EQ(record, (RegionOfInterest{0, 1, 0, 1, 0, 1, false}));

    RegionOfInterestCapableThing holder;
    EXPECT_EQ(holder.regionOfInterest(), (RegionOfInterest{1, 2, 1, 2, 1, 2, false}));
    EXPECT_FALSE(holder.isEnabled());

    holder.setXRange(5, 3);  // stored unchanged: the loader validates, not the holder
    holder.setYRange(7, 9);
    holder.setZRange(0, 4);
    holder.setEnabled(true);
    EXPECT_EQ(holder.xMin(), 5u);
    EXPECT_EQ(holder.xMax(), 3u);
    EXPECT_EQ(holder.yMin(), 7u);
    EXPECT_EQ(holder.yMax(), 9u);
    EXPECT_EQ(holder.zMin(), 0u);
    EXPECT_EQ(holder.zMax(), 4u);
    EXPECT_TRUE(holder.isEnabled());

    holder.setRegionOfInterest(record);
    EXPECT_EQ(holder.regionOfInterest(), record);
}

}  // namespace
}  // namespace nmr
