// What becomes of a session when there is no memory: an operation throws, everything else is given
// up, nothing is lost but that, and an end needs none.
#include "PythonSupport.h"

#include "Lumatie.h"

#include <atomic>
#include <memory>
#include <new>
#include <thread>

#include "ScarceMemory.h"
#include "TemporaryFolder.h"
#include "TestSupport.h"
#include "TetherEvents.h"
#include "TetherTexts.h"
#include "nikon/DataReceiver.h"

namespace {

constexpr const char* kCamera = "Virtual EOS";

// More than any of the tests below allocates.
constexpr int kEnough = 2'000;

class NoMemoryTest : public VirtualCameraTest
{
protected:
    void SetUp() override
    {
        VirtualCameraTest::SetUp();
        const InterpreterLock lock;
        m_callable = makeCallable([this](PyObject* arguments) {
            ++m_events;
            if (m_inCallable) {
                m_inCallable();
            }
            if (PyTuple_Size(arguments) == 2) {
                m_pictures += PyLong_AsLong(PyTuple_GetItem(arguments, 0)) == TETHER_GENERAL;
            }
        });
        m_tether = std::make_unique<Lumatie>();
    }

    void TearDown() override
    {
        {
            const InterpreterLock lock;
            m_tether.reset();
            Py_DECREF(m_callable);
        }
        VirtualCameraTest::TearDown();
    }

    // Does an operation; returns whether there was memory for it.
    template <typename Operation>
    bool operate(Operation operation)
    {
        const InterpreterLock lock;
        try {
            EXPECT_EQ(operation(*m_tether), 1);
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    bool init()
    {
        return operate([this](Lumatie& tether) {
            return tether.Init(kCamera, m_folder.path().c_str(), m_callable);
        });
    }

    void uninit()
    {
        EXPECT_TRUE(operate([](Lumatie& tether) { return tether.Uninit(); }));
    }

    // Starts a session and returns when nothing is under way.
    void start()
    {
        ASSERT_TRUE(init());
        awaitOpen();
        settle();
    }

    static void awaitOpen()
    {
        ASSERT_TRUE(waitFor([] { return VirtualCameraSessionOpen(0) == 1; }));
    }

    // Waits until the camera has told all, and the worker has done all: its last command is one of
    // this test's.
    void settle()
    {
        ASSERT_EQ(VirtualCameraWaitUntilIdle(10'000), 1);
        const int before = VirtualCameraCallCount("EdsSetPropertyData");
        const auto set = [](Lumatie& tether) { return tether.SetValue(TETHER_WB, 0); };
        // The one allocation that fails may be this one.
        ASSERT_TRUE(operate(set) || operate(set));
        ASSERT_EQ(VirtualCameraWaitForCalls("EdsSetPropertyData", before + 1, 10'000), 1);
    }

    // Later events arrive.
    void expectAlive()
    {
        const int before = m_events;
        VirtualCanonSendPropertyEvent(0, 0x101, 0x406, 0);
        EXPECT_TRUE(waitFor([&] { return m_events > before; }));
    }

    static void expectNothingLeft()
    {
        EXPECT_TRUE(waitFor([] { return VirtualCanonReferenceCount("") == 0; }));
        EXPECT_GT(VirtualCameraCallCount("EdsTerminateSDK"), 0);
        VirtualCameraReset();
    }

    // Does the work again and again, each time in a new session and with another allocation that
    // fails, until none is left that could.
    template <typename Work>
    void failEachInTurn(Work work)
    {
        int failed = 0;
        for (int number = 1; number < kEnough; ++number) {
            const testing::ScopedTrace trace(__FILE__, __LINE__,
                                             "allocation " + std::to_string(number));
            start();
            {
                const ScarceMemory memory = ScarceMemory::failingOnce(number);
                work();
                settle();
            }
            expectAlive();
            uninit();
            EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 1);
            expectNothingLeft();
            if (HasFailure()) {
                return;
            }
            if (ScarceMemory::failures() == 0) {
                break;
            }
            ++failed;
        }
        EXPECT_GT(failed, 0);
    }

    const TemporaryFolder m_folder;
    PyObject* m_callable = nullptr;
    std::function<void()> m_inCallable;
    std::atomic<int> m_events{0};
    std::atomic<int> m_pictures{0};
    std::unique_ptr<Lumatie> m_tether;
};

// Starting.

TEST_F(NoMemoryTest, AStartThrowsOrOpensItsSessionAndTheNextOneWorks)
{
    int failed = 0;
    for (int number = 1; number < kEnough; ++number) {
        SCOPED_TRACE("allocation " + std::to_string(number));
        {
            const ScarceMemory memory = ScarceMemory::failingOnce(number);
            if (init()) {
                awaitOpen();
            }
        }
        if (ScarceMemory::failures() == 0) {
            break;
        }
        ++failed;
        if (VirtualCameraSessionOpen(0) == 0) {
            ASSERT_TRUE(init());
            awaitOpen();
        }
        settle();
        expectAlive();
        uninit();
        expectNothingLeft();
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(failed, 10);
}

TEST_F(NoMemoryTest, AStartWithoutAnyMemoryThrowsAndLeavesTheEarlierSessionAsItWas)
{
    start();
    {
        const ScarceMemory memory = ScarceMemory::failingAlways();
        EXPECT_FALSE(init());
    }
    settle();
    expectAlive();
    uninit();
    expectNothingLeft();
}

// Events.

TEST_F(NoMemoryTest, AnEventOfASettingIsGivenUp)
{
    failEachInTurn([] { VirtualCanonSendPropertyEvent(0, 0x101, 0xFFFF, 0); });
}

TEST_F(NoMemoryTest, AnEventOfAListIsGivenUp)
{
    failEachInTurn([] { VirtualCanonSendPropertyEvent(0, 0x102, 0xFFFF, 0); });
}

TEST_F(NoMemoryTest, AnEventOfTheCamerasEndIsGivenUp)
{
    failEachInTurn([] { VirtualCanonSendStateEvent(0, 0x301, 0); });
}

TEST_F(NoMemoryTest, ABusyCameraIsAskedAgain)
{
    failEachInTurn([this] {
        VirtualCameraFault("EdsSetPropertyData code=0x81 calls=1");
        const int before = VirtualCameraCallCount("EdsSetPropertyData");
        if (operate([](Lumatie& tether) { return tether.SetValue(TETHER_ISO, 0x48); })) {
            EXPECT_EQ(VirtualCameraWaitForCalls("EdsSetPropertyData", before + 2, 10'000), 1);
        }
    });
}

TEST_F(NoMemoryTest, APictureIsWrittenAndAnnouncedOrLeavesNothing)
{
    failEachInTurn([] { VirtualCameraPressShutter(0); });
    for (const auto& file : std::filesystem::directory_iterator(m_folder.path())) {
        EXPECT_GT(file.file_size(), 0U) << file.path();
    }
    EXPECT_GE(m_folder.size(), m_pictures.load());
}

// Requests.

TEST_F(NoMemoryTest, ASettingIsSetOrThrows)
{
    failEachInTurn([this] {
        const int before = VirtualCameraCallCount("EdsSetPropertyData");
        if (operate([](Lumatie& tether) { return tether.SetValue(TETHER_ISO, 0x48); })) {
            EXPECT_EQ(VirtualCameraWaitForCalls("EdsSetPropertyData", before + 1, 10'000), 1);
        }
    });
}

TEST_F(NoMemoryTest, APictureIsTakenOrARequestForItThrows)
{
    failEachInTurn([this] {
        const int before = VirtualCameraCallCount("EdsSendCommand");
        if (operate([](Lumatie& tether) { return tether.Shoot(); })) {
            EXPECT_EQ(VirtualCameraWaitForCalls("EdsSendCommand", before + 2, 10'000), 1);
        }
    });
}

// Ends.

TEST_F(NoMemoryTest, AnEndNeedsNone)
{
    start();
    {
        const ScarceMemory memory = ScarceMemory::failingAlways();
        uninit();
    }
    EXPECT_EQ(VirtualCameraSessionOpen(0), 0);
    expectNothingLeft();
}

TEST_F(NoMemoryTest, AnEndOfSeveralSessionsNeedsNone)
{
    VirtualCameraAdd("Canon EOS R5", 1);
    start();
    const InterpreterLock lock;
    ASSERT_EQ(m_tether->Init("Canon EOS R5", m_folder.path().c_str(), m_callable), 1);
    {
        const ScarceMemory memory = ScarceMemory::failingAlways();
        EXPECT_EQ(m_tether->Uninit(), 1);
    }
    EXPECT_EQ(VirtualCameraCallCount("EdsCloseSession"), 2);
    expectNothingLeft();
}

TEST_F(NoMemoryTest, AnEndOfAFailedStartNeedsNone)
{
    {
        const InterpreterLock lock;
        ASSERT_EQ(m_tether->Init("Nobody", m_folder.path().c_str(), m_callable), 0);
        const ScarceMemory memory = ScarceMemory::failingAlways();
        EXPECT_EQ(m_tether->Uninit(), 1);
    }
    expectNothingLeft();
}

TEST_F(NoMemoryTest, AnEndInsideTheCallableNeedsNone)
{
    start();
    std::atomic<int> result{-1};
    m_inCallable = [&] {
        const ScarceMemory memory = ScarceMemory::failingAlways();
        result = m_tether->Uninit();
    };
    VirtualCanonSendPropertyEvent(0, 0x101, 0x406, 0);
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsTerminateSDK", 1, 10'000), 1);
    EXPECT_EQ(result, 1);
    expectNothingLeft();
}

TEST_F(NoMemoryTest, TheDestructorNeedsNone)
{
    start();
    {
        const InterpreterLock lock;
        const ScarceMemory memory = ScarceMemory::failingAlways();
        m_tether.reset();
    }
    EXPECT_EQ(VirtualCameraSessionOpen(0), 0);
    expectNothingLeft();
    const InterpreterLock lock;
    m_tether = std::make_unique<Lumatie>();
}

// A driver module's data.

TEST(NoMemoryNikonTest, APartOfAPictureIsRefusedAndTakenWhenItIsDeliveredAgain)
{
    const TemporaryFolder folder;
    g_szExportFolder.set(folder.path().c_str());
    MaidFileInfo info = {};
    info.kind = kMaidDataFile;
    info.fileType = kMaidFileJpeg;
    info.totalLength = info.length = 3;
    int failed = 0;
    for (int number = 1; number < kEnough; ++number) {
        SCOPED_TRACE("allocation " + std::to_string(number));
        const auto receiver =
            std::make_shared<nikon::DataReceiver>(1, std::make_shared<nikon::ModuleHeartbeat>());
        MaidReference handle = nikon::receivers().add(receiver);
        MaidResult result = kMaidOk;
        {
            const ScarceMemory memory = ScarceMemory::failingOnce(number);
            result = nikon::receiveData(handle, &info, "abc");
        }
        const bool hasFailed = ScarceMemory::failures() > 0;
        EXPECT_EQ(result, hasFailed ? kMaidOutOfMemory : kMaidOk);
        if (hasFailed) {
            ++failed;
            EXPECT_EQ(folder.size(), number - 1);
            EXPECT_EQ(nikon::receiveData(handle, &info, "abc"), kMaidOk);
        }
        EXPECT_EQ(receiver->results().size(), 1U);
        EXPECT_EQ(folder.size(), number);
        nikon::receivers().remove(handle);
        if (!hasFailed || HasFailure()) {
            break;
        }
    }
    EXPECT_GT(failed, 3);
    g_szLastFile.take();
}

// The interpreter's end.

TEST(NoMemoryDeathTest, TheEndOfTheInterpreterNeedsNone)
{
    const auto end = [] {
        const InterpreterLock lock;
        Lumatie tether;
        Lumatie failed;
        if (tether.Init(kCamera, "folder", nullptr) != 1 ||
            failed.Init("Nobody", "folder", nullptr) != 0 ||
            !waitFor([] { return VirtualCameraSessionOpen(0) == 1; })) {
            std::_Exit(1);
        }
        {
            const ScarceMemory memory = ScarceMemory::failingAlways();
            Lumatie::endAllSessions();
        }
        std::_Exit(VirtualCameraSessionOpen(0) == 0 && VirtualCanonReferenceCount("") == 0 ? 0 : 2);
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(0), "");
}

}  // namespace
