// Values, lists and how they hang together.
#include <algorithm>
#include <array>
#include <cstring>

#include "Support.h"

namespace {

using Values = std::vector<std::int32_t>;

bool has(const Values& values, std::int32_t value)
{
    return std::find(values.begin(), values.end(), value) != values.end();
}

class Properties : public OpenTest
{};

TEST_F(Properties, TellTypeAndSize)
{
    EdsDataType type = 0;
    std::uint32_t size = 0;
    ASSERT_EQ(EdsGetPropertySize(m_host.camera(), 0x406, 0, &type, &size), 0U);
    EXPECT_EQ(type, 9U);
    EXPECT_EQ(size, 4U);
    ASSERT_EQ(EdsGetPropertySize(m_host.camera(), 2, 0, &type, &size), 0U);
    EXPECT_EQ(type, 2U);
    EXPECT_EQ(size, sizeof "Virtual EOS");
    ASSERT_EQ(EdsGetPropertySize(m_host.camera(), 0x104, 0, &type, &size), 0U);
    EXPECT_EQ(type, 101U);
    EXPECT_EQ(size, 19224U);
}

TEST_F(Properties, UnknownOneIsUnavailable)
{
    EdsDataType type = 0;
    std::uint32_t size = 0;
    EdsPropertyDesc description{};
    EXPECT_EQ(EdsGetPropertySize(m_host.camera(), 0x999, 0, &type, &size), 0x50U);
    EXPECT_EQ(EdsGetPropertyDesc(m_host.camera(), 0x999, &description), 0x50U);
    EXPECT_EQ(m_host.set(0x999, 1), 0x50U);
}

TEST_F(Properties, NineByteReadOfWhiteBalanceFillsAllNine)
{
    std::array<std::uint8_t, 9> data{};
    data.fill(0xEE);
    ASSERT_EQ(EdsGetPropertyData(m_host.camera(), 0x107, 0, 9, data.data()), 0U);
    std::uint32_t value = 0;
    std::memcpy(&value, data.data(), 4);
    EXPECT_EQ(value, 5200U);
    EXPECT_TRUE(std::all_of(data.begin() + 4, data.end(), [](auto byte) { return byte == 0; }));
}

TEST_F(Properties, AllowedValuesFollowTheDial)
{
    struct Row {
        std::uint32_t mode;
        bool tv;
        bool av;
        bool compensation;
    };
    constexpr std::array<Row, 4> kRows{{{0, false, false, true},
                                        {1, true, false, true},
                                        {2, false, true, true},
                                        {3, true, true, false}}};
    for (const Row& row : kRows) {
        ASSERT_EQ(VirtualCameraTurnDial(0, row.mode), 1);
        EXPECT_EQ(m_host.allowed(0x406).size() > 1, row.tv) << row.mode;
        EXPECT_EQ(m_host.allowed(0x405).size() > 1, row.av) << row.mode;
        EXPECT_EQ(m_host.allowed(0x407).size() > 1, row.compensation) << row.mode;
    }
}

TEST_F(Properties, BulbModeKnowsBulbOnly)
{
    VirtualCameraTurnDial(0, 4);
    EXPECT_EQ(m_host.get(0x406), 0x0CU);
    EXPECT_EQ(m_host.allowed(0x406), Values{0x0C});
    VirtualCameraTurnDial(0, 3);
    EXPECT_EQ(m_host.get(0x406), 0x70U);
}

TEST_F(Properties, AutomaticModeLeavesNothingToSet)
{
    VirtualCameraTurnDial(0, 9);
    EXPECT_TRUE(m_host.allowed(0x406).empty());
    EXPECT_TRUE(m_host.allowed(0x405).empty());
    EXPECT_EQ(m_host.allowed(0x402), Values{0});
    EXPECT_EQ(m_host.set(0x406, 0x70), 0x50U);
}

TEST_F(Properties, AperturesFollowTheLens)
{
    EXPECT_EQ(m_host.allowed(0x405).front(), 0x20);
    configure("camera.lens = prime");
    EXPECT_EQ(m_host.allowed(0x405).front(), 0x10);
    configure("camera.lens = none");
    EXPECT_TRUE(m_host.allowed(0x405).empty());
    EXPECT_EQ(m_host.get(0x405), 0xFFFFFFFFU);
}

TEST_F(Properties, ColorTemperatureCanBeSetWithItsWhiteBalanceOnly)
{
    EXPECT_EQ(m_host.set(0x107, 3000), 0x50U);
    ASSERT_EQ(m_host.set(0x106, 9), 0U);
    EXPECT_TRUE(has(m_host.allowed(0x107), 3000));
    EXPECT_EQ(m_host.set(0x107, 3000), 0U);
    EXPECT_EQ(m_host.get(0x107), 3000U);
}

TEST_F(Properties, RefuseAValueThatIsNotAllowed)
{
    EXPECT_EQ(m_host.set(0x406, 0x71), 0x60U);
    EXPECT_EQ(m_host.get(0x406), 0x70U);
}

TEST_F(Properties, SettingOneAnnouncesIt)
{
    ASSERT_EQ(m_host.set(0x406, 0x68), 0U);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(m_host.history(), std::vector<std::string>{"101:406"});
}

TEST_F(Properties, SettingTheSameValueAnnouncesNothing)
{
    ASSERT_EQ(m_host.set(0x406, 0x70), 0U);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_TRUE(m_host.history().empty());
}

TEST_F(Properties, ListsThatChangedAreAnnouncedToo)
{
    ASSERT_EQ(m_host.set(0x106, 9), 0U);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(m_host.history(), (std::vector<std::string>{"101:106", "102:107"}));
}

TEST_F(Properties, MeteredValueFollowsTheOther)
{
    VirtualCameraTurnDial(0, 2);
    const std::uint32_t before = m_host.get(0x406);
    ASSERT_EQ(m_host.set(0x405, 0x28), 0U);  // two thirds to a stop wider than f/5.6
    EXPECT_GT(m_host.get(0x406), before);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_GE(m_host.count(0x101, 0x406), 1);
}

TEST_F(Properties, ChangedOnTheBodyAreAnnounced)
{
    ASSERT_EQ(VirtualCanonSetProperty(0, 0x402, 0x60), 1);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(m_host.count(0x101, 0x402), 1);
    EXPECT_EQ(m_host.get(0x402), 0x60U);
}

TEST_F(Properties, LockedDialCannotBeSetByTheHost)
{
    EXPECT_EQ(m_host.set(0x436, 2), 0U);
    configure("camera.dial_locked = 1");
    EXPECT_EQ(m_host.set(0x436, 3), 0x50U);
}

TEST_F(Properties, OlderBodyHasOtherQualities)
{
    EXPECT_TRUE(has(m_host.allowed(0x100), 0x0064FF0F));
    configure("camera.sub_type = 0");
    EXPECT_TRUE(has(m_host.allowed(0x100), 0x002F000F));
    EXPECT_FALSE(has(m_host.allowed(0x100), 0x0064FF0F));
}

TEST_F(Properties, AnyTypeAndSizeCanBeAdded)
{
    const Bytes value{1, 2, 3, 4, 5};
    ASSERT_EQ(VirtualCanonSetPropertyBytes(0, 0x7777, 33, value.data(), 5), 1);
    EdsDataType type = 0;
    std::uint32_t size = 0;
    ASSERT_EQ(EdsGetPropertySize(m_host.camera(), 0x7777, 0, &type, &size), 0U);
    EXPECT_EQ(type, 33U);
    ASSERT_EQ(size, 5U);
    Bytes read(5);
    ASSERT_EQ(EdsGetPropertyData(m_host.camera(), 0x7777, 0, 5, read.data()), 0U);
    EXPECT_EQ(read, value);
    ASSERT_EQ(VirtualCanonRemoveProperty(0, 0x7777), 1);
    EXPECT_EQ(EdsGetPropertySize(m_host.camera(), 0x7777, 0, &type, &size), 0x50U);
}

TEST_F(Properties, ListCanBeReplacedAndGivenBack)
{
    const std::array<std::int32_t, 2> values{0x10, -1};
    ASSERT_EQ(VirtualCanonSetAllowed(0, 0x406, values.data(), 2), 1);
    EXPECT_EQ(m_host.allowed(0x406), (Values{0x10, -1}));
    EXPECT_EQ(m_host.set(0x406, 0xFFFFFFFF), 0U);
    ASSERT_EQ(VirtualCanonSetAllowed(0, 0x406, nullptr, -1), 1);
    EXPECT_EQ(m_host.allowed(0x406).size(), 55U);
}

TEST_F(Properties, DescriptionCanLieAboutItsCount)
{
    for (const int count : {0, 128, 200, -5}) {
        configure("corrupt.0x406.count = " + std::to_string(count));
        EdsPropertyDesc description{};
        ASSERT_EQ(EdsGetPropertyDesc(m_host.camera(), 0x406, &description), 0U);
        EXPECT_EQ(description.numElements, count);
        EXPECT_EQ(description.propDesc[0], 0x10);
    }
    configure("corrupt.0x406.count = off");
    EXPECT_EQ(m_host.allowed(0x406).size(), 55U);
}

TEST_F(Properties, TypeAndSizeCanLie)
{
    configure("corrupt.0x406.type = 2\ncorrupt.0x406.size = 300");
    EdsDataType type = 0;
    std::uint32_t size = 0;
    ASSERT_EQ(EdsGetPropertySize(m_host.camera(), 0x406, 0, &type, &size), 0U);
    EXPECT_EQ(type, 2U);
    EXPECT_EQ(size, 300U);
    Bytes data(300, 0xEE);
    ASSERT_EQ(EdsGetPropertyData(m_host.camera(), 0x406, 0, 300, data.data()), 0U);
    EXPECT_EQ(data[0], 0x70);
    EXPECT_EQ(data[299], 0);
}

TEST_F(Properties, TextCanComeWithoutTerminatorOrWithRubbishBehindIt)
{
    Bytes data(40);
    configure("corrupt.2.unterminated = 1");
    ASSERT_EQ(EdsGetPropertyData(m_host.camera(), 2, 0, 40, data.data()), 0U);
    EXPECT_EQ(std::count(data.begin(), data.end(), 0), 0);
    configure("corrupt.2.unterminated = 0\ncorrupt.2.rubbish = 1");
    ASSERT_EQ(EdsGetPropertyData(m_host.camera(), 2, 0, 40, data.data()), 0U);
    EXPECT_STREQ(reinterpret_cast<const char*>(data.data()), "Virtual EOS");
    EXPECT_EQ(data[39], 0xA5);
}

}  // namespace
