// Live view, its frames, and the lens.
#include "canon/EvfCommands.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <numeric>

#include "CanonTestSupport.h"
#include "canon/CameraController.h"
#include "canon/Processor.h"
#include "canon/PropertyCommands.h"

using canon::DoEvfAFCommand;
using canon::DownloadEvfCommand;
using canon::DriveLensCommand;
using canon::EndEvfCommand;
using canon::EvfFrame;
using canon::StartEvfCommand;
using std::chrono::milliseconds;

namespace {

// Whether `action` takes less than `limit` once: a machine that is busy gets three tries.
template <typename Action>
bool takesLessThan(milliseconds limit, Action action)
{
    for (int tries = 0; tries < 3; ++tries) {
        const auto start = std::chrono::steady_clock::now();
        action();
        if (std::chrono::steady_clock::now() - start < limit) {
            return true;
        }
    }
    return false;
}

// When the writes of properties in the virtual camera's log were made, in seconds, oldest first.
std::vector<double> timesOfWrites()
{
    std::istringstream log(textOf(VirtualCameraLog));
    std::vector<double> times;
    long number = 0;
    double time = 0;
    std::string thread;
    std::string call;
    while (log >> number >> time >> thread && std::getline(log >> std::ws, call)) {
        if (call.find("EdsSetPropertyData") == 0) {
            times.push_back(time);
        }
    }
    return times;
}

class EvfTest : public OpenSessionTest
{
protected:
    template <typename Command>
    bool execute()
    {
        return Command(model()).execute();
    }

    // Live view is on, on the camera and in the model.
    void switchOn()
    {
        VirtualCanonSetProperty(0, 0x501, 1);
        VirtualCanonSetProperty(0, 0x500, 2);
        model().evfMode = 1;
        model().evfOutputDevice = 2;
    }
};

// Keeps the last frame it was told, and what the model said of it then.
class FrameObserver final : public canon::Observer
{
public:
    void update(canon::Observable* from, const canon::CameraEvent& event) override
    {
        if (event.name == "EvfDataChanged") {
            const auto& model = *static_cast<const canon::CameraModel*>(from);
            modelZoom = model.evfZoom;
            modelPosition = model.evfPosition;
            modelRect = model.evfZoomRect;
            frame = *static_cast<const EvfFrame*>(event.arg);
            image.resize(
                static_cast<std::size_t>(VirtualCanonStreamBytes(frame.stream, nullptr, 0)));
            VirtualCanonStreamBytes(frame.stream, image.data(),
                                    static_cast<std::int64_t>(image.size()));
        }
    }

    EvfFrame frame = {};
    std::string image;
    std::uint32_t modelZoom = 0;
    EdsPoint modelPosition = {};
    EdsRect modelRect = {};
};

// Starting.

TEST_F(EvfTest, TheStartSwitchesTheModeAndTheOutputOn)
{
    EXPECT_TRUE(execute<StartEvfCommand>());
    EXPECT_EQ(callsAndResults(), (Lines{"EdsSetPropertyData(camera, 0x501, 0, 4, 0x1) = 0x0",
                                        "EdsSetPropertyData(camera, 0x500, 0, 4, 0x2) = 0x0"}));
    EXPECT_EQ(events(), Lines{});
}

TEST_F(EvfTest, TheStartLeavesTheModelToTheCamerasEvents)
{
    EXPECT_TRUE(execute<StartEvfCommand>());
    EXPECT_EQ(model().evfMode, 0U);
    EXPECT_EQ(model().evfOutputDevice, 0U);
}

TEST_F(EvfTest, TheStartLeavesAModeThatIsOnAlone)
{
    model().evfMode = 7;
    EXPECT_TRUE(execute<StartEvfCommand>());
    EXPECT_EQ(calls(), Lines{"EdsSetPropertyData(camera, 0x500, 0, 4, 0x2)"});
}

TEST_F(EvfTest, TheStartKeepsTheOtherOutputs)
{
    model().evfMode = 1;
    model().evfOutputDevice = 0x80000001;
    EXPECT_TRUE(execute<StartEvfCommand>());
    EXPECT_EQ(calls(), Lines{"EdsSetPropertyData(camera, 0x500, 0, 4, 0x80000003)"});
}

TEST_F(EvfTest, TheStartIsTriedAgainByABusyCameraOnly)
{
    fault("EdsSetPropertyData code=0x81 property=0x501");
    EXPECT_FALSE(execute<StartEvfCommand>());
    fault("EdsSetPropertyData code=0x81 property=0x500");
    EXPECT_FALSE(execute<StartEvfCommand>());
    fault("EdsSetPropertyData code=0x10081 property=0x500");
    EXPECT_TRUE(execute<StartEvfCommand>());
    EXPECT_EQ(events(), (Lines{"DeviceBusy", "DeviceBusy", "error 10081"}));
}

TEST_F(EvfTest, TheStartSendsNoOutputAfterAFailedMode)
{
    fault("EdsSetPropertyData code=0x60 property=0x501");
    EXPECT_TRUE(execute<StartEvfCommand>());
    EXPECT_EQ(calls(), Lines{"EdsSetPropertyData(camera, 0x501, 0, 4, 0x1)"});
    EXPECT_EQ(events(), Lines{"error 60"});
}

// Ending.

TEST_F(EvfTest, TheEndDoesNothingWhileLiveViewIsOff)
{
    model().evfOutputDevice = 0xFFFFFFFD;
    model().evfDepthOfFieldPreview = 1;
    EXPECT_TRUE(execute<EndEvfCommand>());
    EXPECT_EQ(calls(), Lines{});
}

TEST_F(EvfTest, TheEndTakesTheHostOutOfTheOutputs)
{
    model().evfOutputDevice = 0x3;
    EXPECT_TRUE(execute<EndEvfCommand>());
    EXPECT_EQ(calls(), Lines{"EdsSetPropertyData(camera, 0x500, 0, 4, 0x1)"});
    EXPECT_EQ(model().evfOutputDevice, 0x3U);
}

TEST_F(EvfTest, TheEndLetsTheDepthOfFieldGoFirst)
{
    switchOn();
    for (const std::uint32_t preview : {1U, 2U, 0x80000000U}) {
        model().evfDepthOfFieldPreview = preview;
        VirtualCameraClearLog();
        EXPECT_TRUE(execute<EndEvfCommand>());
        EXPECT_EQ(calls(), (Lines{"EdsSetPropertyData(camera, 0x504, 0, 4, 0x0)",
                                  "EdsSetPropertyData(camera, 0x500, 0, 4, 0x0)"}));
    }
}

TEST_F(EvfTest, TheEndPausesHalfASecondBetweenTheDepthOfFieldAndTheOutputs)
{
    switchOn();
    model().evfDepthOfFieldPreview = 1;
    EXPECT_TRUE(takesLessThan(milliseconds(900), [&] {
        VirtualCameraClearLog();
        EXPECT_TRUE(execute<EndEvfCommand>());
        const std::vector<double> times = timesOfWrites();
        ASSERT_EQ(times.size(), 2U);
        EXPECT_GE(times[1] - times[0], 0.499);
    }));
}

TEST_F(EvfTest, TheEndDoesNotPauseWhenTheDepthOfFieldIsOffOrStays)
{
    switchOn();
    EXPECT_TRUE(takesLessThan(milliseconds(300), [&] { EXPECT_TRUE(execute<EndEvfCommand>()); }));
    model().evfDepthOfFieldPreview = 1;
    for (const char* code : {"0x1", "0x60", "0x81"}) {
        fault(std::string("EdsSetPropertyData property=0x504 calls=0 code=") + code);
        EXPECT_TRUE(
            takesLessThan(milliseconds(300), [&] { EXPECT_FALSE(execute<EndEvfCommand>()); }));
        VirtualCameraClearFaults();
    }
}

TEST_F(EvfTest, TheEndIsTriedAgainAfterEveryFailure)
{
    model().evfOutputDevice = 2;
    for (const char* code : {"0x81", "0x60", "0x10081"}) {
        fault(std::string("EdsSetPropertyData code=") + code);
        EXPECT_FALSE(execute<EndEvfCommand>());
    }
    EXPECT_EQ(events(), (Lines{"DeviceBusy", "error 60", "error 10081"}));
}

TEST_F(EvfTest, TheEndDoesNotGoOnAndIsTriedAgainWhenTheDepthOfFieldStays)
{
    model().evfOutputDevice = 2;
    model().evfDepthOfFieldPreview = 1;
    for (const char* code : {"0x1", "0x60", "0x81", "0x10081"}) {
        fault(std::string("EdsSetPropertyData property=0x504 code=") + code);
        EXPECT_FALSE(execute<EndEvfCommand>());
    }
    EXPECT_EQ(calls(), Lines(4, "EdsSetPropertyData(camera, 0x504, 0, 4, 0x0)"));
    EXPECT_EQ(events(), (Lines{"error 1", "error 60", "DeviceBusy", "error 10081"}));
}

// Frames.

TEST_F(EvfTest, AFrameIsNotFetchedWhileLiveViewIsOff)
{
    model().evfOutputDevice = 0xFFFFFFFD;
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    EXPECT_EQ(calls(), Lines{});
    EXPECT_EQ(events(), Lines{});
}

TEST_F(EvfTest, AFrameIsFetchedReadAndGivenBackStreamFirst)
{
    switchOn();
    VirtualCameraClearLog();
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    EXPECT_EQ(
        calls(),
        (Lines{"EdsCreateMemoryStream(2097152)", "EdsCreateEvfImageRef(stream)",
               "EdsDownloadEvfImage(camera, image)", "EdsGetPropertyData(image, 0x507, 0, 4)",
               "EdsGetPropertyData(image, 0x50B, 0, 8)",
               "EdsGetPropertyData(image, 0x50A, 0, 4096)",
               "EdsGetPropertyData(image, 0x541, 0, 16)", "EdsGetPropertyData(image, 0x540, 0, 8)",
               "EdsRelease(stream)", "EdsRelease(image)"}));
    EXPECT_EQ(events(), Lines{"EvfDataChanged"});
    EXPECT_EQ(VirtualCanonReferenceCount("stream"), 0);
    EXPECT_EQ(VirtualCanonReferenceCount("image"), 0);
}

TEST_F(EvfTest, AFrameTellsTheImageTheZoomTheRectangleAndTheHistogram)
{
    switchOn();
    VirtualCanonSetProperty(0, 0x507, 5);
    const std::int32_t position[] = {512, 384};
    VirtualCanonSetPropertyBytes(0, 0x508, 23, position, sizeof position);
    FrameObserver observer;
    model().addObserver(&observer);
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    const EvfFrame& frame = observer.frame;
    EXPECT_EQ(observer.image.compare(0, 2, "\xFF\xD8"), 0);
    EXPECT_EQ(frame.zoom, 5U);
    EXPECT_EQ(frame.zoomRect.point.x, 512);
    EXPECT_EQ(frame.zoomRect.point.y, 384);
    EXPECT_GT(frame.zoomRect.size.width, 0);
    EXPECT_EQ(frame.position.x, 512);
    EXPECT_GT(frame.coordinateSystem.width, frame.coordinateSystem.height);
    EXPECT_GT(std::accumulate(std::begin(frame.histogram), std::end(frame.histogram), 0U), 0U);
}

TEST_F(EvfTest, AFrameIsKeptInTheModelWithThePointOfItsRectangle)
{
    switchOn();
    VirtualCanonSetProperty(0, 0x507, 10);
    const std::int32_t position[] = {512, 384};
    VirtualCanonSetPropertyBytes(0, 0x508, 23, position, sizeof position);
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    EXPECT_EQ(model().evfZoom, 10U);
    EXPECT_EQ(model().evfPosition.load().x, 512);
    EXPECT_EQ(model().evfPosition.load().y, 384);
    EXPECT_EQ(model().evfZoomRect.point.x, 512);
    EXPECT_GT(model().evfZoomRect.size.height, 0);
}

TEST_F(EvfTest, AfterAFrameAt512And384FocusLeftSends384And384)
{
    switchOn();
    const std::int32_t position[] = {512, 384};
    VirtualCanonSetPropertyBytes(0, 0x508, 23, position, sizeof position);
    EXPECT_TRUE(execute<DownloadEvfCommand>());

    canon::CameraController controller(model());
    controller.actionPerformed(canon::ActionEvent("focus_Left"));
    ASSERT_TRUE(controller.processor().startAndWait());
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsSetPropertyData", 1, 5000), 1);
    controller.actionPerformed(canon::ActionEvent("closing"));
    std::int32_t sent[2] = {};
    VirtualCanonPropertyBytes(0, 0x508, sent, sizeof sent);
    EXPECT_EQ(sent[0], 384);
    EXPECT_EQ(sent[1], 384);
}

TEST_F(EvfTest, AFrameIsAnnouncedWhenTheModelHasIt)
{
    switchOn();
    VirtualCanonSetProperty(0, 0x507, 10);
    const std::int32_t position[] = {512, 384};
    VirtualCanonSetPropertyBytes(0, 0x508, 23, position, sizeof position);
    FrameObserver observer;
    model().addObserver(&observer);
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    EXPECT_EQ(observer.modelZoom, 10U);
    EXPECT_EQ(observer.modelPosition.x, 512);
    EXPECT_EQ(observer.modelPosition.y, 384);
    EXPECT_EQ(observer.modelRect.point.x, 512);
    EXPECT_EQ(observer.modelRect.size.width, observer.frame.zoomRect.size.width);
}

struct UnreadCase {
    const char* name;
    std::uint32_t property;
    // The part of the frame's record that the property fills.
    std::size_t offset;
    std::size_t size;
};

const UnreadCase kUnread[] = {
    {"zoom", 0x507, offsetof(EvfFrame, zoom), sizeof EvfFrame::zoom},
    {"position", 0x50B, offsetof(EvfFrame, position), sizeof EvfFrame::position},
    {"histogram", 0x50A, offsetof(EvfFrame, histogram), sizeof EvfFrame::histogram},
    {"zoomRect", 0x541, offsetof(EvfFrame, zoomRect), sizeof EvfFrame::zoomRect},
    {"coordinateSystem", 0x540, offsetof(EvfFrame, coordinateSystem),
     sizeof EvfFrame::coordinateSystem},
};

class UnreadPartTest : public EvfTest, public testing::WithParamInterface<UnreadCase>
{
protected:
    // The part of the last frame's record, as the observer got it.
    static std::string partOf(const EvfFrame& frame)
    {
        std::string bytes(sizeof frame, '\0');
        std::memcpy(bytes.data(), &frame, sizeof frame);
        return bytes.substr(GetParam().offset, GetParam().size);
    }
};

TEST_P(UnreadPartTest, IsZeroWhateverTheFrameBeforeHadThere)
{
    switchOn();
    VirtualCanonSetProperty(0, 0x507, 5);
    const std::int32_t position[] = {512, 384};
    VirtualCanonSetPropertyBytes(0, 0x508, 23, position, sizeof position);
    FrameObserver observer;
    model().addObserver(&observer);
    const std::string zero(GetParam().size, '\0');
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    EXPECT_NE(partOf(observer.frame), zero);

    char rule[64];
    std::snprintf(rule, sizeof rule, "EdsGetPropertyData code=0x50 property=0x%X",
                  GetParam().property);
    fault(rule);
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    EXPECT_EQ(events(), (Lines{"EvfDataChanged", "EvfDataChanged"}));
    EXPECT_EQ(partOf(observer.frame), zero);
}

INSTANTIATE_TEST_SUITE_P(Parts, UnreadPartTest, testing::ValuesIn(kUnread),
                         [](const testing::TestParamInfo<UnreadCase>& tested) {
                             return std::string(tested.param.name);
                         });

TEST_F(EvfTest, WhatAFrameDoesNotTellIsZeroInTheModelToo)
{
    switchOn();
    model().evfPosition = EdsPoint{7, 7};
    model().evfZoom = 7;
    model().evfZoomRect = EdsRect{{7, 7}, {7, 7}};
    fault("EdsGetPropertyData code=0x50 calls=0");
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    EXPECT_EQ(events(), Lines{"EvfDataChanged"});
    EXPECT_EQ(model().evfZoom, 0U);
    EXPECT_EQ(model().evfPosition.load().x, 0);
    EXPECT_EQ(model().evfPosition.load().y, 0);
    EXPECT_EQ(model().evfZoomRect.point.y, 0);
    EXPECT_EQ(model().evfZoomRect.size.width, 0);
}

TEST_F(EvfTest, AFrameThatIsNotReadyIsTriedAgainSilently)
{
    switchOn();
    fault("EdsDownloadEvfImage code=0xA102");
    EXPECT_FALSE(execute<DownloadEvfCommand>());
    EXPECT_EQ(events(), Lines{});
    EXPECT_EQ(VirtualCanonReferenceCount("stream"), 0);
    EXPECT_EQ(VirtualCanonReferenceCount("image"), 0);
}

TEST_F(EvfTest, AFrameThatIsNotReadyComes500MillisecondsLater)
{
    switchOn();
    fault("EdsDownloadEvfImage code=0xA102 calls=2");
    canon::Processor processor;
    processor.enqueue(std::make_unique<DownloadEvfCommand>(model()));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(processor.startAndWait());
    EXPECT_TRUE(waitFor([&] { return !events().empty(); }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
    processor.stop();
    processor.join();
    EXPECT_EQ(events(), Lines{"EvfDataChanged"});
    EXPECT_EQ(VirtualCameraCallCount("EdsDownloadEvfImage"), 3);
}

TEST_F(EvfTest, AFrameOfABusyCameraIsTriedAgainAndAFailedOneIsNot)
{
    switchOn();
    fault("EdsDownloadEvfImage code=0x81");
    EXPECT_FALSE(execute<DownloadEvfCommand>());
    fault("EdsDownloadEvfImage code=0x10081");
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    fault("EdsDownloadEvfImage code=0x1A102");
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    EXPECT_EQ(events(), (Lines{"DeviceBusy", "error 10081", "error 1a102"}));
}

TEST_F(EvfTest, AFrameWithoutAStreamEndsThere)
{
    switchOn();
    VirtualCameraClearLog();
    fault("EdsCreateMemoryStream code=0x3");
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    EXPECT_EQ(calls(), Lines{"EdsCreateMemoryStream(2097152)"});
    EXPECT_EQ(events(), Lines{"error 3"});
}

TEST_F(EvfTest, AFrameWithoutAnImageGivesItsStreamBack)
{
    switchOn();
    VirtualCameraClearLog();
    fault("EdsCreateEvfImageRef code=0x3");
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    EXPECT_EQ(calls(), (Lines{"EdsCreateMemoryStream(2097152)", "EdsCreateEvfImageRef(stream)",
                              "EdsRelease(stream)"}));
    EXPECT_EQ(events(), Lines{"error 3"});
}

TEST_F(EvfTest, AReferenceThatRemainsOfAFrameIsIgnored)
{
    switchOn();
    fault("EdsRelease code=1 after calls=2");
    EXPECT_TRUE(execute<DownloadEvfCommand>());
    EXPECT_EQ(events(), Lines{"EvfDataChanged"});
}

TEST_F(EvfTest, AHundredFramesLeaveNothingBehind)
{
    switchOn();
    configure("evf.width = 16\nevf.height = 16");
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(execute<DownloadEvfCommand>());
    }
    EXPECT_EQ(events().size(), 100U);
    EXPECT_EQ(VirtualCanonReferenceCount(""), 1);
}

// The lens.

TEST_F(EvfTest, TheLensIsDrivenByItsCode)
{
    switchOn();
    VirtualCameraClearLog();
    EXPECT_TRUE(DriveLensCommand(model(), 0x8003).execute());
    EXPECT_TRUE(DriveLensCommand(model(), 1).execute());
    EXPECT_EQ(callsAndResults(), (Lines{"EdsSendCommand(camera, 0x103, 0x8003) = 0x0",
                                        "EdsSendCommand(camera, 0x103, 0x1) = 0x0"}));
    EXPECT_EQ(events(), Lines{});
}

TEST_F(EvfTest, TheAutofocusIsSwitchedOnAndOff)
{
    switchOn();
    VirtualCameraClearLog();
    EXPECT_TRUE(DoEvfAFCommand(model(), 1).execute());
    EXPECT_TRUE(DoEvfAFCommand(model(), 0).execute());
    EXPECT_EQ(callsAndResults(), (Lines{"EdsSendCommand(camera, 0x102, 0x1) = 0x0",
                                        "EdsSendCommand(camera, 0x102, 0x0) = 0x0"}));
}

TEST_F(EvfTest, TheLensIsNeverTriedAgain)
{
    for (const char* code : {"0x81", "0x60", "0x10081"}) {
        fault(std::string("EdsSendCommand code=") + code + " calls=2");
        EXPECT_TRUE(DriveLensCommand(model(), 1).execute());
        EXPECT_TRUE(DoEvfAFCommand(model(), 1).execute());
    }
    EXPECT_EQ(events(), (Lines{"DeviceBusy", "DeviceBusy", "error 60", "error 60", "error 10081",
                               "error 10081"}));
}

}  // namespace
