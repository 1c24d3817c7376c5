// Settings, reset, counts and the log.
#include "Host.h"

namespace {

class NikonConfiguration : public NikonTest
{
protected:
    static std::string settings()
    {
        std::string text(100000, '\0');
        text.resize(static_cast<std::size_t>(
            driver().settings(text.data(), static_cast<int>(text.size()))));
        return text;
    }
};

TEST_F(NikonConfiguration, TellsTheFirstBadLine)
{
    EXPECT_EQ(driver().configure("# nothing\nshutter.lag_ms = 7\n\nnonsense = 1\n"), 4);
    EXPECT_NE(settings().find("shutter.lag_ms = 7\n"), std::string::npos);
    EXPECT_EQ(driver().configure("nonsense"), 1);
    EXPECT_EQ(driver().configure("[camera 7]"), 1);
    EXPECT_EQ(driver().configure("picture.width = 1"), 1);
    EXPECT_EQ(driver().configure("value.0x8112 = 1000"), 1);
    EXPECT_EQ(driver().configure("corrupt.source = 1"), 1);
}

TEST_F(NikonConfiguration, LinesDoWhatTheFunctionsDo)
{
    configure(
        "list.0x8118 = Sun | Moon\ncorrupt.source.0x8118.value = 9\n"
        "fault = CapGet code=-5 capability=0x8113\nevent = 4 lose calls=0");
    Host host;
    host.open();
    EXPECT_EQ(host.list(host.source(), kMaidCapWhiteBalance).texts(),
              (std::vector<std::string>{"Sun", "Moon"}));
    EXPECT_EQ(host.list(host.source(), kMaidCapWhiteBalance).record.value, 9U);
    EXPECT_EQ(host.issue(host.source(), kMaidCommandCapGet, kMaidCapAperture).result, -5);
    configure("corrupt.source.0x8118.value = own\nlist.0x8118 = own");
    EXPECT_EQ(host.list(host.source(), kMaidCapWhiteBalance).current(), "Auto");
}

TEST_F(NikonConfiguration, ResetGivesTheFactoryBack)
{
    const std::string factory = settings();
    configure(
        "picture.size = 5000\ncamera.name = Other\n[camera 1]\ncamera.id = 8\n"
        "corrupt.module.7.count = 0\nfault = CapGet code=-1\n[camera 0]\ncamera.mode = 0");
    driver().pressShutter(0);
    driver().waitForPictures(1, kDeadlineMs);
    driver().reset();
    EXPECT_EQ(settings(), factory);
    EXPECT_EQ(driver().pictureCount(), 0);
    EXPECT_EQ(driver().itemCount(0), 0);
    EXPECT_EQ(driver().itemCount(1), -1);
    EXPECT_EQ(driver().callCount("*"), 0);
    Host host;
    host.open();
    EXPECT_EQ(host.children(host.module()), std::vector<std::uint32_t>{1});
}

TEST_F(NikonConfiguration, ResetDuringASessionLeavesTheSessionItsCamera)
{
    Host host;
    host.open();
    driver().pressShutter(0);
    driver().waitForPictures(1, kDeadlineMs);
    driver().reset();
    EXPECT_EQ(host.number(host.source(), kMaidCapLiveness), 1U);
    EXPECT_TRUE(host.children(host.source()).empty());
}

TEST_F(NikonConfiguration, ObjectsThatWereLeftOpenCanBeForgotten)
{
    MaidObject module{};
    const auto open = [&] {
        return driver().entryPoint(nullptr, kMaidCommandOpen, 0, kMaidDataTypeObjectPtr,
                                   dataOf(&module), nullptr, nullptr);
    };
    ASSERT_EQ(open(), kMaidOk);
    EXPECT_EQ(driver().forgetObjects(), 1);
    EXPECT_EQ(driver().openCount(0), 0);
    EXPECT_EQ(open(), kMaidOk);
    EXPECT_EQ(driver().forgetObjects(), 1);
}

TEST_F(NikonConfiguration, CallsAreCountedByTheirCommand)
{
    Host host;
    host.open();
    EXPECT_EQ(driver().callCount("Open"), 2);
    EXPECT_EQ(driver().callCount("CapSet"), 5);
    EXPECT_TRUE(driver().waitForCalls("CapSet", 5, 0));
    EXPECT_EQ(driver().waitForCalls("CapSet", 6, 1), 0);
    EXPECT_NE(callLog().find("T1 CapGet(module#0, 0x7) = 0"), std::string::npos) << callLog();
    driver().clearLog();
    EXPECT_EQ(callLog(), "");
    EXPECT_EQ(driver().callCount("Open"), 2);
}

TEST_F(NikonConfiguration, IsIdleWhenNothingIsUnderWay)
{
    Host host;
    host.open();
    EXPECT_TRUE(driver().waitUntilIdle(0));
    configure("shutter.lag_ms = 3600000");
    driver().pressShutter(0);
    EXPECT_EQ(driver().waitUntilIdle(10), 0);
    driver().reset();
    driver().pressShutter(0);
    EXPECT_EQ(driver().waitUntilIdle(100), 0);
    Host::async(host.source());
    EXPECT_TRUE(driver().waitUntilIdle(kDeadlineMs));
    EXPECT_EQ(driver().waitForDelivered(1, 0), 0);
    host.fetch(1);
    EXPECT_TRUE(driver().waitForDelivered(1, 0));
}

TEST_F(NikonConfiguration, CamerasThatAreNotThereAreRefused)
{
    char text[100];
    EXPECT_EQ(driver().pressShutter(3), 0);
    EXPECT_GT(driver().lastError(text, sizeof text), 0);
    EXPECT_STREQ(text, "no such camera: 3");
    EXPECT_EQ(driver().turnDial(-1, 0), 0);
    EXPECT_EQ(driver().addItem(3, 1, 1, 0, "x", 1), -1);
    EXPECT_EQ(driver().removeItem(3), 0);
    driver().unplug(0);
    EXPECT_EQ(driver().pressShutter(0), 0);
}

}  // namespace
