// Mistakes of the application: recorded, answered, survived.
#include <array>
#include <thread>

#include "Support.h"

namespace {

class Misuse : public OpenTest
{};

TEST_F(Misuse, StaleReferenceIsRecognised)
{
    const EdsDirectoryItemRef item = m_host.picture();
    EXPECT_EQ(EdsRelease(item), 0U);
    EXPECT_EQ(EdsRelease(item), 0xFFFFFFFFU);
    EXPECT_NE(takeMisuses().find("EdsRelease: stale reference item#"), std::string::npos);
    EXPECT_EQ(EdsDownloadComplete(item), 0x61U);
    EXPECT_NE(takeMisuses().find("EdsDownloadComplete: stale reference item#"), std::string::npos);
}

TEST_F(Misuse, UnknownReferenceIsRecognised)
{
    int local = 0;
    auto* wild = reinterpret_cast<EdsBaseRef>(&local);
    std::uint32_t value = 0;
    EXPECT_EQ(EdsGetPropertyData(wild, 0x406, 0, 4, &value), 0x61U);
    EXPECT_NE(takeMisuses().find("EdsGetPropertyData: unknown reference"), std::string::npos);
    EXPECT_EQ(EdsRelease(nullptr), 0xFFFFFFFFU);
    EXPECT_EQ(takeMisuses(), "EdsRelease: no reference: null\n");
}

TEST_F(Misuse, WrongKindOfReferenceIsRecognised)
{
    EXPECT_EQ(EdsDownload(m_host.camera(), 1, m_host.camera()), 0x61U);
    EXPECT_NE(takeMisuses().find("EdsDownload: wrong kind of reference camera#"),
              std::string::npos);
}

TEST_F(Misuse, WrongSizesAreRecorded)
{
    std::array<std::uint8_t, 16> data{};
    EXPECT_EQ(EdsGetPropertyData(m_host.camera(), 0x406, 0, 2, data.data()), 0x64U);
    EXPECT_EQ(takeMisuses(), "EdsGetPropertyData: size 2 for property 0x406 of 4 bytes\n");
    EXPECT_EQ(EdsGetPropertyData(m_host.camera(), 0x406, 0, 9, data.data()), 0U);
    EXPECT_NE(takeMisuses(), "");
    EXPECT_EQ(EdsSetPropertyData(m_host.camera(), 0x406, 0, 8, data.data()), 0x64U);
    EXPECT_EQ(takeMisuses(), "EdsSetPropertyData: size 8 for property 0x406\n");
}

TEST_F(Misuse, NineBytesOfWhiteBalanceAreNone)
{
    std::array<std::uint8_t, 9> data{};
    EXPECT_EQ(EdsGetPropertyData(m_host.camera(), 0x106, 0, 9, data.data()), 0U);
    EXPECT_EQ(EdsGetPropertyData(m_host.camera(), 0x107, 0, 9, data.data()), 0U);
    EXPECT_EQ(misuses(), "");
}

TEST_F(Misuse, NullPointersAreRecorded)
{
    EXPECT_EQ(EdsGetCameraList(nullptr), 0x62U);
    EXPECT_EQ(EdsGetPropertyData(m_host.camera(), 0x406, 0, 4, nullptr), 0x62U);
    EXPECT_EQ(EdsCreateFileStream(nullptr, 1, 2, nullptr), 0x62U);
    EXPECT_EQ(takeMisuses(),
              "EdsGetCameraList: null for the list\n"
              "EdsGetPropertyData: null for the data\n"
              "EdsCreateFileStream: null for the path\n");
}

TEST_F(Misuse, WrongEventClassIsRecorded)
{
    EXPECT_EQ(EdsSetPropertyEventHandler(m_host.camera(), 0x200, nullptr, nullptr), 0x60U);
    EXPECT_EQ(takeMisuses(), "EdsSetPropertyEventHandler: event class 0x200 is not 0x100\n");
}

TEST_F(Misuse, SecondThreadInsideACameraCallIsRecorded)
{
    ASSERT_EQ(VirtualCameraFault("EdsGetPropertyData hang"), 1);
    std::thread reader([&] { m_host.get(0x406); });
    ASSERT_EQ(VirtualCameraWaitForHang("*", kDeadlineMs), 1);
    m_host.set(0x406, 0x68);
    VirtualCameraReleaseHangs();
    reader.join();
    EXPECT_NE(takeMisuses().find("is inside EdsGetPropertyData"), std::string::npos);
}

TEST_F(Misuse, ReleaseFromASecondThreadIsNone)
{
    const EdsDirectoryItemRef item = m_host.picture();
    ASSERT_EQ(VirtualCameraFault("EdsGetPropertyData hang"), 1);
    std::thread reader([&] { m_host.get(0x406); });
    ASSERT_EQ(VirtualCameraWaitForHang("*", kDeadlineMs), 1);
    EXPECT_EQ(EdsRelease(item), 0U);
    VirtualCameraReleaseHangs();
    reader.join();
    EXPECT_EQ(misuses(), "");
}

TEST_F(Misuse, LeaksAreRecordedAtTerminate)
{
    m_host.picture();
    m_host.close();
    EXPECT_NE(misuses().find("EdsTerminateSDK: leaked item#"), std::string::npos);
    EXPECT_NE(takeMisuses().find(" with 1 reference\n"), std::string::npos);
}

TEST_F(Misuse, CameraReleasedWithItsSessionOpenIsRecorded)
{
    EXPECT_EQ(EdsRelease(m_host.camera()), 0U);
    EXPECT_EQ(takeMisuses(), "EdsRelease: camera released with its session open\n");
    m_host.close();
    takeMisuses();
}

class MisuseWithoutSdk : public VirtualTest
{};

TEST_F(MisuseWithoutSdk, CallsOutsideOfTheLibrarysLifeAreRecorded)
{
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    const EdsCameraRef camera = host.camera();
    host.close();
    EXPECT_EQ(EdsOpenSession(camera), 0x02U);
    EXPECT_EQ(EdsRelease(camera), 0x02U);
    EXPECT_EQ(takeMisuses(),
              "EdsOpenSession: called after EdsTerminateSDK\n"
              "EdsRelease: called after EdsTerminateSDK\n");
}

TEST_F(MisuseWithoutSdk, IsCountedAndLogged)
{
    EdsDownloadComplete(nullptr);
    EXPECT_EQ(VirtualCameraMisuseCount(), 1);
    EXPECT_NE(callLog().find("MISUSE EdsDownloadComplete: called "), std::string::npos);
    takeMisuses();
    EXPECT_EQ(VirtualCameraMisuseCount(), 0);
}

}  // namespace
