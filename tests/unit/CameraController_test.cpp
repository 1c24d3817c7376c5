// The controller: which call each action makes in the end, and what "closing" does.
#include "canon/CameraController.h"

#include <functional>
#include <optional>

#include "CanonTestSupport.h"

using canon::ActionEvent;
using canon::CameraController;

namespace {

class CameraControllerTest : public OpenSessionTest
{
protected:
    void SetUp() override
    {
        OpenSessionTest::SetUp();
        ASSERT_NE(m_model, nullptr);
        m_controller = std::make_unique<CameraController>(*m_model);
    }

    void TearDown() override
    {
        // A hand that is still on the worker must not keep the test from ending.
        VirtualCameraClearFaults();
        VirtualCameraReleaseHangs();
        if (m_controller) {
            perform("closing");
        }
        m_controller.reset();
        OpenSessionTest::TearDown();
    }

    void perform(const char* action, void* argument = nullptr)
    {
        m_controller->actionPerformed(ActionEvent(action, argument));
    }

    void start() { ASSERT_TRUE(m_controller->processor().startAndWait()); }

    // Waits until everything that was posted before has been executed.
    void finishQueue() { ::finishQueue(m_controller->processor(), model(), m_observer); }

    // The focus frame's position that the camera has been given.
    canon::CameraModel& at(std::int32_t x, std::int32_t y)
    {
        model().evfPosition = EdsPoint{x, y};
        return model();
    }

    static EdsPoint sentPosition()
    {
        EdsPoint point = {-1, -1};
        VirtualCanonPropertyBytes(0, 0x508, &point, sizeof point);
        return point;
    }

    std::unique_ptr<CameraController> m_controller;
};

struct ActionCase {
    const char* action;
    std::optional<std::uint32_t> argument;
    Lines expected;
};

// Printed by GoogleTest when a case fails.
void PrintTo(const ActionCase& action, std::ostream* out)
{
    *out << action.action;
}

class EachActionTest : public CameraControllerTest, public testing::WithParamInterface<ActionCase>
{};

const ActionCase kActions[] = {
    {"set_AEMode", 0x2, {"EdsSetPropertyData(camera, 0x436, 0, 4, 0x2)"}},
    {"set_Av", 0x28, {"EdsSetPropertyData(camera, 0x405, 0, 4, 0x28)"}},
    {"set_Tv", 0x60, {"EdsSetPropertyData(camera, 0x406, 0, 4, 0x60)"}},
    {"set_ISOSpeed", 0x48, {"EdsSetPropertyData(camera, 0x402, 0, 4, 0x48)"}},
    {"set_WB", 0x9, {"EdsSetPropertyData(camera, 0x106, 0, 4, 0x9)"}},
    {"set_ColorTemp", 5200, {"EdsSetPropertyData(camera, 0x107, 0, 4, 0x1450)"}},
    {"set_MeteringMode", 0x1, {"EdsSetPropertyData(camera, 0x403, 0, 4, 0x1)"}},
    {"set_ExposureCompensation", 0xFD, {"EdsSetPropertyData(camera, 0x407, 0, 4, 0xFD)"}},
    {"set_ImageQuality", 0x0064FF0F, {"EdsSetPropertyData(camera, 0x100, 0, 4, 0x64FF0F)"}},
    {"set_EvfAFMode", 0x2, {"EdsSetPropertyData(camera, 0x50E, 0, 4, 0x2)"}},
    {"set_Tv", 0xFFFFFFFF, {"EdsSetPropertyData(camera, 0x406, 0, 4, 0xFFFFFFFF)"}},
    {"pressingHalfway", {}, {"EdsSendCommand(camera, 0x4, 0x1)"}},
    {"pressingCompletely", {}, {"EdsSendCommand(camera, 0x4, 0x3)"}},
    {"pressingOff", {}, {"EdsSendCommand(camera, 0x4, 0x0)"}},
    {"TakePicture", {}, {"EdsSendCommand(camera, 0x4, 0x3)", "EdsSendCommand(camera, 0x4, 0x0)"}},
    {"get_Property",
     0x406,
     {"EdsGetPropertySize(camera, 0x406, 0)", "EdsGetPropertyData(camera, 0x406, 0, 4)"}},
    {"get_PropertyDesc", 0x406, {"EdsGetPropertyDesc(camera, 0x406)"}},
    {"shutDown", {}, {}},
    {"startEVF",
     {},
     {"EdsSetPropertyData(camera, 0x501, 0, 4, 0x1)",
      "EdsSetPropertyData(camera, 0x500, 0, 4, 0x2)"}},
    {"endEVF", {}, {}},
    {"downloadEVF", {}, {}},
    {"focus_Near3", {}, {"EdsSendCommand(camera, 0x103, 0x3)"}},
    {"focus_Near2", {}, {"EdsSendCommand(camera, 0x103, 0x2)"}},
    {"focus_Near1", {}, {"EdsSendCommand(camera, 0x103, 0x1)"}},
    {"focus_Far3", {}, {"EdsSendCommand(camera, 0x103, 0x8003)"}},
    {"focus_Far2", {}, {"EdsSendCommand(camera, 0x103, 0x8002)"}},
    {"focus_Far1", {}, {"EdsSendCommand(camera, 0x103, 0x8001)"}},
    {"zoom_Fit", {}, {"EdsSetPropertyData(camera, 0x507, 0, 4, 0x1)"}},
    {"zoom_Fit", 77, {"EdsSetPropertyData(camera, 0x507, 0, 4, 0x1)"}},
    {"zoom_Zoom", {}, {"EdsSetPropertyData(camera, 0x507, 0, 4, 0x5)"}},
    {"zoom_Zoom", 77, {"EdsSetPropertyData(camera, 0x507, 0, 4, 0x5)"}},
    {"evfAFOn", {}, {"EdsSendCommand(camera, 0x102, 0x1)"}},
    {"evfAFOff", {}, {"EdsSendCommand(camera, 0x102, 0x0)"}},
};

TEST_P(EachActionTest, MakesItsCalls)
{
    std::uint32_t value = GetParam().argument.value_or(0);
    perform(GetParam().action, GetParam().argument ? &value : nullptr);
    start();
    finishQueue();
    EXPECT_EQ(calls(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Actions, EachActionTest, testing::ValuesIn(kActions),
                         [](const testing::TestParamInfo<ActionCase>& tested) {
                             return std::string(tested.param.action) +
                                    (tested.param.argument
                                         ? "_" + std::to_string(*tested.param.argument)
                                         : "");
                         });

TEST_F(CameraControllerTest, OpensessionOpensAndPreparesTheCamera)
{
    ASSERT_EQ(EdsCloseSession(m_camera), 0U);
    VirtualCameraClearLog();
    perform("opensession");
    start();
    finishQueue();
    EXPECT_EQ(calls(),
              (Lines{"EdsOpenSession(camera)", "EdsSetPropertyData(camera, 0xB, 0, 4, 0x3)",
                     "EdsSendStatusCommand(camera, 0x0, 0x0)",
                     "EdsSetCapacity(camera, 2147483647, 4096, 1)",
                     "EdsSendStatusCommand(camera, 0x1, 0x0)"}));
}

TEST_F(CameraControllerTest, SetCapacitySendsACopyOfTheRecord)
{
    EdsCapacity capacity = {1000, 512, 1};
    perform("set_Capacity", &capacity);
    capacity = {1, 2, 3};
    start();
    finishQueue();
    EXPECT_EQ(calls(), Lines{"EdsSetCapacity(camera, 1000, 512, 1)"});
}

TEST_F(CameraControllerTest, DownloadTakesTheReferenceItselfAndGivesItBack)
{
    perform("download", VirtualCanonNewItem(0, -1));
    start();
    finishQueue();
    EXPECT_EQ(calls().front(), "EdsGetDirectoryItemInfo(item)");
    EXPECT_EQ(calls().back(), "EdsRelease(item)");
    EXPECT_EQ(VirtualCanonReferenceCount("item"), 0);
}

TEST_F(CameraControllerTest, ANumberIsReadDuringTheCall)
{
    std::uint32_t value = 0x60;
    perform("set_Tv", &value);
    value = 0x68;
    start();
    finishQueue();
    EXPECT_EQ(calls(), Lines{"EdsSetPropertyData(camera, 0x406, 0, 4, 0x60)"});
}

TEST_F(CameraControllerTest, UnknownNamesDoNothing)
{
    ASSERT_EQ(EdsCloseSession(m_camera), 0U);
    VirtualCameraClearLog();
    std::uint32_t value = 1;
    for (const char* name : {"", " ", "OpenSession", "opensession ", " opensession", "opensessio",
                             "takepicture", "TAKEPICTURE", "set_tv", "Closing", "closing ",
                             "shutdown", "zoom_zoom", "set_WhiteBalance", "open\xC3\xBCsession"}) {
        perform(name, &value);
    }
    start();
    finishQueue();
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(events(), Lines{"done"});
    EXPECT_TRUE(m_controller->processor().isAlive());
}

TEST_F(CameraControllerTest, ANameWithATerminatorInItIsAnotherName)
{
    m_controller->actionPerformed(ActionEvent(std::string("pressingOff\0", 12)));
    start();
    finishQueue();
    EXPECT_EQ(calls(), Lines{});
}

struct FocusCase {
    const char* action;
    EdsPoint from;
    EdsPoint to;
};

void PrintTo(const FocusCase& move, std::ostream* out)
{
    *out << move.action << " from " << move.from.x << ", " << move.from.y;
}

class FocusMoveTest : public CameraControllerTest, public testing::WithParamInterface<FocusCase>
{};

constexpr std::int32_t kLast = 0x7FFFFFFF;

const FocusCase kFocusMoves[] = {
    {"focus_Up", {300, 100}, {300, 0}},
    {"focus_Up", {300, 128}, {300, 0}},
    {"focus_Up", {300, 129}, {300, 1}},
    {"focus_Up", {300, 0}, {300, 0}},
    {"focus_Up", {300, -1000}, {300, 0}},
    {"focus_Down", {300, 0}, {300, 128}},
    {"focus_Down", {0, 1000}, {0, 1128}},
    {"focus_Left", {100, 300}, {0, 300}},
    {"focus_Left", {128, 300}, {0, 300}},
    {"focus_Left", {512, 384}, {384, 384}},
    {"focus_Left", {-1000, 300}, {0, 300}},
    {"focus_Right", {0, 300}, {128, 300}},
    {"focus_Right", {1000, 0}, {1128, 0}},
    {"focus_Down", {300, -100}, {300, 28}},
    {"focus_Right", {-100, 300}, {28, 300}},
    {"focus_Up", {300, -kLast - 1}, {300, 0}},
    // Nothing bounds a step up, the end of the numbers included: behind it they start again.
    {"focus_Right", {99'999, 0}, {100'127, 0}},
    {"focus_Down", {0, 99'999}, {0, 100'127}},
    {"focus_Right", {kLast - 128, 0}, {kLast, 0}},
    {"focus_Down", {0, kLast - 128}, {0, kLast}},
    {"focus_Right", {kLast, 0}, {-kLast + 126, 0}},
    {"focus_Down", {0, kLast}, {0, -kLast + 126}},
};

TEST_P(FocusMoveTest, SendsThePositionOneStepAway)
{
    at(GetParam().from.x, GetParam().from.y);
    perform(GetParam().action);
    start();
    finishQueue();
    const EdsPoint& to = GetParam().to;
    EXPECT_EQ(calls(), Lines{"EdsSetPropertyData(camera, 0x508, 0, 8, (" + std::to_string(to.x) +
                             ", " + std::to_string(to.y) + "))"});
}

INSTANTIATE_TEST_SUITE_P(Moves, FocusMoveTest, testing::ValuesIn(kFocusMoves));

TEST_F(CameraControllerTest, AFocusMoveStartsFromThePositionAtTheTimeOfTheAction)
{
    at(0, 0);
    perform("focus_Right");
    at(1000, 1000);
    start();
    finishQueue();
    EXPECT_EQ(sentPosition().x, 128);
    EXPECT_EQ(sentPosition().y, 0);
}

TEST_F(CameraControllerTest, AFocusMoveLeavesTheModelAsItIs)
{
    at(256, 256);
    perform("focus_Left");
    start();
    finishQueue();
    EXPECT_EQ(model().evfPosition.load().x, 256);
}

TEST_F(CameraControllerTest, ShutDownReachesTheObserversBehindEarlierCommandsAndStopsNothing)
{
    std::uint32_t property = 0x406;
    perform("get_Property", &property);
    perform("shutDown");
    perform("get_Property", &property);
    start();
    finishQueue();
    EXPECT_EQ(events(), (Lines{"PropertyChanged 406", "shutDown", "PropertyChanged 406", "done"}));
    EXPECT_TRUE(m_controller->processor().isAlive());
}

TEST_F(CameraControllerTest, ClosingClosesTheSessionLastAndReturnsWhenTheWorkerHasEnded)
{
    start();
    perform("pressingOff");
    finishQueue();
    perform("closing");
    EXPECT_FALSE(m_controller->processor().isAlive());
    EXPECT_EQ(calls(), (Lines{"EdsSendCommand(camera, 0x4, 0x0)", "EdsCloseSession(camera)"}));
}

TEST_F(CameraControllerTest, ClosingLetsTheRunningCommandFinishAndDropsThoseBehindIt)
{
    fault("EdsSendCommand hang command=4 parameter=0");
    start();
    perform("pressingOff");
    ASSERT_EQ(VirtualCameraWaitForHang("EdsSendCommand", 5000), 1);
    perform("pressingHalfway");
    std::thread closer([&] { perform("closing"); });
    EXPECT_TRUE(waitFor([&] { return !m_controller->processor().isRunning(); }));
    EXPECT_TRUE(m_controller->processor().isAlive());
    VirtualCameraReleaseHangs();
    closer.join();
    EXPECT_EQ(calls(), (Lines{"EdsSendCommand(camera, 0x4, 0x0)", "EdsCloseSession(camera)"}));
}

TEST_F(CameraControllerTest, ClosingTwiceClosesTheSessionOnce)
{
    start();
    perform("closing");
    perform("closing");
    EXPECT_EQ(VirtualCameraCallCount("EdsCloseSession"), 1);
}

TEST_F(CameraControllerTest, ClosingWithoutAWorkerReturnsAtOnceAndClosesNothing)
{
    perform("closing");
    EXPECT_EQ(VirtualCameraCallCount("EdsCloseSession"), 0);
}

TEST_F(CameraControllerTest, ActionsAfterClosingAreDropped)
{
    start();
    perform("closing");
    VirtualCameraClearLog();
    perform("TakePicture");
    perform("download", VirtualCanonNewItem(0, -1));
    m_controller.reset();
    EXPECT_EQ(calls(), Lines{"EdsRelease(item)"});
    EXPECT_EQ(VirtualCanonReferenceCount("item"), 0);
}

TEST_F(CameraControllerTest, ActionsOfManyThreadsAreAllCarriedOut)
{
    start();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 25; ++n) {
                perform("pressingOff");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    finishQueue();
    EXPECT_EQ(VirtualCameraCallCount("EdsSendCommand"), 100);
}

// Performs an action when it is told "shutDown".
class Reacting final : public canon::Observer
{
public:
    explicit Reacting(std::function<void()> reaction) : m_reaction(std::move(reaction)) {}
    void update(canon::Observable* /*from*/, const canon::CameraEvent& event) override
    {
        if (event.name == "shutDown") {
            m_reaction();
        }
    }

private:
    std::function<void()> m_reaction;
};

TEST_F(CameraControllerTest, ClosingFromTheWorkerItselfDoesNotWaitForItself)
{
    Reacting observer([&] { perform("closing"); });
    model().addObserver(&observer);
    start();
    perform("shutDown");
    ASSERT_EQ(VirtualCameraWaitForCalls("EdsCloseSession", 1, 5000), 1);
    EXPECT_TRUE(waitFor([&] { return !m_controller->processor().isAlive(); }));
}

TEST_F(CameraControllerTest, AnActionFromTheWorkerItselfIsQueuedLikeAnyOther)
{
    Reacting observer([&] { perform("pressingOff"); });
    model().addObserver(&observer);
    start();
    perform("shutDown");
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsSendCommand", 1, 5000), 1);
}

}  // namespace
