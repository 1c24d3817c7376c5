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
#include "TemporaryFolder.h"
#include "TestSupport.h"
#include "TetherTexts.h"
#include "nikon/MaidProcedures.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

namespace {

class NikonSessionTest : public fake::MaidTest
{
protected:
    void SetUp() override
    {
        g_szExportFolder.set(m_folder.path().c_str());
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
        m_tether.SetCallback(callable);
    }

    int init() { return nikon::NikonStart(m_state, m_tether, maid.library(), impatient()); }
    int uninit() { return nikon::NikonUninit(m_state, std::this_thread::get_id()); }

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
        m_tether.SetCallback(callable);
        Py_DECREF(callable);
    }

    // Ends the session and says how long that took.
    Clock::duration timeOfUninit()
    {
        const auto begun = Clock::now();
        EXPECT_EQ(uninit(), 1);
        return Clock::now() - begun;
    }

    TemporaryFolder m_folder;
    PyCallback m_tether;
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
    EXPECT_EQ(uninit(), 1);
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
    EXPECT_EQ(uninit(), 1);
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
    EXPECT_EQ(uninit(), 1);
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
    EXPECT_EQ(uninit(), 1);
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
        EXPECT_EQ(nikon::NikonInit(m_state, m_tether, path.c_str()), 0);
        EXPECT_EQ(uninit(), 1);
        return testing::internal::GetCapturedStderr();
    }

    MachineSettings m_settings;
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

TEST_F(NikonSessionTest, ASettingInsideTheCallableWorks)
{
    std::atomic<int> results{0};
    listenWith([&] { results += nikon::NikonSetValue(m_state, TETHER_ISO, 1); });
    ASSERT_EQ(init(), 1);
    EXPECT_TRUE(waitFor([&] { return results > 20; }));
    EXPECT_EQ(uninit(), 1);
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
    EXPECT_EQ(uninit(), 1);
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
    EXPECT_EQ(uninit(), 1);
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonSessionTest, NothingIsReportedInThePause)
{
    nikon::Timing timing = impatient();
    timing.pause = 60s;
    ASSERT_EQ(nikon::NikonStart(m_state, m_tether, maid.library(), timing), 1);
    ASSERT_TRUE(waitFor([&] { return eventsOf(13) == 1; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(eventsOf(1), 1);
}

TEST_F(NikonSessionTest, TheEndDoesNotWaitForThePause)
{
    nikon::Timing timing = impatient();
    timing.pause = 60s;
    ASSERT_EQ(nikon::NikonStart(m_state, m_tether, maid.library(), timing), 1);
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
    EXPECT_EQ(uninit(), 1);
    EXPECT_EQ(m_folder.size(), 1);
    EXPECT_EQ(eventsOf(0), 0);  // not announced any more
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonSessionTest, NothingIsDeliveredAfterTheEnd)
{
    start();
    EXPECT_EQ(uninit(), 1);
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
    EXPECT_EQ(uninit(), 1);
    EXPECT_EQ(maid.openObjects(), 0U);
}

TEST_F(NikonSessionTest, ManySessionsOneAfterTheOtherLeaveNothing)
{
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(init(), 1);
        ASSERT_EQ(uninit(), 1);
        ASSERT_EQ(maid.openObjects(), 0U);
    }
    EXPECT_EQ(nikon::objectHandles().size(), m_handles);
    EXPECT_EQ(nikon::receivers().size(), 0U);
}

TEST_F(NikonSessionTest, WhenTheObjectServesAnotherMakerReportsEndAndTheSessionStaysOpen)
{
    start();
    nikon::NikonEndReports(m_state);
    EXPECT_TRUE(waitFor([&] { return !session()->isMonitored(); }));
    EXPECT_EQ(maid.openObjects(), 2U);
    EXPECT_EQ(uninit(), 1);
}

TEST_F(NikonSessionTest, AnEndFromInsideTheCallableClosesEverythingAtOnce)
{
    std::atomic<int> calls{0};
    std::atomic<std::size_t> openAfterwards{99};
    listenWith([&] {
        ++calls;
        PyThreadState* state = PyEval_SaveThread();
        nikon::NikonUninit(m_state, std::this_thread::get_id());
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
            nikon::NikonUninit(m_state, std::this_thread::get_id());
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
    EXPECT_EQ(uninit(), 1);
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

TEST_F(NikonSessionTest, ACaptureThatIsNeverCompletedIsGivenUpAtTheEndAndAllIsClosed)
{
    fake::Rule rule{kMaidCommandCapStart, kMaidCapCapture};
    rule.polls = fake::kNever;
    maid.rule(rule);
    start();
    shootUntil([&] { return maid.outstanding() == 1; });
    EXPECT_LT(timeOfUninit(), 5s);
    EXPECT_EQ(maid.openObjects(), 0U);
    maid.completeAll();
}

TEST_F(NikonSessionTest, AWaitThatMayTakeLongIsGivenUpSoonAtTheEnd)
{
    nikon::Timing timing = impatient();
    timing.running = 60s;
    fake::Rule rule{kMaidCommandCapStart, kMaidCapCapture};
    rule.polls = fake::kNever;
    maid.rule(rule);
    ASSERT_EQ(nikon::NikonStart(m_state, m_tether, maid.library(), timing), 1);
    shootUntil([&] { return maid.outstanding() == 1; });
    EXPECT_LT(timeOfUninit(), 5s);
    EXPECT_EQ(maid.openObjects(), 0U);
    maid.completeAll();
}

// The module and its camera.
constexpr std::size_t kLeftOpen = 2;

TEST_F(NikonSessionTest, AModuleThatNeverReturnsIsLeftBehind)
{
    start();
    maid.hang(kMaidCommandCapGet, kMaidCapAperture);
    EXPECT_TRUE(waitFor([&] { return maid.isHanging(); }));
    const std::shared_ptr<nikon::NikonSession> left = session();
    EXPECT_LT(timeOfUninit(), 5s);
    const auto events = m_recorder.calls().size();
    const auto calls = maid.calls().size();
    maid.releaseHangs();
    EXPECT_TRUE(waitFor([&] { return !left->isMonitored(); }));
    EXPECT_EQ(maid.calls().size(), calls);
    EXPECT_EQ(m_recorder.calls().size(), events);
    m_left = kLeftOpen;
    EXPECT_EQ(maid.openObjects(), m_left);
}

TEST_F(NikonSessionTest, AModuleThatNeverReturnsFromACloseIsLeftBehind)
{
    start();
    maid.hang(kMaidCommandClose);
    const std::shared_ptr<nikon::NikonSession> left = session();
    EXPECT_LT(timeOfUninit(), 5s);
    EXPECT_TRUE(maid.isHanging());
    EXPECT_FALSE(left->isClosed());
    maid.releaseHangs();
    // The thread in it comes back, finds everything as it was, and leaves the rest alone.
    EXPECT_TRUE(waitFor([&] { return left->isClosed(); }));
    m_left = 1;
    EXPECT_EQ(maid.openObjects(), m_left);
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

TEST_F(NikonSessionTest, AnEndWhileTheStartHangsDoesNotWaitForEver)
{
    maid.hang(kMaidCommandGetCapCount);
    auto starting = std::async(std::launch::async, [&] { return init(); });
    EXPECT_TRUE(waitFor([&] { return maid.isHanging(); }));
    EXPECT_LT(timeOfUninit(), 5s);
    maid.releaseHangs();
    EXPECT_EQ(starting.get(), 0);
    m_left = maid.openObjects();
}

}  // namespace
