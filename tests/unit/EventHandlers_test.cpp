// The handlers: how they are registered, and what becomes of each event.
#include "canon/EventHandlers.h"

#include <algorithm>

#include "CanonTestSupport.h"
#include "canon/CameraController.h"
#include "canon/CanonSession.h"

using canon::ActionEvent;
using canon::CameraController;

namespace {

const char* const kProperties = "EdsSetPropertyEventHandler(camera, 0x100)";
const char* const kObjects = "EdsSetObjectEventHandler(camera, 0x200)";
const char* const kState = "EdsSetCameraStateEventHandler(camera, 0x300)";

class EventHandlersTest : public OpenSessionTest
{
protected:
    void SetUp() override
    {
        OpenSessionTest::SetUp();
        m_controller = std::make_unique<CameraController>(*m_model);
    }

    void TearDown() override
    {
        VirtualCameraClearFaults();
        m_controller->actionPerformed(ActionEvent("closing"));
        // The handlers may use the controller until the library was terminated.
        const std::unique_ptr<CameraController> controller = std::move(m_controller);
        OpenSessionTest::TearDown();
    }

    void listen()
    {
        canon::registerEventHandlers(m_camera, *m_controller);
        VirtualCameraClearLog();
    }

    void start() { ASSERT_TRUE(m_controller->processor().startAndWait()); }

    // Waits until everything that was raised and posted before has been executed.
    void finishQueue()
    {
        ASSERT_TRUE(waitFor(isIdle));
        ::finishQueue(m_controller->processor(), model(), m_observer);
    }

    static void sendProperty(std::uint32_t event, std::uint32_t property)
    {
        const int before = VirtualCameraEventCount(event);
        ASSERT_EQ(VirtualCanonSendPropertyEvent(0, event, property, 0), 1);
        ASSERT_EQ(VirtualCameraWaitForEvents(event, before + 1, 5000), 1);
    }

    static void sendObject(std::uint32_t event, void* reference)
    {
        const int before = VirtualCameraEventCount(event);
        ASSERT_EQ(VirtualCanonSendObjectEvent(0, event, reference), 1);
        ASSERT_EQ(VirtualCameraWaitForEvents(event, before + 1, 5000), 1);
    }

    static void sendState(std::uint32_t event)
    {
        const int before = VirtualCameraEventCount(event);
        ASSERT_EQ(VirtualCanonSendStateEvent(0, event, 0), 1);
        ASSERT_EQ(VirtualCameraWaitForEvents(event, before + 1, 5000), 1);
    }

    std::unique_ptr<CameraController> m_controller;
};

// Registering.

TEST_F(EventHandlersTest, AreRegisteredForPropertiesObjectsAndStateInThisOrder)
{
    canon::registerEventHandlers(m_camera, *m_controller);
    EXPECT_EQ(calls(), (Lines{kProperties, kObjects, kState}));
}

TEST_F(EventHandlersTest, AreNotRegisteredBehindAFailedOne)
{
    fault("EdsSetPropertyEventHandler code=0x2");
    canon::registerEventHandlers(m_camera, *m_controller);
    EXPECT_EQ(calls(), Lines{kProperties});

    VirtualCameraClearLog();
    fault("EdsSetObjectEventHandler code=0x81");
    canon::registerEventHandlers(m_camera, *m_controller);
    EXPECT_EQ(calls(), (Lines{kProperties, kObjects}));
    EXPECT_EQ(events(), Lines{});
}

TEST_F(EventHandlersTest, MayBeCalledFromInsideTheirRegistration)
{
    configure("events.at_registration = 1");
    canon::registerEventHandlers(m_camera, *m_controller);
    EXPECT_GT(VirtualCameraEventCount(0x101), 10);
    start();
    finishQueue();
    const Lines all = events();
    EXPECT_EQ(std::count(all.begin(), all.end(), "PropertyChanged 406"), 1);
}

// Holds a start up while it registers the handlers.
class HeldStartTest : public VirtualCameraTest
{
protected:
    void SetUp() override
    {
        VirtualCameraTest::SetUp();
        fault("EdsSetPropertyEventHandler hang");
        m_start = std::thread([&] { canon::CanonInit(m_state, m_observer, "Virtual EOS"); });
        ASSERT_EQ(VirtualCameraWaitForHang("EdsSetPropertyEventHandler", 5000), 1);
        ASSERT_EQ(m_state.sessions.size(), 1U);
    }

    void TearDown() override
    {
        VirtualCameraReleaseHangs();
        m_start.join();
        canon::CanonClose(m_state);
        VirtualCameraTest::TearDown();
    }

    canon::CanonState m_state;
    const std::shared_ptr<RecordingObserver> m_observer = std::make_shared<RecordingObserver>();
    std::thread m_start;
};

TEST_F(HeldStartTest, TheWorkerStartsWhenTheHandlersAreRegistered)
{
    EXPECT_FALSE(m_state.sessions.front()->m_pController->processor().isAlive());
    VirtualCameraReleaseHangs();
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsOpenSession", 1, 5000), 1);
}

TEST_F(HeldStartTest, TheObserverListensBeforeTheFirstHandlerIsRegistered)
{
    m_state.sessions.front()->m_pModel->notify("probe");
    EXPECT_EQ(m_observer->events(), Lines{"probe"});
}

// Property events.

TEST_F(EventHandlersTest, APropertyChangeIsReadOnceAndAnnounced)
{
    listen();
    start();
    sendProperty(0x101, 0x405);
    finishQueue();
    EXPECT_EQ(calls(), (Lines{"EdsGetPropertySize(camera, 0x405, 0)",
                              "EdsGetPropertyData(camera, 0x405, 0, 4)"}));
    EXPECT_EQ(events(), (Lines{"PropertyChanged 405", "done"}));
}

TEST_F(EventHandlersTest, AChangeOfTheAllowedValuesIsReadOnceAndAnnounced)
{
    listen();
    start();
    sendProperty(0x102, 0x405);
    finishQueue();
    EXPECT_EQ(calls(), Lines{"EdsGetPropertyDesc(camera, 0x405)"});
    EXPECT_EQ(events(), (Lines{"PropertyDescChanged 405", "done"}));
}

TEST_F(EventHandlersTest, OtherPropertyEventsAreIgnored)
{
    listen();
    start();
    for (const std::uint32_t event : {0x100U, 0x103U, 0x1FFU, 0x208U, 0x301U, 0U, 0xFFFFFFFFU}) {
        sendProperty(event, 0x405);
    }
    finishQueue();
    EXPECT_EQ(events(), Lines{"done"});
}

TEST_F(EventHandlersTest, AChangeOfTheWholeSetReadsTheReportedSet)
{
    listen();
    start();
    sendProperty(0x101, 0xFFFF);
    finishQueue();
    EXPECT_EQ(events().size(), 8U);
}

TEST_F(EventHandlersTest, AChangeByTheHostComesBackAsANotification)
{
    listen();
    start();
    std::uint32_t value = 0x60;
    m_controller->actionPerformed(ActionEvent("set_Tv", &value));
    EXPECT_TRUE(waitFor([&] { return events() == Lines{"PropertyChanged 406"}; }));
    finishQueue();
    EXPECT_EQ(model().Tv, 0x60U);
}

// Object events.

TEST_F(EventHandlersTest, ANewPictureIsDownloadedAndItsReferenceGivenBack)
{
    listen();
    start();
    sendObject(0x208, VirtualCanonNewItem(0, -1));
    finishQueue();
    EXPECT_EQ(calls("EdsGetDirectoryItemInfo").size(), 1U);
    EXPECT_EQ(calls("EdsRelease(item)").size(), 1U);
    EXPECT_EQ(VirtualCanonReferenceCount("item"), 0);
    VirtualCameraClearMisuse();
}

TEST_F(EventHandlersTest, AnyOtherObjectIsReleasedOnceAndNothingIsSent)
{
    listen();
    start();
    for (const std::uint32_t event : {0x201U, 0x204U, 0x207U, 0x209U, 0x20FU, 0x101U, 0x301U, 0U}) {
        sendObject(event, VirtualCanonNewItem(0, -1));
    }
    EXPECT_EQ(VirtualCanonReferenceCount("item"), 0);
    finishQueue();
    EXPECT_EQ(calls(), Lines(8, "EdsRelease(item)"));
    EXPECT_EQ(events(), Lines{"done"});
}

TEST_F(EventHandlersTest, AnotherObjectEventWithoutAReferenceReleasesNothing)
{
    listen();
    start();
    sendObject(0x204, nullptr);
    finishQueue();
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(EventHandlersTest, ANewPictureWithoutAReferenceIsTriedAndReported)
{
    listen();
    start();
    sendObject(0x208, nullptr);
    finishQueue();
    VirtualCameraClearMisuse();
    EXPECT_EQ(calls(), Lines{"EdsGetDirectoryItemInfo(null)"});
    ASSERT_EQ(events().size(), 2U);
    EXPECT_EQ(events().front().substr(0, 5), "error");
}

// State events.

TEST_F(EventHandlersTest, TheCamerasShutDownIsToldBehindWhatWasQueuedBefore)
{
    listen();
    sendProperty(0x101, 0x405);
    sendState(0x301);
    sendProperty(0x101, 0x406);
    start();
    EXPECT_TRUE(waitFor([&] { return events().size() == 3; }));
    EXPECT_EQ(events(), (Lines{"PropertyChanged 405", "shutDown", "PropertyChanged 406"}));
    EXPECT_TRUE(m_controller->processor().isAlive());
}

TEST_F(EventHandlersTest, OtherStateEventsAreIgnored)
{
    listen();
    start();
    for (const std::uint32_t event : {0x300U, 0x302U, 0x303U, 0x306U, 0x101U, 0x208U, 0U}) {
        sendState(event);
    }
    finishQueue();
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(events(), Lines{"done"});
}

TEST_F(EventHandlersTest, APulledCableIsToldAsShutDown)
{
    listen();
    start();
    VirtualCameraUnplug(0);
    EXPECT_TRUE(waitFor([&] { return events() == Lines{"shutDown"}; }));
}

// Threads and times.

TEST_F(EventHandlersTest, EventsBeforeTheWorkerStartsAreKept)
{
    listen();
    sendProperty(0x101, 0x405);
    sendProperty(0x102, 0x405);
    EXPECT_EQ(calls(), Lines{});
    start();
    finishQueue();
    EXPECT_EQ(events(), (Lines{"PropertyChanged 405", "PropertyDescChanged 405", "done"}));
}

TEST_F(EventHandlersTest, AHandlerReturnsWhileTheWorkerIsInACall)
{
    listen();
    fault("EdsGetPropertySize hang property=0x405");
    start();
    sendProperty(0x101, 0x405);
    ASSERT_EQ(VirtualCameraWaitForHang("EdsGetPropertySize", 5000), 1);
    sendProperty(0x101, 0x406);
    sendObject(0x204, nullptr);
    sendState(0x301);
    EXPECT_EQ(events(), Lines{});
    VirtualCameraReleaseHangs();
    finishQueue();
    EXPECT_EQ(events(), (Lines{"PropertyChanged 405", "PropertyChanged 406", "shutDown", "done"}));
}

TEST_F(EventHandlersTest, MayBeCalledFromInsideOurOwnCalls)
{
    configure("events.inside_calls = 1");
    listen();
    start();
    std::uint32_t value = 0x60;
    m_controller->actionPerformed(ActionEvent("set_Tv", &value));
    EXPECT_TRUE(waitFor([&] { return events() == Lines{"PropertyChanged 406"}; }));
}

TEST_F(EventHandlersTest, EventsAfterClosingUntilTerminationAreDroppedAndTheirObjectsGivenBack)
{
    listen();
    start();
    m_controller->actionPerformed(ActionEvent("closing"));
    VirtualCameraClearLog();
    sendProperty(0x101, 0x405);
    sendObject(0x208, VirtualCanonNewItem(0, -1));
    sendObject(0x204, VirtualCanonNewItem(0, -1));
    sendState(0x301);
    EXPECT_EQ(calls(), (Lines{"EdsRelease(item)", "EdsRelease(item)"}));
    EXPECT_EQ(events(), Lines{});
}

TEST_F(VirtualCameraTest, EventsOfSeveralThreadsAtOnceAreAllHandled)
{
    configure("events.threads = 8");
    canon::CanonState state;
    const auto observer = std::make_shared<RecordingObserver>();
    ASSERT_EQ(canon::CanonInit(state, observer, "Virtual EOS"), 1);
    ASSERT_EQ(VirtualCameraWaitForCalls("EdsGetPropertyData", 1, 5000), 1);
    for (int i = 0; i < 100; ++i) {
        VirtualCanonSendPropertyEvent(0, 0x101, 0x104, 0);
    }
    const auto told = [&] {
        const Lines all = observer->events();
        return std::count(all.begin(), all.end(), "PropertyChanged 104");
    };
    // The camera's own event of the session's opening is one more.
    EXPECT_TRUE(waitFor([&] { return told() == 101; })) << told();
    canon::CanonClose(state);
}

}  // namespace
