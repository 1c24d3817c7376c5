// How the camera's settings are read, reported and changed.
#include "nikon/NikonReporting.h"

#include <algorithm>
#include <functional>
#include <limits>

#include "DebugLog.h"
#include "FakeMaid.h"
#include "MachineSettings.h"
#include "nikon/EnumSetting.h"
#include "nikon/MaidCommands.h"

using nikon::EnumReadings;
using nikon::ListSetting;
using Lines = std::vector<std::string>;

namespace {

// Writes down what it is sent.
class Receiver final : public nikon::ReportReceiver
{
public:
    bool send(TetherType type, const std::string& text) override
    {
        events.push_back("(" + std::to_string(type) + ", " + text + ")");
        return answer();
    }

    bool send(TetherType type, int value) override
    {
        events.push_back("(" + std::to_string(type) + ", " + std::to_string(value) + ")");
        return answer();
    }

    bool isWanted() override { return wanted; }

    Lines events;
    bool wanted = true;
    std::function<void()> onEvent;

private:
    bool answer()
    {
        if (onEvent) {
            onEvent();
        }
        return wanted;
    }
};

class NikonReportingTest : public fake::MaidTest
{
protected:
    void SetUp() override
    {
        m_tree = std::make_shared<nikon::MaidTree>(maid.library(), impatient());
        ASSERT_TRUE(m_tree->OpenModule());
        ASSERT_TRUE(m_tree->OpenSource());
        m_reporting = std::make_unique<nikon::NikonReporting>(m_tree, m_receiver);
        maid.clearCalls();
    }

    void TearDown() override
    {
        maid.clearRules();
        m_tree->CloseTree();
        MaidTest::TearDown();
    }

    int report()
    {
        m_receiver.events.clear();
        return m_reporting->ReportNikonProperties();
    }

    // The text of one event of a whole report.
    std::string eventOf(int type)
    {
        report();
        const std::string start = "(" + std::to_string(type) + ", ";
        for (const std::string& event : m_receiver.events) {
            if (event.rfind(start, 0) == 0) {
                return event.substr(start.size(), event.size() - start.size() - 1);
            }
        }
        return "<none>";
    }

    bool read(std::uint32_t capability, EnumReadings& readings)
    {
        return nikon::ReadEnumCapability(*m_tree, capability, readings);
    }

    bool set(std::uint32_t capability, std::uint16_t position)
    {
        return nikon::SetEnumPosition(*m_tree, capability, position);
    }

    // The descriptors as the fake has them now.
    void refetch() { nikon::GetCapInfo(m_tree->driver(), m_tree->source()); }

    fake::Cap& cap(std::uint32_t capability) { return maid.source->at(capability); }

    std::shared_ptr<nikon::MaidTree> m_tree;
    Receiver m_receiver;
    std::unique_ptr<nikon::NikonReporting> m_reporting;
};

// Reports.

const Lines& wholeReport()
{
    static const Lines events = {
        "(1, Manual)",
        "(3, 2)",
        "(4, {1:'1/250',2:'1/500','NIKON_EDITABLE':1,})",
        "(5, 1)",
        "(6, {1:'2.8',2:'4','NIKON_EDITABLE':1,})",
        "(7, 3)",
        "(8, {1:'100',2:'200',3:'400','NIKON_EDITABLE':1,})",
        "(9, 1)",
        "(10, {1:'Auto',2:'Sunny','NIKON_EDITABLE':1,})",
        "(13, JPEG Fine)",
    };
    return events;
}

TEST_F(NikonReportingTest, AReportTellsOfAllSixSettingsAndTheirLists)
{
    EXPECT_EQ(report(), 1);
    EXPECT_EQ(m_receiver.events, wholeReport());
    EXPECT_EQ(maid.count("Source CapGet 0x81D7"), 6);
}

TEST_F(NikonReportingTest, EveryReportTellsEverythingAgain)
{
    report();
    EXPECT_EQ(report(), 1);
    EXPECT_EQ(m_receiver.events, wholeReport());
}

TEST_F(NikonReportingTest, ASettingThatIsNotSettableEndsItsListWithAZero)
{
    cap(kMaidCapShutterSpeed).info.operations = kMaidOperationGet;
    refetch();
    EXPECT_EQ(eventOf(4), "{1:'1/250',2:'1/500','NIKON_EDITABLE':0,}");
}

TEST_F(NikonReportingTest, AnEmptyListHoldsTheEditableEntryAlone)
{
    cap(kMaidCapShutterSpeed).record.elements = 0;
    EXPECT_EQ(eventOf(4), "{'NIKON_EDITABLE':1,}");
    EXPECT_EQ(eventOf(3), "0");
    cap(kMaidCapShutterSpeed).info.operations = kMaidOperationGet;
    refetch();
    EXPECT_EQ(eventOf(4), "{'NIKON_EDITABLE':0,}");
}

TEST_F(NikonReportingTest, AMissingSettingIsReportedAsUnknown)
{
    maid.source->remove(kMaidCapAperture);
    refetch();
    EXPECT_EQ(report(), 1);
    EXPECT_EQ(eventOf(5), "0");
    EXPECT_EQ(eventOf(6), "{'NIKON_EDITABLE':0,}");
}

TEST_F(NikonReportingTest, ACameraWhoseLivenessCannotBeReadReportsNothing)
{
    maid.refuse(kMaidCommandCapGet, kMaidCapLiveness, -127, 0);
    EXPECT_EQ(report(), 0);
    EXPECT_EQ(m_receiver.events, Lines{});
    EXPECT_EQ(maid.calls(), Lines{"Source CapGet 0x81D7"});
}

TEST_F(NikonReportingTest, ACameraThatGoesAwayInTheMiddleEndsTheReportAtTheNextLook)
{
    const std::size_t eventsBefore[] = {0, 1, 3, 5, 7, 9};
    for (int look = 0; look < 6; ++look) {
        fake::Rule rule{kMaidCommandCapGet, kMaidCapLiveness};
        rule.result = -127;
        rule.skip = look;
        maid.rule(rule);
        EXPECT_EQ(report(), 0);
        EXPECT_EQ(m_receiver.events.size(), eventsBefore[look]);
    }
}

TEST_F(NikonReportingTest, WithoutACameraNothingIsReported)
{
    m_tree->CloseChild(m_tree->root(), 1);
    EXPECT_EQ(report(), 0);
    EXPECT_EQ(m_receiver.events, Lines{});
}

TEST_F(NikonReportingTest, ACameraThatIsRemovedInsideAReadEndsTheReport)
{
    maid.during(kMaidCommandCapGetArray, kMaidCapAperture, [&](const fake::Call& /*call*/) {
        fake::Maid::raise(maid.module, kMaidEventRemoveChild, 1);
    });
    EXPECT_EQ(report(), 0);
    EXPECT_EQ(m_tree->source(), nullptr);
}

TEST_F(NikonReportingTest, AHostThatWantsNoMoreEndsTheReport)
{
    m_receiver.onEvent = [&] { m_receiver.wanted = false; };
    EXPECT_EQ(report(), 0);
    EXPECT_EQ(m_receiver.events.size(), 1U);
    EXPECT_EQ(report(), 0);
    EXPECT_EQ(m_receiver.events.size(), 0U);
}

TEST_F(NikonReportingTest, AFailedReadReportsAnUnknownPositionAndAnEmptyList)
{
    maid.refuse(kMaidCommandCapGetArray, kMaidCapSensitivity);
    EXPECT_EQ(report(), 1);
    EXPECT_EQ(m_receiver.events[5], "(7, 0)");
    EXPECT_EQ(m_receiver.events[6], "(8, {'NIKON_EDITABLE':1,})");
    maid.refuse(kMaidCommandCapGet, kMaidCapSensitivity);
    EXPECT_EQ(report(), 1);
    EXPECT_EQ(m_receiver.events[5], "(7, 0)");
}

TEST_F(NikonReportingTest, AFailedReadOfATextReportsTheLastOneOnceMore)
{
    maid.refuse(kMaidCommandCapGetArray, kMaidCapExposureMode);
    EXPECT_EQ(eventOf(1), "");
    EXPECT_EQ(eventOf(1), "Manual");
    maid.refuse(kMaidCommandCapGetArray, kMaidCapExposureMode);
    maid.refuse(kMaidCommandCapGetArray, kMaidCapImageQuality);
    report();
    EXPECT_EQ(m_receiver.events.front(), "(1, Manual)");
    EXPECT_EQ(m_receiver.events.back(), "(13, JPEG Fine)");
}

TEST_F(NikonReportingTest, ADescriptionMayBeInAnyLetterCase)
{
    maid.texts(kMaidCapShutterSpeed, "sHUTTER sPEED", {"1/250"}, 0);
    maid.texts(kMaidCapImageQuality, "COMPRESSION LEVEL", {"RAW"}, 0);
    refetch();
    EXPECT_EQ(eventOf(4), "{1:'1/250','NIKON_EDITABLE':1,}");
    EXPECT_EQ(eventOf(13), "RAW");
}

TEST_F(NikonReportingTest, AnotherDescriptionYieldsAnEmptyListAndIndex0)
{
    maid.texts(kMaidCapShutterSpeed, "Shutter Speeds", {"1/250"}, 0);
    refetch();
    EXPECT_EQ(eventOf(4), "{'NIKON_EDITABLE':1,}");
    EXPECT_EQ(eventOf(3), "0");
}

TEST_F(NikonReportingTest, TextsGoToTheSettingThatTheDescriptionNames)
{
    maid.texts(kMaidCapShutterSpeed, "Aperture", {"1/250", "1/500"}, 1);
    refetch();
    EXPECT_EQ(eventOf(3), "0");
    EXPECT_EQ(eventOf(4), "{'NIKON_EDITABLE':1,}");
    // The aperture's step begins with a list of its own.
    EXPECT_EQ(eventOf(5), "1");
    EXPECT_EQ(eventOf(6), "{1:'2.8',2:'4','NIKON_EDITABLE':1,}");

    EnumReadings readings;
    EXPECT_TRUE(read(kMaidCapShutterSpeed, readings));
    EXPECT_EQ(readings.of(ListSetting::aperture).index, 2);
    EXPECT_EQ(readings.of(ListSetting::aperture).list.text(), "{1:'1/250',2:'1/500',}");
    EXPECT_EQ(readings.of(ListSetting::shutterSpeed).list.text(), "{}");
}

TEST_F(NikonReportingTest, AListDescribedAsTheImageQualityIsReportedAsThatWhenTheQualityIsNot)
{
    maid.texts(kMaidCapAperture, "Compression Level", {"2.8", "4"}, 1);
    maid.texts(kMaidCapImageQuality, "Quality", {"RAW"}, 0);
    refetch();
    EXPECT_EQ(eventOf(6), "{'NIKON_EDITABLE':1,}");
    EXPECT_EQ(eventOf(13), "4");
}

TEST_F(NikonReportingTest, AnImageQualityDescribedAsAListIsNotReportedAsText)
{
    EXPECT_EQ(eventOf(13), "JPEG Fine");
    maid.texts(kMaidCapImageQuality, "Sensitivity", {"RAW"}, 0);
    refetch();
    EXPECT_EQ(eventOf(13), "JPEG Fine");
    EXPECT_EQ(eventOf(8), "{1:'100',2:'200',3:'400','NIKON_EDITABLE':1,}");
}

TEST_F(NikonReportingTest, NumbersOfAnyCapabilityAreTheExposureModesText)
{
    maid.numbers(kMaidCapAperture, {28, 40}, 1);
    maid.texts(kMaidCapExposureMode, "Exposure Mode", {"P", "S"}, 1);
    refetch();
    EXPECT_EQ(eventOf(1), "");
    EXPECT_EQ(eventOf(5), "0");
    EXPECT_EQ(eventOf(6), "{'NIKON_EDITABLE':1,}");
    // What the last report has read.
    EXPECT_EQ(eventOf(1), "Undefined String");
}

TEST_F(NikonReportingTest, ADescriptionWithoutATerminatorMatchesNothing)
{
    maid.texts(kMaidCapShutterSpeed, "Aperture" + std::string(300, 'x'), {"1/250"}, 0);
    refetch();
    EXPECT_EQ(eventOf(4), "{'NIKON_EDITABLE':1,}");
}

// Enumerations that are not as they should be.

TEST_F(NikonReportingTest, TextsWithoutAnEndAreReadToTheArraysEnd)
{
    fake::Cap& speeds = cap(kMaidCapShutterSpeed);
    speeds.array = fake::bytesOf(std::string("1/250\0001/500", 11));
    speeds.record.elements = 11;
    EXPECT_EQ(eventOf(4), "{1:'1/250',2:'1/500','NIKON_EDITABLE':1,}");
    EXPECT_EQ(eventOf(3), "2");
}

TEST_F(NikonReportingTest, EmptyTextsHaveTheirPositions)
{
    fake::Cap& speeds = cap(kMaidCapShutterSpeed);
    speeds.array = fake::bytesOf(std::string("a\0\0b\0", 5));
    speeds.record.elements = 5;
    EXPECT_EQ(eventOf(4), "{1:'a',2:'',3:'b','NIKON_EDITABLE':1,}");
}

TEST_F(NikonReportingTest, ACurrentValueBeyondTheEndIsUnknown)
{
    for (const std::uint32_t current : {2U, 1'000'000U, 0xFFFFFFFFU}) {
        cap(kMaidCapShutterSpeed).record.value = current;
        cap(kMaidCapExposureMode).record.value = std::max(current, 4U);
        cap(kMaidCapImageQuality).record.value = current;
        EXPECT_EQ(report(), 1);
        EXPECT_EQ(m_receiver.events.front(), "(1, )");
        EXPECT_EQ(m_receiver.events[1], "(3, 0)");
        EXPECT_EQ(m_receiver.events.back(), "(13, )");
    }
}

TEST_F(NikonReportingTest, AnElementSizeThatDoesNotFitIsNotRead)
{
    EnumReadings readings;
    for (const int size : {0, 2, -1, 32767, -32768}) {
        cap(kMaidCapShutterSpeed).record.elementSize = static_cast<std::int16_t>(size);
        EXPECT_FALSE(read(kMaidCapShutterSpeed, readings)) << size;
        cap(kMaidCapExposureMode).record.elementSize = static_cast<std::int16_t>(size);
        EXPECT_FALSE(read(kMaidCapExposureMode, readings)) << size;
    }
    EXPECT_EQ(maid.count("Source CapGetArray 0x8112"), 0);
}

TEST_F(NikonReportingTest, AMillionElementsAreReadAndFourThousandMillionAreNot)
{
    EnumReadings readings;
    cap(kMaidCapExposureMode).record.elements = 1'000'000;
    EXPECT_TRUE(read(kMaidCapExposureMode, readings));
    EXPECT_EQ(readings.exposureMode, "Manual");
    cap(kMaidCapShutterSpeed).record.elements = 1'000'000;
    EXPECT_TRUE(read(kMaidCapShutterSpeed, readings));
    EXPECT_EQ(readings.of(ListSetting::shutterSpeed).index, 2);
    cap(kMaidCapExposureMode).record.elements = 0xFFFFFFFF;
    EXPECT_FALSE(read(kMaidCapExposureMode, readings));
    cap(kMaidCapShutterSpeed).record.elements = 0xFFFFFFFF;
    EXPECT_FALSE(read(kMaidCapShutterSpeed, readings));
}

TEST_F(NikonReportingTest, ASingleElementIsAList)
{
    maid.texts(kMaidCapShutterSpeed, "Shutter Speed", {"Bulb"}, 0);
    EXPECT_EQ(eventOf(4), "{1:'Bulb','NIKON_EDITABLE':1,}");
}

TEST_F(NikonReportingTest, ARecordThatChangesInsideItsArraysCommandDoesNoHarm)
{
    for (const std::uint32_t capability : {kMaidCapShutterSpeed, kMaidCapExposureMode}) {
        maid.during(kMaidCommandCapGetArray, capability, [](const fake::Call& call) {
            auto* record = reinterpret_cast<MaidEnum*>(call.data);
            record->value = 0xFFFFFFFF;
        });
        EnumReadings readings;
        EXPECT_TRUE(read(capability, readings));
    }
}

TEST_F(NikonReportingTest, OtherElementTypesAreLeftAlone)
{
    EnumReadings readings;
    cap(kMaidCapShutterSpeed).record.elementType = kMaidElementOther;
    EXPECT_TRUE(read(kMaidCapShutterSpeed, readings));
    EXPECT_TRUE(set(kMaidCapShutterSpeed, 1));
    for (const std::uint32_t type : {0U, 1U, 3U, 6U, 9U, 0xFFFFFFFFU}) {
        cap(kMaidCapShutterSpeed).record.elementType = type;
        EXPECT_FALSE(read(kMaidCapShutterSpeed, readings)) << type;
        EXPECT_FALSE(set(kMaidCapShutterSpeed, 1)) << type;
    }
    EXPECT_EQ(maid.count("Source CapGetArray 0x8112"), 0);
    EXPECT_EQ(maid.setValues, std::vector<std::uint32_t>{});
}

TEST_F(NikonReportingTest, WhatIsNoReadableEnumerationIsNotRead)
{
    EnumReadings readings;
    EXPECT_FALSE(read(kMaidCapLiveness, readings));
    EXPECT_FALSE(read(0x9999, readings));
    cap(kMaidCapShutterSpeed).info.operations = kMaidOperationSet;
    refetch();
    EXPECT_FALSE(read(kMaidCapShutterSpeed, readings));
    EXPECT_EQ(maid.count("Source CapGet 0x8112"), 0);
}

TEST_F(NikonReportingTest, NoExposureModesAreNoFailure)
{
    EnumReadings readings;
    maid.numbers(kMaidCapExposureMode, {}, 0);
    EXPECT_TRUE(read(kMaidCapExposureMode, readings));
    EXPECT_EQ(readings.exposureMode, "");
}

TEST_F(NikonReportingTest, AnUnknownExposureModeHasItsNumber)
{
    maid.numbers(kMaidCapExposureMode, {4, 18}, 1);
    EXPECT_EQ(eventOf(1), "ExposureMode 18");
}

// Setting.

TEST_F(NikonReportingTest, APositionBecomesTheCurrentValueCountedFrom0)
{
    EXPECT_TRUE(set(kMaidCapShutterSpeed, 1));
    EXPECT_TRUE(set(kMaidCapSensitivity, 3));
    EXPECT_EQ(maid.setValues, (std::vector<std::uint32_t>{0, 2}));
    EXPECT_EQ(eventOf(3), "1");
}

TEST_F(NikonReportingTest, Position0ChangesNothing)
{
    EXPECT_TRUE(set(kMaidCapShutterSpeed, 0));
    EXPECT_EQ(maid.setValues, std::vector<std::uint32_t>{});
}

TEST_F(NikonReportingTest, APositionBeyondTheTextsButWithinTheBytesIsPassedOn)
{
    // "1/250" and "1/500" with their terminators are 12 bytes.
    EXPECT_TRUE(set(kMaidCapShutterSpeed, 12));
    EXPECT_TRUE(set(kMaidCapShutterSpeed, 13));
    EXPECT_TRUE(set(kMaidCapShutterSpeed, 65535));
    EXPECT_EQ(maid.setValues, std::vector<std::uint32_t>{11});
}

TEST_F(NikonReportingTest, AReportSetsNothingHoweverLongTheList)
{
    cap(kMaidCapShutterSpeed).record.elements = 70'000;
    cap(kMaidCapShutterSpeed).array.resize(70'000);
    EXPECT_EQ(report(), 1);
    EXPECT_EQ(maid.setValues, std::vector<std::uint32_t>{});
}

TEST_F(NikonReportingTest, TheLastPositionIs65534HoweverLongTheList)
{
    cap(kMaidCapShutterSpeed).record.elements = 70'000;
    cap(kMaidCapShutterSpeed).array.resize(70'000);
    EXPECT_TRUE(set(kMaidCapShutterSpeed, 65535));
    EXPECT_TRUE(set(kMaidCapShutterSpeed, 65534));
    EXPECT_EQ(maid.setValues, std::vector<std::uint32_t>{65533});
}

TEST_F(NikonReportingTest, ASettingThatIsNotSettableIsNotSet)
{
    cap(kMaidCapShutterSpeed).info.operations = kMaidOperationGet;
    refetch();
    EXPECT_FALSE(set(kMaidCapShutterSpeed, 1));
    EXPECT_EQ(maid.setValues, std::vector<std::uint32_t>{});
}

TEST_F(NikonReportingTest, ARefusedSetShowsTheOldPositionInTheNextReport)
{
    maid.refuse(kMaidCommandCapSet, kMaidCapShutterSpeed);
    EXPECT_FALSE(set(kMaidCapShutterSpeed, 1));
    EXPECT_EQ(eventOf(3), "2");
}

TEST_F(NikonReportingTest, AReportAndASetAtTheSameTimeDoNotMixTheirLists)
{
    std::atomic<bool> stop{false};
    std::thread host([&] {
        while (!stop) {
            set(kMaidCapShutterSpeed, 2);
        }
    });
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(report(), 1);
        EXPECT_EQ(m_receiver.events, wholeReport());
    }
    stop = true;
    host.join();
}

// The debug log.

TEST_F(NikonReportingTest, EveryEventIsWrittenToTheDebugLogFirst)
{
    const MachineSettings settings;
    settings.setDumpMessage(1);
    readDebugLogSwitch();
    testing::internal::CaptureStderr();
    report();
    const std::string log = testing::internal::GetCapturedStderr();
    settings.setDumpMessage(0);
    readDebugLogSwitch();
    EXPECT_EQ(log,
              "[Lumatie]NIKON TETHER_EXPOSUREMODE=Manual\n"
              "[Lumatie]NIKON TETHER_SHUTTERSPEED=2\n"
              "[Lumatie]NIKON TETHER_SHUTTERSPEED_LIST={1:'1/250',2:'1/500','NIKON_EDITABLE':1,}\n"
              "[Lumatie]NIKON TETHER_APERTURE=1\n"
              "[Lumatie]NIKON TETHER_APERTURE_LIST={1:'2.8',2:'4','NIKON_EDITABLE':1,}\n"
              "[Lumatie]NIKON TETHER_ISO=3\n"
              "[Lumatie]NIKON TETHER_ISO_LIST={1:'100',2:'200',3:'400','NIKON_EDITABLE':1,}\n"
              "[Lumatie]NIKON TETHER_WB=1\n"
              "[Lumatie]NIKON TETHER_WB_LIST={1:'Auto',2:'Sunny','NIKON_EDITABLE':1,}\n"
              "[Lumatie]NIKON TETHER_IMAGEQUALITY=JPEG Fine\n");
}

}  // namespace
