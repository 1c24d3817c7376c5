// The texts and codes that the host's callable receives.
#include "TetherEvents.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "TetherTexts.h"

namespace {

TEST(TetherEvents, CodesAreTheHosts)
{
    EXPECT_EQ((std::vector<int>{VENDOR_NONE, VENDOR_NIKON, VENDOR_CANON}),
              (std::vector<int>{0, 1, 2}));
    EXPECT_EQ((std::vector<int>{TETHER_GENERAL, TETHER_EXPOSUREMODE, TETHER_EXPOSUREMODE_LIST,
                                TETHER_SHUTTERSPEED, TETHER_SHUTTERSPEED_LIST, TETHER_APERTURE,
                                TETHER_APERTURE_LIST, TETHER_ISO, TETHER_ISO_LIST, TETHER_WB,
                                TETHER_WB_LIST, TETHER_COLORTEMP, TETHER_COLORTEMP_LIST,
                                TETHER_IMAGEQUALITY, TETHER_IMAGEQUALITY_LIST}),
              (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14}));
    EXPECT_EQ((std::vector<int>{TETHER_CANON_COLORTEMP, TETHER_CANON_AUTO, TETHER_CANON_BULB}),
              (std::vector<int>{9, 0, 12}));
}

TEST(TetherEvents, KeyWordsAreTheHosts)
{
    EXPECT_STREQ(TETHER_GENERAL_DEVICEBUSY, "GENERAL_DEVICEBUSY");
    EXPECT_STREQ(TETHER_GENERAL_NEWFILE, "GENERAL_NEWFILE");
    EXPECT_STREQ(TETHER_GENERAL_WRITEFAIL, "GENERAL_WRITEFAIL");
    EXPECT_STREQ(TETHER_NIKON_EDITABLE, "NIKON_EDITABLE");
}

TEST(TetherEvents, ABusyCameraHasItsText)
{
    EXPECT_EQ(deviceBusyText(), "{'GENERAL_DEVICEBUSY':1}");
}

TEST(TetherEvents, ANewPictureIsARawLiteralOfItsPath)
{
    EXPECT_EQ(pictureText("/pictures/Canon_1_2.CR2"),
              "{'GENERAL_NEWFILE':r'/pictures/Canon_1_2.CR2'}");
}

TEST(TetherEvents, APathIsSentUnchangedWhateverIsInIt)
{
    EXPECT_EQ(pictureText("/it's/a.jpg"), "{'GENERAL_NEWFILE':r'/it's/a.jpg'}");
    EXPECT_EQ(pictureText("C:\\new\\t.jpg"), "{'GENERAL_NEWFILE':r'C:\\new\\t.jpg'}");
    EXPECT_EQ(pictureText("/\xC3\xBC/\xFF%s\n"), "{'GENERAL_NEWFILE':r'/\xC3\xBC/\xFF%s\n'}");
}

TEST(TetherEvents, AnEmptyPathIsStillANewPicture)
{
    EXPECT_EQ(pictureText(""), "{'GENERAL_NEWFILE':r''}");
}

TEST(TetherEvents, TheWordErrorInAnyLetterCaseIsAWriteFailure)
{
    for (const char* text : {kLastFileError, "error", "ERROR", "eRRoR"}) {
        EXPECT_EQ(pictureText(text), "{'GENERAL_WRITEFAIL':1}") << text;
    }
}

TEST(TetherEvents, APathThatOnlyContainsTheWordErrorIsANewPicture)
{
    for (const char* text : {"error ", " error", "errors", "erro", "/error"}) {
        EXPECT_EQ(pictureText(text), std::string("{'GENERAL_NEWFILE':r'") + text + "'}");
    }
}

TEST(ListText, IsAPairOfBracesWhenNothingWasAdded)
{
    EXPECT_EQ(ListText().text(), "{}");
}

TEST(ListText, EndsEveryEntryWithAComma)
{
    ListText list;
    list.add(16, "30");
    list.add(19, "25");
    list.add(96, "1/30");
    EXPECT_EQ(list.text(), "{16:'30',19:'25',96:'1/30',}");
}

TEST(ListText, WritesNumbersBare)
{
    ListText list;
    list.add(0, 2500);
    list.add(1, -1);
    EXPECT_EQ(list.text(), "{0:2500,1:-1,}");
}

TEST(ListText, GrowsWithItsEntries)
{
    const std::string longText(3000, 'x');
    ListText list;
    std::string expected = "{";
    for (int i = 0; i < 1000; ++i) {
        const std::string number = std::to_string(i);
        const std::string text =
            i == 700 ? longText : std::string(static_cast<std::size_t>(i % 40), 'a');
        list.add(static_cast<std::uint32_t>(i), text.c_str());
        list.add(0xFFFFFFFF, std::numeric_limits<std::int32_t>::min());
        list.addFlag("FLAG", true);
        expected += number + ":'" + text + "',4294967295:-2147483648,'FLAG':1,";
    }
    EXPECT_EQ(list.text(), expected + "}");
}

TEST(ListText, WritesKeysUnsigned)
{
    ListText list;
    list.add(0xFFFFFFFF, "unknown");
    EXPECT_EQ(list.text(), "{4294967295:'unknown',}");
}

TEST(ListText, EscapesNothing)
{
    ListText list;
    list.add(1, "it's \\ \"");
    EXPECT_EQ(list.text(), "{1:'it's \\ \"',}");
}

TEST(ListText, KeepsDoublesAndTheOrderOfAdding)
{
    ListText list;
    list.add(2, "b");
    list.add(1, "a");
    list.add(2, "b");
    EXPECT_EQ(list.text(), "{2:'b',1:'a',2:'b',}");
}

}  // namespace
