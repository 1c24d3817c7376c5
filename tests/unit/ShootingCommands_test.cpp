// Releasing the shutter, and notices that pass through the queue.
#include "canon/ShootingCommands.h"

#include "CanonTestSupport.h"

using canon::NotifyCommand;
using canon::PressShutterButtonCommand;
using canon::TakePictureCommand;

namespace {

const char* const kPress = "EdsSendCommand(camera, 0x4, 0x3)";
const char* const kRelease = "EdsSendCommand(camera, 0x4, 0x0)";
const char* const kTakePicture = "EdsSendCommand(camera, 0x0, 0x0)";

class TakePictureCommandTest : public OpenSessionTest
{
protected:
    // Every attempt is the only one, whatever comes of it.
    void take() { EXPECT_TRUE(TakePictureCommand(model()).execute()); }
};

TEST_F(TakePictureCommandTest, PressesTheButtonAndLetsItGo)
{
    take();
    EXPECT_EQ(calls(), (Lines{kPress, kRelease}));
    EXPECT_EQ(events(), Lines{});
    EXPECT_EQ(VirtualCameraWaitForPictures(1, 5000), 1);
}

TEST_F(TakePictureCommandTest, TheOtherCommandIsTriedForInvalidParameterOnly)
{
    fault("EdsSendCommand code=0x60 command=4 parameter=3");
    take();
    EXPECT_EQ(calls(), (Lines{kPress, kRelease, kTakePicture}));
    EXPECT_EQ(events(), Lines{});
    EXPECT_EQ(VirtualCameraWaitForPictures(1, 5000), 1);
}

TEST_F(TakePictureCommandTest, ABusyFallbackIsToldOnce)
{
    fault("EdsSendCommand code=0x60 command=4 parameter=3");
    fault("EdsSendCommand code=0x81 command=0");
    take();
    EXPECT_EQ(events(), Lines{"DeviceBusy"});
}

TEST_F(TakePictureCommandTest, AFailedFallbackIsToldWithItsOwnCode)
{
    fault("EdsSendCommand code=0x60 command=4 parameter=3");
    fault("EdsSendCommand code=0x8D01 command=0");
    take();
    EXPECT_EQ(events(), Lines{"error 8d01"});
}

TEST_F(TakePictureCommandTest, AFallbackThatIsInvalidTooIsNotTriedAThirdTime)
{
    fault("EdsSendCommand code=0x60 calls=0");
    take();
    EXPECT_EQ(calls(), (Lines{kPress, kRelease, kTakePicture}));
    EXPECT_EQ(events(), Lines{"error 60"});
}

TEST_F(TakePictureCommandTest, AFailedReleaseIsIgnored)
{
    fault("EdsSendCommand code=0x60 command=4 parameter=0");
    take();
    EXPECT_EQ(calls(), (Lines{kPress, kRelease}));
    EXPECT_EQ(events(), Lines{});
}

TEST_F(TakePictureCommandTest, TheButtonIsLetGoAfterAFailedPress)
{
    fault("EdsSendCommand code=0x8D01 command=4 parameter=3");
    take();
    EXPECT_EQ(calls(), (Lines{kPress, kRelease}));
    EXPECT_EQ(events(), Lines{"error 8d01"});
}

TEST_F(TakePictureCommandTest, ABusyCameraIsToldAsBusy)
{
    fault("EdsSendCommand code=0x81 command=4 parameter=3");
    take();
    EXPECT_EQ(calls(), (Lines{kPress, kRelease}));
    EXPECT_EQ(events(), Lines{"DeviceBusy"});
}

TEST_F(TakePictureCommandTest, TheWholeCodeIsLookedAt)
{
    fault("EdsSendCommand code=0x10060 command=4 parameter=3");
    take();
    fault("EdsSendCommand code=0x10081 command=4 parameter=3");
    take();
    EXPECT_EQ(calls(kTakePicture), Lines{});
    EXPECT_EQ(events(), (Lines{"error 10060", "error 10081"}));
}

TEST_F(TakePictureCommandTest, ASecondPictureDuringTheFirstOnesExposureIsBusy)
{
    configure("shutter.lag_ms = 60000");
    take();
    take();
    EXPECT_EQ(events(), Lines{"DeviceBusy"});
}

class PressShutterButtonCommandTest : public OpenSessionTest
{
protected:
    void press(std::int32_t button)
    {
        EXPECT_TRUE(PressShutterButtonCommand(model(), button).execute());
    }
};

TEST_F(PressShutterButtonCommandTest, SendsTheButtonsState)
{
    for (const std::int32_t button : {1, 3, 0}) {
        press(button);
    }
    EXPECT_EQ(calls(), (Lines{"EdsSendCommand(camera, 0x4, 0x1)", kPress, kRelease}));
    EXPECT_EQ(events(), Lines{});
}

TEST_F(PressShutterButtonCommandTest, FailuresAreToldAndNotTriedAgain)
{
    for (const char* code : {"0x81", "0x60", "0x10081"}) {
        fault(std::string("EdsSendCommand code=") + code);
        press(1);
    }
    EXPECT_EQ(events(), (Lines{"DeviceBusy", "error 60", "error 10081"}));
    EXPECT_EQ(calls().size(), 3U);
}

using NotifyCommandTest = OpenSessionTest;

TEST_F(NotifyCommandTest, TellsItsNameWithoutArgumentAndCallsNothing)
{
    EXPECT_TRUE(NotifyCommand(model(), "shutDown").execute());
    EXPECT_TRUE(NotifyCommand(model(), "").execute());
    EXPECT_EQ(events(), (Lines{"shutDown", ""}));
    EXPECT_EQ(calls(), Lines{});
}

}  // namespace
