// The tether object: which maker it chooses, and what its operations answer in each state.
#include "PythonSupport.h"

#include "Lumatie.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>

#include "EventReceiver.h"
#include "System.h"
#include "TestSupport.h"
#include "TetherTexts.h"
#include "canon/CameraModel.h"
#include "canon/CanonReporting.h"

namespace {

namespace fs = std::filesystem;
using Calls = std::vector<std::string>;

constexpr const char* kCamera = "Virtual EOS";  // the virtual camera's description

class LumatieTest : public VirtualCameraTest
{
protected:
    void SetUp() override
    {
        VirtualCameraTest::SetUp();
        const testing::TestInfo* test = testing::UnitTest::GetInstance()->current_test_info();
        m_folder = fs::temp_directory_path() / (std::string("lumatie_tether_") + test->name());
        fs::remove_all(m_folder);
        fs::create_directories(m_folder);
        const InterpreterLock lock;
        m_tether = std::make_unique<Lumatie>();
    }

    void TearDown() override
    {
        destroy();
        fs::remove_all(m_folder);
        VirtualCameraTest::TearDown();
    }

    void destroy()
    {
        const InterpreterLock lock;
        m_tether.reset();
    }

    BOOL init(const char* szInfo) { return init(szInfo, m_recorder.object()); }

    BOOL init(const char* szInfo, PyObject* callable)
    {
        const InterpreterLock lock;
        return m_tether->Init(szInfo, m_folder.u8string().c_str(), callable);
    }

    BOOL uninit()
    {
        const InterpreterLock lock;
        return m_tether->Uninit();
    }

    // Starts a session and returns when the camera has told all that it tells at first.
    void startSession()
    {
        ASSERT_EQ(init(kCamera), 1);
        ASSERT_TRUE(waitFor([] { return VirtualCameraSessionOpen(0) == 1; }));
    }

    fs::path makeFile() const
    {
        fs::path path = m_folder / "Type0001.md3";
        std::ofstream(path) << "no driver module";
        return path;
    }

    RecordingCallable m_recorder;
    fs::path m_folder;
    std::unique_ptr<Lumatie> m_tether;
};

// Whether another thread gets the interpreter lock within the deadline.
bool lockIsFree()
{
    // Shared: a thread that gets the lock too late finds it still there.
    const auto taken = std::make_shared<std::atomic<bool>>(false);
    std::thread([taken] {
        const InterpreterLock lock;
        *taken = true;
    }).detach();
    return waitFor([&] { return taken->load(); });
}

// No session.

TEST_F(LumatieTest, AFreshObjectHasNoVendorAndNothingToEnd)
{
    EXPECT_EQ(m_tether->vendor(), VENDOR_NONE);
    EXPECT_EQ(uninit(), 0);
    EXPECT_EQ(VirtualCameraCallCount("*"), 0);
}

TEST_F(LumatieTest, ShootingAndSettingWithoutAVendorReturnOneAndDoNothing)
{
    const InterpreterLock lock;
    EXPECT_EQ(m_tether->Shoot(), 1);
    EXPECT_EQ(m_tether->SetValue(TETHER_SHUTTERSPEED, 16), 1);
    EXPECT_EQ(m_tether->SetValue(-1, -1), 1);
    EXPECT_EQ(m_tether->vendor(), VENDOR_NONE);
    EXPECT_EQ(VirtualCameraCallCount("*"), 0);
}

TEST_F(LumatieTest, TheFolderCanBeMovedWithoutAVendor)
{
    const InterpreterLock lock;
    EXPECT_EQ(m_tether->UpdateExportFolder("/not there"), 1);
    EXPECT_EQ(g_szExportFolder.text(), "/not there");
    EXPECT_FALSE(fs::exists("/not there"));
    EXPECT_EQ(m_tether->vendor(), VENDOR_NONE);
}

TEST_F(LumatieTest, MovingTheFolderForgetsTheLastPicture)
{
    std::thread([] { g_szLastFile.set("/a/1.jpg"); }).join();
    {
        const InterpreterLock lock;
        m_tether->UpdateExportFolder("/b");
    }
    EXPECT_EQ(g_szLastFile.take(), "");
}

TEST_F(LumatieTest, AFolderOf255BytesIsTaken)
{
    const std::string folder(255, 'x');
    const InterpreterLock lock;
    EXPECT_EQ(m_tether->UpdateExportFolder(folder.c_str()), 1);
    EXPECT_EQ(g_szExportFolder.text(), folder);
}

constexpr const char* kFolderRejected =
    "Lumatie: the export folder is missing or longer than 255 bytes; the process ends.\n";

TEST_F(LumatieTest, MovingToAMissingOrTooLongFolderEndsTheProcess)
{
    EXPECT_EXIT(m_tether->UpdateExportFolder(nullptr), testing::ExitedWithCode(3),
                testing::Eq(kFolderRejected));
    EXPECT_EXIT(m_tether->UpdateExportFolder(std::string(256, 'x').c_str()),
                testing::ExitedWithCode(3), testing::Eq(kFolderRejected));
}

TEST_F(LumatieTest, StartingWithAMissingOrTooLongFolderEndsTheProcess)
{
    EXPECT_EXIT(m_tether->Init(kCamera, nullptr, nullptr), testing::ExitedWithCode(3),
                testing::Eq(kFolderRejected));
    EXPECT_EXIT(m_tether->Init(kCamera, std::string(256, 'x').c_str(), nullptr),
                testing::ExitedWithCode(3), testing::Eq(kFolderRejected));
}

// The choice of the vendor.

TEST_F(LumatieTest, AFileIsADriverModuleOfNikon)
{
    EXPECT_EQ(init(makeFile().u8string().c_str()), 0);
    EXPECT_EQ(m_tether->vendor(), VENDOR_NIKON);
    EXPECT_EQ(VirtualCameraCallCount("*"), 0);
    EXPECT_EQ(uninit(), 1);
    EXPECT_EQ(VirtualCameraCallCount("*"), 0);
}

TEST_F(LumatieTest, AReadOnlyFileIsADriverModuleToo)
{
    const fs::path path = makeFile();
    fs::permissions(path, fs::perms::owner_read, fs::perm_options::replace);
    init(path.u8string().c_str());
    EXPECT_EQ(m_tether->vendor(), VENDOR_NIKON);
    fs::permissions(path, fs::perms::owner_all, fs::perm_options::replace);
}

TEST_F(LumatieTest, ADeviceIsADriverModuleToo)
{
    init(kNullDevice);
    EXPECT_EQ(m_tether->vendor(), VENDOR_NIKON);
}

TEST_F(LumatieTest, AFileIsADriverModuleEvenWhenACameraIsCalledLikeIt)
{
    const std::string path = makeFile().u8string();
    VirtualCanonSetName(0, path.data(), static_cast<int>(path.size()));
    EXPECT_EQ(init(path.c_str()), 0);
    EXPECT_EQ(m_tether->vendor(), VENDOR_NIKON);
}

TEST_F(LumatieTest, AFolderIsNoDriverModule)
{
    EXPECT_EQ(init(m_folder.u8string().c_str()), 0);
    EXPECT_EQ(m_tether->vendor(), VENDOR_CANON);
}

TEST_F(LumatieTest, WhatNamesNothingIsACamerasDescription)
{
    EXPECT_EQ(init("Some other camera"), 0);
    EXPECT_EQ(m_tether->vendor(), VENDOR_CANON);
}

TEST_F(LumatieTest, AMissingOrEmptyDescriptionIsNoCameras)
{
    EXPECT_EQ(init(nullptr), 0);
    EXPECT_EQ(m_tether->vendor(), VENDOR_CANON);
    EXPECT_EQ(uninit(), 1);
    EXPECT_EQ(init(""), 0);
    EXPECT_EQ(m_tether->vendor(), VENDOR_CANON);
}

TEST_F(LumatieTest, ADescriptionMayBeInAnyLetterCase)
{
    EXPECT_EQ(init("vIRTUAL eos"), 1);
    EXPECT_EQ(m_tether->vendor(), VENDOR_CANON);
    EXPECT_EQ(uninit(), 1);
}

// Start and end.

TEST_F(LumatieTest, ASessionEndsOnce)
{
    startSession();
    EXPECT_EQ(uninit(), 1);
    EXPECT_EQ(m_tether->vendor(), VENDOR_NONE);
    EXPECT_EQ(VirtualCameraSessionOpen(0), 0);
    EXPECT_EQ(uninit(), 0);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 1);
}

TEST_F(LumatieTest, AFailedStartLeavesTheVendorAndIsEnded)
{
    ASSERT_EQ(init("Some other camera"), 0);
    EXPECT_EQ(m_tether->vendor(), VENDOR_CANON);
    EXPECT_EQ(uninit(), 1);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 1);
    EXPECT_EQ(uninit(), 0);
}

TEST_F(LumatieTest, AStartWhoseLibraryFailsLeavesTheVendorToo)
{
    VirtualCameraFailNext("EdsInitializeSDK", 0x2, 1);
    ASSERT_EQ(init(kCamera), 0);
    EXPECT_EQ(m_tether->vendor(), VENDOR_CANON);
    EXPECT_EQ(uninit(), 1);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 0);
}

TEST_F(LumatieTest, AStartTakesTheFolderAndForgetsTheLastPicture)
{
    std::thread([] { g_szLastFile.set("/a/1.jpg"); }).join();
    init("Some other camera");
    EXPECT_EQ(g_szExportFolder.text(), m_folder.u8string());
    EXPECT_EQ(g_szLastFile.take(), "");
}

TEST_F(LumatieTest, AnEndForgetsTheLastPictureButKeepsTheFolderForOneUnderWay)
{
    init("Some other camera");
    std::thread([] { g_szLastFile.set("/a/1.jpg"); }).join();
    uninit();
    EXPECT_EQ(g_szLastFile.take(), "");
    EXPECT_EQ(g_szExportFolder.text(), m_folder.u8string());
}

TEST_F(LumatieTest, AnEndWithoutAVendorKeepsTheFolder)
{
    const InterpreterLock lock;
    m_tether->UpdateExportFolder("/a");
    EXPECT_EQ(m_tether->Uninit(), 0);
    EXPECT_EQ(g_szExportFolder.text(), "/a");
}

TEST_F(LumatieTest, DestroyingTheObjectEndsItsSession)
{
    startSession();
    destroy();
    EXPECT_EQ(VirtualCameraSessionOpen(0), 0);
    EXPECT_EQ(VirtualCameraCallCount("EdsCloseSession"), 1);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 1);
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
}

TEST_F(LumatieTest, AnObjectCanBeUsedAgainAfterItsEnd)
{
    startSession();
    uninit();
    startSession();
    EXPECT_EQ(m_tether->vendor(), VENDOR_CANON);
    EXPECT_EQ(uninit(), 1);
    EXPECT_EQ(VirtualCanonReferenceCount("camera"), 0);
}

TEST_F(LumatieTest, AFailedStartCanBeFollowedByOneThatWorks)
{
    ASSERT_EQ(init("Some other camera"), 0);
    startSession();
    EXPECT_EQ(uninit(), 1);
}

TEST_F(LumatieTest, ADriverModuleAfterACameraLeavesTheCamerasSessionToTheEnd)
{
    startSession();
    EXPECT_EQ(init(makeFile().u8string().c_str()), 0);
    EXPECT_EQ(m_tether->vendor(), VENDOR_NIKON);
    EXPECT_EQ(VirtualCameraSessionOpen(0), 1);
    EXPECT_EQ(uninit(), 1);
    EXPECT_EQ(VirtualCameraSessionOpen(0), 0);
}

TEST_F(LumatieTest, SettingsForADriverModuleReachNoCamera)
{
    init(makeFile().u8string().c_str());
    const InterpreterLock lock;
    for (int nType = -1; nType <= 15; ++nType) {
        EXPECT_EQ(m_tether->SetValue(nType, 65537), 1);
    }
    EXPECT_EQ(m_tether->Shoot(), 1);
    EXPECT_EQ(VirtualCameraCallCount("*"), 0);
}

// The interpreter's end.

TEST(LumatieEndTest, AnObjectThatIsDeletedMeanwhileIsLeftAlone)
{
    const auto act = [] {
        const InterpreterLock lock;
        Lumatie first;
        alignas(Lumatie) unsigned char room[sizeof(Lumatie)];
        auto* second = new (room) Lumatie;
        // Runs when the first object lets go of its callable.
        std::shared_ptr<void> atItsEnd(nullptr, [&](void*) {
            second->~Lumatie();
            std::fill(std::begin(room), std::end(room), static_cast<unsigned char>(0));
        });
        PyObject* callable = makeCallable([guard = std::move(atItsEnd)](PyObject*) {});
        first.Init("no camera's name", "folder", callable);
        Py_DECREF(callable);
        Lumatie::endAllSessions();
        std::_Exit(0);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(0), "");
}

// The interpreter lock.

TEST_F(LumatieTest, AStartGivesUpTheInterpreterLockMeanwhile)
{
    VirtualCameraFault("EdsInitializeSDK hang");
    std::thread host([&] { init(kCamera); });
    EXPECT_EQ(VirtualCameraWaitForHang("EdsInitializeSDK", 10'000), 1);
    EXPECT_TRUE(lockIsFree());
    VirtualCameraReleaseHangs();
    host.join();
    EXPECT_EQ(uninit(), 1);
}

TEST_F(LumatieTest, AnEndGivesUpTheInterpreterLockMeanwhile)
{
    startSession();
    VirtualCameraFault("EdsCloseSession hang");
    std::thread host([&] { uninit(); });
    EXPECT_EQ(VirtualCameraWaitForHang("EdsCloseSession", 10'000), 1);
    EXPECT_TRUE(lockIsFree());
    VirtualCameraReleaseHangs();
    host.join();
}

TEST_F(LumatieTest, ADestructorAwaitsTheEndOnAnotherThreadWithoutTheInterpreterLock)
{
    startSession();
    VirtualCameraFault("EdsCloseSession hang");
    std::thread ending([&] { uninit(); });
    EXPECT_EQ(VirtualCameraWaitForHang("EdsCloseSession", 10'000), 1);
    std::atomic<bool> isGoing{false};
    std::atomic<bool> isGone{false};
    std::thread owner([&] {
        const InterpreterLock lock;
        isGoing = true;
        m_tether = nullptr;
        isGone = true;
    });
    EXPECT_TRUE(waitFor([&] { return isGoing.load(); }));
    EXPECT_TRUE(lockIsFree());
    EXPECT_FALSE(isGone);
    VirtualCameraReleaseHangs();
    ending.join();
    owner.join();
}

TEST_F(LumatieTest, OperationsEndWithTheInterpreterLockHeldAgain)
{
    const InterpreterLock lock;
    m_tether->Init(kCamera, m_folder.u8string().c_str(), m_recorder.object());
    EXPECT_EQ(PyGILState_Check(), 1);
    m_tether->Shoot();
    EXPECT_EQ(PyGILState_Check(), 1);
    m_tether->Uninit();
    EXPECT_EQ(PyGILState_Check(), 1);
}

TEST_F(LumatieTest, OperationsWorkOnAThreadWithoutTheLock)
{
    // Harmless for a host in C++ that has no callable.
    EXPECT_EQ(m_tether->Init("Some other camera", "/a", nullptr), 0);
    EXPECT_EQ(m_tether->Uninit(), 1);
}

// The callable.

TEST_F(LumatieTest, WithoutACallableEventsAreDroppedSilently)
{
    ASSERT_EQ(init(kCamera, Py_None), 1);
    ASSERT_TRUE(waitFor([] { return VirtualCameraSessionOpen(0) == 1; }));
    const int before = VirtualCameraCallCount("EdsGetPropertyData");
    VirtualCanonSetProperty(0, 0x406, 0x10);
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsGetPropertyData", before + 1, 10'000), 1);
    EXPECT_EQ(uninit(), 1);
    EXPECT_EQ(m_recorder.calls(), Calls{});
}

TEST_F(LumatieTest, AStartReleasesTheCallableOfTheOneBefore)
{
    const RecordingCallable other;
    const Py_ssize_t before = Py_REFCNT(m_recorder.object());
    init("Some other camera");
    EXPECT_EQ(Py_REFCNT(m_recorder.object()), before + 1);
    init("Some other camera", other.object());
    EXPECT_EQ(Py_REFCNT(m_recorder.object()), before);
    uninit();
}

TEST_F(LumatieTest, AnEndReleasesTheCallable)
{
    const Py_ssize_t before = Py_REFCNT(m_recorder.object());
    init("Some other camera");
    uninit();
    EXPECT_EQ(Py_REFCNT(m_recorder.object()), before);
}

TEST_F(LumatieTest, AChangeOnTheBodyReachesTheCallable)
{
    startSession();
    VirtualCanonSetProperty(0, 0x406, 0x0C);
    EXPECT_TRUE(waitFor([&] { return m_recorder.wasCalledWith("(3, 12, 'Bulb')"); }));
}

TEST_F(LumatieTest, AnAllowedValueWithoutATextIsLeftOutOfTheList)
{
    startSession();
    const std::int32_t allowed[] = {0x10, 0x11, 0x13};
    VirtualCanonSetAllowed(0, 0x406, allowed, 3);
    EXPECT_TRUE(waitFor([&] { return m_recorder.wasCalledWith("(4, \"{16:'30',19:'25',}\")"); }));
    VirtualCanonSetAllowed(0, 0x406, allowed, 0);
    EXPECT_TRUE(waitFor([&] { return m_recorder.wasCalledWith("(4, '{}')"); }));
}

// Whether an event of the type has come.
bool hasType(const Calls& calls, int nType)
{
    const std::string start = '(' + std::to_string(nType) + ',';
    return std::any_of(calls.begin(), calls.end(),
                       [&](const std::string& call) { return call.rfind(start, 0) == 0; });
}

TEST_F(LumatieTest, ListsOfExposureModesAndImageQualitiesNeverArrive)
{
    startSession();
    for (const std::uint32_t property : {0x436U, 0x100U, 0x106U, 0x107U, 0x402U, 0x405U, 0x406U}) {
        VirtualCanonSendPropertyEvent(0, 0x101, property, 0);
        VirtualCanonSendPropertyEvent(0, 0x102, property, 0);
    }
    const std::set<int> expected = {1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
    for (const int nType : expected) {
        EXPECT_TRUE(waitFor([&] { return hasType(m_recorder.calls(), nType); })) << nType;
    }
    uninit();
    EXPECT_FALSE(hasType(m_recorder.calls(), TETHER_EXPOSUREMODE_LIST));
    EXPECT_FALSE(hasType(m_recorder.calls(), TETHER_IMAGEQUALITY_LIST));
}

TEST_F(LumatieTest, NothingIsDeliveredAfterTheEnd)
{
    startSession();
    for (int i = 0; i < 50; ++i) {
        VirtualCanonSendPropertyEvent(0, 0x101, 0x406, 0);
    }
    uninit();
    const Calls calls = m_recorder.calls();
    EXPECT_EQ(VirtualCameraWaitUntilIdle(10'000), 1);
    EXPECT_EQ(m_recorder.calls(), calls);
}

TEST_F(LumatieTest, AnEndFromInsideTheCallableReturnsOneAtOnceAndTheSessionEndsByItself)
{
    std::atomic<int> calls{0};
    std::atomic<int> result{-1};
    std::atomic<int> openDuringTheCall{-1};
    PyObject* callable = nullptr;
    {
        const InterpreterLock lock;
        callable = makeCallable([&](PyObject*) {
            ++calls;
            result = m_tether->Uninit();
            openDuringTheCall = VirtualCameraSessionOpen(0);
        });
    }
    ASSERT_EQ(init(kCamera, callable), 1);
    ASSERT_TRUE(waitFor([] { return VirtualCameraSessionOpen(0) == 1; }));
    VirtualCanonSetProperty(0, 0x406, 0x0C);
    EXPECT_TRUE(waitFor([&] { return openDuringTheCall != -1; }));
    EXPECT_EQ(result, 1);
    EXPECT_EQ(openDuringTheCall, 1);
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsTerminateSDK", 1, 10'000), 1);
    EXPECT_EQ(VirtualCameraSessionOpen(0), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(uninit(), 0);
    const InterpreterLock lock;
    Py_DECREF(callable);
}

TEST_F(LumatieTest, TheCallableMayDestroyTheObject)
{
    PyObject* callable = nullptr;
    {
        const InterpreterLock lock;
        callable = makeCallable([&](PyObject*) { m_tether.reset(); });
    }
    // The first event ends the session, maybe before anybody sees it open.
    ASSERT_EQ(init(kCamera, callable), 1);
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsTerminateSDK", 1, 10'000), 1);
    EXPECT_TRUE(waitFor([] { return VirtualCanonReferenceCount("") == 0; }));
    const InterpreterLock lock;
    EXPECT_EQ(m_tether, nullptr);
    Py_DECREF(callable);
}

TEST_F(LumatieTest, ANotificationForAHostThatCanonDoesNotServeIsIgnored)
{
    const auto receiver = std::make_shared<EventReceiver>();
    canon::HostReporter reporter(receiver);
    canon::CameraModel model(nullptr);
    model.addObserver(&reporter);
    {
        const InterpreterLock lock;
        receiver->adopt(m_recorder.object());
    }
    model.notify("error", 0xC0);
    receiver->serve(VENDOR_NIKON);
    model.notify("error", 0xC0);
    EXPECT_EQ(m_recorder.calls(), Calls{});

    receiver->serve(VENDOR_CANON);
    model.notify("error", 0xC0);
    model.notify("error", 0x81);
    model.notify("DeviceBusy");
    EXPECT_EQ(m_recorder.calls(), (Calls{"(0, \"{'GENERAL_DEVICEBUSY':1}\")"}));
    const InterpreterLock lock;
    receiver->detach();
}

TEST_F(LumatieTest, ADetachedReceiverTakesNoCallableAndTellsNothing)
{
    EventReceiver receiver;
    const Py_ssize_t before = Py_REFCNT(m_recorder.object());
    {
        const InterpreterLock lock;
        EXPECT_TRUE(receiver.adopt(m_recorder.object()));
        receiver.detach();
        EXPECT_FALSE(receiver.adopt(m_recorder.object()));
        EXPECT_EQ(Py_REFCNT(m_recorder.object()), before);
    }
    EXPECT_EQ(receiver.vendor(), VENDOR_NONE);
    receiver.Call("i", 1);
    EXPECT_EQ(m_recorder.calls(), Calls{});
}

// Many sessions.

TEST_F(LumatieTest, StartedAndEndedAtOnceLeavesNothingBehind)
{
    for (int round = 0; round < 30; ++round) {
        ASSERT_EQ(init(kCamera), 1);
        ASSERT_EQ(uninit(), 1);
    }
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 30);
}

}  // namespace
