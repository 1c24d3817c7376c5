// Calls that misbehave on request.
#include <thread>

#include "Support.h"

namespace {

class Faults : public OpenTest
{};

TEST_F(Faults, FailedCallDoesNothing)
{
    ASSERT_EQ(VirtualCameraFailNext("EdsSetPropertyData", 0x81, 1), 1);
    m_host.set(0x406, 0x68);
    EXPECT_EQ(m_host.get(0x406), 0x70U);
}

TEST_F(Faults, CodeCanComeAfterTheWork)
{
    ASSERT_EQ(VirtualCameraFault("EdsSetPropertyData code=0x10081 after"), 1);
    EXPECT_EQ(m_host.set(0x406, 0x68), 0x10081U);
    EXPECT_EQ(m_host.get(0x406), 0x68U);
}

TEST_F(Faults, OnlyForOnePropertyOrCommand)
{
    ASSERT_EQ(VirtualCameraFault("EdsGetPropertyData code=0x81 property=0x405 calls=0"), 1);
    ASSERT_EQ(VirtualCameraFault("EdsSendCommand code=0x60 command=4 parameter=3"), 1);
    std::uint32_t value = 0;
    EXPECT_EQ(EdsGetPropertyData(m_host.camera(), 0x405, 0, 4, &value), 0x81U);
    EXPECT_EQ(EdsGetPropertyData(m_host.camera(), 0x406, 0, 4, &value), 0U);
    EXPECT_EQ(EdsGetPropertyData(m_host.camera(), 0x405, 0, 4, &value), 0x81U);
    EXPECT_EQ(EdsSendCommand(m_host.camera(), 4, 0), 0U);
    EXPECT_EQ(EdsSendCommand(m_host.camera(), 4, 3), 0x60U);
    VirtualCameraClearFaults();
    EXPECT_EQ(EdsGetPropertyData(m_host.camera(), 0x405, 0, 4, &value), 0U);
}

TEST_F(Faults, TerminateEndsAHangingCall)
{
    ASSERT_EQ(VirtualCameraFault("EdsSetPropertyData hang"), 1);
    EdsError answer = 0;
    std::thread writer([&] { answer = m_host.set(0x406, 0x68); });
    ASSERT_EQ(VirtualCameraWaitForHang("*", kDeadlineMs), 1);
    EdsTerminateSDK();
    writer.join();
    EXPECT_NE(answer, 0U);
    takeMisuses();
    m_host.close();
    takeMisuses();
}

TEST_F(Faults, AHangingReleaseInAHandlerIsDoneWhenTheLibraryIsTerminated)
{
    ASSERT_EQ(VirtualCameraFault("EdsRelease hang thread"), 1);
    ASSERT_EQ(VirtualCanonSendObjectEvent(0, 0x204, VirtualCanonNewItem(0, -1)), 1);
    ASSERT_EQ(VirtualCameraWaitForHang("EdsRelease", kDeadlineMs), 1);
    m_host.close();
    EXPECT_EQ(takeMisuses(), "");
}

TEST_F(Faults, CableCanBePulledAtAnyCall)
{
    ASSERT_EQ(VirtualCameraFault("EdsSetCapacity unplug"), 1);
    EXPECT_EQ(EdsSetCapacity(m_host.camera(), {1, 1, 1}), 0x80U);
    EXPECT_EQ(VirtualCameraSessionOpen(0), 0);
}

TEST_F(Faults, RulesWithMistakesAreRefused)
{
    for (const char* rule :
         {"", "EdsDownload code=", "EdsDownload nonsense", "EdsDownload calls=-1",
          "EdsDownload percent=101", "EdsDownload hang=1"}) {
        EXPECT_EQ(VirtualCameraFault(rule), 0) << rule;
    }
    for (const char* rule : {"", "nonsense lose", "0x101 lose=1", "0x101 hang"}) {
        EXPECT_EQ(VirtualCameraEventRule(rule), 0) << rule;
    }
    EXPECT_GT(VirtualCameraLastError(nullptr, 0), 0);
}

class FaultsAtStart : public VirtualTest
{};

TEST_F(FaultsAtStart, InitializeCanFail)
{
    ASSERT_EQ(VirtualCameraFailNext("EdsInitializeSDK", 2, 1), 1);
    EXPECT_EQ(EdsInitializeSDK(), 2U);
    EdsCameraListRef list = nullptr;
    EXPECT_NE(EdsGetCameraList(&list), 0U);
    takeMisuses();
}

TEST_F(FaultsAtStart, ChildCanComeTogetherWithAnError)
{
    ASSERT_EQ(VirtualCameraFault("EdsGetChildAtIndex code=0x63 after"), 1);
    Host host;
    EXPECT_EQ(host.connect(), 0x63U);
    EXPECT_NE(host.camera(), nullptr);
}

}  // namespace
