// Opening, describing and closing: the tree of objects as an application walks it.
#include <cstdint>

#include "Host.h"

namespace {

class NikonSession : public NikonTest
{};

std::vector<std::uint32_t> ids(const std::vector<MaidCapInfo>& capabilities)
{
    std::vector<std::uint32_t> all;
    for (const MaidCapInfo& info : capabilities) {
        all.push_back(info.id);
    }
    return all;
}

TEST_F(NikonSession, OpensTheModuleAndItsFirstSource)
{
    Host host;
    host.open();
    EXPECT_EQ(host.module()->type, kMaidLevelModule);
    EXPECT_EQ(host.source()->type, kMaidLevelSource);
    EXPECT_EQ(host.source()->id, 1U);
    EXPECT_EQ(driver().openCount(0), 2);
    EXPECT_EQ(driver().sessionOpen(0), 1);
    host.closeAll();
    EXPECT_EQ(driver().openCount(0), 0);
}

TEST_F(NikonSession, EachLevelDescribesItsOwnCapabilities)
{
    Host host;
    host.open();
    const Bytes content = pattern(100);
    driver().addItem(0, kMaidItemImage, kMaidFileJpeg, 0, content.data(), 100);
    MaidObject* item = host.openChild(host.source(), 1);
    MaidObject* data = host.openChild(item, kMaidItemImage);

    using Ids = std::vector<std::uint32_t>;
    EXPECT_EQ(ids(host.capabilities(host.module())), (Ids{2, 3, 5, 7, 0x8101}));
    EXPECT_EQ(
        ids(host.capabilities(host.source())),
        (Ids{2, 3, 7, 17, 0x8110, 0x8111, 0x8112, 0x8113, 0x8116, 0x8117, 0x8118, 0x81D7, 0x8305}));
    EXPECT_EQ(ids(host.capabilities(item)), (Ids{2, 3, 7, 12}));
    EXPECT_EQ(ids(host.capabilities(data)), (Ids{2, 3, 4, 20}));
}

TEST_F(NikonSession, DescriptorsTellTypeOperationsAndDescription)
{
    Host host;
    host.open();
    const MaidCapInfo shutter = host.capability(host.source(), kMaidCapShutterSpeed);
    EXPECT_EQ(shutter.type, kMaidCapTypeEnum);
    EXPECT_EQ(shutter.operations, kMaidOperationGet | kMaidOperationSet | kMaidOperationGetArray);
    EXPECT_STREQ(shutter.description, "Shutter Speed");
    EXPECT_STREQ(host.capability(host.source(), kMaidCapAperture).description, "Aperture");
    EXPECT_STREQ(host.capability(host.source(), kMaidCapSensitivity).description, "Sensitivity");
    EXPECT_STREQ(host.capability(host.source(), kMaidCapWhiteBalance).description,
                 "White Balance Mode");
    EXPECT_STREQ(host.capability(host.source(), kMaidCapImageQuality).description,
                 "Compression Level");
    EXPECT_EQ(host.capability(host.source(), kMaidCapCapture).operations, kMaidOperationStart);
    EXPECT_EQ(host.capability(host.module(), kMaidCapEventProc).operations, kMaidOperationSet);
}

TEST_F(NikonSession, NumbersAreSetAndRead)
{
    Host host;
    host.open();
    EXPECT_TRUE(host.setNumber(host.module(), kMaidCapModuleMode, 1).isGood());
    EXPECT_EQ(host.number(host.module(), kMaidCapModuleMode), 1U);
    EXPECT_EQ(host.number(host.source(), kMaidCapSourceSetting), 0U);
    EXPECT_TRUE(host.setNumber(host.source(), kMaidCapSourceSetting, 1).isGood());
    EXPECT_EQ(host.number(host.source(), kMaidCapSourceSetting), 1U);
    EXPECT_EQ(host.number(host.source(), kMaidCapLiveness), 1U);
}

TEST_F(NikonSession, ListsEveryPluggedCameraUnderItsId)
{
    configure("camera.id = 7\n[camera 1]\ncamera.id = 9\n[camera 2]\ncamera.plugged = 0");
    Host host;
    host.open();
    EXPECT_EQ(host.children(host.module()), (std::vector<std::uint32_t>{7, 9}));
    EXPECT_EQ(host.source()->id, 7U);
}

TEST_F(NikonSession, NoCameraLeavesTheChildrenEmpty)
{
    driver().unplug(0);
    Host host;
    MaidObject* module = host.openChild(nullptr, 0);
    ASSERT_NE(module, nullptr);
    EXPECT_TRUE(host.children(module).empty());
}

TEST_F(NikonSession, CanBeOpenedAgainAfterItsClose)
{
    for (int i = 0; i < 3; ++i) {
        Host host;
        host.open();
    }
    EXPECT_EQ(driver().callCount("Open"), 6);
    EXPECT_EQ(driver().callCount("Close"), 6);
}

TEST_F(NikonSession, RefusesTheOperationsThatADescriptorDoesNotPermit)
{
    Host host;
    host.open();
    EXPECT_LT(host.setPosition(host.source(), kMaidCapExposureMode, 0).result, 0);
    EXPECT_LT(host.issue(host.source(), kMaidCommandCapStart, kMaidCapShutterSpeed).result, 0);
    EXPECT_LT(host.issue(host.source(), kMaidCommandCapGet, 0x9999).result, 0);
}

}  // namespace
