// Long exposures: how long they take, what ends them, and what the camera answers meanwhile.
#include <chrono>

#include "Host.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr MaidResult kBusy = -9;
constexpr MaidResult kGone = -10;
constexpr MaidResult kAborted = -11;

class NikonExposure : public NikonOpenTest
{
protected:
    // Begins a capture that ends when it is told.
    std::shared_ptr<Outcome> keepOpen()
    {
        configure("shutter.until_told = 2");
        return beginCapture();
    }
    std::shared_ptr<Outcome> beginCapture()
    {
        auto outcome = m_host.begin(m_host.source(), kMaidCommandCapStart, kMaidCapCapture);
        EXPECT_EQ(outcome->result, kMaidPending);
        EXPECT_TRUE(driver().waitForExposure(0, 0));
        return outcome;
    }

    // Runs pending work until the command has completed.
    void finish(const Outcome& outcome) const
    {
        const auto deadline = steady_clock::now() + milliseconds(kDeadlineMs);
        while (outcome.completions == 0 && steady_clock::now() < deadline) {
            Host::async(m_host.source());
        }
        EXPECT_EQ(outcome.completions, 1);
    }

    Outcome read(std::uint32_t id)
    {
        return m_host.issue(m_host.source(), kMaidCommandCapGet, id, kMaidDataTypeUnsignedPtr,
                            dataOf(&m_value));
    }
    Outcome readList(std::uint32_t id)
    {
        return m_host.issue(m_host.source(), kMaidCommandCapGet, id, kMaidDataTypeEnumPtr,
                            dataOf(&m_record));
    }

    std::uint32_t m_value = 0;
    MaidEnum m_record{};
};

TEST_F(NikonExposure, IsKeptOpenUntilItIsTold)
{
    const auto outcome = keepOpen();
    EXPECT_FALSE(driver().waitForPictures(1, 50));
    EXPECT_EQ(Host::async(m_host.source()), kMaidOk);
    EXPECT_EQ(outcome->completions, 0);
    ASSERT_TRUE(driver().endExposure(0));
    finish(*outcome);
    EXPECT_EQ(outcome->completion, kMaidOk);
    EXPECT_EQ(driver().pictureCount(), 1);
    EXPECT_FALSE(driver().waitForExposure(0, 0));
    EXPECT_FALSE(driver().endExposure(0));
}

TEST_F(NikonExposure, IsKeptOpenOnBulbAloneWhenAskedFor)
{
    configure("shutter.until_told = 1");
    picture();
    ASSERT_TRUE(m_host.setPosition(m_host.source(), kMaidCapShutterSpeed, 0).isGood());
    const auto outcome = beginCapture();
    EXPECT_FALSE(driver().waitForPictures(2, 50));
    ASSERT_TRUE(driver().endExposure(0));
    finish(*outcome);
    EXPECT_EQ(driver().pictureCount(), 2);
}

TEST_F(NikonExposure, LetsPendingWorkAnswerThatItIsAtSomething)
{
    configure("shutter.work_answer = 1");
    EXPECT_EQ(Host::async(m_host.source()), kMaidOk);
    const auto outcome = keepOpen();
    EXPECT_EQ(Host::async(m_host.source()), kMaidPending);
    ASSERT_TRUE(driver().endExposure(0));
    finish(*outcome);
    EXPECT_EQ(Host::async(m_host.source()), kMaidOk);
}

TEST_F(NikonExposure, LeavesTheSettingsOpenUnlessToldOtherwise)
{
    keepOpen();
    EXPECT_TRUE(read(kMaidCapLiveness).isGood());
    EXPECT_TRUE(readList(kMaidCapShutterSpeed).isGood());
    EXPECT_TRUE(m_host.setPosition(m_host.source(), kMaidCapShutterSpeed, 3).isGood());
    EXPECT_EQ(driver().value(0, kMaidCapShutterSpeed), 3);
}

TEST_F(NikonExposure, CanKeepTheLivenessNumberToItself)
{
    configure("shutter.reads = 2");
    EXPECT_TRUE(read(kMaidCapLiveness).isGood());
    const auto outcome = keepOpen();
    EXPECT_EQ(read(kMaidCapLiveness).result, kBusy);
    EXPECT_TRUE(readList(kMaidCapShutterSpeed).isGood());
    ASSERT_TRUE(driver().endExposure(0));
    finish(*outcome);
    EXPECT_TRUE(read(kMaidCapLiveness).isGood());
}

TEST_F(NikonExposure, CanKeepAllSettingsToItself)
{
    configure("shutter.reads = 0\nshutter.sets = 0");
    const auto before = driver().value(0, kMaidCapShutterSpeed);
    const auto outcome = keepOpen();
    EXPECT_EQ(read(kMaidCapLiveness).result, kBusy);
    EXPECT_EQ(readList(kMaidCapShutterSpeed).result, kBusy);
    EXPECT_EQ(m_host.setPosition(m_host.source(), kMaidCapShutterSpeed, 3).result, kBusy);
    EXPECT_EQ(driver().value(0, kMaidCapShutterSpeed), before);
    EXPECT_TRUE(m_host.children(m_host.source()).empty());
    ASSERT_TRUE(driver().endExposure(0));
    finish(*outcome);
    EXPECT_TRUE(m_host.setPosition(m_host.source(), kMaidCapShutterSpeed, 3).isGood());
}

TEST_F(NikonExposure, EndsWithoutAPictureWhenTheCableIsPulled)
{
    const auto outcome = keepOpen();
    ASSERT_TRUE(driver().unplug(0));
    finish(*outcome);
    EXPECT_EQ(outcome->completion, kGone);
    m_host.closeAll();
    EXPECT_TRUE(driver().waitUntilIdle(kDeadlineMs));
    EXPECT_EQ(driver().pictureCount(), 0);
}

TEST_F(NikonExposure, EndsWhenTheHostLeavesAndThePictureStaysOnTheCamera)
{
    const auto outcome = keepOpen();
    m_host.closeAll();
    EXPECT_EQ(outcome->completion, kAborted);
    EXPECT_TRUE(driver().waitUntilIdle(kDeadlineMs));
    EXPECT_EQ(driver().itemCount(0), 1);
}

TEST_F(NikonExposure, OfTheBodyOutlastsTheHost)
{
    configure("shutter.until_told = 2");
    ASSERT_TRUE(driver().pressShutter(0));
    m_host.closeAll();
    EXPECT_FALSE(driver().waitForPictures(1, 50));
    ASSERT_TRUE(driver().endExposure(0));
    EXPECT_TRUE(driver().waitForPictures(1, kDeadlineMs));
}

TEST_F(NikonExposure, IsForgottenByAReset)
{
    const auto outcome = keepOpen();
    driver().reset();
    finish(*outcome);
    EXPECT_EQ(outcome->completion, kAborted);
    EXPECT_TRUE(driver().waitUntilIdle(kDeadlineMs));
    EXPECT_FALSE(driver().waitForExposure(0, 0));
}

TEST_F(NikonExposure, IsForgottenWithTheObjects)
{
    keepOpen();
    EXPECT_EQ(driver().forgetObjects(), 2);
    EXPECT_TRUE(driver().waitUntilIdle(kDeadlineMs));
    m_host.closeAll();
    EXPECT_NE(takeMisuses(), "");
}

}  // namespace
