// Settings as text, reset, counts and the call log.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>

#include "Support.h"
#include "System.h"

namespace {

class Configuration : public VirtualTest
{};

std::string settings()
{
    std::string text(static_cast<std::size_t>(VirtualCameraSettings(nullptr, 0)) + 1, '\0');
    VirtualCameraSettings(text.data(), static_cast<int>(text.size()));
    text.pop_back();
    return text;
}

TEST_F(Configuration, TakesCommentsSectionsAndEveryKindOfLine)
{
    configure(
        "# a comment\n"
        "\n"
        "shutter.lag_ms = 20\n"
        "camera.name = First\n"
        "[camera 1]\n"
        "camera.name = Second camera\n"
        "camera.sub_type = 0\n"
        "property.0x406 = 0x68\n"
        "property.0x9000 = text Hello there\n"
        "property.0x9001 = type 7 bytes 01 FF\n"
        "allowed.0x406 = 0x10 -1\n"
        "fault = EdsDownload code=0x81\n"
        "event = 0x208 lose\n");
    EXPECT_EQ(VirtualCameraCount(), 2);
    EXPECT_EQ(VirtualCameraProperty(0, 0x406), 0x70);
    EXPECT_EQ(VirtualCameraProperty(1, 0x406), 0x68);
    std::array<std::int32_t, 4> values{};
    EXPECT_EQ(VirtualCameraAllowed(1, 0x406, values.data(), 4), 2);
    EXPECT_EQ(values[1], -1);
    std::array<char, 32> text{};
    EXPECT_EQ(VirtualCameraPropertyBytes(1, 0x9000, text.data(), 32), 12);
    EXPECT_STREQ(text.data(), "Hello there");
    EXPECT_EQ(VirtualCameraPropertyBytes(1, 0x9001, nullptr, 0), 2);
}

TEST_F(Configuration, TellsTheFirstBadLine)
{
    for (const char* bad : {"nonsense", "no.such = 1", "shutter.lag_ms = much",
                            "shutter.lag_ms = -1", "[camera 5]", "[camera", "property.0x406 = ",
                            "corrupt.0x406.x = 1", "camera.lens = fish", "picture.width = 1"}) {
        EXPECT_EQ(VirtualCameraConfigure(("log.lines = 5\n" + std::string(bad)).c_str()), 2) << bad;
        EXPECT_GT(VirtualCameraLastError(nullptr, 0), 0);
    }
}

TEST_F(Configuration, ItsOwnTextCanBeReadBack)
{
    configure("shutter.lag_ms = 33\nproperty.0x406 = 0x60");
    const std::string text = settings();
    VirtualCameraReset();
    EXPECT_NE(settings(), text);
    configure(text);
    EXPECT_EQ(settings(), text);
}

TEST_F(Configuration, ResetBringsTheFactoryBack)
{
    const std::string factory = settings();
    configure("shutter.lag_ms = 99\ncamera.name = Other\nproperty.0x406 = 1\n[camera 1]\n");
    VirtualCameraFailNext("EdsInitializeSDK", 5, 3);
    VirtualCameraReset();
    EXPECT_EQ(settings(), factory);
    Host host;
    EXPECT_EQ(host.connect(), 0U);
}

TEST_F(Configuration, ResetKeepsACameraThatIsInUse)
{
    configure("camera.name = Mine\nshutter.lag_ms = 99");
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(host.open(), 0U);
    VirtualCameraReset();
    EXPECT_EQ(host.get(0x406), 0x70U);
    EXPECT_NE(settings().find("camera.name = Mine"), std::string::npos);
    EXPECT_NE(settings().find("shutter.lag_ms = 5\n"), std::string::npos);
}

TEST_F(Configuration, CallsAreCountedAndLogged)
{
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    ASSERT_EQ(host.open(), 0U);
    EXPECT_EQ(VirtualCameraCallCount("EdsSendStatusCommand"), 2);
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsSendStatusCommand", 2, 0), 1);
    EXPECT_EQ(VirtualCameraWaitForCalls("EdsSendStatusCommand", 3, 1), 0);
    EXPECT_GE(VirtualCameraCallCount("*"), 8);
    EXPECT_NE(callLog().find(", 0xB, 0, 4, 0x3) = 0x0 "), std::string::npos) << callLog();
    VirtualCameraClearLog();
    EXPECT_EQ(callLog().find("EdsSetCapacity"), std::string::npos);
    EXPECT_EQ(VirtualCameraCallCount("EdsSetCapacity"), 1);
}

TEST_F(Configuration, LogKeepsTheLastLines)
{
    configure("log.lines = 3");
    for (int i = 0; i < 10; ++i) {
        EdsTerminateSDK();
    }
    const std::string text = callLog();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
}

TEST_F(Configuration, TextsAreCutToTheBufferAndTerminated)
{
    std::array<char, 8> buffer{};
    buffer.fill('x');
    EXPECT_GT(VirtualCameraSettings(buffer.data(), 8), 8);
    EXPECT_EQ(buffer[7], '\0');
}

TEST_F(Configuration, ReferencesAreCountedByKind)
{
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    EXPECT_EQ(VirtualCameraReferenceCount("camera"), 1);
    EXPECT_EQ(VirtualCameraReferenceCount("item"), 0);
    EXPECT_EQ(VirtualCameraReferenceCount(""), 1);
    EXPECT_EQ(VirtualCameraReferenceCount("nonsense"), -1);
}

TEST_F(Configuration, UnknownCamerasAndFilesAreRefused)
{
    EXPECT_EQ(VirtualCameraUnplug(7), 0);
    EXPECT_EQ(VirtualCameraUnplug(-1), 0);
    EXPECT_EQ(VirtualCameraProperty(7, 0x406), -1);
    EXPECT_EQ(VirtualCameraPictureValue(0, "size"), -1);
    EXPECT_EQ(VirtualCameraPictureBytes(0, nullptr, 0), -1);
    EXPECT_EQ(VirtualCameraNewItem(0, 0), nullptr);
    EXPECT_EQ(VirtualCameraSendStateEvent(0, 0x301, 0), 0);
}

TEST_F(Configuration, EnvironmentNamesATextFileAndALog)
{
    const Folder folder;
    std::ofstream(folder.path("camera.txt")) << "camera.name = From a file\n";
    setEnvironment("LUMATIE_VIRTUAL_CANON", folder.path("camera.txt").c_str());
    setEnvironment("LUMATIE_VIRTUAL_LOG", folder.path("calls.log").c_str());
    {
        Host host;
        ASSERT_EQ(host.connect(), 0U);
        EdsDeviceInfo info{};
        ASSERT_EQ(EdsGetDeviceInfo(host.camera(), &info), 0U);
        EXPECT_STREQ(info.szDeviceDescription, "From a file");
    }
    setEnvironment("LUMATIE_VIRTUAL_CANON", nullptr);
    setEnvironment("LUMATIE_VIRTUAL_LOG", nullptr);
    const Bytes log = fileBytes(folder.path("calls.log"));
    EXPECT_NE(std::string(log.begin(), log.end()).find("EdsGetDeviceInfo("), std::string::npos);
}

}  // namespace
