// Settings: lists of texts and numbers, what depends on the mode dial, what may be set.
#include <algorithm>

#include "Host.h"

namespace {

constexpr std::uint32_t kReadOnly = kMaidOperationGet | kMaidOperationGetArray;

class NikonList : public NikonOpenTest
{
protected:
    bool isSettable(std::uint32_t id) const
    {
        return (m_host.capability(m_host.source(), id).operations & kMaidOperationSet) != 0;
    }
    List list(std::uint32_t id) const { return m_host.list(m_host.source(), id); }

    // Reads the enumeration of white balances, lets it change, and reads the array.
    Outcome arrayAfterChange(List& white, const std::string& texts)
    {
        const auto issue = [&](std::uint32_t command) {
            return m_host.issue(m_host.source(), command, kMaidCapWhiteBalance,
                                kMaidDataTypeEnumPtr, dataOf(&white.record));
        };
        issue(kMaidCommandCapGet);
        white.array.resize(white.record.elements);
        white.record.array = white.array.data();
        driver().setTexts(0, kMaidCapWhiteBalance, texts.c_str());
        return issue(kMaidCommandCapGetArray);
    }
};

TEST_F(NikonList, TextsArePackedWithTheirTerminators)
{
    const List quality = list(kMaidCapImageQuality);
    EXPECT_EQ(quality.record.elementType, kMaidElementPackedText);
    EXPECT_EQ(quality.record.elementSize, 1);
    EXPECT_EQ(quality.texts(), (std::vector<std::string>{"JPEG Basic", "JPEG Normal", "JPEG Fine",
                                                         "RAW", "RAW + JPEG Basic",
                                                         "RAW + JPEG Normal", "RAW + JPEG Fine"}));
    EXPECT_EQ(quality.record.elements, quality.array.size());
    EXPECT_EQ(quality.array.back(), 0);
    EXPECT_EQ(quality.current(), "JPEG Fine");
}

TEST_F(NikonList, NumbersAreFourBytesEach)
{
    const List mode = list(kMaidCapExposureMode);
    EXPECT_EQ(mode.record.elementType, kMaidElementUnsigned);
    EXPECT_EQ(mode.record.elementSize, 4);
    EXPECT_EQ(mode.numbers().size(), mode.record.elements);
    EXPECT_EQ(mode.numbers()[mode.record.value], 3U);
}

TEST_F(NikonList, APositionThatIsSetIsTheCurrentOneAndIsTold)
{
    const List before = list(kMaidCapShutterSpeed);
    EXPECT_EQ(before.current(), "1/125");
    EXPECT_TRUE(m_host.setPosition(m_host.source(), kMaidCapShutterSpeed, 20).isGood());
    EXPECT_EQ(list(kMaidCapShutterSpeed).current(), before.texts()[20]);
    Host::async(m_host.source());
    EXPECT_EQ(m_host.parameters(kMaidEventCapChangeValue),
              std::vector<std::uint64_t>{kMaidCapShutterSpeed});
}

TEST_F(NikonList, ValuesThatTheApplicationSetAreNotToldWhenAsked)
{
    configure("events.on_set = 0");
    m_host.setPosition(m_host.source(), kMaidCapShutterSpeed, 20);
    Host::async(m_host.source());
    EXPECT_TRUE(m_host.events.empty());
}

TEST_F(NikonList, APositionBeyondTheTextsIsRefused)
{
    const List sensitivity = list(kMaidCapSensitivity);
    const auto count = static_cast<std::uint32_t>(sensitivity.texts().size());
    EXPECT_TRUE(m_host.setPosition(m_host.source(), kMaidCapSensitivity, count - 1).isGood());
    const Outcome outcome = m_host.setPosition(m_host.source(), kMaidCapSensitivity, count);
    EXPECT_LT(outcome.result, 0);
    EXPECT_EQ(outcome.completions, 1);
    EXPECT_EQ(list(kMaidCapSensitivity).record.value, count - 1);
}

TEST_F(NikonList, TheModeDialDecidesWhatMayBeSet)
{
    struct Row {
        std::uint32_t mode;
        bool shutter;
        bool aperture;
        bool sensitivity;
    };
    for (const Row& row :
         {Row{0, false, false, true}, Row{1, false, true, true}, Row{2, true, false, true},
          Row{3, true, true, true}, Row{5, false, false, false}, Row{17, false, false, false}}) {
        ASSERT_TRUE(driver().turnDial(0, row.mode));
        EXPECT_EQ(isSettable(kMaidCapShutterSpeed), row.shutter) << row.mode;
        EXPECT_EQ(isSettable(kMaidCapAperture), row.aperture) << row.mode;
        EXPECT_EQ(isSettable(kMaidCapSensitivity), row.sensitivity) << row.mode;
        EXPECT_TRUE(isSettable(kMaidCapImageQuality));
        const List mode = list(kMaidCapExposureMode);
        EXPECT_EQ(mode.numbers()[mode.record.value], row.mode);
        EXPECT_EQ(driver().operations(0, kMaidCapShutterSpeed),
                  static_cast<int>(row.shutter ? kReadOnly | kMaidOperationSet : kReadOnly));
    }
}

TEST_F(NikonList, OnlyManualBeginsWithTheOpenShutter)
{
    EXPECT_EQ(list(kMaidCapShutterSpeed).texts().front(), "Bulb");
    driver().turnDial(0, 2);
    EXPECT_EQ(list(kMaidCapShutterSpeed).texts().front(), "30");
    EXPECT_EQ(list(kMaidCapShutterSpeed).current(), "1/125");
}

TEST_F(NikonList, TurningTheDialIsTold)
{
    driver().turnDial(0, 0);
    Host::async(m_host.source());
    EXPECT_EQ(m_host.parameters(kMaidEventCapChange).size(), 1U);
    const std::vector<std::uint64_t> values = m_host.parameters(kMaidEventCapChangeValue);
    EXPECT_NE(std::find(values.begin(), values.end(), kMaidCapExposureMode), values.end());
    EXPECT_NE(std::find(values.begin(), values.end(), kMaidCapShutterSpeed), values.end());
}

TEST_F(NikonList, AnAutomaticCameraMetersAndComesBackToWhatWasChosen)
{
    m_host.setPosition(m_host.source(), kMaidCapShutterSpeed, 10);
    const std::string chosen = list(kMaidCapShutterSpeed).current();
    driver().turnDial(0, 0);
    EXPECT_NE(list(kMaidCapShutterSpeed).current(), chosen);
    driver().turnDial(0, 3);
    EXPECT_EQ(list(kMaidCapShutterSpeed).current(), chosen);
}

TEST_F(NikonList, AListOfATestsOwnReplacesTheCameras)
{
    ASSERT_TRUE(driver().setTexts(0, kMaidCapWhiteBalance, "one\ntwo's\nübrig"));
    EXPECT_EQ(list(kMaidCapWhiteBalance).texts(),
              (std::vector<std::string>{"one", "two's", "übrig"}));
    ASSERT_TRUE(driver().setTexts(0, kMaidCapWhiteBalance, ""));
    EXPECT_EQ(list(kMaidCapWhiteBalance).record.elements, 0U);
    ASSERT_TRUE(driver().setTexts(0, kMaidCapWhiteBalance, nullptr));
    EXPECT_EQ(list(kMaidCapWhiteBalance).texts().front(), "Auto");
    EXPECT_EQ(driver().setTexts(0, kMaidCapExposureMode, "x"), 0);
}

TEST_F(NikonList, TheBodyChangesSettingsToo)
{
    ASSERT_TRUE(driver().setValue(0, kMaidCapAperture, 3));
    EXPECT_EQ(list(kMaidCapAperture).record.value, 3U);
    EXPECT_EQ(driver().value(0, kMaidCapAperture), 3);
    char text[100];
    driver().valueText(0, kMaidCapAperture, text, sizeof text);
    EXPECT_EQ(list(kMaidCapAperture).current(), text);
    EXPECT_EQ(driver().setValue(0, kMaidCapAperture, 1000), 0);
    EXPECT_EQ(driver().value(0, 0x1234), -1);
}

TEST_F(NikonList, AListThatGrewSinceItWasReadDoesNotFitAndIsNoMisuse)
{
    List white;
    EXPECT_EQ(arrayAfterChange(white, std::string(500, 'x')).result, kMaidBufferSize);
}

TEST_F(NikonList, AListThatShrankSinceItWasReadTellsItsLength)
{
    List white;
    EXPECT_EQ(arrayAfterChange(white, "A\nB").result, kMaidOk);
    EXPECT_EQ(white.record.elements, 4U);
}

TEST_F(NikonList, DescriptorsThatGrewSinceTheirCountDoNotFitAndAreNoMisuse)
{
    driver().corrupt(2, kMaidCapAperture, "absent", 1);
    std::uint32_t count = 0;
    m_host.issue(m_host.source(), kMaidCommandGetCapCount, 0, kMaidDataTypeUnsignedPtr,
                 dataOf(&count));
    driver().corrupt(2, kMaidCapAperture, "absent", 0);
    std::vector<MaidCapInfo> all(count);
    const Outcome outcome = m_host.issue(m_host.source(), kMaidCommandGetCapInfo, count,
                                         kMaidDataTypeCapInfoPtr, dataOf(all.data()));
    EXPECT_EQ(outcome.result, kMaidBufferSize);
    EXPECT_EQ(outcome.completions, 1);
}

}  // namespace
