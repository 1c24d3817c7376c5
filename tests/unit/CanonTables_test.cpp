// The texts of Canon's codes, against a second list.
#include "canon/CanonTables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "TetherEvents.h"

namespace {

using canon::canonTables;
using canon::CodeTexts;
using canon::findText;

// Each table as "code text; code text; ...", the codes in hexadecimal.

constexpr const char* kExposureModes = R"(
00 P; 01 Tv; 02 Av; 03 M; 04 Bulb; 05 A-DEP; 06 DEP; 07 C1; 08 Lock; 09 Auto; 0A Night Portrait;
0B Sports; 0C Portrait; 0D LandScape; 0E Close Up; 0F No Strobo; 10 C2; 11 C3; 13 Creative Auto;
14 Movies; 16 Auto; 17 Night Scenes; 18 Backlit Scenes; 19 SCN; 1A Children; 1B Food;
1C Candlelight Portraits; 1D Creative filters; 1E Grainy B/W; 1F Soft focus; 20 Toy camera effect;
21 Fish-eye effect; 22 Water painting effect; 23 Miniature effect; 24 HDR art standard;
25 HDR art vivid; 26 HDR art bold; 27 HDR art embossed; 28 Dream; 29 Old Movies; 2A Memory;
2B Dramatic B&W; 2C Miniature effect movie; 2E Group Photo; FFFFFFFF unknown;
)";

constexpr const char* kShutterSpeeds = R"(
00 Auto; 0C Bulb; 10 30; 13 25; 14 20; 15 20; 18 15; 1B 13; 1C 10; 1D 10; 20 8; 23 6; 24 6; 25 5;
28 4; 2B 3.2; 2C 3; 2D 2.5; 30 2; 33 1.6; 34 1.5; 35 1.3; 38 1; 3B 0.8; 3C 0.7; 3D 0.6; 40 0.5;
43 0.4; 44 0.3; 45 0.3; 48 1/4; 4B 1/5; 4C 1/6; 4D 1/6; 50 1/8; 53 1/10; 54 1/10; 55 1/13;
58 1/15; 5B 1/20; 5C 1/20; 5D 1/25; 60 1/30; 63 1/40; 64 1/45; 65 1/50; 68 1/60; 6B 1/80; 6C 1/90;
6D 1/100; 70 1/125; 73 1/160; 74 1/180; 75 1/200; 78 1/250; 7B 1/320; 7C 1/350; 7D 1/400;
80 1/500; 83 1/640; 84 1/750; 85 1/800; 88 1/1000; 8B 1/1250; 8C 1/1500; 8D 1/1600; 90 1/2000;
93 1/2500; 94 1/3000; 95 1/3200; 98 1/4000; 9B 1/5000; 9C 1/6000; 9D 1/6400; A0 1/8000;
FFFFFFFF unknown;
)";

constexpr const char* kApertures = R"(
00 Auto; 08 1; 0B 1.1; 0C 1.2; 0D 1.2; 10 1.4; 13 1.6; 14 1.8; 15 1.8; 18 2; 1B 2.2; 1C 2.5;
1D 2.5; 20 2.8; 23 3.2; 24 3.5; 25 3.5; 28 4; 2B 4.5; 2C 4.5; 2D 5.0; 30 5.6; 33 6.3; 34 6.7;
35 7.1; 38 8; 3B 9; 3C 9.5; 3D 10; 40 11; 43 13; 44 13; 45 14; 48 16; 4B 18; 4C 19; 4D 20; 50 22;
53 25; 54 27; 55 29; 58 32; 5B 36; 5C 38; 5D 40; 60 45; 63 51; 64 54; 65 57; 68 64; 6B 72; 6C 76;
6D 80; 70 91; FFFFFFFF unknown;
)";

constexpr const char* kIsoSpeeds = R"(
00 Auto; 28 6; 30 12; 38 25; 40 50; 48 100; 4B 125; 4D 160; 50 200; 53 250; 55 320; 58 400;
5B 500; 5D 640; 60 800; 63 1000; 65 1250; 68 1600; 6B 2000; 6D 2500; 70 3200; 73 4000; 75 5000;
78 6400; 7B 8000; 7D 10000; 80 12800; 83 16000; 85 20000; 88 25600; 8B 32000; 8D 40000; 90 51200;
98 102400; A0 204800; A8 409600; FFFFFFFF unknown;
)";

constexpr const char* kWhiteBalances = R"(
00 Auto; 01 Daylight; 02 Cloudy; 03 Tungsten; 04 Fluorescent; 05 Flash; 06 Manual; 08 Shade;
09 Color temperature; 0A Custom white balance: PC-1; 0B Custom white balance: PC-2;
0C Custom white balance: PC-3; 0F Manual 2; 10 Manual 3; 12 Manual 4; 13 Manual 5;
14 Custom white balance: PC-4; 15 Custom white balance: PC-5;
)";

constexpr const char* kImageQualities = R"(
0064FF0F RAW; 00640013 RAW + Large Fine Jpeg; 00640113 RAW + Middle Fine Jpeg;
00640213 RAW + Small Fine Jpeg; 00640012 RAW + Large Normal Jpeg;
00640112 RAW + Middle Normal Jpeg; 00640212 RAW + Small Normal Jpeg;
00640E13 RAW + Small1 Fine Jpeg; 00640E12 RAW + Small1 Normal Jpeg; 00640F13 RAW + Small2 Jpeg;
00641013 RAW + Small3 Jpeg; 00640010 RAW + Large Jpeg; 00640510 RAW + Middle1 Jpeg;
00640610 RAW + Middle2 Jpeg; 00640210 RAW + Small Jpeg; 0164FF0F Middle Raw(Small RAW1);
01640013 Middle Raw(Small RAW1) + Large Fine Jpeg;
01640113 Middle Raw(Small RAW1) + Middle Fine Jpeg;
01640213 Middle Raw(Small RAW1) + Small Fine Jpeg;
01640012 Middle Raw(Small RAW1) + Large Normal Jpeg;
01640112 Middle Raw(Small RAW1) + Middle Normal Jpeg;
01640212 Middle Raw(Small RAW1) + Small Normal Jpeg; 01640E13 Middle RAW + Small1 Fine Jpeg;
01640E12 Middle RAW + Small1 Normal Jpeg; 01640F13 Middle RAW + Small2 Jpeg;
01641013 Middle RAW + Small3 Jpeg; 01640010 Middle Raw + Large Jpeg;
01640510 Middle Raw + Middle1 Jpeg; 01640610 Middle Raw + Middle2 Jpeg;
01640210 Middle Raw + Small Jpeg; 0264FF0F Small RAW(Small RAW2);
02640013 Small RAW(Small RAW2) + Large Fine Jpeg;
02640113 Small RAW(Small RAW2) + Middle Fine Jpeg;
02640213 Small RAW(Small RAW2) + Small Fine Jpeg;
02640012 Small RAW(Small RAW2) + Large Normal Jpeg;
02640112 Small RAW(Small RAW2) + Middle Normal Jpeg;
02640212 Small RAW(Small RAW2) + Small Normal Jpeg; 02640E13 Small RAW + Small1 Fine Jpeg;
02640E12 Small RAW + Small1 Normal Jpeg; 02640F13 Small RAW + Small2 Jpeg;
02641013 Small RAW + Small3 Jpeg; 02640010 Small RAW + Large Jpeg;
02640510 Small RAW + Middle1 Jpeg; 02640610 Small RAW + Middle2 Jpeg;
02640210 Small RAW + Small Jpeg; 0013FF0F Large Fine Jpeg; 0012FF0F Large Normal Jpeg;
0113FF0F Middle Fine Jpeg; 0112FF0F Middle Normal Jpeg; 0213FF0F Small Fine Jpeg;
0212FF0F Small Normal Jpeg; 0E13FF0F Small1 Fine Jpeg; 0E12FF0F Small1 Normal Jpeg;
0F13FF0F Small2 Jpeg; 1013FF0F Small3 Jpeg; 0010FF0F Large Jpeg; 0510FF0F Middle1 Jpeg;
0610FF0F Middle2 Jpeg; 0210FF0F Small Jpeg; 00240000 RAW; 00240013 RAW + Large Fine Jpeg;
00240113 RAW + Middle Fine Jpeg; 00240213 RAW + Small Fine Jpeg; 00240012 RAW + Large Normal Jpeg;
00240112 RAW + Middle Normal Jpeg; 00240212 RAW + Small Normal Jpeg; 00130000 Large Fine Jpeg;
01130000 Middle Fine Jpeg; 02130000 Small Fine Jpeg; 00120000 Large Normal Jpeg;
01120000 Middle Normal Jpeg; 02120000 Small Normal Jpeg; 002F000F RAW; 002F001F RAW + Large Jpeg;
002F051F RAW + Middle1 Jpeg; 002F061F RAW + Middle2 Jpeg; 002F021F RAW + Small Jpeg;
001F000F Large Jpeg; 051F000F Middle1 Jpeg; 061F000F Middle2 Jpeg; 021F000F Small Jpeg;
)";

using Entries = std::vector<std::pair<std::uint32_t, std::string>>;

// The entries of a list above, sorted by their codes; doubles stay.
Entries listed(const std::string& list)
{
    std::istringstream in(list);
    Entries entries;
    std::uint32_t code = 0;
    for (std::string text; in >> std::hex >> code && std::getline(in >> std::ws, text, ';');) {
        entries.emplace_back(code, text);
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

Entries filled(const CodeTexts& table)
{
    return {table.begin(), table.end()};
}

std::string textOf(const CodeTexts& table, std::uint32_t code)
{
    const char* text = findText(table, code);
    return text == nullptr ? "<nothing>" : text;
}

constexpr std::uint32_t kInvalid = 0xFFFFFFFF;

TEST(CanonTables, HoldEveryEntryOfTheLists)
{
    EXPECT_EQ(filled(canonTables().m_mapAEMode), listed(kExposureModes));
    EXPECT_EQ(filled(canonTables().m_mapTv), listed(kShutterSpeeds));
    EXPECT_EQ(filled(canonTables().m_mapAv), listed(kApertures));
    EXPECT_EQ(filled(canonTables().m_mapISO), listed(kIsoSpeeds));
    EXPECT_EQ(filled(canonTables().m_mapWB), listed(kWhiteBalances));
    EXPECT_EQ(filled(canonTables().m_mapQuality), listed(kImageQualities));
}

TEST(CanonTables, HaveTheirNumbersOfEntries)
{
    EXPECT_EQ(canonTables().m_mapAEMode.size(), 45U);
    EXPECT_EQ(canonTables().m_mapTv.size(), 76U);
    EXPECT_EQ(canonTables().m_mapAv.size(), 55U);
    EXPECT_EQ(canonTables().m_mapISO.size(), 37U);
    EXPECT_EQ(canonTables().m_mapWB.size(), 18U);
    EXPECT_EQ(canonTables().m_mapQuality.size(), 81U);
}

TEST(CanonTables, SayAutoForZeroWhereTheHostComparesWithIt)
{
    const auto code = static_cast<std::uint32_t>(TETHER_CANON_AUTO);
    EXPECT_EQ(textOf(canonTables().m_mapTv, code), "Auto");
    EXPECT_EQ(textOf(canonTables().m_mapAv, code), "Auto");
    EXPECT_EQ(textOf(canonTables().m_mapISO, code), "Auto");
    EXPECT_EQ(textOf(canonTables().m_mapWB, code), "Auto");
}

TEST(CanonTables, SayBulbAndColorTemperatureForTheHostsOtherCodes)
{
    EXPECT_EQ(textOf(canonTables().m_mapTv, TETHER_CANON_BULB), "Bulb");
    EXPECT_EQ(textOf(canonTables().m_mapTv, 0x0C), "Bulb");
    EXPECT_EQ(textOf(canonTables().m_mapWB, TETHER_CANON_COLORTEMP), "Color temperature");
    EXPECT_EQ(textOf(canonTables().m_mapWB, 0x09), "Color temperature");
}

TEST(CanonTables, KnowTheInvalidCodeInFourTablesOnly)
{
    EXPECT_EQ(textOf(canonTables().m_mapAEMode, kInvalid), "unknown");
    EXPECT_EQ(textOf(canonTables().m_mapTv, kInvalid), "unknown");
    EXPECT_EQ(textOf(canonTables().m_mapAv, kInvalid), "unknown");
    EXPECT_EQ(textOf(canonTables().m_mapISO, kInvalid), "unknown");
    EXPECT_EQ(textOf(canonTables().m_mapWB, kInvalid), "<nothing>");
    EXPECT_EQ(textOf(canonTables().m_mapQuality, kInvalid), "<nothing>");
}

TEST(CanonTables, EndWithTheInvalidCodeWhereTheyKnowIt)
{
    EXPECT_EQ(canonTables().m_mapAEMode.rbegin()->first, kInvalid);
    EXPECT_EQ(canonTables().m_mapTv.rbegin()->first, kInvalid);
    EXPECT_EQ(canonTables().m_mapAv.rbegin()->first, kInvalid);
    EXPECT_EQ(canonTables().m_mapISO.rbegin()->first, kInvalid);
}

TEST(CanonTables, FindNothingForCodesThatTheyLack)
{
    EXPECT_EQ(findText(canonTables().m_mapAv, 0x09), nullptr);
    for (const std::uint32_t code : {0x12U, 0x15U, 0x2DU, 0x2FU}) {
        EXPECT_EQ(findText(canonTables().m_mapAEMode, code), nullptr) << code;
    }
    for (const std::uint32_t code : {0x07U, 0x0DU, 0x0EU, 0x11U, 0x16U}) {
        EXPECT_EQ(findText(canonTables().m_mapWB, code), nullptr) << code;
    }
    EXPECT_EQ(findText(canonTables().m_mapTv, 0x0B), nullptr);
    EXPECT_EQ(findText(canonTables().m_mapISO, 0x29), nullptr);
    EXPECT_EQ(findText(canonTables().m_mapQuality, 0), nullptr);
    EXPECT_EQ(findText({}, 0), nullptr);
}

TEST(CanonTables, FindACodeAsAWholeOnly)
{
    EXPECT_EQ(findText(canonTables().m_mapTv, 0x100 + 0x0C), nullptr);
    EXPECT_EQ(findText(canonTables().m_mapTv, 0x8000000C), nullptr);
}

TEST(CanonTables, ResolveEveryCodeThatSharesItsText)
{
    EXPECT_EQ(textOf(canonTables().m_mapTv, 0x44), "0.3");
    EXPECT_EQ(textOf(canonTables().m_mapTv, 0x45), "0.3");
    EXPECT_EQ(textOf(canonTables().m_mapTv, 0x14), "20");
    EXPECT_EQ(textOf(canonTables().m_mapTv, 0x15), "20");
    EXPECT_EQ(textOf(canonTables().m_mapAv, 0x0C), "1.2");
    EXPECT_EQ(textOf(canonTables().m_mapAv, 0x0D), "1.2");
    EXPECT_EQ(textOf(canonTables().m_mapAEMode, 0x09), "Auto");
    EXPECT_EQ(textOf(canonTables().m_mapAEMode, 0x16), "Auto");
    EXPECT_EQ(textOf(canonTables().m_mapQuality, 0x0064FF0F), "RAW");
    EXPECT_EQ(textOf(canonTables().m_mapQuality, 0x00240000), "RAW");
    EXPECT_EQ(textOf(canonTables().m_mapQuality, 0x002F000F), "RAW");
}

TEST(CanonTables, KeepTheOddSpellings)
{
    EXPECT_EQ(textOf(canonTables().m_mapAv, 0x2D), "5.0");
    EXPECT_EQ(textOf(canonTables().m_mapAv, 0x38), "8");
    EXPECT_EQ(textOf(canonTables().m_mapAEMode, 0x0D), "LandScape");
    EXPECT_EQ(textOf(canonTables().m_mapAEMode, 0x0F), "No Strobo");
    EXPECT_EQ(textOf(canonTables().m_mapAEMode, 0x1D), "Creative filters");
    EXPECT_EQ(textOf(canonTables().m_mapQuality, 0x0164FF0F), "Middle Raw(Small RAW1)");
}

TEST(CanonTables, AreTheSameForEveryCaller)
{
    EXPECT_EQ(&canonTables(), &canonTables());
}

TEST(CanonTables, HoldNoTextThatBreaksAListText)
{
    for (const CodeTexts* table : {&canonTables().m_mapTv, &canonTables().m_mapAv,
                                   &canonTables().m_mapISO, &canonTables().m_mapWB}) {
        for (const auto& entry : *table) {
            EXPECT_EQ(std::string(entry.second).find_first_of("'\\"), std::string::npos);
        }
    }
}

}  // namespace
