// Which cameras there are, what they are called, and what happens when their cable is pulled.
#include <cstring>

#include "Support.h"

namespace {

class Cameras : public VirtualTest
{
protected:
    void SetUp() override
    {
        VirtualTest::SetUp();
        EdsInitializeSDK();
    }

    void TearDown() override
    {
        EdsTerminateSDK();
        VirtualTest::TearDown();
    }

    static std::uint32_t count()
    {
        EdsCameraListRef list = nullptr;
        EXPECT_EQ(EdsGetCameraList(&list), 0U);
        std::uint32_t count = 99;
        EXPECT_EQ(EdsGetChildCount(list, &count), 0U);
        EXPECT_EQ(EdsRelease(list), 0U);
        return count;
    }

    static EdsDeviceInfo info(int index)
    {
        EdsCameraListRef list = nullptr;
        EdsCameraRef camera = nullptr;
        EdsDeviceInfo info{};
        EXPECT_EQ(EdsGetCameraList(&list), 0U);
        EXPECT_EQ(EdsGetChildAtIndex(list, index, &camera), 0U);
        EXPECT_EQ(EdsGetDeviceInfo(camera, &info), 0U);
        EdsRelease(camera);
        EdsRelease(list);
        return info;
    }
};

TEST_F(Cameras, FactoryHasOne)
{
    EXPECT_EQ(count(), 1U);
    EXPECT_STREQ(info(0).szDeviceDescription, "Virtual EOS");
    EXPECT_EQ(info(0).deviceSubType, 1U);
}

TEST_F(Cameras, EmptyListMayBeLeaked)
{
    VirtualCameraUnplug(0);
    EdsCameraListRef list = nullptr;
    ASSERT_EQ(EdsGetCameraList(&list), 0U);
    EdsTerminateSDK();
    EXPECT_EQ(misuses(), "");
}

TEST_F(Cameras, TwoMayHaveTheSameName)
{
    EXPECT_EQ(VirtualCameraAdd("Virtual EOS", 0), 1);
    EXPECT_EQ(count(), 2U);
    EXPECT_STREQ(info(1).szDeviceDescription, "Virtual EOS");
    EXPECT_EQ(info(1).deviceSubType, 0U);
}

TEST_F(Cameras, NamesMayHaveAnyLettersOrNone)
{
    VirtualCameraAdd("K\xC3\xA4mera \xE5\x86\x99\xE7\x9C\x9F", 1);
    VirtualCameraAdd("", 1);
    VirtualCameraAdd(std::string(255, 'n').c_str(), 1);
    EXPECT_STREQ(info(1).szDeviceDescription, "K\xC3\xA4mera \xE5\x86\x99\xE7\x9C\x9F");
    EXPECT_STREQ(info(2).szDeviceDescription, "");
    EXPECT_EQ(std::strlen(info(3).szDeviceDescription), 255U);
}

TEST_F(Cameras, NameCanComeWithoutTerminator)
{
    const std::string name(256, 'n');
    ASSERT_EQ(VirtualCanonSetName(0, name.data(), 256), 1);
    const EdsDeviceInfo record = info(0);
    EXPECT_EQ(std::memchr(record.szDeviceDescription, 0, 256), nullptr);
    EXPECT_EQ(record.deviceSubType, 1U);
}

TEST_F(Cameras, TakenTwiceIsOneReferenceCountedTwice)
{
    EdsCameraListRef list = nullptr;
    ASSERT_EQ(EdsGetCameraList(&list), 0U);
    EdsCameraRef first = nullptr;
    EdsCameraRef second = nullptr;
    ASSERT_EQ(EdsGetChildAtIndex(list, 0, &first), 0U);
    ASSERT_EQ(EdsGetChildAtIndex(list, 0, &second), 0U);
    EXPECT_EQ(first, second);
    EXPECT_EQ(EdsRelease(first), 1U);
    EXPECT_EQ(EdsRelease(second), 0U);
    EXPECT_EQ(EdsRelease(list), 0U);
}

TEST_F(Cameras, IndexBeyondTheListIsRefused)
{
    EdsCameraListRef list = nullptr;
    ASSERT_EQ(EdsGetCameraList(&list), 0U);
    EdsCameraRef camera = nullptr;
    EXPECT_EQ(EdsGetChildAtIndex(list, 1, &camera), 0x63U);
    EXPECT_EQ(EdsGetChildAtIndex(list, -1, &camera), 0x63U);
    EXPECT_EQ(camera, nullptr);
    EdsRelease(list);
}

TEST_F(Cameras, RemovedOneLeavesTheList)
{
    const int added = VirtualCameraAdd("Second", 1);
    ASSERT_EQ(VirtualCameraRemove(added), 1);
    EXPECT_EQ(count(), 1U);
    EXPECT_EQ(VirtualCameraRemove(added), 0);
    EXPECT_EQ(VirtualCameraCount(), 2);
}

class Cable : public OpenTest
{};

TEST_F(Cable, PulledOutSendsShutdownAndEndsEveryCall)
{
    ASSERT_EQ(VirtualCameraUnplug(0), 1);
    ASSERT_EQ(VirtualCameraWaitForEvents(0x301, 1, kDeadlineMs), 1);
    std::uint32_t value = 0;
    EXPECT_EQ(EdsGetPropertyData(m_host.camera(), 0x406, 0, 4, &value), 0x80U);
    EXPECT_EQ(m_host.shoot(), 0x80U);
    EXPECT_EQ(EdsCloseSession(m_host.camera()), 0x80U);
}

TEST_F(Cable, CodeOfAMissingCameraCanBeChosen)
{
    configure("gone.code = 0x2001");
    VirtualCameraUnplug(0);
    EXPECT_EQ(m_host.shoot(), 0x2001U);
}

TEST_F(Cable, OldReferenceStaysDeadAfterPluggingIn)
{
    VirtualCameraUnplug(0);
    VirtualCameraPlug(0);
    EXPECT_EQ(m_host.set(0x406, 0x68), 0x80U);
    Host again;
    ASSERT_EQ(again.connect(), 0U);
    EXPECT_NE(again.camera(), m_host.camera());
    ASSERT_EQ(again.open(), 0U);
    EXPECT_EQ(again.set(0x406, 0x68), 0U);
    EdsRelease(m_host.camera());
    again.close();
    EXPECT_EQ(misuses(), "");
    m_host.close();
    takeMisuses();
}

TEST_F(Cable, SleepingCameraAnswersBusyUntilItWakes)
{
    VirtualCanonSleep(0, 1);
    EXPECT_EQ(m_host.set(0x406, 0x68), 0x81U);
    VirtualCanonSleep(0, 0);
    EXPECT_EQ(m_host.set(0x406, 0x68), 0U);
}

TEST_F(Cable, TwoCamerasWorkSideBySide)
{
    VirtualCameraAdd("Second", 1);
    Host second;
    ASSERT_EQ(second.connect(1), 0U);
    ASSERT_EQ(second.open(), 0U);
    ASSERT_EQ(second.set(0x406, 0x60), 0U);
    EXPECT_EQ(m_host.get(0x406), 0x70U);
    EdsRelease(second.picture());
    EXPECT_EQ(VirtualCameraPictureValue(0, "camera"), 1);
    EXPECT_EQ(m_host.count(0x208), 0);
    m_host.close();
    EXPECT_NE(takeMisuses().find("leaked camera"), std::string::npos);
    second.close();
    takeMisuses();
}

}  // namespace
