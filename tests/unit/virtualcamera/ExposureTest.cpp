// The button on the body, long exposures, and the pictures of both, whatever the maker.
#include <chrono>

#include "virtualcamera/Application.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class SteeredExposure : public SteeredSessionTest
{};

TEST_F(SteeredExposure, TakesTheTimeThatItIsTold)
{
    configure("shutter.exposure_ms = 200");
    const auto start = steady_clock::now();
    m_application->shoot();
    awaitPictures(1);
    EXPECT_GE(steady_clock::now() - start, milliseconds(200));
}

TEST_F(SteeredExposure, TakesAsLongAgainWithNoiseReduction)
{
    configure("shutter.exposure_ms = 100\nshutter.noise_reduction = 1");
    const auto start = steady_clock::now();
    m_application->shoot();
    awaitPictures(1);
    EXPECT_GE(steady_clock::now() - start, milliseconds(200));
}

TEST_F(SteeredExposure, IsKeptOpenUntilItIsTold)
{
    configure("shutter.until_told = 2");
    m_application->shoot();
    ASSERT_EQ(steered().waitForExposure(0, kWaitMs), 1);
    EXPECT_EQ(steered().waitForPictures(1, 50), 0);
    ASSERT_EQ(steered().endExposure(0), 1);
    awaitPictures(1);
    EXPECT_EQ(steered().pictureCount(), 1);
    EXPECT_EQ(steered().endExposure(0), 0);
}

TEST_F(SteeredExposure, ThatWasKeptOpenTakesAsLongAgainWithNoiseReduction)
{
    configure("shutter.until_told = 2\nshutter.noise_reduction = 1");
    m_application->shoot();
    ASSERT_EQ(steered().waitForExposure(0, kWaitMs), 1);
    EXPECT_EQ(steered().waitForPictures(1, 150), 0);
    ASSERT_EQ(steered().endExposure(0), 1);
    const auto told = steady_clock::now();
    awaitPictures(1);
    EXPECT_GE(steady_clock::now() - told, milliseconds(150));
}

TEST_F(SteeredExposure, IsForgottenByAReset)
{
    configure("shutter.until_told = 2");
    m_application->shoot();
    ASSERT_EQ(steered().waitForExposure(0, kWaitMs), 1);
    steered().reset();
    EXPECT_EQ(steered().waitForExposure(0, 0), 0);
    m_application->work();
    EXPECT_EQ(steered().waitUntilIdle(kWaitMs), 1);
    EXPECT_EQ(steered().pictureCount(), 0);
}

TEST_F(SteeredExposure, OfTheBodyTakesAPictureThatNobodyAskedFor)
{
    ASSERT_EQ(steered().pressShutter(0), 1);
    awaitPictures(1);
    EXPECT_EQ(steered().pictureValue(0, "shot"), 1);
    EXPECT_EQ(steered().pictureValue(0, "camera"), 0);
    EXPECT_EQ(steered().pictureValue(0, "origin"), 1);
    const std::int64_t size = steered().pictureValue(0, "size");
    EXPECT_GT(size, 1000);
    EXPECT_EQ(steered().pictureBytes(0, nullptr, 0), size);
    const std::string list = steeredText(steered().pictureList);
    std::string name(100, '\0');
    name.resize(static_cast<std::size_t>(steered().pictureName(0, name.data(), 100)));
    EXPECT_EQ(list.find("shot=1 camera=0 origin=body name=" + name +
                        " size=" + std::to_string(size) + " announced="),
              0U)
        << list;
    EXPECT_EQ(steered().pictureValue(0, "nonsense"), -1);
}

TEST_F(SteeredExposure, OfTheBodyOutlastsTheSession)
{
    configure("shutter.until_told = 2");
    ASSERT_EQ(steered().pressShutter(0), 1);
    EXPECT_EQ(steered().pressShutter(0), 0);
    EXPECT_EQ(steered().waitForPictures(1, 20), 0);
    ASSERT_EQ(steered().endExposure(0), 1);
    awaitPictures(1);
}

}  // namespace
