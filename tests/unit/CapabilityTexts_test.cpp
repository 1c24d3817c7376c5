// The texts of numeric capability values, entry by entry.
#include "nikon/CapabilityTexts.h"

#include <gtest/gtest.h>

#include <vector>

using nikon::CapabilityValueText;

namespace {

struct Entry {
    std::uint32_t capability;
    std::uint32_t value;
    const char* text;
};

class CapabilityTextsTest : public testing::TestWithParam<Entry>
{};

TEST_P(CapabilityTextsTest, TheValueHasItsText)
{
    EXPECT_EQ(CapabilityValueText(GetParam().capability, GetParam().value), GetParam().text);
    EXPECT_LT(CapabilityValueText(GetParam().capability, GetParam().value).size(), 40U);
}

INSTANTIATE_TEST_SUITE_P(
    ExposureModes, CapabilityTextsTest,
    testing::Values(Entry{0x8111, 0, "Program"}, Entry{0x8111, 1, "Aperture"},
                    Entry{0x8111, 2, "Speed"}, Entry{0x8111, 3, "Manual"},
                    Entry{0x8111, 4, "ExposureMode 4"}, Entry{0x8111, 5, "Auto"},
                    Entry{0x8111, 6, "Portrait"}, Entry{0x8111, 7, "Landscape"},
                    Entry{0x8111, 8, "Closeup"}, Entry{0x8111, 9, "Sports"},
                    Entry{0x8111, 10, "NightPortrait"}, Entry{0x8111, 11, "ExposureMode 11"},
                    Entry{0x8111, 12, "Child"}, Entry{0x8111, 13, "FlashOff"},
                    Entry{0x8111, 14, "SCENE"}, Entry{0x8111, 15, "UserMode1"},
                    Entry{0x8111, 16, "UserMode2"}, Entry{0x8111, 17, "Effects"},
                    Entry{0x8111, 18, "ExposureMode 18"},
                    Entry{0x8111, 4294967295U, "ExposureMode 4294967295"}));

INSTANTIATE_TEST_SUITE_P(
    FlashModes, CapabilityTextsTest,
    testing::Values(Entry{0x35, 0, "Normal"}, Entry{0x35, 1, "Rear-sync"},
                    Entry{0x35, 2, "Slow-sync"}, Entry{0x35, 3, "Red Eye Reduction"},
                    Entry{0x35, 4, "Slow-sync Red Eye Reduction"}, Entry{0x35, 5, "SlowRear-sync"},
                    Entry{0x35, 6, "FlashMode 6"}, Entry{0x35, 261, "FlashMode 261"},
                    Entry{0x35, 262, "flash off"}, Entry{0x35, 263, "FlashMode 263"}));

INSTANTIATE_TEST_SUITE_P(MeteringModes, CapabilityTextsTest,
                         testing::Values(Entry{0x8116, 0, "Matrix"},
                                         Entry{0x8116, 1, "CenterWeighted"},
                                         Entry{0x8116, 2, "Spot"},
                                         Entry{0x8116, 3, "MeteringMode 3"}));

INSTANTIATE_TEST_SUITE_P(FocusModes, CapabilityTextsTest,
                         testing::Values(Entry{0x8120, 0, "MF"}, Entry{0x8120, 1, "AF-S"},
                                         Entry{0x8120, 2, "AF-C"}, Entry{0x8120, 3, "AF-A"},
                                         Entry{0x8120, 4, "AF-F"},
                                         Entry{0x8120, 5, "FocusMode 5"}));

INSTANTIATE_TEST_SUITE_P(
    PictureControls, CapabilityTextsTest,
    testing::Values(
        Entry{0x822E, 0, "Undefined"}, Entry{0x822E, 1, "Standard"}, Entry{0x822E, 2, "Neutral"},
        Entry{0x822E, 3, "Vivid"}, Entry{0x822E, 4, "Monochrome"}, Entry{0x822E, 5, "Portrait"},
        Entry{0x822E, 6, "Landscape"}, Entry{0x822E, 7, "Picture Control 7"},
        Entry{0x822E, 100, "Picture Control 100"}, Entry{0x822E, 101, "Option Picture Contol 1"},
        Entry{0x822E, 102, "Option Picture Contol 2"},
        Entry{0x822E, 103, "Option Picture Contol 3"},
        Entry{0x822E, 104, "Option Picture Contol 4"}, Entry{0x822E, 105, "Picture Control 105"},
        Entry{0x822E, 200, "Picture Control 200"}, Entry{0x822E, 201, "Custom Picture Contol 1"},
        Entry{0x822E, 202, "Custom Picture Contol 2"},
        Entry{0x822E, 203, "Custom Picture Contol 3"},
        Entry{0x822E, 204, "Custom Picture Contol 4"},
        Entry{0x822E, 205, "Custom Picture Contol 5"},
        Entry{0x822E, 206, "Custom Picture Contol 6"},
        Entry{0x822E, 207, "Custom Picture Contol 7"},
        Entry{0x822E, 208, "Custom Picture Contol 8"},
        Entry{0x822E, 209, "Custom Picture Contol 9"}, Entry{0x822E, 210, "Picture Control 210"}));

INSTANTIATE_TEST_SUITE_P(LiveViewZoomRates, CapabilityTextsTest,
                         testing::Values(Entry{0x823F, 0, "Full"}, Entry{0x823F, 1, "25%"},
                                         Entry{0x823F, 2, "33%"}, Entry{0x823F, 3, "50%"},
                                         Entry{0x823F, 4, "66.7%"}, Entry{0x823F, 5, "100%"},
                                         Entry{0x823F, 6, "LiveViewImageZoomRate 6"}));

INSTANTIATE_TEST_SUITE_P(
    PlainFormats, CapabilityTextsTest,
    testing::Values(Entry{0x8122, 0, "FocusPreferredArea :0"},
                    Entry{0x8122, 4294967295U, "FocusPreferredArea :4294967295"},
                    Entry{0x814E, 0, "0x00000000"}, Entry{0x814E, 0xABCDEF, "0x00abcdef"},
                    Entry{0x814E, 4294967295U, "0xffffffff"}, Entry{0x818C, 0, "0"},
                    Entry{0x818C, 4294967295U, "4294967295"}));

INSTANTIATE_TEST_SUITE_P(OtherCapabilities, CapabilityTextsTest,
                         testing::Values(Entry{0, 0, "Undefined String"},
                                         Entry{0x8112, 1, "Undefined String"},
                                         Entry{0x8110, 0, "Undefined String"},
                                         Entry{0xFFFFFFFF, 3, "Undefined String"}));

// The cases that are easily got wrong, by name.

TEST(CapabilityTexts, ExposureModes4And18GoThroughTheNumberedText)
{
    EXPECT_EQ(CapabilityValueText(0x8111, 4), "ExposureMode 4");
    EXPECT_EQ(CapabilityValueText(0x8111, 18), "ExposureMode 18");
}

TEST(CapabilityTexts, PictureControls200And210AreNumberedAnd205IsTheFifthCustomOne)
{
    EXPECT_EQ(CapabilityValueText(0x822E, 200), "Picture Control 200");
    EXPECT_EQ(CapabilityValueText(0x822E, 210), "Picture Control 210");
    EXPECT_EQ(CapabilityValueText(0x822E, 205), "Custom Picture Contol 5");
}

TEST(CapabilityTexts, FlashMode6GoesThroughTheNumberedText)
{
    EXPECT_EQ(CapabilityValueText(0x35, 6), "FlashMode 6");
}

TEST(CapabilityTexts, ExposureMode10HasNoBlank)
{
    EXPECT_EQ(CapabilityValueText(0x8111, 10), "NightPortrait");
}

}  // namespace
