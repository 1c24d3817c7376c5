// What the host's callable is told of a camera: every call and log line, letter for letter.
#include "PythonSupport.h"

#include "canon/CanonReporting.h"

#include <numeric>

#include "CanonTestSupport.h"
#include "DebugLog.h"
#include "MachineSettings.h"
#include "PyCallback.h"
#include "TetherTexts.h"

using canon::CameraEvent;

namespace {

class CanonReportingTest : public OpenSessionTest
{
protected:
    void SetUp() override
    {
        OpenSessionTest::SetUp();
        g_szLastFile.take();
        const InterpreterLock lock;
        m_callback = std::make_unique<PyCallback>();
        m_callback->SetCallback(m_recorder.object());
    }

    void TearDown() override
    {
        {
            const InterpreterLock lock;
            m_callback.reset();
        }
        OpenSessionTest::TearDown();
    }

    // Reports one notification, and returns what the callable was called with because of it.
    Lines report(const char* name) { return reportEvent(CameraEvent{name, nullptr}); }
    Lines report(const char* name, std::uint32_t argument)
    {
        return reportEvent(CameraEvent{name, &argument});
    }
    Lines changed(EdsPropertyID property) { return report("PropertyChanged", property); }
    Lines descChanged(EdsPropertyID property) { return report("PropertyDescChanged", property); }

    Lines reportEvent(const CameraEvent& event)
    {
        const std::size_t before = m_recorder.calls().size();
        canon::reportToHost(*m_callback, model(), event);
        const Lines all = m_recorder.calls();
        return {all.begin() + static_cast<std::ptrdiff_t>(before), all.end()};
    }

    static EdsPropertyDesc description(const std::vector<std::int32_t>& values)
    {
        EdsPropertyDesc desc = {};
        desc.numElements = static_cast<std::int32_t>(values.size());
        std::copy(values.begin(), values.end(), desc.propDesc);
        return desc;
    }

    static void allow(EdsPropertyID property, const std::vector<std::int32_t>& values)
    {
        VirtualCanonSetAllowed(0, property, values.data(), static_cast<int>(values.size()));
    }

    RecordingCallable m_recorder;
    std::unique_ptr<PyCallback> m_callback;
};

// Errors.

TEST_F(CanonReportingTest, TheErrorForABusyHostIsSentOnce)
{
    EXPECT_EQ(report("error", 0xC0), Lines{R"((0, "{'GENERAL_DEVICEBUSY':1}"))"});
}

TEST_F(CanonReportingTest, OtherErrorsAreNotSent)
{
    for (const std::uint32_t code : {0U, 1U, 0x81U, 0xBFU, 0xC1U, 0x100C0U, 0xC000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(report("error", code), Lines{}) << code;
    }
}

TEST_F(CanonReportingTest, OtherNotificationsAreNotSent)
{
    for (const char* name :
         {"DeviceBusy", "DownloadStart", "EvfDataChanged", "shutDown", "", "x"}) {
        EXPECT_EQ(report(name), Lines{}) << name;
    }
    EXPECT_EQ(report("ProgressReport", 50), Lines{});
}

TEST_F(CanonReportingTest, NamesInOtherLettersAreNotSent)
{
    model().Tv = 0x60;
    for (const char* name : {"propertychanged", "PROPERTYCHANGED", "Propertychanged",
                             "PropertyChanged ", "propertydescchanged", "PropertyDescchanged"}) {
        EXPECT_EQ(report(name, 0x406), Lines{}) << name;
    }
    EXPECT_EQ(report("Error", 0xC0), Lines{});
    EXPECT_EQ(report("downloadcomplete"), Lines{});
    EXPECT_EQ(report("DownloadCompleted"), Lines{});
}

// Values that the model keeps.

TEST_F(CanonReportingTest, TheExposureModeIsSentByItsText)
{
    model().AEMode = 3;
    EXPECT_EQ(changed(0x436), Lines{"(1, 'M')"});
}

TEST_F(CanonReportingTest, TheShutterSpeedIsSentByCodeAndText)
{
    model().Tv = 0x0C;
    EXPECT_EQ(changed(0x406), Lines{"(3, 12, 'Bulb')"});
    model().Tv = 0x60;
    EXPECT_EQ(changed(0x406), Lines{"(3, 96, '1/30')"});
}

TEST_F(CanonReportingTest, TheApertureIsSentByCodeAndText)
{
    model().Av = 0x30;
    EXPECT_EQ(changed(0x405), Lines{"(5, 48, '5.6')"});
}

TEST_F(CanonReportingTest, TheSensitivityIsSentByCodeAndText)
{
    model().ISOSpeed = 0x48;
    EXPECT_EQ(changed(0x402), Lines{"(7, 72, '100')"});
}

TEST_F(CanonReportingTest, AnInvalidCodeIsSentAsMinusOneAndUnknown)
{
    model().AEMode = model().Tv = model().Av = model().ISOSpeed = 0xFFFFFFFF;
    EXPECT_EQ(changed(0x436), Lines{"(1, 'unknown')"});
    EXPECT_EQ(changed(0x406), Lines{"(3, -1, 'unknown')"});
    EXPECT_EQ(changed(0x405), Lines{"(5, -1, 'unknown')"});
    EXPECT_EQ(changed(0x402), Lines{"(7, -1, 'unknown')"});
}

TEST_F(CanonReportingTest, ACodeWithoutATextIsNotSent)
{
    model().AEMode = model().Tv = model().Av = model().ISOSpeed = 0xABCDEF;
    for (const EdsPropertyID property : {0x436U, 0x406U, 0x405U, 0x402U}) {
        EXPECT_EQ(changed(property), Lines{}) << property;
    }
}

TEST_F(CanonReportingTest, OtherPropertiesAreNotSent)
{
    for (const EdsPropertyID property :
         {0U, 2U, 0xBU, 0x104U, 0x403U, 0x407U, 0x500U, 0xFFFFU, 0x10406U, 0xFFFFFFFFU}) {
        EXPECT_EQ(changed(property), Lines{}) << property;
        EXPECT_EQ(descChanged(property), Lines{}) << property;
    }
}

TEST_F(CanonReportingTest, ModelValuesAreSentWithoutAskingTheCamera)
{
    model().Tv = 0x60;
    changed(0x436);
    changed(0x406);
    descChanged(0x406);
    EXPECT_EQ(calls(), Lines{});
}

// Values that are read from the camera.

TEST_F(CanonReportingTest, TheWhiteBalanceIsReadWithNineBytesAndSentByCodeAndText)
{
    VirtualCanonSetProperty(0, 0x106, 9);
    EXPECT_EQ(changed(0x106), Lines{"(9, 9, 'Color temperature')"});
    EXPECT_EQ(calls(), Lines{"EdsGetPropertyData(camera, 0x106, 0, 9)"});
}

TEST_F(CanonReportingTest, TheColorTemperatureIsReadWithNineBytesAndSentByItsNumber)
{
    VirtualCanonSetProperty(0, 0x107, 5200);
    EXPECT_EQ(changed(0x107), Lines{"(11, 5200)"});
    EXPECT_EQ(calls(), Lines{"EdsGetPropertyData(camera, 0x107, 0, 9)"});
}

TEST_F(CanonReportingTest, AColorTemperatureOfAllOnesIsMinusOne)
{
    VirtualCanonSetProperty(0, 0x107, 0xFFFFFFFF);
    EXPECT_EQ(changed(0x107), Lines{"(11, -1)"});
}

TEST_F(CanonReportingTest, AWhiteBalanceWithoutATextIsNotSent)
{
    VirtualCanonSetProperty(0, 0x106, 0xFFFFFFFF);
    EXPECT_EQ(changed(0x106), Lines{});
}

TEST_F(CanonReportingTest, WhatAFailedDirectReadLeavesIsSent)
{
    fault("EdsGetPropertyData code=0x81 calls=2");
    EXPECT_EQ(changed(0x106), Lines{"(9, 0, 'Auto')"});
    EXPECT_EQ(changed(0x107), Lines{"(11, 0)"});
}

TEST_F(CanonReportingTest, WhatAFailedDirectReadFilledInIsSent)
{
    VirtualCanonSetProperty(0, 0x107, 5200);
    fault("EdsGetPropertyData code=0x2 after property=0x107");
    EXPECT_EQ(changed(0x107), Lines{"(11, 5200)"});
}

TEST_F(CanonReportingTest, TheImageQualityIsReadWithItsOwnSizeAndSentByItsText)
{
    VirtualCanonSetProperty(0, 0x100, 0x0013FF0F);
    EXPECT_EQ(changed(0x100), Lines{"(13, 'Large Fine Jpeg')"});
    EXPECT_EQ(calls(), (Lines{"EdsGetPropertySize(camera, 0x100, 0)",
                              "EdsGetPropertyData(camera, 0x100, 0, 4)"}));
}

TEST_F(CanonReportingTest, AnImageQualityThatCannotBeReadIsNotSent)
{
    VirtualCanonSetProperty(0, 0x100, 0x0013FF0F);
    fault("EdsGetPropertySize code=0x81 property=0x100");
    EXPECT_EQ(changed(0x100), Lines{});
    EXPECT_EQ(calls("EdsGetPropertyData"), Lines{});
    fault("EdsGetPropertyData code=0x81 property=0x100");
    EXPECT_EQ(changed(0x100), Lines{});
    VirtualCanonRemoveProperty(0, 0x100);
    EXPECT_EQ(changed(0x100), Lines{});
}

TEST_F(CanonReportingTest, AnImageQualityWithoutATextIsNotSent)
{
    VirtualCanonSetProperty(0, 0x100, 0xFFFFFFFF);
    EXPECT_EQ(changed(0x100), Lines{});
}

TEST_F(CanonReportingTest, AnImageQualityOfAnyAnnouncedSizeIsReadWithoutHarm)
{
    VirtualCanonSetProperty(0, 0x100, 0x0013FF0F);
    for (const char* size : {"4", "8", "19225", "65536"}) {
        configure(std::string("corrupt.0x100.size = ") + size);
        EXPECT_EQ(changed(0x100), Lines{"(13, 'Large Fine Jpeg')"}) << size;
    }
    for (const char* size : {"0", "1", "2", "0xFFFFFFFF"}) {
        configure(std::string("corrupt.0x100.size = ") + size);
        EXPECT_EQ(changed(0x100), Lines{}) << size;
    }
}

// Lists.

TEST_F(CanonReportingTest, AListHasTheCodesInTheCamerasOrderAndACommaBehindEach)
{
    model().TvDesc = description({0x10, 0x13, 0x60});
    model().AvDesc = description({0x30, 0x28});
    model().ISOSpeedDesc = description({0, 0x48});
    EXPECT_EQ(descChanged(0x406), Lines{R"((4, "{16:'30',19:'25',96:'1/30',}"))"});
    EXPECT_EQ(descChanged(0x405), Lines{R"((6, "{48:'5.6',40:'4',}"))"});
    EXPECT_EQ(descChanged(0x402), Lines{R"((8, "{0:'Auto',72:'100',}"))"});
}

TEST_F(CanonReportingTest, AListLeavesOutCodesWithoutAText)
{
    model().TvDesc = description({0x10, 0x11, 0xABCDEF, 0x13});
    EXPECT_EQ(descChanged(0x406), Lines{R"((4, "{16:'30',19:'25',}"))"});
}

TEST_F(CanonReportingTest, AnEmptyListIsTwoBraces)
{
    EXPECT_EQ(descChanged(0x406), Lines{"(4, '{}')"});
    model().TvDesc = description({0x11});
    EXPECT_EQ(descChanged(0x406), Lines{"(4, '{}')"});
}

TEST_F(CanonReportingTest, AListHasAnInvalidCodeUnsigned)
{
    model().TvDesc = description({-1});
    EXPECT_EQ(descChanged(0x406), Lines{R"((4, "{4294967295:'unknown',}"))"});
}

TEST_F(CanonReportingTest, AListKeepsACodeThatComesTwice)
{
    model().TvDesc = description({0x10, 0x10});
    EXPECT_EQ(descChanged(0x406), Lines{R"((4, "{16:'30',16:'30',}"))"});
}

// How many entries the list event has.
std::ptrdiff_t entries(const Lines& sent)
{
    return sent.size() == 1 ? std::count(sent.front().begin(), sent.front().end(), ':') : -1;
}

TEST_F(CanonReportingTest, AListHasAtMostTheEntriesThatADescriptionHolds)
{
    model().TvDesc = description(std::vector<std::int32_t>(128, 0x10));
    EXPECT_EQ(entries(descChanged(0x406)), 128);
    for (const std::int32_t count : {129, 200, 0x7FFFFFFF}) {
        model().TvDesc.numElements = count;
        EXPECT_EQ(entries(descChanged(0x406)), 128) << count;
    }
}

TEST_F(CanonReportingTest, AListThatIsReadForItsReportMayComeInALongerRecord)
{
    configure("records.extra = 256");
    allow(0x107, {2500, 2600});
    EXPECT_EQ(descChanged(0x107), Lines{"(12, '{0:2500,1:2600,}')"});
}

TEST_F(CanonReportingTest, AListWithANegativeCountIsEmpty)
{
    model().TvDesc = description(std::vector<std::int32_t>(128, 0x10));
    for (const std::int32_t count : {-1, -0x7FFFFFFF - 1}) {
        model().TvDesc.numElements = count;
        EXPECT_EQ(descChanged(0x406), Lines{"(4, '{}')"}) << count;
    }
}

TEST_F(CanonReportingTest, TheWhiteBalancesAreReadFromTheCamera)
{
    allow(0x106, {0, 9, 77});
    EXPECT_EQ(descChanged(0x106), Lines{R"((10, "{0:'Auto',9:'Color temperature',}"))"});
    EXPECT_EQ(calls(), Lines{"EdsGetPropertyDesc(camera, 0x106)"});
}

TEST_F(CanonReportingTest, TheColorTemperaturesAreReadFromTheCameraAndNumberedFromZero)
{
    allow(0x107, {2500, 2600, -5});
    EXPECT_EQ(descChanged(0x107), Lines{"(12, '{0:2500,1:2600,2:-5,}')"});
    EXPECT_EQ(calls(), Lines{"EdsGetPropertyDesc(camera, 0x107)"});
}

TEST_F(CanonReportingTest, ListsThatCannotBeReadAreEmpty)
{
    model().colorTemperatureDesc = description({2500});
    fault("EdsGetPropertyDesc code=0x81 calls=2");
    EXPECT_EQ(descChanged(0x106), Lines{"(10, '{}')"});
    EXPECT_EQ(descChanged(0x107), Lines{"(12, '{}')"});
}

TEST_F(CanonReportingTest, ListsReadFromTheCameraAreBoundedToo)
{
    for (const char* id : {"0x106", "0x107"}) {
        const auto property = static_cast<EdsPropertyID>(std::stoul(id, nullptr, 16));
        allow(property, std::vector<std::int32_t>(128, 9));
        configure(std::string("corrupt.") + id + ".count = 200");
        EXPECT_EQ(entries(descChanged(property)), 128) << id;
        configure(std::string("corrupt.") + id + ".count = -3");
        EXPECT_EQ(entries(descChanged(property)), 0) << id;
    }
}

TEST_F(CanonReportingTest, ExposureModesAndImageQualitiesHaveNoLists)
{
    model().AEModeDesc = description({3});
    model().imageQualityDesc = description({0x0013FF0F});
    EXPECT_EQ(descChanged(0x436), Lines{});
    EXPECT_EQ(descChanged(0x100), Lines{});
}

// Pictures.

TEST_F(CanonReportingTest, APictureIsSentOnceWithItsPath)
{
    g_szLastFile.set("/pictures/Canon_1700000000_41.CR2");
    EXPECT_EQ(report("DownloadComplete", 0),
              Lines{R"((0, "{'GENERAL_NEWFILE':r'/pictures/Canon_1700000000_41.CR2'}"))"});
    EXPECT_EQ(g_szLastFile.take(), "");
}

TEST_F(CanonReportingTest, ASecondCompletionReportsAnEmptyPath)
{
    g_szLastFile.set("/pictures/a.JPG");
    report("DownloadComplete", 0);
    EXPECT_EQ(report("DownloadComplete", 0), Lines{R"((0, "{'GENERAL_NEWFILE':r''}"))"});
}

TEST_F(CanonReportingTest, AFailedPictureIsAWriteFailureInAnyLetterCase)
{
    for (const char* text : {"error", "ERROR", "Error"}) {
        g_szLastFile.set(text);
        EXPECT_EQ(report("DownloadComplete", 0), Lines{R"((0, "{'GENERAL_WRITEFAIL':1}"))"});
        EXPECT_EQ(g_szLastFile.take(), "");
    }
}

TEST_F(CanonReportingTest, APathThatOnlyBeginsWithErrorIsAPath)
{
    g_szLastFile.set("errors");
    EXPECT_EQ(report("DownloadComplete", 0), Lines{R"((0, "{'GENERAL_NEWFILE':r'errors'}"))"});
}

TEST_F(CanonReportingTest, ACompletionNeedsNoArgument)
{
    g_szLastFile.set("/pictures/a.JPG");
    EXPECT_EQ(report("DownloadComplete"),
              Lines{R"((0, "{'GENERAL_NEWFILE':r'/pictures/a.JPG'}"))"});
}

TEST_F(CanonReportingTest, APathIsSentUnchangedEvenWithAQuoteOrABackslash)
{
    g_szLastFile.set(R"(D:\it's\n.JPG)");
    EXPECT_EQ(report("DownloadComplete"),
              Lines{R"x((0, "{'GENERAL_NEWFILE':r'D:\\it's\\n.JPG'}"))x"});
}

TEST_F(CanonReportingTest, APathMayHoldLettersOfAnyLanguage)
{
    g_szLastFile.set("/\xC3\xBC/\xE5\x86\x99.JPG");
    EXPECT_EQ(report("DownloadComplete"),
              Lines{"(0, \"{'GENERAL_NEWFILE':r'/\xC3\xBC/\xE5\x86\x99.JPG'}\")"});
}

TEST_F(CanonReportingTest, APathThatIsNoUtf8StillMakesOneCallWithoutArguments)
{
    g_szLastFile.set("/\xFF.JPG");
    EXPECT_EQ(report("DownloadComplete"), Lines{"()"});
    EXPECT_EQ(g_szLastFile.take(), "");
}

TEST_F(CanonReportingTest, APictureIsForgottenEvenWithoutACallable)
{
    {
        const InterpreterLock lock;
        m_callback->SetCallback(nullptr);
    }
    g_szLastFile.set("/pictures/a.JPG");
    EXPECT_EQ(report("DownloadComplete"), Lines{});
    EXPECT_EQ(g_szLastFile.take(), "");
}

TEST_F(CanonReportingTest, ACallableThatRaisesDoesNotKeepTheNextEventAway)
{
    bool raises = true;
    {
        const InterpreterLock lock;
        PyObject* callable = makeCallable([&](PyObject* /*arguments*/) {
            if (raises) {
                raises = false;
                m_callback->SetCallback(m_recorder.object());
            }
        });
        m_callback->SetCallback(callable);
        Py_DECREF(callable);
    }
    EXPECT_EQ(report("error", 0xC0), Lines{});
    EXPECT_EQ(report("error", 0xC0).size(), 1U);
}

// The debug log.

class CanonReportingLogTest : public CanonReportingTest
{
protected:
    void SetUp() override
    {
        CanonReportingTest::SetUp();
        m_settings.setDumpMessage(1);
        readDebugLogSwitch();
    }

    void TearDown() override
    {
        m_settings.setDumpMessage(0);
        readDebugLogSwitch();
        CanonReportingTest::TearDown();
    }

    // What reporting a notification writes.
    std::string logOf(const char* name, std::uint32_t argument)
    {
        testing::internal::CaptureStderr();
        report(name, argument);
        return testing::internal::GetCapturedStderr();
    }

    MachineSettings m_settings;
};

TEST_F(CanonReportingLogTest, EachEventHasItsLine)
{
    model().AEMode = 3;
    model().Tv = model().Av = model().ISOSpeed = 0x48;
    model().TvDesc = model().AvDesc = model().ISOSpeedDesc = description({0x48});
    VirtualCanonSetProperty(0, 0x106, 9);
    VirtualCanonSetProperty(0, 0x107, 5200);
    VirtualCanonSetProperty(0, 0x100, 0x0013FF0F);
    allow(0x106, {0});
    allow(0x107, {2500});
    g_szLastFile.set("/a.JPG");

    const std::string start = "[Lumatie]CANON TETHER_";
    EXPECT_EQ(logOf("error", 0xC0), start + "GENERAL={'GENERAL_DEVICEBUSY':1}\n");
    EXPECT_EQ(logOf("DownloadComplete", 0), start + "GENERAL={'GENERAL_NEWFILE':r'/a.JPG'}\n");
    EXPECT_EQ(logOf("PropertyChanged", 0x436), start + "EXPOSUREMODE=M\n");
    EXPECT_EQ(logOf("PropertyChanged", 0x406), start + "SHUTTERSPEED key=72, value=1/4\n");
    EXPECT_EQ(logOf("PropertyChanged", 0x405), start + "APERTURE key=72, value=16\n");
    EXPECT_EQ(logOf("PropertyChanged", 0x402), start + "ISO key=72, value=100\n");
    EXPECT_EQ(logOf("PropertyChanged", 0x106), start + "WB key=9, value=Color temperature\n");
    EXPECT_EQ(logOf("PropertyChanged", 0x107), start + "COLORTEMP value=5200\n");
    EXPECT_EQ(logOf("PropertyChanged", 0x100), start + "IMAGEQUALITY=Large Fine Jpeg\n");
    EXPECT_EQ(logOf("PropertyDescChanged", 0x406), start + "SHUTTERSPEED_LIST={72:'1/4',}\n");
    EXPECT_EQ(logOf("PropertyDescChanged", 0x405), start + "APERTURE_LIST={72:'16',}\n");
    EXPECT_EQ(logOf("PropertyDescChanged", 0x402), start + "ISO_LIST={72:'100',}\n");
    EXPECT_EQ(logOf("PropertyDescChanged", 0x106), start + "WB_LIST={0:'Auto',}\n");
    EXPECT_EQ(logOf("PropertyDescChanged", 0x107), start + "COLORTEMP_LIST={0:2500,}\n");
}

TEST_F(CanonReportingLogTest, AnInvalidCodeIsMinusOneInTheLineToo)
{
    model().Tv = 0xFFFFFFFF;
    EXPECT_EQ(logOf("PropertyChanged", 0x406),
              "[Lumatie]CANON TETHER_SHUTTERSPEED key=-1, value=unknown\n");
}

TEST_F(CanonReportingLogTest, WhatIsNotSentHasNoLine)
{
    model().Tv = 0xABCDEF;
    EXPECT_EQ(logOf("PropertyChanged", 0x406), "");
    EXPECT_EQ(logOf("error", 0x81), "");
    EXPECT_EQ(logOf("DeviceBusy", 0), "");
}

TEST_F(CanonReportingLogTest, TheLineComesBeforeTheCall)
{
    {
        const InterpreterLock lock;
        PyObject* callable =
            makeCallable([](PyObject* /*arguments*/) { DebugLog("%s", "called"); });
        m_callback->SetCallback(callable);
        Py_DECREF(callable);
    }
    EXPECT_EQ(logOf("error", 0xC0),
              "[Lumatie]CANON TETHER_GENERAL={'GENERAL_DEVICEBUSY':1}\n[Lumatie]called\n");
}

}  // namespace
