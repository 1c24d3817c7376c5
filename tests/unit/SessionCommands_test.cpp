// Opening and closing the session with the camera.
#include "canon/SessionCommands.h"

#include "CanonTestSupport.h"
#include "canon/Processor.h"

using canon::CloseSessionCommand;
using canon::OpenSessionCommand;

namespace {

const char* const kOpen = "EdsOpenSession(camera)";
const char* const kSaveToHost = "EdsSetPropertyData(camera, 0xB, 0, 4, 0x3)";
const char* const kLock = "EdsSendStatusCommand(camera, 0x0, 0x0)";
const char* const kCapacity = "EdsSetCapacity(camera, 2147483647, 4096, 1)";
const char* const kUnlock = "EdsSendStatusCommand(camera, 0x1, 0x0)";

// The session is not open yet.
class OpenSessionCommandTest : public OpenSessionTest
{
protected:
    void SetUp() override
    {
        OpenSessionTest::SetUp();
        ASSERT_EQ(EdsCloseSession(m_camera), 0U);
        VirtualCameraClearLog();
    }

    bool open() { return OpenSessionCommand(model()).execute(); }
};

TEST_F(OpenSessionCommandTest, OpensAndPreparesTheCameraInFiveSteps)
{
    EXPECT_TRUE(open());
    EXPECT_EQ(calls(), (Lines{kOpen, kSaveToHost, kLock, kCapacity, kUnlock}));
    EXPECT_EQ(events(), Lines{});
    EXPECT_EQ(VirtualCanonProperty(0, 0xB), 3);
}

TEST_F(OpenSessionCommandTest, AFailureToOpenEndsItAndIsTriedAgain)
{
    fault("EdsOpenSession code=0x2");
    EXPECT_FALSE(open());
    EXPECT_EQ(calls(), Lines{kOpen});
    EXPECT_EQ(events(), Lines{"error 2"});
}

TEST_F(OpenSessionCommandTest, ABusyCameraIsAnErrorLikeAnyOther)
{
    fault("EdsOpenSession code=0x81");
    EXPECT_FALSE(open());
    EXPECT_EQ(events(), Lines{"error 81"});
}

TEST_F(OpenSessionCommandTest, AFailureAtTheSecondStepSendsNoStatusCommand)
{
    fault("EdsSetPropertyData code=0x60 property=0xB");
    EXPECT_FALSE(open());
    EXPECT_EQ(calls(), (Lines{kOpen, kSaveToHost}));
    EXPECT_EQ(events(), Lines{"error 60"});
}

TEST_F(OpenSessionCommandTest, AFailureAtTheThirdStepSkipsTheRest)
{
    fault("EdsSendStatusCommand code=0xA001 command=0");
    EXPECT_FALSE(open());
    EXPECT_EQ(calls(), (Lines{kOpen, kSaveToHost, kLock}));
    EXPECT_EQ(events(), Lines{"error a001"});
}

TEST_F(OpenSessionCommandTest, AFailureAtTheFourthStepStillUnlocksTheCamera)
{
    fault("EdsSetCapacity code=0xA002");
    EXPECT_FALSE(open());
    EXPECT_EQ(calls(), (Lines{kOpen, kSaveToHost, kLock, kCapacity, kUnlock}));
    EXPECT_EQ(events(), Lines{"error a002"});
}

TEST_F(OpenSessionCommandTest, TheFourthStepsCodeIsReportedNotTheFifths)
{
    fault("EdsSetCapacity code=0xA002");
    fault("EdsSendStatusCommand code=0xA003 command=1");
    EXPECT_FALSE(open());
    EXPECT_EQ(events(), Lines{"error a002"});
}

TEST_F(OpenSessionCommandTest, AFailureToUnlockIsIgnored)
{
    fault("EdsSendStatusCommand code=0xA003 command=1");
    EXPECT_TRUE(open());
    EXPECT_EQ(events(), Lines{});
}

TEST_F(OpenSessionCommandTest, IsRepeatedEvery500MillisecondsBeforeWhatIsQueuedBehindIt)
{
    fault("EdsOpenSession code=0x2");
    canon::Processor processor;
    processor.enqueue(std::make_unique<OpenSessionCommand>(model()));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(processor.startAndWait());
    EXPECT_TRUE(waitFor([] { return VirtualCameraSessionOpen(0) == 1; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsSendStatusCommand", 2, 5000), 1);
    processor.stop();
    processor.join();
    EXPECT_EQ(calls(), (Lines{kOpen, kOpen, kSaveToHost, kLock, kCapacity, kUnlock}));
    EXPECT_EQ(events(), Lines{"error 2"});
}

TEST_F(OpenSessionCommandTest, AnAttemptAfterALaterStepFailedBeginsWithOpeningAgain)
{
    configure("session.reopen_code = 0");
    fault("EdsSetPropertyData code=0x81 property=0xB");
    EXPECT_FALSE(open());
    EXPECT_TRUE(open());
    EXPECT_EQ(calls(), (Lines{kOpen, kSaveToHost, kOpen, kSaveToHost, kLock, kCapacity, kUnlock}));
}

TEST_F(OpenSessionCommandTest, ACameraThatWasUnpluggedIsAnError)
{
    VirtualCameraUnplug(0);
    EXPECT_FALSE(open());
    EXPECT_EQ(events(), Lines{"error 80"});
}

using CloseSessionCommandTest = OpenSessionTest;

TEST_F(CloseSessionCommandTest, ClosesTheSession)
{
    EXPECT_TRUE(CloseSessionCommand(model()).execute());
    EXPECT_EQ(calls(), Lines{"EdsCloseSession(camera)"});
    EXPECT_EQ(VirtualCameraSessionOpen(0), 0);
    EXPECT_EQ(events(), Lines{});
}

TEST_F(CloseSessionCommandTest, AFailureIsReportedAndNotTriedAgainNotEvenOfABusyCamera)
{
    for (const char* code : {"0x81", "0x2003"}) {
        fault(std::string("EdsCloseSession code=") + code);
        EXPECT_TRUE(CloseSessionCommand(model()).execute());
    }
    EXPECT_EQ(events(), (Lines{"error 81", "error 2003"}));
}

}  // namespace
