// How a session finds its camera, starts, is driven and ends.
#include "canon/CanonSession.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>

#include "CanonTestSupport.h"
#include "TetherEvents.h"
#include "TetherTexts.h"

using canon::CanonState;

namespace {

constexpr const char* kName = "Virtual EOS";

class CanonSessionTest : public VirtualCameraTest
{
protected:
    void TearDown() override
    {
        VirtualCameraClearFaults();
        VirtualCameraReleaseHangs();
        close();
        VirtualCameraTest::TearDown();
    }

    int init(const char* szInfo = kName) { return canon::CanonInit(m_state, m_observer, szInfo); }
    int close() { return canon::CanonClose(m_state); }

    // A start that finds no camera, and its end.
    void expectNotFound(const char* szInfo)
    {
        EXPECT_EQ(init(szInfo), 0);
        EXPECT_EQ(m_state.newest, nullptr);
        EXPECT_EQ(VirtualCanonReferenceCount("camera"), 0);
        EXPECT_EQ(VirtualCanonReferenceCount("list"), 0);
        EXPECT_EQ(close(), 1);
    }

    // A start that finds a camera, and its end.
    void expectFound(const char* szInfo)
    {
        EXPECT_EQ(init(szInfo), 1) << szInfo;
        EXPECT_NE(m_state.newest, nullptr);
        EXPECT_EQ(VirtualCanonReferenceCount("camera"), 1);
        EXPECT_EQ(close(), 1);
    }

    static void name(int camera, const std::string& bytes)
    {
        ASSERT_EQ(VirtualCanonSetName(camera, bytes.data(), static_cast<int>(bytes.size())), 1);
    }

    // The camera tells nothing by itself, so that the calls are those of the start alone.
    static void silence() { ASSERT_EQ(VirtualCameraEventRule("* lose calls=0"), 1); }

    // Starts a session and returns when its first two commands are done.
    void startQuietly()
    {
        silence();
        ASSERT_EQ(init(), 1);
        ASSERT_TRUE(waitFor([&] { return events() == Lines{"PropertyChanged 2"}; }));
        VirtualCameraClearLog();
    }

    // As inside the host's callable.
    void letEnd()
    {
        canon::CanonLetEnd(m_state, nullptr, [](const std::function<void()>& work) { work(); });
    }

    Lines events() const { return m_observer->events(); }

    CanonState m_state;
    const std::shared_ptr<RecordingObserver> m_observer = std::make_shared<RecordingObserver>();
};

// Starting.

TEST_F(CanonSessionTest, AStartInitialisesChoosesRegistersOpensAndReadsTheName)
{
    silence();
    EXPECT_EQ(init(), 1);
    ASSERT_EQ(VirtualCameraWaitForCalls("EdsGetPropertyData", 1, 5000), 1);
    EXPECT_EQ(
        calls(),
        (Lines{
            "EdsInitializeSDK()", "EdsGetCameraList()", "EdsGetChildCount(list)",
            "EdsGetChildAtIndex(list, 0)", "EdsGetDeviceInfo(camera)", "EdsRelease(list)",
            "EdsSetPropertyEventHandler(camera, 0x100)", "EdsSetObjectEventHandler(camera, 0x200)",
            "EdsSetCameraStateEventHandler(camera, 0x300)", "EdsOpenSession(camera)",
            "EdsSetPropertyData(camera, 0xB, 0, 4, 0x3)", "EdsSendStatusCommand(camera, 0x0, 0x0)",
            "EdsSetCapacity(camera, 2147483647, 4096, 1)", "EdsSendStatusCommand(camera, 0x1, 0x0)",
            "EdsGetPropertySize(camera, 0x2, 0)", "EdsGetPropertyData(camera, 0x2, 0, 12)"}));
}

TEST_F(CanonSessionTest, AStartKeepsTheCameraTheModelAndTheController)
{
    startQuietly();
    ASSERT_NE(m_state.newest, nullptr);
    EXPECT_NE(m_state.newest->m_camera, nullptr);
    EXPECT_EQ(m_state.newest->m_pModel->camera, m_state.newest->m_camera);
    EXPECT_EQ(m_state.newest->m_pModel->productName, kName);
    EXPECT_TRUE(m_state.newest->m_pController->processor().isRunning());
    EXPECT_TRUE(canon::CanonHasSessions(m_state));
}

TEST_F(CanonSessionTest, WithoutTheLibraryAStartFailsAndTheEndDoesNotTerminate)
{
    fault("EdsInitializeSDK code=0x2");
    EXPECT_EQ(init(), 0);
    EXPECT_FALSE(*m_state.m_bSdkInitialized);
    EXPECT_FALSE(canon::CanonHasSessions(m_state));
    EXPECT_EQ(close(), 1);
    EXPECT_EQ(calls(), Lines{"EdsInitializeSDK()"});
}

TEST_F(CanonSessionTest, AFailedStartAfterAGoodOneStillTerminates)
{
    EXPECT_EQ(init(), 1);
    close();
    VirtualCameraClearLog();
    fault("EdsInitializeSDK code=0x2");
    EXPECT_EQ(init(), 0);
    close();
    EXPECT_EQ(calls(), (Lines{"EdsInitializeSDK()", "EdsTerminateSDK()"}));
}

TEST_F(CanonSessionTest, WithoutACameraAStartFailsAndKeepsTheEmptyList)
{
    VirtualCameraUnplug(0);
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(m_state.newest, nullptr);
    EXPECT_EQ(VirtualCanonReferenceCount("list"), 1);
    EXPECT_EQ(close(), 1);
    EXPECT_EQ(calls(), (Lines{"EdsInitializeSDK()", "EdsGetCameraList()", "EdsGetChildCount(list)",
                              "EdsTerminateSDK()"}));
}

TEST_F(CanonSessionTest, WithoutAListAStartFails)
{
    fault("EdsGetCameraList code=0x81");
    expectNotFound(kName);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 1);
}

TEST_F(CanonSessionTest, WithoutACountAStartFails)
{
    fault("EdsGetChildCount code=0x81");
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(close(), 1);
    VirtualCameraClearMisuse();  // the list stays, as it does when it is empty
}

TEST_F(CanonSessionTest, HandlersThatCannotBeRegisteredDoNotMatter)
{
    fault("EdsSetPropertyEventHandler code=0x2");
    EXPECT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return events() == Lines{"PropertyChanged 2"}; }));
    EXPECT_EQ(VirtualCameraCallCount("EdsSetObjectEventHandler"), 0);
}

TEST_F(CanonSessionTest, ASessionThatCannotBeOpenedDoesNotMatterToTheStart)
{
    fault("EdsOpenSession code=0x81 calls=0");
    EXPECT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return events() == Lines{"error 81"}; }));
    EXPECT_EQ(close(), 1);
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
}

// Choosing a camera.

TEST_F(CanonSessionTest, TheSecondCameraIsTakenInAnotherLetterCaseAndTheFirstReleased)
{
    silence();
    VirtualCameraAdd("Canon EOS R5", 2);
    EXPECT_EQ(init("cANON eos r5"), 1);
    EXPECT_TRUE(waitFor([] { return VirtualCameraSessionOpen(1) == 1; }));
    EXPECT_EQ(VirtualCameraSessionOpen(0), 0);
    EXPECT_EQ(VirtualCanonReferenceCount("camera"), 1);
    const Lines made = calls();
    EXPECT_EQ(
        Lines(made.begin() + 3, made.begin() + 9),
        (Lines{"EdsGetChildAtIndex(list, 0)", "EdsGetDeviceInfo(camera)", "EdsRelease(camera)",
               "EdsGetChildAtIndex(list, 1)", "EdsGetDeviceInfo(camera)", "EdsRelease(list)"}));
}

TEST_F(CanonSessionTest, TheFirstOfTwoCamerasOfOneNameIsTaken)
{
    VirtualCameraAdd(kName, 1);
    EXPECT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([] { return VirtualCameraSessionOpen(0) == 1; }));
    EXPECT_EQ(VirtualCameraSessionOpen(1), 0);
    EXPECT_EQ(VirtualCameraCallCount("EdsGetDeviceInfo"), 1);
}

TEST_F(CanonSessionTest, ALibraryWhoseRecordsAreLongerFindsItsCamera)
{
    configure("records.extra = 256");
    expectFound(kName);
}

TEST_F(CanonSessionTest, WithoutAMatchEveryCameraIsReleased)
{
    VirtualCameraAdd("Canon EOS R5", 1);
    expectNotFound("Canon EOS R6");
    EXPECT_EQ(VirtualCameraCallCount("EdsGetDeviceInfo"), 2);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 1);
}

TEST_F(CanonSessionTest, ANameMustMatchWhole)
{
    for (const char* asked : {"", "Virtual", "Virtual EO", "Virtual EOS ", " Virtual EOS",
                              "Virtual EOSX", "Virtual\nEOS"}) {
        expectNotFound(asked);
    }
}

TEST_F(CanonSessionTest, ANullNameIsNoCameras)
{
    name(0, "");
    expectNotFound(nullptr);
}

TEST_F(CanonSessionTest, AnEmptyNameIsThatOfACameraWithoutOne)
{
    name(0, "");
    expectFound("");
}

TEST_F(CanonSessionTest, LettersBeyondAsciiAreComparedAsTheyStand)
{
    name(0, "Kamera \xC3\xBC \xE5\x86\x99");
    expectFound("KAMERA \xC3\xBC \xE5\x86\x99");
    expectNotFound("Kamera \xC3\x9C \xE5\x86\x99");
}

TEST_F(CanonSessionTest, SignsNextToTheLettersHaveNoCase)
{
    name(0, "EOS [@]");
    expectFound("eos [@]");
    expectNotFound("EOS {`}");
}

TEST_F(CanonSessionTest, ANameOf255BytesIsFound)
{
    name(0, std::string(255, 'n'));
    expectFound(std::string(255, 'N').c_str());
}

TEST_F(CanonSessionTest, ANameOf256BytesWithoutTerminatorEndsWithItsField)
{
    name(0, std::string(256, 'n'));
    expectFound(std::string(256, 'n').c_str());
    expectNotFound(std::string(255, 'n').c_str());
    expectNotFound(std::string(257, 'n').c_str());
}

TEST_F(CanonSessionTest, ANameOf10000CharactersIsNoCameras)
{
    expectNotFound(std::string(10000, 'V').c_str());
}

TEST_F(CanonSessionTest, ACameraOfSubTypeZeroGetsTheLegacyModel)
{
    VirtualCameraAdd("old", 0);
    silence();
    ASSERT_EQ(init("old"), 1);
    const auto* legacy =
        dynamic_cast<const canon::CameraModelLegacy*>(m_state.newest->m_pModel.get());
    ASSERT_NE(legacy, nullptr);
    EXPECT_TRUE(legacy->isLegacy());
}

TEST_F(CanonSessionTest, ACameraOfAnyOtherSubTypeGetsThePlainModel)
{
    for (const std::uint32_t subType : {1U, 2U, 0x80000000U, 0xFFFFFFFFU}) {
        const std::string called = "type " + std::to_string(subType);
        VirtualCameraAdd(called.c_str(), subType);
        ASSERT_EQ(init(called.c_str()), 1);
        EXPECT_EQ(dynamic_cast<const canon::CameraModelLegacy*>(m_state.newest->m_pModel.get()),
                  nullptr);
        close();
    }
}

// Cameras that do not answer.

TEST_F(CanonSessionTest, ACameraWithoutInformationIsReleasedWhenItsEmptyRecordDoesNotMatch)
{
    fault("EdsGetDeviceInfo code=0x2");
    expectNotFound(kName);
}

TEST_F(CanonSessionTest, ACameraWithoutInformationThatMatchesAllTheSameIsHeldUntilTheEnd)
{
    fault("EdsGetDeviceInfo code=0x2");
    EXPECT_EQ(init(""), 0);
    EXPECT_EQ(m_state.newest, nullptr);
    EXPECT_EQ(VirtualCanonReferenceCount("camera"), 1);
    EXPECT_EQ(VirtualCanonReferenceCount("list"), 0);
    VirtualCameraClearLog();
    EXPECT_EQ(close(), 1);
    EXPECT_EQ(calls(), (Lines{"EdsRelease(camera)", "EdsTerminateSDK()"}));
}

TEST_F(CanonSessionTest, ARecordThatWasFilledByAFailedCallMatchesAndRejects)
{
    VirtualCameraAdd(kName, 1);
    fault("EdsGetDeviceInfo code=0x2 after");
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(VirtualCameraCallCount("EdsGetDeviceInfo"), 1);
    EXPECT_EQ(VirtualCanonReferenceCount("camera"), 1);
}

TEST_F(CanonSessionTest, ACameraWithoutInformationDoesNotHideTheNext)
{
    VirtualCameraAdd("Canon EOS R5", 1);
    fault("EdsGetDeviceInfo code=0x2");
    expectFound("Canon EOS R5");
}

TEST_F(CanonSessionTest, ACameraThatIsGoneFromTheListIsSkipped)
{
    VirtualCameraAdd("Canon EOS R5", 1);
    fault("EdsGetChildAtIndex code=0x80 parameter=0");
    expectFound("Canon EOS R5");
}

TEST_F(CanonSessionTest, AnEntryWithoutACameraIsSkipped)
{
    VirtualCameraAdd("Canon EOS R5", 1);
    fault("EdsGetChildAtIndex code=0 parameter=0");
    fault("EdsGetDeviceInfo code=0");
    expectFound("Canon EOS R5");
}

TEST_F(CanonSessionTest, TheLastEntrysErrorDoesNotMatterWithoutACamera)
{
    fault("EdsGetChildAtIndex code=0x80");
    expectNotFound(kName);
}

TEST_F(CanonSessionTest, ACameraThatIsPulledWhileItIsTakenFromTheListIsNotFound)
{
    fault("EdsGetChildAtIndex unplug");
    expectNotFound(kName);
}

TEST_F(CanonSessionTest, ACameraThatIsPulledWhileItIsAskedForItsNameIsNotFound)
{
    fault("EdsGetDeviceInfo unplug");
    expectNotFound(kName);
}

TEST_F(CanonSessionTest, ACameraThatIsPulledBeforeItIsOpenedIsReportedAndCanBeEnded)
{
    fault("EdsOpenSession unplug");
    EXPECT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return !events().empty(); }));
    EXPECT_EQ(events().front(), "error 80");
    EXPECT_EQ(close(), 1);
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
}

TEST_F(CanonSessionTest, ACameraThatWasPulledAndPutBackCanBeStartedAgain)
{
    ASSERT_EQ(init(), 1);
    VirtualCameraUnplug(0);
    EXPECT_EQ(close(), 1);
    VirtualCameraPlug(0);
    expectFound(kName);
}

// Ending.

TEST_F(CanonSessionTest, AnEndClosesReleasesAndTerminatesInThisOrder)
{
    startQuietly();
    EXPECT_EQ(close(), 1);
    EXPECT_EQ(calls(),
              (Lines{"EdsCloseSession(camera)", "EdsRelease(camera)", "EdsTerminateSDK()"}));
    EXPECT_EQ(m_state.newest, nullptr);
    EXPECT_FALSE(canon::CanonHasSessions(m_state));
    EXPECT_TRUE(*m_state.m_bSdkInitialized);
}

TEST_F(CanonSessionTest, AnEndWithoutAStartDoesNothing)
{
    EXPECT_EQ(close(), 1);
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(CanonSessionTest, ASecondEndTerminatesAgain)
{
    startQuietly();
    EXPECT_EQ(close(), 1);
    EXPECT_EQ(close(), 1);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 2);
    EXPECT_EQ(VirtualCameraCallCount("EdsCloseSession"), 1);
}

TEST_F(CanonSessionTest, AFailureToCloseDoesNotKeepTheEndFromGoingOn)
{
    startQuietly();
    fault("EdsCloseSession code=0x81 after");
    EXPECT_EQ(close(), 1);
    EXPECT_EQ(calls(),
              (Lines{"EdsCloseSession(camera)", "EdsRelease(camera)", "EdsTerminateSDK()"}));
    EXPECT_EQ(events().back(), "error 81");
}

TEST_F(CanonSessionTest, StartsAndEndsAtOnceFollowEachOther)
{
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(init(), 1);
        ASSERT_EQ(close(), 1);
        ASSERT_EQ(VirtualCanonReferenceCount(""), 0);
    }
    EXPECT_EQ(VirtualCameraCallCount("EdsCloseSession"), 30);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 30);
}

TEST_F(CanonSessionTest, AnEndWaitsForAPictureUnderWay)
{
    const TemporaryFolder folder;
    g_szExportFolder.set(folder.path().c_str());
    ASSERT_EQ(init(), 1);
    ASSERT_EQ(VirtualCameraWaitForCalls("EdsSendStatusCommand", 2, 5000), 1);
    fault("EdsDownload hang percent=50");
    VirtualCameraPressShutter(0);
    ASSERT_EQ(VirtualCameraWaitForHang("EdsDownload", 5000), 1);
    const auto session = m_state.newest;
    std::atomic<bool> ended{false};
    std::thread closer([&] {
        close();
        ended = true;
    });
    EXPECT_TRUE(waitFor([&] { return !session->m_pController->processor().isRunning(); }));
    EXPECT_FALSE(ended);
    VirtualCameraReleaseHangs();
    closer.join();
    EXPECT_EQ(VirtualCameraPictureValue(0, "downloaded"), 1);
    EXPECT_EQ(folder.size(), 1);
    EXPECT_EQ(events().back(), "DownloadComplete 0");
}

TEST_F(CanonSessionTest, EventsDuringAnEndAndUntilTerminationDoNoHarm)
{
    configure("events.at_terminate = 1\nevents.threads = 4");
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(init(), 1);
        ASSERT_TRUE(waitFor([] { return VirtualCameraSessionOpen(0) == 1; }));
        std::atomic<bool> stop{false};
        std::thread sender([&] {
            while (!stop) {
                VirtualCanonSendPropertyEvent(0, 0x101, 0x406, 0);
                VirtualCanonSendStateEvent(0, 0x301, 0);
                if (void* item = VirtualCanonNewItem(0, -1)) {
                    if (VirtualCanonSendObjectEvent(0, 0x204, item) == 0) {
                        EdsRelease(static_cast<EdsBaseRef>(item));
                    }
                }
            }
        });
        EXPECT_EQ(close(), 1);
        stop = true;
        sender.join();
    }
    // The sender's last item may have met a library that was terminated already.
    VirtualCameraClearMisuse();
}

TEST_F(CanonSessionTest, NobodyIsToldAnythingAfterAnEnd)
{
    ASSERT_EQ(init(), 1);
    ASSERT_TRUE(waitFor([&] { return !events().empty(); }));
    close();
    const std::size_t told = events().size();
    VirtualCameraTurnDial(0, 1);
    VirtualCameraPressShutter(0);
    EXPECT_TRUE(waitFor(isIdle));
    EXPECT_EQ(events().size(), told);
}

// Several sessions.

TEST_F(CanonSessionTest, ASecondStartLeavesTheFirstSessionRunningUntilTheEnd)
{
    VirtualCameraAdd("Canon EOS R5", 1);
    ASSERT_EQ(init(), 1);
    ASSERT_EQ(init("Canon EOS R5"), 1);
    EXPECT_TRUE(waitFor([] { return VirtualCameraSessionOpen(0) == 1; }));
    EXPECT_TRUE(waitFor([] { return VirtualCameraSessionOpen(1) == 1; }));
    EXPECT_TRUE(m_state.sessions.at(0)->m_pController->processor().isRunning());
    EXPECT_EQ(m_state.newest, m_state.sessions.at(1));
    close();
    EXPECT_EQ(VirtualCameraCallCount("EdsCloseSession"), 2);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 1);
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
}

TEST_F(CanonSessionTest, TheFirstSessionStillReportsAfterASecondStart)
{
    VirtualCameraAdd("Canon EOS R5", 1);
    ASSERT_EQ(init(), 1);
    ASSERT_EQ(init("Canon EOS R5"), 1);
    ASSERT_TRUE(waitFor([] { return VirtualCameraSessionOpen(0) == 1; }));
    VirtualCanonSetProperty(0, 0x12345, 1);
    EXPECT_TRUE(waitFor([&] {
        const Lines all = events();
        return std::count(all.begin(), all.end(), "PropertyChanged 12345") == 1;
    }));
}

TEST_F(CanonSessionTest, SettingsGoToTheNewestSession)
{
    VirtualCameraAdd("Canon EOS R5", 1);
    ASSERT_EQ(init(), 1);
    ASSERT_EQ(init("Canon EOS R5"), 1);
    EXPECT_EQ(canon::CanonSetValue(m_state, TETHER_SHUTTERSPEED, 0x60), 1);
    EXPECT_TRUE(waitFor([] { return VirtualCanonProperty(1, 0x406) == 0x60; }));
    EXPECT_NE(VirtualCanonProperty(0, 0x406), 0x60);
}

TEST_F(CanonSessionTest, AFailedSecondStartLeavesTheFirstSessionTheNewest)
{
    startQuietly();
    EXPECT_EQ(init("no such camera"), 0);
    fault("EdsGetDeviceInfo code=0x2 after");
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(m_state.newest, m_state.sessions.front());
    EXPECT_EQ(canon::CanonSetValue(m_state, TETHER_SHUTTERSPEED, 0x60), 1);
    EXPECT_TRUE(waitFor([] { return VirtualCanonProperty(0, 0x406) == 0x60; }));
    close();
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
}

TEST_F(CanonSessionTest, ASecondStartWithTheSameCameraKeepsTryingUntilTheEnd)
{
    configure("misuse.one_thread = 0");
    startQuietly();
    ASSERT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return events().back() == "error 201e"; }));
    EXPECT_EQ(close(), 1);
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
    VirtualCameraClearMisuse();
}

TEST_F(CanonSessionTest, AnEventForAnEndedSessionDoesNoHarmWhileAnotherObjectUsesTheCamera)
{
    configure("misuse.one_thread = 0\nsession.reopen_code = 0");
    startQuietly();
    CanonState other;
    const auto otherObserver = std::make_shared<RecordingObserver>();
    ASSERT_EQ(canon::CanonInit(other, otherObserver, kName), 1);
    ASSERT_TRUE(waitFor([&] { return !otherObserver->events().empty(); }));
    // The camera has one set of handlers: from now on they are those of the session that ends here.
    canon::CanonClose(other);
    ASSERT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 0);

    VirtualCameraClearFaults();
    const std::size_t told = otherObserver->events().size();
    ASSERT_EQ(VirtualCanonSendPropertyEvent(0, 0x101, 0x406, 0), 1);
    ASSERT_EQ(VirtualCanonSendObjectEvent(0, 0x208, VirtualCanonNewItem(0, -1)), 1);
    ASSERT_EQ(VirtualCameraWaitForEvents(0x208, 1, 5000), 1);
    EXPECT_EQ(VirtualCanonReferenceCount("item"), 0);
    EXPECT_EQ(otherObserver->events().size(), told);
    close();
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 1);
}

TEST_F(CanonSessionTest, StartsAndEndsOfSeveralThreadsDoNoHarm)
{
    configure("misuse.one_thread = 0");
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 10; ++n) {
                init();
                canon::CanonSetValue(m_state, TETHER_ISO, 0x48);
                canon::CanonShoot(m_state);
                close();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(m_state.newest, nullptr);
    EXPECT_TRUE(m_state.sessions.empty());
    // An end of one thread terminates the library under the start of another.
    VirtualCameraClearMisuse();
}

// Ending on the session's own worker.

// Does something once, when the product name has been read, and counts what it is told.
class OnceObserver final : public canon::Observer
{
public:
    explicit OnceObserver(std::function<void()> action) : m_action(std::move(action)) {}

    void update(canon::Observable* /*from*/, const canon::CameraEvent& event) override
    {
        ++told;
        if (event.name == "PropertyChanged" && m_action) {
            const std::function<void()> action = std::move(m_action);
            m_action = nullptr;
            action();
        }
    }

    std::atomic<int> told{0};

private:
    std::function<void()> m_action;
};

TEST_F(CanonSessionTest, AnEndOnTheOwnWorkerReturnsAtOnceAndGoesOnBehindIt)
{
    silence();
    std::atomic<int> terminated{-1};
    const auto observer = std::make_shared<OnceObserver>([&] {
        letEnd();
        terminated = VirtualCameraCallCount("EdsTerminateSDK");
    });
    ASSERT_EQ(canon::CanonInit(m_state, observer, kName), 1);
    ASSERT_EQ(VirtualCameraWaitForCalls("EdsTerminateSDK", 1, 5000), 1);
    EXPECT_EQ(terminated, 0);
    EXPECT_EQ(observer->told, 1);
    EXPECT_EQ(VirtualCameraCallCount("EdsCloseSession"), 1);
    EXPECT_FALSE(canon::CanonHasSessions(m_state));
}

TEST_F(CanonSessionTest, AnEndOnTheOwnWorkerEndsTheOtherSessionsToo)
{
    VirtualCameraAdd("Canon EOS R5", 1);
    ASSERT_EQ(init("Canon EOS R5"), 1);
    ASSERT_TRUE(waitFor([] { return VirtualCameraSessionOpen(1) == 1; }));
    const auto observer = std::make_shared<OnceObserver>([&] { letEnd(); });
    ASSERT_EQ(canon::CanonInit(m_state, observer, kName), 1);
    ASSERT_EQ(VirtualCameraWaitForCalls("EdsTerminateSDK", 1, 5000), 1);
    EXPECT_EQ(VirtualCameraCallCount("EdsCloseSession"), 2);
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
}

TEST_F(CanonSessionTest, ASessionStartedWhileAnOldOnesEndIsPutOffIsOpenedBehindItAndLives)
{
    silence();
    std::atomic<int> restarted{-1};
    const auto old = std::make_shared<OnceObserver>([&] {
        letEnd();
        restarted = init();
    });
    ASSERT_EQ(canon::CanonInit(m_state, old, kName), 1);
    EXPECT_TRUE(waitFor([&] { return events() == Lines{"PropertyChanged 2"}; }));
    EXPECT_EQ(restarted, 1);
    EXPECT_EQ(VirtualCameraSessionOpen(0), 1);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 0);
    const Lines all = calls();
    const auto closed = std::find(all.begin(), all.end(), "EdsCloseSession(camera)");
    EXPECT_EQ(std::count(all.begin(), closed, "EdsOpenSession(camera)"), 1);
    EXPECT_EQ(std::count(closed, all.end(), "EdsOpenSession(camera)"), 1);
    close();
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 1);
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
}

TEST_F(CanonSessionTest, ASessionStartedWhileAnOldOnesEndIsPutOffIsNotOpenedBefore)
{
    silence();
    std::atomic<int> opened{-1};
    const auto old = std::make_shared<OnceObserver>([&] {
        letEnd();
        init();
        opened = VirtualCameraWaitForCalls("EdsOpenSession", 2, 100);
    });
    ASSERT_EQ(canon::CanonInit(m_state, old, kName), 1);
    EXPECT_TRUE(waitFor([&] { return opened != -1; }));
    EXPECT_EQ(opened, 0);
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsOpenSession", 2, 5000), 1);
    close();
}

TEST_F(CanonSessionTest, ASessionThatIsEndedDoesNotWaitForAnOldOnesEndThatIsPutOff)
{
    silence();
    std::atomic<int> restarted{-1};
    std::promise<void> ended;
    const auto old = std::make_shared<OnceObserver>([&] {
        letEnd();
        restarted = init();
        EXPECT_EQ(ended.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    });
    ASSERT_EQ(canon::CanonInit(m_state, old, kName), 1);
    EXPECT_TRUE(waitFor([&] { return restarted == 1; }));
    // By then its worker waits for the old one's end.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    close();
    ended.set_value();
}

// Driving.

struct SettingCase {
    int type;
    std::uint32_t value;
    const char* call;
};

void PrintTo(const SettingCase& setting, std::ostream* out)
{
    *out << setting.type << " = " << setting.value;
}

class EachSettingTest : public CanonSessionTest, public testing::WithParamInterface<SettingCase>
{};

TEST_P(EachSettingTest, SendsTheCode)
{
    startQuietly();
    EXPECT_EQ(canon::CanonSetValue(m_state, GetParam().type, GetParam().value), 1);
    // The first one was the start's.
    ASSERT_EQ(VirtualCameraWaitForCalls("EdsSetPropertyData", 2, 5000), 1);
    close();
    EXPECT_EQ(calls().front(), GetParam().call);
}

INSTANTIATE_TEST_SUITE_P(
    Settings, EachSettingTest,
    testing::Values(SettingCase{3, 0x60, "EdsSetPropertyData(camera, 0x406, 0, 4, 0x60)"},
                    SettingCase{5, 0x28, "EdsSetPropertyData(camera, 0x405, 0, 4, 0x28)"},
                    SettingCase{7, 0x48, "EdsSetPropertyData(camera, 0x402, 0, 4, 0x48)"},
                    SettingCase{9, 0x9, "EdsSetPropertyData(camera, 0x106, 0, 4, 0x9)"},
                    SettingCase{11, 5200, "EdsSetPropertyData(camera, 0x107, 0, 4, 0x1450)"},
                    SettingCase{3, 0xFFFFFFFF,
                                "EdsSetPropertyData(camera, 0x406, 0, 4, 0xFFFFFFFF)"}),
    [](const testing::TestParamInfo<SettingCase>& tested) {
        return "type" + std::to_string(tested.param.type) + "_" +
               std::to_string(tested.param.value);
    });

TEST_F(CanonSessionTest, OtherSettingsAreIgnored)
{
    startQuietly();
    for (const int type : {0, 1, 2, 4, 6, 8, 10, 12, 13, 14, 15, -1, 259, -0x7FFFFFFF - 1}) {
        EXPECT_EQ(canon::CanonSetValue(m_state, type, 3), 1) << type;
    }
    close();
    EXPECT_EQ(calls("EdsSetPropertyData"), Lines{});
}

TEST_F(CanonSessionTest, ShootingPressesTheButton)
{
    startQuietly();
    EXPECT_EQ(canon::CanonShoot(m_state), 1);
    ASSERT_EQ(VirtualCameraWaitForCalls("EdsSendCommand", 2, 5000), 1);
    close();
    EXPECT_EQ(calls("EdsSendCommand"),
              (Lines{"EdsSendCommand(camera, 0x4, 0x3)", "EdsSendCommand(camera, 0x4, 0x0)"}));
}

TEST_F(CanonSessionTest, DrivingWithoutASessionReturnsOneAndDoesNothing)
{
    EXPECT_EQ(canon::CanonSetValue(m_state, TETHER_ISO, 0x48), 1);
    EXPECT_EQ(canon::CanonShoot(m_state), 1);
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(CanonSessionTest, DrivingAfterAFailedStartOrAnEndDoesNothing)
{
    EXPECT_EQ(init("no such camera"), 0);
    EXPECT_EQ(canon::CanonSetValue(m_state, TETHER_ISO, 0x48), 1);
    EXPECT_EQ(canon::CanonShoot(m_state), 1);
    ASSERT_EQ(init(), 1);
    close();
    EXPECT_EQ(canon::CanonSetValue(m_state, TETHER_ISO, 0x48), 1);
    EXPECT_EQ(canon::CanonShoot(m_state), 1);
    EXPECT_EQ(calls("EdsSendCommand"), Lines{});
}

TEST_F(CanonSessionTest, APictureTakenByTheHostIsWrittenAndAnnounced)
{
    const TemporaryFolder folder;
    g_szExportFolder.set(folder.path().c_str());
    ASSERT_EQ(init(), 1);
    canon::CanonShoot(m_state);
    EXPECT_TRUE(waitFor([&] {
        const Lines all = events();
        return std::count(all.begin(), all.end(), "DownloadComplete 0") == 1;
    }));
    EXPECT_EQ(VirtualCameraPictureValue(0, "complete"), 1);
    EXPECT_EQ(folder.size(), 1);
    close();
    g_szExportFolder.set("");
}

}  // namespace
