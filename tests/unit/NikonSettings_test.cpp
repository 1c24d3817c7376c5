// How the host's settings are translated for a Nikon driver module.
#include <gtest/gtest.h>

#include <limits>

#include "TetherEvents.h"
#include "nikon/NikonSession.h"

namespace {

using nikon::nikonSetting;

TEST(NikonSettings, EachTypeThatCanBeSetHasItsCapability)
{
    EXPECT_EQ(nikonSetting(TETHER_SHUTTERSPEED, 1).value().capability, 0x8112U);
    EXPECT_EQ(nikonSetting(TETHER_APERTURE, 1).value().capability, 0x8113U);
    EXPECT_EQ(nikonSetting(TETHER_ISO, 1).value().capability, 0x8117U);
    EXPECT_EQ(nikonSetting(TETHER_WB, 1).value().capability, 0x8118U);
}

TEST(NikonSettings, EveryOtherTypeIsIgnored)
{
    for (const int nType :
         {TETHER_GENERAL, TETHER_EXPOSUREMODE, TETHER_EXPOSUREMODE_LIST, TETHER_SHUTTERSPEED_LIST,
          TETHER_APERTURE_LIST, TETHER_ISO_LIST, TETHER_WB_LIST, TETHER_COLORTEMP,
          TETHER_COLORTEMP_LIST, TETHER_IMAGEQUALITY, TETHER_IMAGEQUALITY_LIST}) {
        EXPECT_FALSE(nikonSetting(nType, 1).has_value()) << nType;
    }
    for (const int nType :
         {-1, 15, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        EXPECT_FALSE(nikonSetting(nType, 1).has_value()) << nType;
    }
}

TEST(NikonSettings, TheLow16BitsOfTheValueAreThePosition)
{
    EXPECT_EQ(nikonSetting(TETHER_ISO, 3).value().position, 3);
    EXPECT_EQ(nikonSetting(TETHER_ISO, 65535).value().position, 65535);
    EXPECT_EQ(nikonSetting(TETHER_ISO, 65536).value().position, 0);
    EXPECT_EQ(nikonSetting(TETHER_ISO, 65537).value().position, 1);
    EXPECT_EQ(nikonSetting(TETHER_ISO, -1).value().position, 65535);
    EXPECT_EQ(nikonSetting(TETHER_ISO, std::numeric_limits<int>::min()).value().position, 0);
}

}  // namespace
