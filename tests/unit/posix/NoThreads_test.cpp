// Sessions for which the system has no thread to give.
#include <pthread.h>

#include <functional>
#include <memory>

#include "Apart.h"
#include "CanonTestSupport.h"
#include "canon/CanonSession.h"

namespace {

// While this lives no thread can be started: the room that one needs is more than there is.
class NoThreads
{
public:
    NoThreads()
    {
        EXPECT_EQ(::pthread_getattr_default_np(&m_before), 0);
        pthread_attr_t impossible = m_before;
        EXPECT_EQ(::pthread_attr_setstacksize(&impossible, std::size_t{1} << 46U), 0);
        EXPECT_EQ(::pthread_setattr_default_np(&impossible), 0);
    }
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;
    ~NoThreads() { EXPECT_EQ(::pthread_setattr_default_np(&m_before), 0); }

private:
    pthread_attr_t m_before = {};
};

class NoThreadsTest : public VirtualCameraTest
{
protected:
    void SetUp() override
    {
        VirtualCameraTest::SetUp();
        // The virtual camera's own threads are there already.
        ASSERT_EQ(EdsInitializeSDK(), 0U);
    }

    // A session whose worker got no thread, with a picture in its queue.
    void startWithAPicture()
    {
        {
            const NoThreads noThreads;
            EXPECT_THROW(std::thread([] {}).detach(), std::system_error);
            ASSERT_EQ(canon::CanonInit(m_state, m_observer, "Virtual EOS"), 1);
        }
        ASSERT_EQ(VirtualCanonSendObjectEvent(0, 0x208, VirtualCanonNewItem(0, -1)), 1);
        ASSERT_EQ(VirtualCameraWaitForEvents(0x208, 1, 5'000), 1);
        ASSERT_EQ(VirtualCanonReferenceCount("item"), 1);
        VirtualCameraClearLog();
    }

    static void expectEnded()
    {
        EXPECT_EQ(calls(), (Lines{"EdsRelease(item)", "EdsRelease(camera)", "EdsTerminateSDK()"}));
        EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
    }

    canon::CanonState m_state;
    const std::shared_ptr<RecordingObserver> m_observer = std::make_shared<RecordingObserver>();
};

TEST_F(NoThreadsTest, AnEndGivesTheQueuedPicturesBackBeforeTheLibraryIsTerminated)
{
    startWithAPicture();
    canon::CanonClose(m_state);
    expectEnded();
}

TEST_F(NoThreadsTest, AnEndThatMustNotWaitDoesSo)
{
    startWithAPicture();
    bool wasApart = false;
    auto underWay = std::make_shared<int>();
    const std::weak_ptr<int> watched = underWay;
    canon::CanonLetEnd(m_state, std::move(underWay), [&](const std::function<void()>& work) {
        EXPECT_FALSE(watched.expired());
        wasApart = true;
        work();
    });
    EXPECT_TRUE(wasApart);
    EXPECT_TRUE(watched.expired());
    expectEnded();
}

TEST_F(NoThreadsTest, AnEndThatMustNotWaitEndsTheSessionsWithAWorkerToo)
{
    VirtualCameraAdd("Canon EOS R5", 1);
    ASSERT_EQ(canon::CanonInit(m_state, m_observer, "Canon EOS R5"), 1);
    ASSERT_TRUE(waitFor([] { return VirtualCameraSessionOpen(1) == 1; }));
    startWithAPicture();
    canon::CanonLetEnd(m_state, nullptr, [](const std::function<void()>& work) { work(); });
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsTerminateSDK", 1, 5'000), 1);
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
    EXPECT_EQ(VirtualCameraSessionOpen(1), 0);
}

TEST_F(NoThreadsTest, WhatWasToRunApartIsDoneHere)
{
    const NoThreads noThreads;
    std::thread::id worker;
    runApart([&] { worker = std::this_thread::get_id(); });
    EXPECT_EQ(worker, std::this_thread::get_id());
}

TEST_F(NoThreadsTest, WhatIsAskedOfTheSessionWaitsInVain)
{
    {
        const NoThreads noThreads;
        ASSERT_EQ(canon::CanonInit(m_state, m_observer, "Virtual EOS"), 1);
    }
    EXPECT_EQ(canon::CanonShoot(m_state), 1);
    EXPECT_EQ(VirtualCameraCallCount("EdsSendCommand"), 0);
    canon::CanonClose(m_state);
    EXPECT_EQ(VirtualCanonReferenceCount(""), 0);
}

}  // namespace
