// How a Nikon session starts, is driven and ends.
#include "PythonSupport.h"

#include "nikon/NikonSession.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>

#include "DebugLog.h"
#include "FakeMaid.h"
#include "MachineSettings.h"
#include "ProcessHeartbeat.h"
#include "TemporaryFolder.h"
#include "TestSupport.h"
#include "TetherTexts.h"
#include "nikon/MaidProcedures.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

namespace {

// The module and its camera.
constexpr std::size_t kLeftOpen = 2;

class NikonSessionTest : public fake::MaidTest
{
protected:
    void SetUp() override
    {
        g_szExportFolder.set(m_folder.path().c_str());
        m_receiver->serve(VENDOR_NIKON);
        m_handles = nikon::objectHandles().size();
        listen(m_recorder.object());
    }

    void TearDown() override
    {
        uninit();
        listen(nullptr);
        EXPECT_EQ(maid.openObjects(), m_left);
        MaidTest::TearDown();
    }

    void listen(PyObject* callable)
    {
        const InterpreterLock lock;
        m_receiver->SetCallback(callable);
    }

    int init() { return nikon::NikonStart(m_state, m_receiver, maid.library(), impatient()); }
    void uninit() { nikon::NikonUninit(m_state); }

    // A start, and the first whole report.
    void start()
    {
        ASSERT_EQ(init(), 1);
        ASSERT_TRUE(waitFor([&] { return has("(13, 'JPEG Fine')"); }));
    }

    bool has(const std::string& event) const { return m_recorder.wasCalledWith(event); }

    std::ptrdiff_t eventsOf(int type) const
    {
        const std::string start = "(" + std::to_string(type) + ",";
        const Lines events = m_recorder.calls();
        return std::count_if(events.begin(), events.end(),
                             [&](const std::string& event) { return event.rfind(start, 0) == 0; });
    }

    // The session under test.
    std::shared_ptr<nikon::NikonSession> session()
    {
        const std::lock_guard<std::mutex> guard(m_state.lock);
        return m_state.sessions.empty() ? nullptr : m_state.sessions.back();
    }

    std::ptrdiff_t captures() const { return maid.count("Source CapStart 0x11"); }

    // Asks for a capture until `isTaken`: a request that falls between a cycle's capture and its
    // end is lost.
    template <typename Condition>
    void shootUntil(Condition isTaken)
    {
        ASSERT_TRUE(waitFor([&] {
            nikon::NikonShoot(m_state);
            return waitFor(isTaken, 2s);
        }));
    }

    // Waits until the monitor has gone through a whole cycle.
    void waitForACycle()
    {
        const auto before = eventsOf(13);
        ASSERT_TRUE(waitFor([&] { return eventsOf(13) > before + 1; }));
    }

    // Replaces the callable by a function; the argument tuple is not looked at.
    void listenWith(const std::function<void()>& function)
    {
        const InterpreterLock lock;
        PyObject* callable = makeCallable([function](PyObject* /*arguments*/) { function(); });
        m_receiver->SetCallback(callable);
        Py_DECREF(callable);
    }

    // Ends the session and says how long that took.
    Clock::duration timeOfUninit()
    {
        const auto begun = Clock::now();
        uninit();
        return Clock::now() - begun;
    }

    TemporaryFolder m_folder;
    std::shared_ptr<EventReceiver> m_receiver = std::make_shared<EventReceiver>();
    RecordingCallable m_recorder;
    nikon::NikonState m_state;
    std::size_t m_handles = 0;
    std::size_t m_left = 0;  // objects that a session left behind has open
};

// Start.

TEST_F(NikonSessionTest, AStartOpensTheCameraAndReportsItsSettings)
{
    start();
    EXPECT_TRUE(has("(1, 'Manual')"));
    EXPECT_TRUE(has("(3, 2)"));
    EXPECT_TRUE(has("(4, \"{1:'1/250',2:'1/500','NIKON_EDITABLE':1,}\")"));
    EXPECT_TRUE(session()->isMonitored());
    uninit();
    EXPECT_EQ(maid.openObjects(), 0U);
    EXPECT_EQ(nikon::objectHandles().size(), m_handles);
}

TEST_F(NikonSessionTest, ReportsComeAgainAfterEachPause)
{
    EXPECT_EQ(nikon::Timing().pause, 1s);
    start();
    EXPECT_TRUE(waitFor([&] { return eventsOf(1) >= 3 && eventsOf(10) >= 3; }));
    EXPECT_EQ(eventsOf(2), 0);
    EXPECT_EQ(eventsOf(11), 0);
    EXPECT_EQ(eventsOf(12), 0);
    EXPECT_EQ(eventsOf(14), 0);
}

// A start that fails returns 0, closes what it has opened, and leaves nothing to end.
void expectFailedStart(fake::Maid& maid, const std::function<int()>& init, nikon::NikonState& state)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(init(), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(maid.openObjects(), 0U);
    EXPECT_TRUE(state.sessions.empty());
}

TEST_F(NikonSessionTest, AStartThatFailsAfterTheOpenClosesTheModule)
{
    const auto attempt = [&] { return init(); };
    maid.refuse(kMaidCommandOpen, 0);
    expectFailedStart(maid, attempt, m_state);
    maid.refuse(kMaidCommandGetCapCount, fake::kAny);
    expectFailedStart(maid, attempt, m_state);
    maid.refuse(kMaidCommandCapSet, kMaidCapEventProc);
    expectFailedStart(maid, attempt, m_state);
    maid.refuse(kMaidCommandCapSet, kMaidCapModuleMode);
    expectFailedStart(maid, attempt, m_state);
    maid.refuse(kMaidCommandOpen, 1);
    expectFailedStart(maid, attempt, m_state);
    uninit();
    EXPECT_EQ(nikon::objectHandles().size(), m_handles);
    start();
}

TEST_F(NikonSessionTest, AModuleWithoutCamerasFailsTheStart)
{
    maid.module.children.clear();
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonSessionTest, ACameraWhoseLivenessCannotBeReadReportsNothingAndItsMonitorEnds)
{
    maid.refuse(kMaidCommandCapGet, kMaidCapLiveness, -127, 0);
    ASSERT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return !session()->isMonitored(); }));
    EXPECT_EQ(m_recorder.calls(), Lines{});
    EXPECT_EQ(maid.count("Source CapGet 0x81D7"), 1);
    uninit();
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonSessionTest, ACameraThatIsPulledOutEndsTheMonitorAndUninitStillClosesTheRest)
{
    start();
    maid.during(kMaidCommandCapGet, kMaidCapLiveness, [&](const fake::Call& /*call*/) {
        fake::Maid::raise(maid.module, kMaidEventRemoveChild, 1);
    });
    EXPECT_TRUE(waitFor([&] { return !session()->isMonitored(); }));
    nikon::NikonShoot(m_state);
    EXPECT_EQ(nikon::NikonSetValue(m_state, TETHER_ISO, 1), 1);
    uninit();
    EXPECT_EQ(captures(), 0);
}

// Libraries.

class ModulePathTest : public NikonSessionTest
{
protected:
    void SetUp() override
    {
        NikonSessionTest::SetUp();
        m_settings.setDumpMessage(1);
        readDebugLogSwitch();
    }

    void TearDown() override
    {
        m_settings.setDumpMessage(0);
        readDebugLogSwitch();
        NikonSessionTest::TearDown();
    }

    // A start with that path fails; returns what the debug log says.
    std::string logOf(const std::string& path)
    {
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        EXPECT_EQ(nikon::NikonInit(m_state, m_receiver, path.c_str()), 0);
        m_output = testing::internal::GetCapturedStdout();
        uninit();
        return testing::internal::GetCapturedStderr();
    }

    MachineSettings m_settings;
    std::string m_output;  // of the last failed start
};

TEST_F(ModulePathTest, AModuleThatIsLoadedAlreadyIsShared)
{
    const char* const path = LUMATIE_VIRTUAL_DIR "/VirtualNikon.md3";
    const auto library = nikon::MaidLibrary::load(path);
    EXPECT_NE(library, nullptr);
    EXPECT_EQ(nikon::MaidLibrary::load(path), library);
}

TEST_F(ModulePathTest, AFileThatIsNoLibraryReturns0AndTheLogSaysWhy)
{
    const std::string path = m_folder.path() + "/Type0001.md3";
    std::ofstream(path) << "no driver module";
    const std::string log = logOf(path);
    EXPECT_EQ(log.rfind("[Lumatie]NIKON driver module cannot be loaded: ", 0), 0U) << log;
    EXPECT_NE(log.find(path), std::string::npos);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
    EXPECT_EQ(m_output, "Module object can't be opened.\n\n");
}

TEST_F(ModulePathTest, APathThatNamesNothingOrNoRegularFileReturns0AndTheLogSaysWhy)
{
    for (const std::string& path : {m_folder.path() + "/none.md3", m_folder.path(),
                                    std::string("/not there"), std::string()}) {
        EXPECT_EQ(logOf(path), "[Lumatie]NIKON driver module cannot be loaded: " + path +
                                   ": not a regular file\n");
    }
}

TEST_F(ModulePathTest, ALibraryWithoutTheEntryPointReturns0AndTheLogSaysWhy)
{
    const std::string path = LUMATIE_VIRTUAL_DIR "/" LUMATIE_CANON_LIBRARY;
    EXPECT_EQ(logOf(path), "[Lumatie]NIKON driver module has no MAIDEntryPoint: " + path + "\n");
    EXPECT_EQ(m_output, "Module object can't be opened.\n\n");
}

TEST_F(ModulePathTest, APathThatIsTooLongReturns0AndTheLogSaysWhy)
{
    const std::string path = m_folder.path() + "/" + std::string(260, 'x');
    EXPECT_EQ(logOf(path),
              "[Lumatie]NIKON driver module's path is longer than 259 bytes: " + path + "\n");
}

// Shooting.

TEST_F(NikonSessionTest, ARequestForAPictureStartsTheCaptureOnce)
{
    start();
    testing::internal::CaptureStdout();
    shootUntil([&] { return captures() == 1; });
    waitForACycle();
    waitForACycle();
    EXPECT_EQ(captures(), 1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("[Capture]\n"), std::string::npos);
}

TEST_F(NikonSessionTest, TwoRequestsWithinOneCycleProduceOneCapture)
{
    std::atomic<bool> asked{false};
    listenWith([&] {
        if (!asked.exchange(true)) {
            nikon::NikonShoot(m_state);
            nikon::NikonShoot(m_state);
        }
    });
    ASSERT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return captures() == 1; }));
    listen(m_recorder.object());
    waitForACycle();
    EXPECT_EQ(captures(), 1);
}

TEST_F(NikonSessionTest, ACameraThatCannotCaptureDropsTheRequestAndIsLetToWork)
{
    maid.source->remove(kMaidCapCapture);
    start();
    maid.clearCalls();
    shootUntil([&] { return maid.polls() == 1; });
    waitForACycle();
    EXPECT_EQ(maid.polls(), 1);
}

TEST_F(NikonSessionTest, ARequestWhileNoCameraIsOpenIsDropped)
{
    nikon::NikonShoot(m_state);
    start();
    waitForACycle();
    EXPECT_EQ(captures(), 0);
}

TEST_F(NikonSessionTest, ACaptureThatCompletesLaterIsWaitedFor)
{
    fake::Rule rule{kMaidCommandCapStart, kMaidCapCapture};
    rule.result = kMaidPending;
    rule.polls = 5;
    maid.rule(rule);
    start();
    maid.clearCalls();
    shootUntil([&] { return captures() == 1; });
    EXPECT_TRUE(waitFor([&] { return maid.polls() == 6; }));
}

TEST_F(NikonSessionTest, APictureIsWrittenAndAnnounced)
{
    start();
    maid.addItem(5, {fake::wholeFile("abc")});
    EXPECT_TRUE(waitFor([&] { return eventsOf(0) == 1; }));
    EXPECT_EQ(m_folder.size(), 1);
    const std::string path = std::filesystem::directory_iterator(m_folder.path())->path().string();
    EXPECT_EQ(contentOf(path), "abc");
    const InterpreterLock lock;
    PyObject* text = PyUnicode_FromString(("{'GENERAL_NEWFILE':r'" + path + "'}").c_str());
    EXPECT_TRUE(has("(0, " + represent(text) + ")"));
    Py_DECREF(text);
}

// Setting.

TEST_F(NikonSessionTest, AValueBecomesTheCamerasSetting)
{
    start();
    EXPECT_EQ(nikon::NikonSetValue(m_state, TETHER_SHUTTERSPEED, 1), 1);
    EXPECT_TRUE(waitFor([&] { return has("(3, 1)"); }));
    EXPECT_EQ(nikon::NikonSetValue(m_state, TETHER_ISO, 65537), 1);
    EXPECT_TRUE(waitFor([&] { return has("(7, 1)"); }));
}

TEST_F(NikonSessionTest, ValuesThatCannotBeSetDoNothingAndReturn1)
{
    start();
    EXPECT_EQ(nikon::NikonSetValue(m_state, TETHER_SHUTTERSPEED, 0), 1);
    EXPECT_EQ(nikon::NikonSetValue(m_state, TETHER_COLORTEMP, 5000), 1);
    EXPECT_EQ(nikon::NikonSetValue(m_state, TETHER_EXPOSUREMODE, 1), 1);
    EXPECT_EQ(nikon::NikonSetValue(m_state, TETHER_IMAGEQUALITY, 1), 1);
    EXPECT_EQ(nikon::NikonSetValue(m_state, -1, 1), 1);
    EXPECT_EQ(maid.setValues, std::vector<std::uint32_t>{});
}

TEST_F(NikonSessionTest, SettingWithoutASessionDoesNothing)
{
    EXPECT_EQ(nikon::NikonSetValue(m_state, TETHER_ISO, 1), 1);
    EXPECT_EQ(nikon::NikonShoot(m_state), 1);
}

TEST_F(NikonSessionTest, SettingsFromTheHostsThreadAndTheMonitorTakeTurns)
{
    start();
    for (int i = 0; i < 50; ++i) {
        nikon::NikonSetValue(m_state, TETHER_WB, 1 + i % 2);  // the fake complains about two inside
    }
    EXPECT_EQ(maid.setValues.size(), 50U);
}

TEST_F(NikonSessionTest, AValueIsSetAtOnceDuringAnExposure)
{
    fake::Rule rule{kMaidCommandCapStart, kMaidCapCapture};
    rule.polls = fake::kNever;
    maid.rule(rule);
    start();
    shootUntil([&] { return maid.outstanding() == 1; });
    auto setting = std::async(std::launch::async, [&] {
        const InterpreterLock lock;
        return nikon::NikonSetValue(m_state, TETHER_ISO, 1);
    });
    EXPECT_EQ(setting.wait_for(impatient().running / 2), std::future_status::ready);
    EXPECT_EQ(maid.outstanding(), 1U);
    maid.completeAll();
    EXPECT_EQ(setting.get(), 1);
    EXPECT_EQ(maid.setValues, std::vector<std::uint32_t>{0});
    waitForACycle();
}

TEST_F(NikonSessionTest, SettingKeepsTheInterpreterLockWhenNobodyElseUsesTheModule)
{
    nikon::Timing timing = impatient();
    timing.pause = 60s;
    ASSERT_EQ(nikon::NikonStart(m_state, m_receiver, maid.library(), timing), 1);
    ASSERT_TRUE(waitFor([&] { return maid.count("Source CapGet 0x7") == 1; }));
    int held = -1;
    maid.during(kMaidCommandCapSet, kMaidCapSensitivity,
                [&](const fake::Call& /*call*/) { held = PyGILState_Check(); });
    ASSERT_TRUE(waitFor([&] {
        const InterpreterLock lock;
        nikon::NikonSetValue(m_state, TETHER_ISO, 1);
        return held == 1;
    }));
}

TEST_F(NikonSessionTest, SettingGivesUpTheInterpreterLockWhileItWaitsForAnotherThread)
{
    start();
    maid.hang(kMaidCommandCapGet, kMaidCapAperture);
    EXPECT_TRUE(waitFor([&] { return maid.isHanging(); }));
    std::atomic<bool> holds{false};
    auto setting = std::async(std::launch::async, [&] {
        const InterpreterLock lock;
        holds = true;
        return nikon::NikonSetValue(m_state, TETHER_ISO, 1);
    });
    EXPECT_TRUE(waitFor([&] { return holds.load(); }));
    {
        const InterpreterLock lock;
        EXPECT_EQ(setting.wait_for(0s), std::future_status::timeout);
        EXPECT_TRUE(maid.isHanging());
    }
    maid.releaseHangs();
    EXPECT_EQ(setting.get(), 1);
    EXPECT_EQ(maid.setValues, std::vector<std::uint32_t>{0});
}

TEST_F(NikonSessionTest, ASettingInsideTheCallableWorks)
{
    std::atomic<int> results{0};
    listenWith([&] { results += nikon::NikonSetValue(m_state, TETHER_ISO, 1); });
    ASSERT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return results > 20; }));
    uninit();
}

TEST_F(NikonSessionTest, NoLockIsHeldInsideTheCallable)
{
    std::atomic<bool> inside{false};
    std::atomic<bool> leave{false};
    listenWith([&] {
        inside = true;
        PyThreadState* state = PyEval_SaveThread();
        waitFor([&] { return leave.load(); });
        PyEval_RestoreThread(state);
    });
    ASSERT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return inside.load(); }));
    {
        // As the host does it: with the interpreter lock.
        const InterpreterLock lock;
        EXPECT_EQ(nikon::NikonSetValue(m_state, TETHER_ISO, 1), 1);
    }
    EXPECT_EQ(maid.setValues, std::vector<std::uint32_t>{0});
    leave = true;
    uninit();
}

// No memory.

void runOutOfMemory(const fake::Call& /*call*/)
{
    throw std::bad_alloc();
}

TEST_F(NikonSessionTest, WithoutMemoryForAReportTheSessionGoesOn)
{
    start();
    maid.during(kMaidCommandCapGet, kMaidCapAperture, runOutOfMemory);
    waitForACycle();
    waitForACycle();
    EXPECT_TRUE(session()->isMonitored());
}

TEST_F(NikonSessionTest, WithoutMemoryForACaptureTheSessionGoesOn)
{
    start();
    maid.during(kMaidCommandCapStart, kMaidCapCapture, runOutOfMemory);
    shootUntil([&] { return captures() == 1; });
    waitForACycle();
    shootUntil([&] { return captures() == 2; });
}

TEST_F(NikonSessionTest, WithoutMemoryForAnAcquisitionThePictureIsFetchedLater)
{
    start();
    maid.during(kMaidCommandCapGet, kMaidCapDataTypes, runOutOfMemory);
    maid.addItem(5, {fake::wholeFile("abc")});
    EXPECT_TRUE(waitFor([&] { return eventsOf(0) == 1; }));
    EXPECT_EQ(m_folder.size(), 1);
}

TEST_F(NikonSessionTest, WithoutMemoryASettingThrowsAndTheSessionGoesOn)
{
    start();
    maid.during(kMaidCommandCapSet, kMaidCapSensitivity, runOutOfMemory);
    EXPECT_THROW(nikon::NikonSetValue(m_state, TETHER_ISO, 1), std::bad_alloc);
    EXPECT_EQ(nikon::NikonSetValue(m_state, TETHER_ISO, 2), 1);
    EXPECT_EQ(maid.setValues, std::vector<std::uint32_t>{1});
    waitForACycle();
}

TEST_F(NikonSessionTest, WithoutMemoryAStartThrowsAndClosesWhatIsOpen)
{
    maid.during(kMaidCommandCapGet, kMaidCapChildren, runOutOfMemory);
    EXPECT_THROW(init(), std::bad_alloc);
    EXPECT_EQ(maid.openObjects(), 0U);
}

// The end.

TEST_F(NikonSessionTest, TheCameraWithTheId1IsClosedFirstAndTheModuleLast)
{
    start();
    maid.clearCalls();
    EXPECT_LT(timeOfUninit(), 1s);
    Lines closes;
    for (const std::string& call : maid.calls()) {
        if (call.find("Close") != std::string::npos) {
            closes.push_back(call);
        }
    }
    EXPECT_EQ(closes, (Lines{"Source Close 0x0", "Module Close 0x0"}));
}

TEST_F(NikonSessionTest, ACameraUnderAnotherIdIsClosedToo)
{
    maid.source->id = 77;
    start();
    uninit();
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonSessionTest, NothingIsReportedInThePause)
{
    nikon::Timing timing = impatient();
    timing.pause = 60s;
    ASSERT_EQ(nikon::NikonStart(m_state, m_receiver, maid.library(), timing), 1);
    ASSERT_TRUE(waitFor([&] { return eventsOf(13) == 1; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(eventsOf(1), 1);
}

TEST_F(NikonSessionTest, TheEndDoesNotWaitForThePause)
{
    nikon::Timing timing = impatient();
    timing.pause = 60s;
    ASSERT_EQ(nikon::NikonStart(m_state, m_receiver, maid.library(), timing), 1);
    ASSERT_TRUE(waitFor([&] { return has("(13, 'JPEG Fine')"); }));
    EXPECT_LT(timeOfUninit(), 10s);
}

TEST_F(NikonSessionTest, TheEndWaitsForAPictureThatIsUnderWay)
{
    start();
    std::atomic<bool> inside{false};
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.during(kMaidCommandCapStart, kMaidCapAcquire, [&](const fake::Call& /*call*/) {
        inside = true;
        std::this_thread::sleep_for(100ms);
    });
    EXPECT_TRUE(waitFor([&] { return inside.load(); }));
    uninit();
    EXPECT_EQ(m_folder.size(), 1);
    EXPECT_EQ(eventsOf(0), 0);  // not announced any more
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonSessionTest, NothingIsDeliveredAfterTheEnd)
{
    start();
    uninit();
    const auto before = m_recorder.calls().size();
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(m_recorder.calls().size(), before);
}

TEST_F(NikonSessionTest, ASecondStartLeavesTheFirstSessionRunningAndTheEndEndsBoth)
{
    start();
    // The module is open once already; the fake counts a second open as a misuse.
    fake::Rule rule{kMaidCommandOpen, 0};
    rule.result = -127;
    maid.rule(rule);
    testing::internal::CaptureStdout();
    EXPECT_EQ(init(), 0);
    testing::internal::GetCapturedStdout();
    waitForACycle();
    uninit();
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonSessionTest, ManySessionsOneAfterTheOtherLeaveNothing)
{
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(init(), 1);
        uninit();
        ASSERT_EQ(maid.openObjects(), 0U);
    }
    EXPECT_EQ(nikon::objectHandles().size(), m_handles);
    EXPECT_EQ(nikon::receivers().size(), 0U);
}

TEST_F(NikonSessionTest, WhenTheObjectServesAnotherMakerReportsEndAndTheSessionStaysOpen)
{
    start();
    m_receiver->serve(VENDOR_CANON);
    EXPECT_TRUE(waitFor([&] { return !session()->isMonitored(); }));
    EXPECT_EQ(maid.openObjects(), 2U);
    uninit();
}

TEST_F(NikonSessionTest, AnEndFromInsideTheCallableClosesEverythingAtOnce)
{
    std::atomic<int> calls{0};
    std::atomic<std::size_t> openAfterwards{99};
    listenWith([&] {
        ++calls;
        PyThreadState* state = PyEval_SaveThread();
        nikon::NikonLetEnd(m_state, nullptr);
        PyEval_RestoreThread(state);
        openAfterwards = maid.openObjects();
    });
    ASSERT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return openAfterwards != 99; }));
    EXPECT_EQ(openAfterwards, 0U);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(calls, 1);
}

TEST_F(NikonSessionTest, AnEndAndAStartInsideTheCallableBeginANewSession)
{
    std::atomic<int> started{-1};
    listenWith([&] {
        if (started == -1) {
            PyThreadState* state = PyEval_SaveThread();
            nikon::NikonLetEnd(m_state, nullptr);
            started = init();
            PyEval_RestoreThread(state);
        }
    });
    ASSERT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return started == 1; }));
    listen(m_recorder.object());
    EXPECT_TRUE(waitFor([&] { return has("(13, 'JPEG Fine')"); }));
}

TEST_F(NikonSessionTest, TheEndWaitsForTheCallable)
{
    std::atomic<bool> inside{false};
    std::atomic<bool> left{false};
    listenWith([&] {
        inside = true;
        PyThreadState* state = PyEval_SaveThread();
        std::this_thread::sleep_for(2 * impatient().hanging);
        PyEval_RestoreThread(state);
        left = true;
    });
    ASSERT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return inside.load(); }));
    uninit();
    EXPECT_TRUE(left);
    EXPECT_EQ(maid.openObjects(), 0U);
}

// A module that does not answer.

TEST_F(NikonSessionTest, TheRealPatienceEndsWithinTenSeconds)
{
    const nikon::Timing timing;
    EXPECT_LT(timing.stopping + timing.closing, timing.hanging);
    EXPECT_LT(timing.hanging, 10s);
}

TEST_F(NikonSessionTest, ACommandThatIsNeverCompletedIsGivenUpAtTheEndAndAllIsClosed)
{
    nikon::Timing timing = impatient();
    timing.running = 60s;
    ASSERT_EQ(nikon::NikonStart(m_state, m_receiver, maid.library(), timing), 1);
    fake::Rule rule{kMaidCommandCapGet, kMaidCapAperture};
    rule.polls = fake::kNever;
    maid.rule(rule);
    EXPECT_TRUE(waitFor([&] { return maid.outstanding() == 1; }));
    EXPECT_LT(timeOfUninit(), 5s);
    EXPECT_EQ(maid.openObjects(), 0U);
    maid.completeAll();
}

// Exposures.

class NikonExposureTest : public NikonSessionTest
{
protected:
    // A session with an exposure under way, which `maid.completeAll` ends.
    void expose(const nikon::Timing& timing = impatient())
    {
        fake::Rule rule{kMaidCommandCapStart, kMaidCapCapture};
        rule.polls = fake::kNever;
        startWith(rule, timing);
        shootUntil([&] { return maid.outstanding() == 1; });
    }

    // The same in a module whose command comes back when the exposure is over, and which answers
    // nothing until then: `maid.releaseHangs` ends it.
    void exposeInside()
    {
        fake::Rule rule{kMaidCommandCapStart, kMaidCapCapture};
        rule.hangs = true;
        startWith(rule, impatient());
        shootUntil([&] { return maid.isHanging(); });
    }

    void startWith(const fake::Rule& rule, const nikon::Timing& timing)
    {
        maid.rule(rule);
        ASSERT_EQ(nikon::NikonStart(m_state, m_receiver, m_library, timing), 1);
        ASSERT_TRUE(waitFor([&] { return has("(13, 'JPEG Fine')"); }));
    }

    // Ends the session; meanwhile the exposure ends, and brings a picture.
    void endWithAPicture()
    {
        auto ending = std::async(std::launch::async, [&] { uninit(); });
        EXPECT_EQ(ending.wait_for(2 * impatient().hanging), std::future_status::timeout);
        maid.addItem(6, {fake::wholeFile("the exposure's")});
        maid.completeAll();
        ending.get();
    }

    // What the pictures on disk hold.
    Lines pictures() const
    {
        Lines found;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder.path())) {
            found.push_back(contentOf(entry.path().u8string()));
        }
        return found;
    }

    std::shared_ptr<nikon::MaidLibrary> m_library = maid.library();
};

TEST_F(NikonExposureTest, AnExposureIsWaitedForWithoutLimitWhileTheModuleAnswers)
{
    expose();
    maid.clearCalls();
    std::this_thread::sleep_for(2 * impatient().running);
    EXPECT_EQ(maid.calls(), Lines{});
    maid.completeAll();
    waitForACycle();
}

TEST_F(NikonExposureTest, AValueThatTheCameraTakesAfterTheExposureIsWaitedForToo)
{
    expose();
    fake::Rule rule{kMaidCommandCapSet, kMaidCapSensitivity};
    rule.polls = fake::kNever;
    maid.rule(rule);
    auto setting = std::async(std::launch::async,
                              [&] { return nikon::NikonSetValue(m_state, TETHER_ISO, 1); });
    EXPECT_EQ(setting.wait_for(2 * impatient().running), std::future_status::timeout);
    maid.completeAll();
    EXPECT_EQ(setting.get(), 1);
    waitForACycle();
}

TEST_F(NikonExposureTest, AModuleThatRefusesToWorkEndsTheWaitForAnExposure)
{
    expose();
    maid.asyncResult = -127;
    waitForACycle();
    maid.asyncResult = kMaidOk;
    maid.completeAll();
}

TEST_F(NikonExposureTest, TheEndWaitsForAnExposureAndItsPictureWhichIsNotAnnounced)
{
    expose();
    auto ending = std::async(std::launch::async, [&] { uninit(); });
    EXPECT_EQ(ending.wait_for(2 * impatient().hanging), std::future_status::timeout);
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.completeAll();
    ending.get();
    EXPECT_EQ(m_folder.size(), 1);
    EXPECT_EQ(eventsOf(0), 0);
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonExposureTest, TheEndWaitsForAnExposureInsideTheCommandAndForItsPicture)
{
    exposeInside();
    auto ending = std::async(std::launch::async, [&] { uninit(); });
    EXPECT_EQ(ending.wait_for(2 * impatient().hanging), std::future_status::timeout);
    maid.addItem(6, {fake::wholeFile("the exposure's")});
    maid.releaseHangs();
    ending.get();
    EXPECT_EQ(pictures(), Lines{"the exposure's"});
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonExposureTest, AValueWaitsForAnExposureInsideTheCommand)
{
    exposeInside();
    auto setting = std::async(std::launch::async,
                              [&] { return nikon::NikonSetValue(m_state, TETHER_ISO, 1); });
    EXPECT_EQ(setting.wait_for(2 * impatient().running), std::future_status::timeout);
    maid.releaseHangs();
    EXPECT_EQ(setting.get(), 1);
    waitForACycle();
}

TEST_F(NikonExposureTest, TheEndLeavesPicturesOnTheCameraThatWereThereBeforeTheExposure)
{
    fake::Rule rule{kMaidCommandCapStart, kMaidCapCapture};
    rule.polls = fake::kNever;
    maid.rule(rule);
    std::atomic<bool> asked{false};
    listenWith([&] {
        if (!asked.exchange(true)) {
            maid.addItem(5, {fake::wholeFile("another")});
            fake::Maid::raise(*maid.source, kMaidEventAddChild, 5);
            nikon::NikonShoot(m_state);
        }
    });
    ASSERT_EQ(nikon::NikonStart(m_state, m_receiver, m_library, impatient()), 1);
    ASSERT_TRUE(waitFor([&] { return maid.outstanding() == 1; }));
    endWithAPicture();
    EXPECT_EQ(pictures(), Lines{"the exposure's"});
}

TEST_F(NikonExposureTest, TheEndLeavesPicturesOnTheCameraThatComeAfterTheExposure)
{
    expose();
    maid.during(kMaidCommandCapStart, kMaidCapAcquire,
                [&](const fake::Call& /*call*/) { maid.addItem(5, {fake::wholeFile("another")}); });
    endWithAPicture();
    EXPECT_EQ(pictures(), Lines{"the exposure's"});
}

TEST_F(NikonExposureTest, TheEndFetchesNoMoreThanTwoPicturesOfAnExposure)
{
    expose();
    maid.addItem(7, {fake::wholeFile("one")});
    maid.addItem(8, {fake::wholeFile("two")});
    endWithAPicture();
    EXPECT_EQ(m_folder.size(), 2);
}

TEST_F(NikonExposureTest, AnEndWithoutAnExposureLeavesTheNextPictureOnTheCamera)
{
    start();
    std::atomic<bool> inside{false};
    maid.during(kMaidCommandCapStart, kMaidCapAcquire, [&](const fake::Call& /*call*/) {
        inside = true;
        EXPECT_TRUE(waitFor([&] { return !nikon::NikonHasSessions(m_state); }));
    });
    {
        const std::lock_guard<std::recursive_mutex> guard(maid.lock);
        maid.addItem(5, {fake::wholeFile("abc")});
        maid.addItem(6, {fake::wholeFile("def")});
    }
    EXPECT_TRUE(waitFor([&] { return inside.load(); }));
    uninit();
    EXPECT_EQ(m_folder.size(), 1);
}

TEST_F(NikonExposureTest, AnExposureThatTakesTooLongIsLeftBehindAndCollectedWhenItIsOver)
{
    EXPECT_EQ(nikon::Timing().exposure, 35s);
    expose();
    const std::weak_ptr<nikon::NikonSession> left = session();
    const auto taken = timeOfUninit();
    EXPECT_GE(taken, impatient().exposure);
    EXPECT_LT(taken, 5s);
    EXPECT_FALSE(left.expired());
    EXPECT_EQ(maid.openObjects(), kLeftOpen);
    maid.addItem(5, {fake::wholeFile("abc")});
    maid.completeAll();
    EXPECT_TRUE(waitFor([&] { return left.expired(); }));
    EXPECT_EQ(maid.openObjects(), 0U);
    EXPECT_EQ(m_folder.size(), 0);
    EXPECT_FALSE(m_library->isHanging());
}

TEST_F(NikonExposureTest, AnExposureGivesSignsOfLifeUntilItTakesTooLong)
{
    expose();
    unsigned signs = ProcessHeartbeat::count();
    EXPECT_TRUE(waitFor([&] { return ProcessHeartbeat::count() > signs + 3; }));
    nikon::NikonLetEnd(m_state, nullptr);
    signs = ProcessHeartbeat::count();
    EXPECT_TRUE(waitFor([&] { return ProcessHeartbeat::count() > signs + 3; }));
    EXPECT_TRUE(waitFor([&] {
        const unsigned before = ProcessHeartbeat::count();
        const int polls = maid.polls();
        waitFor([&] { return maid.polls() > polls + 20; }, 500ms);  // it may be polled no more
        return ProcessHeartbeat::count() == before;
    }));
    maid.completeAll();
    EXPECT_TRUE(waitFor([&] { return maid.openObjects() == 0; }));
}

TEST_F(NikonExposureTest, AnExposureThatTakesTooLongIsGivenUpWhenTheInterpreterEnds)
{
    expose();
    PyCallback::dropAllEvents();
    nikon::NikonLetEnd(m_state, nullptr);
    EXPECT_TRUE(waitFor([&] { return maid.openObjects() == 0; }));
    const InterpreterLock lock;
    registerAtInterpreterExit([] {});  // events are wanted again
    maid.completeAll();
}

TEST_F(NikonExposureTest, ACaptureThatIsRefusedIsNotWaitedFor)
{
    fake::Rule rule{kMaidCommandCapStart, kMaidCapCapture};
    rule.result = -127;
    rule.completes = false;
    maid.rule(rule);
    nikon::Timing timing = impatient();
    timing.refused = 60s;
    ASSERT_EQ(nikon::NikonStart(m_state, m_receiver, maid.library(), timing), 1);
    shootUntil([&] { return captures() == 1; });
    waitForACycle();
}

// A module that hangs.

TEST_F(NikonSessionTest, AModuleThatNeverReturnsIsLeftBehindAndCollectedWhenItsThreadComesBack)
{
    const auto library = maid.library();
    ASSERT_EQ(nikon::NikonStart(m_state, m_receiver, library, impatient()), 1);
    maid.hang(kMaidCommandCapGet, kMaidCapAperture);
    EXPECT_TRUE(waitFor([&] { return maid.isHanging(); }));
    const std::weak_ptr<nikon::NikonSession> left = session();
    EXPECT_LT(timeOfUninit(), 5s);
    EXPECT_TRUE(library->isHanging());
    EXPECT_EQ(maid.openObjects(), kLeftOpen);
    const auto events = m_recorder.calls().size();
    maid.releaseHangs();
    EXPECT_TRUE(waitFor([&] { return left.expired(); }));
    EXPECT_EQ(maid.openObjects(), 0U);
    EXPECT_EQ(nikon::objectHandles().size(), m_handles);
    EXPECT_FALSE(library->isHanging());
    EXPECT_TRUE(waitFor([&] { return library.use_count() == 1; }));
    EXPECT_EQ(m_recorder.calls().size(), events);
    ASSERT_EQ(nikon::NikonStart(m_state, m_receiver, library, impatient()), 1);
    EXPECT_TRUE(waitFor([&] { return m_recorder.calls().size() > events; }));
}

TEST_F(NikonSessionTest, AHostsThreadThatComesBackFromTheModuleCollectsTheSession)
{
    ASSERT_EQ(init(), 1);
    fake::Rule rule{kMaidCommandCapSet, kMaidCapSensitivity};
    rule.hangs = true;
    maid.rule(rule);
    auto setting = std::async(std::launch::async,
                              [&] { return nikon::NikonSetValue(m_state, TETHER_ISO, 1); });
    EXPECT_TRUE(waitFor([&] { return maid.isHanging(); }));
    const std::weak_ptr<nikon::NikonSession> left = session();
    EXPECT_LT(timeOfUninit(), 5s);
    EXPECT_FALSE(left.expired());
    maid.releaseHangs();
    EXPECT_EQ(setting.get(), 1);
    EXPECT_TRUE(waitFor([&] { return left.expired(); }));
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonSessionTest, AModuleThatHangsInItsCloseHoldsTheEnd)
{
    start();
    maid.hang(kMaidCommandClose);
    auto ending = std::async(std::launch::async, [&] { uninit(); });
    EXPECT_TRUE(waitFor([&] { return maid.isHanging(); }));
    EXPECT_EQ(ending.wait_for(2 * impatient().hanging), std::future_status::timeout);
    maid.releaseHangs();
    ending.get();
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonSessionTest, AModuleThatCompletesNothingAnyMoreIsLeftBehind)
{
    start();
    for (const std::uint32_t command : {kMaidCommandCapGet, kMaidCommandCapSet}) {
        fake::Rule rule{command};
        rule.polls = fake::kNever;
        rule.times = 0;
        maid.rule(rule);
    }
    EXPECT_TRUE(waitFor([&] { return maid.outstanding() == 1; }));
    const std::weak_ptr<nikon::NikonSession> left = session();
    EXPECT_LT(timeOfUninit(), 5s);
    m_left = kLeftOpen;
    EXPECT_EQ(maid.openObjects(), m_left);
    // Late, and nothing that it touches is gone.
    EXPECT_FALSE(left.expired());
    maid.completeAll();
    fake::Maid::raise(*maid.source, kMaidEventCapChangeValue, 1);
}

TEST_F(NikonSessionTest, SettingWhileTheModuleHangsReturnsInTheEnd)
{
    start();
    maid.hang(kMaidCommandCapGet, kMaidCapAperture);
    EXPECT_TRUE(waitFor([&] { return maid.isHanging(); }));
    EXPECT_EQ(nikon::NikonSetValue(m_state, TETHER_ISO, 1), 1);
    EXPECT_EQ(maid.setValues, std::vector<std::uint32_t>{});
    maid.releaseHangs();
}

TEST_F(NikonSessionTest, AStartWhoseEndIsRequestedMeanwhileReturns0AndClosesAll)
{
    maid.during(kMaidCommandCapGet, kMaidCapChildren,
                [&](const fake::Call& /*call*/) { session()->requestEnd(); });
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(maid.openObjects(), 0U);
    EXPECT_FALSE(nikon::NikonHasSessions(m_state));
}

TEST_F(NikonSessionTest, AnEndWhileTheStartHangsDoesNotWaitForEverAndTheStartClosesAll)
{
    maid.hang(kMaidCommandGetCapCount);
    auto starting = std::async(std::launch::async, [&] { return init(); });
    EXPECT_TRUE(waitFor([&] { return maid.isHanging(); }));
    EXPECT_LT(timeOfUninit(), 5s);
    maid.releaseHangs();
    EXPECT_EQ(starting.get(), 0);
    EXPECT_EQ(maid.openObjects(), 0U);
}

// The end without waiting.

class NikonLetEndTest : public NikonSessionTest
{
protected:
    // Lets the sessions end; the token tells when that is over.
    std::weak_ptr<void> letEnd()
    {
        auto underWay = std::make_shared<int>(0);
        const std::weak_ptr<void> end = underWay;
        nikon::NikonLetEnd(m_state, std::move(underWay));
        return end;
    }
};

TEST_F(NikonLetEndTest, AMonitorAtWorkEndsItsSession)
{
    start();
    maid.hang(kMaidCommandCapGet, kMaidCapAperture);
    EXPECT_TRUE(waitFor([&] { return maid.isHanging(); }));
    const std::weak_ptr<nikon::NikonSession> session = this->session();
    const auto end = letEnd();
    EXPECT_FALSE(nikon::NikonHasSessions(m_state));
    EXPECT_FALSE(end.expired());
    maid.releaseHangs();
    EXPECT_TRUE(waitFor([&] { return end.expired(); }));
    EXPECT_TRUE(session.expired());
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonLetEndTest, ASessionWhoseMonitorHasEndedIsClosedAllTheSame)
{
    maid.refuse(kMaidCommandCapGet, kMaidCapLiveness, -127, 0);
    ASSERT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return !session()->isMonitored(); }));
    const auto end = letEnd();
    EXPECT_TRUE(waitFor([&] { return end.expired(); }));
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonLetEndTest, AStartThatIsUnderWayClosesWhatItHasOpened)
{
    maid.hang(kMaidCommandGetCapCount);
    auto starting = std::async(std::launch::async, [&] { return init(); });
    EXPECT_TRUE(waitFor([&] { return maid.isHanging(); }));
    const auto end = letEnd();
    EXPECT_FALSE(end.expired());
    maid.releaseHangs();
    EXPECT_EQ(starting.get(), 0);
    EXPECT_TRUE(end.expired());
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonLetEndTest, InsideTheCallableTheEndIsOverBeforeItReturns)
{
    std::atomic<int> isOver{-1};
    listenWith([&] {
        PyThreadState* state = PyEval_SaveThread();
        isOver = letEnd().expired() ? 1 : 0;
        PyEval_RestoreThread(state);
    });
    ASSERT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return isOver != -1; }));
    EXPECT_EQ(isOver, 1);
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonLetEndTest, AMonitorThatNeverComesBackNeedNotBeAwaited)
{
    // Shared: the monitor may look at it when this test is over.
    struct Monitor {
        std::atomic<bool> isParked{false};
        std::atomic<bool> goesOn{false};
    };
    const auto monitor = std::make_shared<Monitor>();
    listenWith([monitor] {
        PyThreadState* state = PyEval_SaveThread();
        nikon::NikonLeaveMonitor();
        monitor->isParked = true;
        waitFor([&] { return monitor->goesOn.load(); });
        PyEval_RestoreThread(state);
    });
    ASSERT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return monitor->isParked.load(); }));
    const std::weak_ptr<nikon::NikonSession> session = this->session();
    const auto end = letEnd();
    EXPECT_TRUE(waitFor([&] { return end.expired(); }));
    EXPECT_EQ(maid.openObjects(), 0U);
    EXPECT_FALSE(session.expired());
    monitor->goesOn = true;
    EXPECT_TRUE(waitFor([&] { return session.expired(); }));
}

TEST_F(NikonLetEndTest, AModuleThatDoesNotCompleteItsClosingEndsTheWait)
{
    start();
    fake::Rule rule{kMaidCommandCapSet};
    rule.polls = fake::kNever;
    rule.times = 0;
    maid.rule(rule);
    const auto end = letEnd();
    EXPECT_TRUE(waitFor([&] { return end.expired(); }));
    m_left = maid.openObjects();
    EXPECT_GT(m_left, 0U);
    maid.completeAll();
}

}  // namespace
