// Settings as text, reset, counts and the call log.
#include <algorithm>
#include <array>

#include "Support.h"

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
        "value.0x406 = 0x68\n"
        "value.0x9000 = text Hello there\n"
        "value.0x9001 = type 7 bytes 01 FF\n"
        "list.0x406 = 0x10 -1\n"
        "fault = EdsDownload code=0x81\n"
        "event = 0x208 lose\n");
    EXPECT_EQ(VirtualCameraCount(), 2);
    EXPECT_EQ(VirtualCanonProperty(0, 0x406), 0x70);
    EXPECT_EQ(VirtualCanonProperty(1, 0x406), 0x68);
    std::array<std::int32_t, 4> values{};
    EXPECT_EQ(VirtualCanonAllowed(1, 0x406, values.data(), 4), 2);
    EXPECT_EQ(values[1], -1);
    std::array<char, 32> text{};
    EXPECT_EQ(VirtualCanonPropertyBytes(1, 0x9000, text.data(), 32), 12);
    EXPECT_STREQ(text.data(), "Hello there");
    EXPECT_EQ(VirtualCanonPropertyBytes(1, 0x9001, nullptr, 0), 2);
}

TEST_F(Configuration, TellsTheFirstBadLine)
{
    for (const char* bad : {"nonsense", "no.such = 1", "shutter.lag_ms = much",
                            "shutter.lag_ms = -1", "[camera 5]", "[camera", "value.0x406 = ",
                            "corrupt.0x406.x = 1", "camera.lens = fish", "picture.width = 1"}) {
        EXPECT_EQ(VirtualCameraConfigure(("log.lines = 5\n" + std::string(bad)).c_str()), 2) << bad;
        EXPECT_GT(VirtualCameraLastError(nullptr, 0), 0);
    }
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

TEST_F(Configuration, ReferencesAreCountedByKind)
{
    Host host;
    ASSERT_EQ(host.connect(), 0U);
    EXPECT_EQ(VirtualCanonReferenceCount("camera"), 1);
    EXPECT_EQ(VirtualCanonReferenceCount("item"), 0);
    EXPECT_EQ(VirtualCanonReferenceCount(""), 1);
    EXPECT_EQ(VirtualCanonReferenceCount("nonsense"), -1);
}

TEST_F(Configuration, UnknownCamerasAndFilesAreRefused)
{
    EXPECT_EQ(VirtualCameraUnplug(7), 0);
    EXPECT_EQ(VirtualCameraUnplug(-1), 0);
    EXPECT_EQ(VirtualCanonProperty(7, 0x406), -1);
    EXPECT_EQ(VirtualCameraPictureValue(0, "size"), -1);
    EXPECT_EQ(VirtualCameraPictureBytes(0, nullptr, 0), -1);
    EXPECT_EQ(VirtualCanonNewItem(0, 0), nullptr);
    EXPECT_EQ(VirtualCanonSendStateEvent(0, 0x301, 0), 0);
}

// A record with 300 bytes behind it.
template <typename Record>
struct Roomy {
    Record record{};
    Bytes::value_type behind[300] = {};

    // How many of them were written, if they were so from the start.
    std::ptrdiff_t written() const
    {
        const auto* end = std::find(std::begin(behind), std::end(behind), 0);
        return std::count(end, std::end(behind), 0) == std::end(behind) - end
                   ? end - std::begin(behind)
                   : -1;
    }
};

class LongRecords : public OpenTest
{
protected:
    template <typename Record, typename Fill>
    static void expectLonger(Fill fill)
    {
        for (const int extra : {0, 4, 256}) {
            configure("records.extra = " + std::to_string(extra));
            Roomy<Record> roomy;
            EXPECT_EQ(fill(&roomy.record), 0U);
            EXPECT_EQ(roomy.written(), extra);
        }
    }
};

TEST_F(LongRecords, AreFilledToTheirEndAndNoFurther)
{
    expectLonger<EdsDeviceInfo>(
        [&](EdsDeviceInfo* info) { return EdsGetDeviceInfo(m_host.camera(), info); });
    expectLonger<EdsPropertyDesc>([&](EdsPropertyDesc* description) {
        return EdsGetPropertyDesc(m_host.camera(), 0x406, description);
    });
    const EdsDirectoryItemRef item = m_host.picture();
    expectLonger<EdsDirectoryItemInfo>(
        [&](EdsDirectoryItemInfo* info) { return EdsGetDirectoryItemInfo(item, info); });
    EdsRelease(item);
}

}  // namespace
