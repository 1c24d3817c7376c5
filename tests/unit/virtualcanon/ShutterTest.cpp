// The shutter: from the host, from the body, how long it takes, and where the pictures go.
#include <chrono>

#include "Support.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class Shutter : public OpenTest
{};

TEST_F(Shutter, PressedByTheHostBringsAPictureOfTheHost)
{
    EdsRelease(m_host.picture());
    EXPECT_EQ(VirtualCameraPictureValue(0, "origin"), 0);
    EXPECT_EQ(VirtualCameraPictureValue(0, "shot"), 1);
    EXPECT_EQ(VirtualCameraPictureValue(0, "to_host"), 1);
    EXPECT_EQ(VirtualCameraPictureValue(0, "announced"), 1);
    EXPECT_EQ(VirtualCameraPictureValue(0, "downloaded"), 0);
}

TEST_F(Shutter, TakePictureCommandWorksToo)
{
    ASSERT_EQ(EdsSendCommand(m_host.camera(), 0, 0), 0U);
    EdsRelease(m_host.nextItem());
    EXPECT_EQ(VirtualCameraPictureCount(), 1);
}

TEST_F(Shutter, HalfwayTakesNoPicture)
{
    EXPECT_EQ(EdsSendCommand(m_host.camera(), 4, 1), 0U);
    EXPECT_EQ(EdsSendCommand(m_host.camera(), 4, 0), 0U);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(VirtualCameraPictureCount(), 0);
}

TEST_F(Shutter, UnknownCommandsAndParametersAreRefused)
{
    EXPECT_EQ(EdsSendCommand(m_host.camera(), 4, 2), 0x60U);
    EXPECT_EQ(EdsSendCommand(m_host.camera(), 0x999, 0), 0x60U);
    EXPECT_EQ(EdsSendStatusCommand(m_host.camera(), 9, 0), 0x60U);
}

TEST_F(Shutter, SecondPressDuringAnExposureIsBusy)
{
    configure("shutter.lag_ms = 300");
    ASSERT_EQ(m_host.shoot(), 0U);
    EXPECT_EQ(m_host.shoot(), 0x81U);
    EdsRelease(m_host.nextItem());
    EXPECT_EQ(VirtualCameraPictureCount(), 1);
}

TEST_F(Shutter, SettingsAreBusyDuringAnExposureWhenAskedFor)
{
    configure("shutter.lag_ms = 300\nshutter.busy = 2");
    ASSERT_EQ(m_host.shoot(), 0U);
    EXPECT_EQ(m_host.set(0x406, 0x68), 0x81U);
    EdsRelease(m_host.nextItem());
    EXPECT_EQ(m_host.set(0x406, 0x68), 0U);
}

TEST_F(Shutter, NeverBusyTakesEveryPicture)
{
    configure("shutter.lag_ms = 50\nshutter.busy = 0");
    ASSERT_EQ(m_host.shoot(), 0U);
    ASSERT_EQ(m_host.shoot(), 0U);
    EdsRelease(m_host.nextItem());
    EdsRelease(m_host.nextItem());
    EXPECT_EQ(VirtualCameraPictureCount(), 2);
}

TEST_F(Shutter, ExposureTakesItsScaledTime)
{
    ASSERT_EQ(m_host.set(0x406, 0x40), 0U);  // half a second
    configure("shutter.scale = 0.4");
    const auto start = steady_clock::now();
    EdsRelease(m_host.picture());
    EXPECT_GE(steady_clock::now() - start, milliseconds(200));
}

TEST_F(Shutter, BulbExposesUntilTheButtonIsReleased)
{
    VirtualCameraTurnDial(0, 4);
    ASSERT_EQ(EdsSendCommand(m_host.camera(), 4, 3), 0U);
    EXPECT_EQ(EdsSendCommand(m_host.camera(), 4, 3), 0x81U);
    EXPECT_EQ(VirtualCameraWaitForPictures(1, 50), 0);
    ASSERT_EQ(EdsSendCommand(m_host.camera(), 4, 0), 0U);
    EdsRelease(m_host.nextItem());
    EXPECT_EQ(VirtualCameraPictureCount(), 1);
}

TEST_F(Shutter, ThatIsKeptOpenExposesUntilToldWhateverTheButtonDoes)
{
    configure("shutter.until_told = 2\nshutter.busy = 0");
    ASSERT_EQ(m_host.shoot(), 0U);
    EXPECT_EQ(VirtualCameraWaitForExposure(0, 0), 1);
    EXPECT_EQ(m_host.shoot(), 0x81U);
    EXPECT_EQ(VirtualCameraWaitForPictures(1, 50), 0);
    ASSERT_EQ(VirtualCameraEndExposure(0), 1);
    EdsRelease(m_host.nextItem());
    EXPECT_EQ(VirtualCameraPictureCount(), 1);
    EXPECT_EQ(VirtualCameraWaitForExposure(0, 0), 0);
    EXPECT_EQ(VirtualCameraEndExposure(0), 0);
}

TEST_F(Shutter, BulbIsKeptOpenWithoutTheButtonWhenAskedFor)
{
    configure("shutter.until_told = 1");
    EdsRelease(m_host.picture());
    VirtualCameraTurnDial(0, 4);
    ASSERT_EQ(m_host.shoot(), 0U);
    EXPECT_EQ(VirtualCameraWaitForPictures(2, 50), 0);
    ASSERT_EQ(VirtualCameraEndExposure(0), 1);
    EdsRelease(m_host.nextItem());
}

TEST_F(Shutter, BulbHeldByTheHostEndsWhenToldToo)
{
    VirtualCameraTurnDial(0, 4);
    ASSERT_EQ(EdsSendCommand(m_host.camera(), 4, 3), 0U);
    ASSERT_EQ(VirtualCameraEndExposure(0), 1);
    EdsRelease(m_host.nextItem());
}

TEST_F(Shutter, BulbEndsWithItsSessionAndThePictureStaysOnTheCamera)
{
    VirtualCameraTurnDial(0, 4);
    ASSERT_EQ(EdsSendCommand(m_host.camera(), 4, 3), 0U);
    ASSERT_EQ(EdsCloseSession(m_host.camera()), 0U);
    ASSERT_EQ(VirtualCameraWaitForPictures(1, kDeadlineMs), 1);
    EXPECT_EQ(VirtualCameraPictureValue(0, "to_host"), 0);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
}

TEST_F(Shutter, BulbOfTheBodyOutlastsASession)
{
    configure("shutter.until_told = 2");
    ASSERT_EQ(VirtualCameraPressShutter(0), 1);
    ASSERT_EQ(EdsCloseSession(m_host.camera()), 0U);
    EXPECT_EQ(VirtualCameraWaitForPictures(1, 50), 0);
    ASSERT_EQ(VirtualCameraEndExposure(0), 1);
    EXPECT_EQ(VirtualCameraWaitForPictures(1, kDeadlineMs), 1);
}

TEST_F(Shutter, KeptOpenClosesWhenTheCableIsPulled)
{
    configure("shutter.until_told = 2");
    ASSERT_EQ(m_host.shoot(), 0U);
    ASSERT_EQ(VirtualCameraUnplug(0), 1);
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(VirtualCameraPictureValue(0, "to_host"), 0);
}

TEST_F(Shutter, KeptOpenIsForgottenByAResetAndByTheEndOfTheLibrary)
{
    configure("shutter.until_told = 2");
    ASSERT_EQ(m_host.shoot(), 0U);
    VirtualCameraReset();
    EXPECT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    configure("shutter.until_told = 2");
    ASSERT_EQ(m_host.shoot(), 0U);
    m_host.close();
    EXPECT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(VirtualCameraWaitForExposure(0, 0), 0);
}

TEST_F(Shutter, FailingFocusTakesNoPicture)
{
    configure("shutter.focus_fails = 1");
    EXPECT_EQ(m_host.shoot(), 0x8D01U);
    EXPECT_EQ(VirtualCameraPressShutter(0), 0);
}

TEST_F(Shutter, PressedOnTheBodyBringsAPictureNobodyAskedFor)
{
    ASSERT_EQ(VirtualCameraPressShutter(0), 1);
    EdsRelease(m_host.nextItem());
    EXPECT_EQ(VirtualCameraPictureValue(0, "origin"), 1);
}

TEST_F(Shutter, LockedButtonsRefuseTheBodyOnly)
{
    ASSERT_EQ(EdsSendStatusCommand(m_host.camera(), 0, 0), 0U);
    EXPECT_EQ(VirtualCameraPressShutter(0), 0);
    EdsRelease(m_host.picture());
    ASSERT_EQ(EdsSendStatusCommand(m_host.camera(), 1, 0), 0U);
    EXPECT_EQ(VirtualCameraPressShutter(0), 1);
    EdsRelease(m_host.nextItem());
}

TEST_F(Shutter, SavingToCardAndHostAnnouncesBoth)
{
    EdsRelease(m_host.picture());
    EXPECT_EQ(m_host.count(0x204), 1);
    EXPECT_EQ(m_host.count(0x208), 1);
}

TEST_F(Shutter, SavingToTheHostAnnouncesTheTransferOnly)
{
    ASSERT_EQ(m_host.set(0xB, 2), 0U);
    EdsRelease(m_host.picture());
    ASSERT_EQ(VirtualCameraWaitUntilIdle(kDeadlineMs), 1);
    EXPECT_EQ(m_host.count(0x204), 0);
    EXPECT_EQ(m_host.count(0x208), 1);
}

TEST_F(Shutter, PicturesStayOnTheCameraWhenTheHostHasNoRoom)
{
    ASSERT_EQ(EdsSetCapacity(m_host.camera(), {1, 512, 1}), 0U);
    ASSERT_EQ(m_host.shoot(), 0U);
    ASSERT_EQ(VirtualCameraWaitForEvents(0x204, 1, kDeadlineMs), 1);
    EXPECT_EQ(m_host.count(0x208), 0);
    EXPECT_EQ(VirtualCameraPictureValue(0, "to_host"), 0);
}

class ShutterWithoutCapacity : public VirtualTest
{};

TEST_F(ShutterWithoutCapacity, PicturesStayOnTheCamera)
{
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(EdsOpenSession(host.camera()), 0U);
    ASSERT_EQ(host.set(0xB, 3), 0U);
    ASSERT_EQ(host.shoot(), 0U);
    ASSERT_EQ(VirtualCameraWaitForEvents(0x204, 1, kDeadlineMs), 1);
    EXPECT_EQ(VirtualCameraPictureValue(0, "to_host"), 0);
    EXPECT_EQ(VirtualCameraPictureValue(0, "announced"), 0);
}

TEST_F(ShutterWithoutCapacity, BodyTakesPicturesBeforeTheHostIsThere)
{
    ASSERT_EQ(VirtualCameraPressShutter(0), 1);
    EXPECT_EQ(VirtualCameraPictureCount(), 1);
    EXPECT_EQ(VirtualCameraPictureValue(0, "to_host"), 0);
}

}  // namespace
