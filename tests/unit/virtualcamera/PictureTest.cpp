// The picture files, whatever the maker: that they are pictures, and what the settings make of
// them.
#include <algorithm>
#include <chrono>
#include <string>

#include "virtualcamera/Application.h"
#include "virtualcamera/Decoded.h"

namespace {

class SteeredPicture : public SteeredSessionTest
{
protected:
    // Presses the button on the body, and answers the file.
    Bytes take()
    {
        const int number = steered().pictureCount();
        EXPECT_EQ(steered().pressShutter(0), 1) << steeredText(steered().lastError);
        awaitPictures(number + 1);
        Bytes file(static_cast<std::size_t>(steered().pictureValue(number, "size")));
        EXPECT_EQ(
            steered().pictureBytes(number, file.data(), static_cast<std::int64_t>(file.size())),
            static_cast<std::int64_t>(file.size()));
        return file;
    }
};

TEST_F(SteeredPicture, HasTheAskedWidthAndHeight)
{
    const Decoded picture = decode(take());
    EXPECT_EQ(picture.width, 640);
    EXPECT_EQ(picture.height, 480);
    configure("picture.width = 320\npicture.height = 200");
    EXPECT_EQ(decode(take()).width, 320);
}

TEST_F(SteeredPicture, HasTheAskedSizeToTheByte)
{
    for (const std::size_t size : {1000U, 104102U, 250000U}) {
        configure("picture.size = " + std::to_string(size));
        const Bytes file = take();
        EXPECT_EQ(file.size(), size);
        EXPECT_GT(decode(file).width, 0);
    }
}

TEST_F(SteeredPicture, IsBrighterInMoreLight)
{
    configure("scene.light = 9");
    const double dark = decode(take()).brightness();
    configure("scene.light = 11");
    EXPECT_GT(decode(take()).brightness(), dark + 10);
}

TEST_F(SteeredPicture, CaptionTellsOneShotFromTheNext)
{
    configure("picture.clock = 1700000000");
    const Decoded first = decode(take());
    const Decoded second = decode(take());
    ASSERT_EQ(first.samples.size(), second.samples.size());
    const auto caption = static_cast<std::ptrdiff_t>(first.samples.size() * 4 / 5);
    EXPECT_FALSE(std::equal(first.samples.begin() + caption, first.samples.end(),
                            second.samples.begin() + caption));
}

TEST_F(SteeredPicture, HasTheNumberOfTheShotOnACardInTheScene)
{
    const auto inkOnCard = [this] {
        const Decoded picture = decode(take());
        int ink = 0;
        for (int y = 385; y < 430; ++y) {
            for (int x = 520; x < 595; ++x) {
                ink += picture.samples[static_cast<std::size_t>(y * 640 + x) * 3] < 100 ? 1 : 0;
            }
        }
        return ink;
    };
    const int one = inkOnCard();
    const int two = inkOnCard();
    EXPECT_GT(one, 50);
    EXPECT_GT(two, one + 50);
}

TEST_F(SteeredPicture, OfTheSameSettingsAndNumberHasTheSameBytes)
{
    for (const char* size : {"", "picture.width = 1700\npicture.height = 1133"}) {
        Bytes first;
        for (int time = 0; time < 2; ++time) {
            steered().reset();
            configure(std::string("picture.clock = 1700000000\n") + size);
            const Bytes file = take();
            awaitIdle();
            if (time == 0) {
                first = file;
            }
            EXPECT_TRUE(file == first) << size;
        }
    }
}

TEST_F(SteeredPicture, OfFullSizeHas45MillionPixels)
{
    if (kIsSanitized) {
        GTEST_SKIP() << "takes half a minute with a sanitizer; smaller pictures run the same code";
    }
    const double brightness = decode(take()).brightness();
    configure("picture.full_size = 1");
    const Decoded picture = decode(take());
    EXPECT_EQ(picture.width, 8256);
    EXPECT_EQ(picture.height, 5504);
    EXPECT_NEAR(picture.brightness(), brightness, 12);
}

TEST_F(SteeredPicture, CarriesTheTimeThatIsSet)
{
    configure("picture.clock = 1700000000");
    const Bytes file = take();
    const std::string time = "2023:11:14 22:13:20";
    EXPECT_NE(std::search(file.begin(), file.end(), time.begin(), time.end()), file.end());
}

TEST_F(SteeredPicture, IsMadeQuickly)
{
    using Clock = std::chrono::steady_clock;
    take();
    const auto start = Clock::now();
    take();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
}

TEST_F(SteeredPicture, IsAnnouncedOnceTwiceOrNeverAsTheRulesSay)
{
    const auto announcements = [&](const char* rule, int awaited) {
        const int before = steered().eventCount(-1);
        EXPECT_EQ(steered().eventRule(rule), 1);
        take();
        awaitEvents(before + awaited);
        awaitIdle();
        steered().clearFaults();
        return steered().eventCount(-1) - before;
    };
    const int once = announcements("99 lose", 1);
    EXPECT_EQ(announcements("* lose calls=0", 0), 0);
    EXPECT_EQ(announcements("* double calls=0", 2 * once), 2 * once);
}

TEST_F(SteeredPicture, IsAnnouncedAsLateAsARuleSays)
{
    const int before = steered().eventCount(-1);
    ASSERT_EQ(steered().eventRule("* delay_ms=80 calls=0"), 1);
    const auto start = std::chrono::steady_clock::now();
    take();
    awaitEvents(before + 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(80));
    awaitIdle();
}

}  // namespace
