// The sessions of a tether object, who ends them, and who waits for which end.
#include "PythonSupport.h"

#include "Tethering.h"

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "EventReceiver.h"
#include "SessionEnds.h"
#include "TemporaryFolder.h"
#include "TestSupport.h"
#include "TetherTexts.h"

namespace {

constexpr const char* kCamera = "Virtual EOS";

void runHere(const std::function<void()>& work)
{
    work();
}

class TetheringTest : public VirtualCameraTest
{
protected:
    void SetUp() override
    {
        VirtualCameraTest::SetUp();
        g_szExportFolder.set(m_folder.path().c_str());
    }

    void TearDown() override
    {
        VirtualCameraClearFaults();
        VirtualCameraReleaseHangs();
        if (const std::shared_ptr<SessionEnd> end = m_tethering->claimEnd()) {
            m_tethering->end();
        }
        g_szExportFolder.set("");
        VirtualCameraTest::TearDown();
    }

    // A start on another thread that is inside the library.
    std::future<int> startThatHangs()
    {
        VirtualCameraFault("EdsInitializeSDK hang");
        auto result =
            std::async(std::launch::async, [this] { return m_tethering->start(kCamera); });
        EXPECT_EQ(VirtualCameraWaitForHang("EdsInitializeSDK", 10'000), 1);
        return result;
    }

    const TemporaryFolder m_folder;
    const std::uint64_t m_owner = SessionEnds::newOwner();
    const std::shared_ptr<Tethering> m_tethering =
        Tethering::make(m_owner, std::make_shared<std::atomic<bool>>(false));
};

TEST_F(TetheringTest, AnEndIsClaimedOnce)
{
    EXPECT_EQ(SessionEnds::anyLive(), m_tethering);
    const std::shared_ptr<SessionEnd> end = m_tethering->claimEnd();
    EXPECT_NE(end, nullptr);
    EXPECT_EQ(m_tethering->claimEnd(), nullptr);
    EXPECT_EQ(SessionEnds::anyLive(), nullptr);
}

TEST_F(TetheringTest, OfManyThreadsOneClaimsTheEnd)
{
    std::atomic<int> claimed{0};
    std::promise<void> gate;
    const std::shared_future<void> open = gate.get_future().share();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            open.wait();
            claimed += m_tethering->claimEnd() != nullptr ? 1 : 0;
        });
    }
    gate.set_value();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(claimed, 1);
}

TEST_F(TetheringTest, WhatWasEndedIsNotStartedAgain)
{
    const std::shared_ptr<SessionEnd> end = m_tethering->claimEnd();
    m_tethering->end();
    EXPECT_EQ(m_tethering->start(kCamera), 0);
    EXPECT_EQ(VirtualCameraCallCount("*"), 0);
}

TEST_F(TetheringTest, AnEndWaitsForAStartThatItMeetsAndEndsItsSession)
{
    std::future<int> started = startThatHangs();
    std::atomic<bool> ended{false};
    std::thread ending([&] {
        const std::shared_ptr<SessionEnd> end = m_tethering->claimEnd();
        m_tethering->end();
        ended = true;
    });
    EXPECT_TRUE(waitFor([&] { return SessionEnds::anyLive() == nullptr; }));
    EXPECT_FALSE(ended);
    VirtualCameraReleaseHangs();
    EXPECT_EQ(started.get(), 1);
    ending.join();
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 1);
}

TEST_F(TetheringTest, AnEndThatMustNotWaitLeavesItselfToTheStartThatItMeets)
{
    std::future<int> started = startThatHangs();
    m_tethering->letEnd(m_tethering->claimEnd(), runHere);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 0);
    auto awaited = std::async(std::launch::async, [this] { SessionEnds::await(m_owner); });
    EXPECT_EQ(awaited.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    VirtualCameraReleaseHangs();
    EXPECT_EQ(started.get(), 1);
    awaited.get();
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
    EXPECT_EQ(VirtualCameraCallCount("EdsTerminateSDK"), 1);
}

// Who waits for which end.

class SessionEndsTest : public testing::Test
{
protected:
    // An end that is under way as long as somebody holds it.
    std::shared_ptr<SessionEnd> begin(std::uint64_t owner)
    {
        auto end = std::make_shared<SessionEnd>(owner, m_receiver, std::weak_ptr<Tethering>());
        end->m_begun = true;
        SessionEnds::add(end);
        return end;
    }

    // Whether another thread waits for an end of the owner's until it is over.
    bool isAwaited(std::shared_ptr<SessionEnd> end, std::uint64_t owner)
    {
        auto awaited = std::async(std::launch::async, [owner] { SessionEnds::await(owner); });
        const bool waits =
            awaited.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout;
        end = nullptr;
        EXPECT_EQ(awaited.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        return waits;
    }

    const std::shared_ptr<EventReceiver> m_receiver = std::make_shared<EventReceiver>();
    const std::uint64_t m_owner = SessionEnds::newOwner();
};

TEST_F(SessionEndsTest, NoNumberIsGivenTwice)
{
    EXPECT_NE(SessionEnds::newOwner(), SessionEnds::newOwner());
}

TEST_F(SessionEndsTest, AnEndOfTheOwnersIsAwaitedByAnotherThread)
{
    EXPECT_TRUE(isAwaited(begin(m_owner), m_owner));
}

TEST_F(SessionEndsTest, AnEndOfAnotherOwnersIsNot)
{
    const std::shared_ptr<SessionEnd> end = begin(m_owner);
    SessionEnds::await(SessionEnds::newOwner());
}

TEST_F(SessionEndsTest, AnEndThatNobodyHasBegunIsNot)
{
    const std::shared_ptr<SessionEnd> end = begin(m_owner);
    end->m_begun = false;
    SessionEnds::await(m_owner);
    SessionEnds::awaitAllPatiently();
}

TEST_F(SessionEndsTest, AThreadDoesNotWaitForWhatItIsInTheMiddleOf)
{
    std::shared_ptr<SessionEnd> end = begin(m_owner);
    end->m_runner = std::this_thread::get_id();
    SessionEnds::await(m_owner);
    SessionEnds::awaitAllPatiently();
    EXPECT_TRUE(isAwaited(std::move(end), m_owner));
}

TEST_F(SessionEndsTest, InsideACallableNobodyWaitsForTheEndThatTheCallableHoldsUp)
{
    const std::shared_ptr<SessionEnd> own = begin(m_owner);
    const auto other = std::make_shared<EventReceiver>();
    bool wasInside = false;
    {
        const InterpreterLock lock;
        PyObject* callable = makeCallable([&](PyObject*) {
            wasInside = PyCallback::isInsideCall();
            PyThreadState* state = PyEval_SaveThread();
            SessionEnds::await(m_owner);
            PyEval_RestoreThread(state);
        });
        m_receiver->adopt(callable);
        Py_DECREF(callable);
    }
    m_receiver->Call("i", 1);
    EXPECT_TRUE(wasInside);
    const InterpreterLock lock;
    m_receiver->detach();
}

TEST_F(SessionEndsTest, AnEndLeftBehindIsNotAwaited)
{
    const std::shared_ptr<SessionEnd> end = begin(m_owner);
    end->m_leftBehind = true;
    SessionEnds::await(m_owner);
    SessionEnds::awaitAllPatiently();
}

TEST_F(SessionEndsTest, WithoutASignOfLifeForTenSecondsAnEndIsLeftBehindForGood)
{
    const std::shared_ptr<SessionEnd> end = begin(m_owner);
    const auto begun = std::chrono::steady_clock::now();
    SessionEnds::awaitAllPatiently();
    EXPECT_GT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
    EXPECT_TRUE(end->m_leftBehind);
    SessionEnds::await(m_owner);
}

// The receiver.

TEST(EventReceiverTest, ServesNobodyOnceItIsDetached)
{
    EventReceiver receiver;
    receiver.serve(VENDOR_CANON);
    const InterpreterLock lock;
    receiver.detach();
    EXPECT_EQ(receiver.vendor(), VENDOR_NONE);
}

TEST(EventReceiverTest, TakesNoCallableWhenItIsDetachedByTheOneBefore)
{
    EventReceiver receiver;
    const InterpreterLock lock;
    std::shared_ptr<void> atItsEnd(nullptr, [&](void*) { receiver.detach(); });
    PyObject* first = makeCallable([guard = std::move(atItsEnd)](PyObject*) {});
    PyObject* second = makeCallable([](PyObject*) {});
    EXPECT_TRUE(receiver.adopt(first));
    Py_DECREF(first);
    const Py_ssize_t references = Py_REFCNT(second);
    EXPECT_FALSE(receiver.adopt(second));
    EXPECT_EQ(Py_REFCNT(second), references);
    Py_DECREF(second);
}

}  // namespace
