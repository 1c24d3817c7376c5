// Live view: frames and what they tell about themselves.
#include <array>
#include <numeric>

#include "Support.h"

namespace {

class LiveView : public OpenTest
{
protected:
    void SetUp() override
    {
        OpenTest::SetUp();
        ASSERT_EQ(m_host.set(0x501, 1), 0U);
        ASSERT_EQ(m_host.set(0x500, 2), 0U);
        ASSERT_EQ(EdsCreateMemoryStream(0x200000, &m_stream), 0U);
        ASSERT_EQ(EdsCreateEvfImageRef(m_stream, &m_image), 0U);
    }

    void TearDown() override
    {
        EdsRelease(m_stream);
        EdsRelease(m_image);
        OpenTest::TearDown();
    }

    EdsError frame() { return EdsDownloadEvfImage(m_host.camera(), m_image); }

    Decoded picture() const
    {
        Bytes bytes(static_cast<std::size_t>(VirtualCanonStreamBytes(m_stream, nullptr, 0)));
        VirtualCanonStreamBytes(m_stream, bytes.data(), static_cast<int>(bytes.size()));
        return decode(bytes);
    }

    template <std::size_t Count>
    std::array<std::int32_t, Count> read(EdsPropertyID property) const
    {
        std::array<std::int32_t, Count> values{};
        EXPECT_EQ(EdsGetPropertyData(m_image, property, 0, sizeof values, values.data()), 0U);
        return values;
    }

    EdsStreamRef m_stream = nullptr;
    EdsEvfImageRef m_image = nullptr;
};

TEST_F(LiveView, FrameIsASmallJpeg)
{
    ASSERT_EQ(frame(), 0U);
    EXPECT_EQ(picture().width, 320);
    EXPECT_EQ(picture().height, 240);
}

TEST_F(LiveView, FrameTellsItsZoomPositionAndCoordinates)
{
    ASSERT_EQ(frame(), 0U);
    EXPECT_EQ(read<1>(0x507)[0], 1);
    EXPECT_EQ(read<2>(0x540), (std::array<std::int32_t, 2>{5472, 3648}));
    EXPECT_EQ(read<4>(0x541), (std::array<std::int32_t, 4>{2188, 1459, 1094, 729}));
    EXPECT_EQ(read<2>(0x50B), (std::array<std::int32_t, 2>{0, 0}));
}

TEST_F(LiveView, HistogramCountsEveryPixelFourTimes)
{
    ASSERT_EQ(frame(), 0U);
    const auto bins = read<1024>(0x50A);
    for (std::size_t i = 0; i < 4; ++i) {
        const auto start = bins.begin() + static_cast<std::ptrdiff_t>(i * 256);
        EXPECT_EQ(std::accumulate(start, start + 256, 0), 320 * 240);
    }
}

TEST_F(LiveView, ZoomShowsAPart)
{
    ASSERT_EQ(frame(), 0U);
    const Decoded whole = picture();
    const std::array<std::int32_t, 2> vase{5472 * 64 / 100, 3648 * 40 / 100};
    ASSERT_EQ(EdsSetPropertyData(m_host.camera(), 0x508, 0, 8, vase.data()), 0U);
    ASSERT_EQ(m_host.set(0x507, 5), 0U);
    ASSERT_EQ(frame(), 0U);
    EXPECT_EQ(read<1>(0x507)[0], 5);
    EXPECT_EQ(read<2>(0x50B), vase);
    EXPECT_LT(whole.mean(2), whole.mean(0));
    EXPECT_GT(picture().mean(2), picture().mean(0) + 40);
}

TEST_F(LiveView, PositionStaysInsideTheSensor)
{
    const std::array<std::int32_t, 2> outside{99999, -5};
    ASSERT_EQ(EdsSetPropertyData(m_host.camera(), 0x508, 0, 8, outside.data()), 0U);
    ASSERT_EQ(frame(), 0U);
    const auto rectangle = read<4>(0x541);
    EXPECT_EQ(rectangle[0] + rectangle[2], 5472);
    EXPECT_EQ(rectangle[1], 0);
}

TEST_F(LiveView, FrameIsNotReadyWhenOffOrWarmingUp)
{
    ASSERT_EQ(m_host.set(0x500, 0), 0U);
    EXPECT_EQ(frame(), 0xA102U);
    configure("evf.warm_up = 2");
    ASSERT_EQ(m_host.set(0x500, 2), 0U);
    EXPECT_EQ(frame(), 0xA102U);
    EXPECT_EQ(frame(), 0xA102U);
    EXPECT_EQ(frame(), 0U);
}

TEST_F(LiveView, NeedsItsModeFirst)
{
    ASSERT_EQ(m_host.set(0x500, 0), 0U);
    ASSERT_EQ(m_host.set(0x501, 0), 0U);
    EXPECT_EQ(m_host.set(0x500, 2), 0x50U);
}

// How much neighbouring pixels differ: little in a blurred picture.
double contrast(const Decoded& picture)
{
    double sum = 0;
    for (std::size_t i = 3; i < picture.samples.size() / 2; ++i) {
        const double step = picture.samples[i] - picture.samples[i - 3];
        sum += step * step;
    }
    return sum;
}

TEST_F(LiveView, LensDriveBlursAndAutofocusSharpens)
{
    ASSERT_EQ(frame(), 0U);
    const double sharp = contrast(picture());
    EXPECT_EQ(EdsSendCommand(m_host.camera(), 0x103, 0x8003), 0U);
    ASSERT_EQ(frame(), 0U);
    EXPECT_LT(contrast(picture()), sharp * 0.7);
    EXPECT_EQ(EdsSendCommand(m_host.camera(), 0x102, 1), 0U);
    EXPECT_EQ(EdsSendCommand(m_host.camera(), 0x102, 0), 0U);
    ASSERT_EQ(frame(), 0U);
    EXPECT_GT(contrast(picture()), sharp * 0.9);
    EXPECT_EQ(EdsSendCommand(m_host.camera(), 0x103, 4), 0x60U);
}

TEST_F(LiveView, LensDriveNeedsLiveView)
{
    ASSERT_EQ(m_host.set(0x500, 0), 0U);
    EXPECT_EQ(EdsSendCommand(m_host.camera(), 0x103, 1), 0x60U);
}

TEST_F(LiveView, ImageNeedsAMemoryStream)
{
    EdsEvfImageRef image = nullptr;
    EXPECT_EQ(EdsCreateEvfImageRef(m_host.camera(), &image), 0x61U);
    EXPECT_NE(takeMisuses(), "");
}

TEST_F(LiveView, ImageOutlivesItsStream)
{
    ASSERT_EQ(frame(), 0U);
    EdsStreamRef stream = nullptr;
    EdsEvfImageRef image = nullptr;
    ASSERT_EQ(EdsCreateMemoryStream(0, &stream), 0U);
    ASSERT_EQ(EdsCreateEvfImageRef(stream, &image), 0U);
    EXPECT_EQ(EdsRelease(stream), 0U);
    EXPECT_EQ(EdsDownloadEvfImage(m_host.camera(), image), 0U);
    EXPECT_EQ(EdsRelease(image), 0U);
}

}  // namespace
