// Start, session and end of the library.
#include <chrono>
#include <cstdint>
#include <thread>

#include "Support.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class Session : public VirtualTest
{};

TEST_F(Session, TerminateBeforeInitializeIsHarmless)
{
    EXPECT_EQ(EdsTerminateSDK(), 0U);
    EXPECT_EQ(EdsTerminateSDK(), 0U);
}

TEST_F(Session, SecondInitializeKeepsTheSession)
{
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(host.open(), 0U);
    EXPECT_EQ(EdsInitializeSDK(), 0U);
    EXPECT_EQ(host.get(0x406), 0x70U);
}

TEST_F(Session, OneTerminateEndsSeveralInitializes)
{
    EdsInitializeSDK();
    EdsInitializeSDK();
    EdsTerminateSDK();
    EdsCameraListRef list = nullptr;
    EXPECT_NE(EdsGetCameraList(&list), 0U);
    EXPECT_EQ(takeMisuses(), "EdsGetCameraList: called after EdsTerminateSDK\n");
}

TEST_F(Session, PropertiesNeedASession)
{
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    std::uint32_t value = 0;
    EXPECT_EQ(EdsGetPropertyData(host.camera(), 0x406, 0, 4, &value), 0x2003U);
    EXPECT_EQ(EdsCloseSession(host.camera()), 0x2003U);
    ASSERT_EQ(host.open(), 0U);
    EXPECT_EQ(EdsGetPropertyData(host.camera(), 0x406, 0, 4, &value), 0U);
}

TEST_F(Session, SecondOpenAnswersAlreadyOpenUnlessConfigured)
{
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(host.open(), 0U);
    EXPECT_EQ(EdsOpenSession(host.camera()), 0x201EU);
    configure("session.reopen_code = 0");
    EXPECT_EQ(EdsOpenSession(host.camera()), 0U);
}

TEST_F(Session, CanBeOpenedAgainAfterClosing)
{
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(host.open(), 0U);
    EXPECT_EQ(EdsCloseSession(host.camera()), 0U);
    EXPECT_EQ(VirtualCameraSessionOpen(0), 0);
    EXPECT_EQ(host.open(), 0U);
    EXPECT_EQ(VirtualCameraSessionOpen(0), 1);
}

TEST_F(Session, AnnouncesEveryPropertyAndEveryListAfterOpening)
{
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(EdsOpenSession(host.camera()), 0U);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    for (const std::uint32_t id :
         {0x2U, 0xBU, 0x100U, 0x104U, 0x106U, 0x107U, 0x402U, 0x403U, 0x405U, 0x406U, 0x407U,
          0x436U, 0x500U, 0x501U, 0x504U, 0x507U, 0x508U, 0x50EU}) {
        EXPECT_EQ(host.count(0x101, id), 1) << id;
    }
    for (const std::uint32_t id :
         {0x100U, 0x106U, 0x107U, 0x402U, 0x403U, 0x405U, 0x406U, 0x407U, 0x436U}) {
        EXPECT_EQ(host.count(0x102, id), 1) << id;
    }
    EXPECT_EQ(host.count(0x102, 0x2), 0);
}

TEST_F(Session, StartsAndEndsQuickly)
{
    Host host;
    const auto start = steady_clock::now();
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(host.open(), 0U);
    ASSERT_EQ(VirtualCameraWaitForEvents(0x102, 15, kDeadlineMs), 1);
    host.close();
    EXPECT_LT(steady_clock::now() - start, milliseconds(500));
}

TEST_F(Session, ThousandInARowStayQuickAndLeakNothing)
{
    const auto start = steady_clock::now();
    for (int i = 0; i < 1000; ++i) {
        Host host;
        ASSERT_EQ(host.connect(), 0U);
        ASSERT_EQ(host.open(), 0U);
        host.close();
        ASSERT_EQ(VirtualCanonReferenceCount(""), 0);
    }
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(30));
}

TEST_F(Session, TerminateDuringAPictureDoesNotWaitForIt)
{
    configure("picture.width = 2000\npicture.height = 1500");
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(host.open(), 0U);
    ASSERT_EQ(host.shoot(), 0U);
    host.close();
    EXPECT_EQ(host.count(0x208), 0);
    ASSERT_EQ(host.connect(), 0U);
    EXPECT_EQ(host.open(), 0U);
}

TEST_F(Session, TerminateFromAHandlerIsNoDeadlock)
{
    Host host;
    std::atomic<bool> isDone{false};
    host.inPropertyHandler = [&](std::uint32_t, EdsPropertyID) {
        if (!isDone.exchange(true)) {
            EdsTerminateSDK();
        }
    };
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(EdsOpenSession(host.camera()), 0U);
    EXPECT_TRUE(waitFor([&] { return isDone && host.count(0x101) == 1; }));
    EXPECT_EQ(host.count(0x101), 1);
    host.close();
    takeMisuses();
}

// Whether EdsTerminateSDK has got as far as to wait for handlers: a picture is there at once only
// when the library's threads do not work any more. The lag must be long, and the shutter not busy.
bool isTerminateWaiting()
{
    const int before = VirtualCameraPictureCount();
    return VirtualCameraPressShutter(0) == 1 && VirtualCameraPictureCount() > before;
}

TEST_F(Session, TerminateWaitsForAHandlerThatRuns)
{
    configure("shutter.busy = 0\nshutter.lag_ms = 60000");
    std::atomic<int> running{0};
    std::atomic<bool> mayGoOn{false};
    Host host;
    host.inPropertyHandler = [&](std::uint32_t, EdsPropertyID) {
        ++running;
        waitFor([&] { return mayGoOn.load(); });
        --running;
    };
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(EdsOpenSession(host.camera()), 0U);
    ASSERT_TRUE(waitFor([&] { return running == 1; }));
    std::thread releaser([&] {
        EXPECT_TRUE(waitFor(isTerminateWaiting));
        mayGoOn = true;
    });
    host.close();
    EXPECT_EQ(running, 0);
    releaser.join();
    const int seen = host.count(0x101);
    EXPECT_EQ(seen, 1);
}

TEST_F(Session, AHandlerThatTerminateWaitsForMayCallAsBefore)
{
    configure("shutter.busy = 0");
    std::atomic<bool> isInside{false};
    std::atomic<bool> isTerminating{false};
    Host host;
    host.inObjectHandler = [&](std::uint32_t /*event*/, EdsBaseRef /*object*/) {
        configure("shutter.lag_ms = 60000");
        isInside = true;
        isTerminating = waitFor(isTerminateWaiting);
    };
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(host.open(), 0U);
    ASSERT_EQ(host.shoot(), 0U);
    ASSERT_TRUE(waitFor([&] { return isInside.load(); }));
    // The handler goes on to give its reference back.
    host.close();
    EXPECT_TRUE(isTerminating);
    EXPECT_EQ(host.count(0x204), 1);
    EXPECT_EQ(misuses(), "");
}

TEST_F(Session, TerminateGivesUpOnAHandlerThatNeverReturns)
{
    configure("terminate.wait_ms = 20");
    std::atomic<bool> mayGoOn{false};
    std::atomic<int> entered{0};
    Host host;
    host.inPropertyHandler = [&](std::uint32_t, EdsPropertyID) {
        ++entered;
        waitFor([&] { return mayGoOn.load(); });
    };
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(EdsOpenSession(host.camera()), 0U);
    ASSERT_TRUE(waitFor([&] { return entered == 1; }));
    host.close();
    EXPECT_EQ(takeMisuses(), "EdsTerminateSDK: an event handler does not return\n");
    mayGoOn = true;
    EXPECT_TRUE(waitFor([&] { return host.count(0x101) == 1; }));
}

}  // namespace
