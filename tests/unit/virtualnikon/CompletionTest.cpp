// When commands complete: at once, after some calls, late, on another thread, or never.
#include <chrono>

#include "Host.h"

namespace {

class NikonCompletion : public NikonOpenTest
{
protected:
    std::shared_ptr<Outcome> beginRead()
    {
        m_value = 0;
        return m_host.begin(m_host.source(), kMaidCommandCapGet, kMaidCapLiveness,
                            kMaidDataTypeUnsignedPtr, dataOf(&m_value));
    }
    void async(int times = 1) const
    {
        for (int i = 0; i < times; ++i) {
            Host::async(m_host.source());
        }
    }

    std::uint32_t m_value = 0;
};

TEST_F(NikonCompletion, IsAtOnceUnlessTold)
{
    const auto outcome = beginRead();
    EXPECT_TRUE(outcome->isGood());
    EXPECT_EQ(m_value, 1U);
    EXPECT_EQ(outcome->thread, std::this_thread::get_id());
}

TEST_F(NikonCompletion, ComesAfterAsManyCallsAsTold)
{
    ASSERT_TRUE(driver().fault("CapGet complete_calls=3"));
    const auto outcome = beginRead();
    EXPECT_EQ(outcome->result, kMaidOk);
    EXPECT_EQ(m_value, 1U);
    async(2);
    EXPECT_EQ(outcome->completions, 0);
    EXPECT_EQ(driver().pending(), 1);
    async();
    EXPECT_TRUE(outcome->isGood());
    async(3);
    EXPECT_EQ(outcome->completions, 1);
}

TEST_F(NikonCompletion, ComesLateInsideACall)
{
    ASSERT_TRUE(driver().fault("CapGet complete_ms=50"));
    const auto start = std::chrono::steady_clock::now();
    const auto outcome = beginRead();
    while (outcome->completions == 0) {
        async();
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(outcome->thread, std::this_thread::get_id());
}

TEST_F(NikonCompletion, ComesOnAThreadOfTheLibraryWithoutAnyCall)
{
    ASSERT_TRUE(driver().fault("CapGet complete_ms=20 complete_thread"));
    const auto outcome = beginRead();
    ASSERT_TRUE(driver().waitUntilIdle(kDeadlineMs));
    EXPECT_TRUE(outcome->isGood());
    EXPECT_NE(outcome->thread, std::this_thread::get_id());
    EXPECT_NE(callLog().find(" E completion CapGet(source#1, 0x81D7) = 0"), std::string::npos)
        << callLog();
}

TEST_F(NikonCompletion, NeverComesUntilItIsLetGo)
{
    ASSERT_TRUE(driver().fault("CapGet never"));
    const auto outcome = beginRead();
    async(20);
    EXPECT_EQ(outcome->completions, 0);
    EXPECT_TRUE(driver().waitUntilIdle(0));
    EXPECT_EQ(driver().releaseCompletions(), 1);
    async();
    EXPECT_TRUE(outcome->isGood());
}

TEST_F(NikonCompletion, ThatNeverComesIsDroppedAtTheClose)
{
    ASSERT_TRUE(driver().fault("CapGet never"));
    const auto outcome = beginRead();
    m_host.closeAll();
    EXPECT_EQ(outcome->completions, 0);
    EXPECT_EQ(driver().pending(), 0);
}

TEST_F(NikonCompletion, IsAbortedAtTheCloseOfItsObject)
{
    ASSERT_TRUE(driver().fault("CapGet complete_ms=3600000"));
    const auto outcome = beginRead();
    m_host.closeAll();
    EXPECT_EQ(outcome->completions, 1);
    EXPECT_EQ(outcome->completion, -11);
}

TEST_F(NikonCompletion, IsDroppedAtTheCloseOfItsObjectWhenTold)
{
    configure("complete.at_close = 0");
    ASSERT_TRUE(driver().fault("CapGet complete_ms=3600000"));
    const auto outcome = beginRead();
    m_host.closeAll();
    EXPECT_EQ(outcome->completions, 0);
}

TEST_F(NikonCompletion, WritesItsDataLateWhenTold)
{
    ASSERT_TRUE(driver().fault("CapGet complete_calls=1 late_data"));
    const auto outcome = beginRead();
    EXPECT_EQ(m_value, 0U);
    async();
    EXPECT_EQ(m_value, 1U);
    EXPECT_TRUE(outcome->isGood());
}

TEST_F(NikonCompletion, ComesTwiceWhenTold)
{
    ASSERT_TRUE(driver().fault("CapGet twice"));
    EXPECT_EQ(beginRead()->completions, 2);
}

TEST_F(NikonCompletion, ContradictsTheAnswerWhenTold)
{
    ASSERT_TRUE(driver().fault("CapGet completion=-5"));
    auto outcome = beginRead();
    EXPECT_EQ(outcome->result, kMaidOk);
    EXPECT_EQ(outcome->completion, -5);
    ASSERT_TRUE(driver().fault("CapGet code=-3 after completion=0"));
    outcome = beginRead();
    EXPECT_EQ(outcome->result, -3);
    EXPECT_EQ(outcome->completion, 0);
    EXPECT_EQ(m_value, 1U);
}

TEST_F(NikonCompletion, OfACaptureCountsFromTheEndOfTheExposure)
{
    configure("shutter.lag_ms = 0");
    ASSERT_TRUE(driver().fault("CapStart capability=17 complete_calls=3"));
    const auto outcome = m_host.begin(m_host.source(), kMaidCommandCapStart, kMaidCapCapture);
    EXPECT_EQ(outcome->result, kMaidPending);
    ASSERT_TRUE(driver().waitForPictures(1, kDeadlineMs));
    async(2);
    EXPECT_EQ(outcome->completions, 0);
    async();
    EXPECT_EQ(outcome->completions, 1);
}

TEST_F(NikonCompletion, OfACaptureIsAtOnceWhenTold)
{
    configure("shutter.pending = 0");
    EXPECT_TRUE(m_host.begin(m_host.source(), kMaidCommandCapStart, kMaidCapCapture)->isGood());
    EXPECT_TRUE(driver().waitForPictures(1, kDeadlineMs));
}

TEST_F(NikonCompletion, CanBeSetForAllCommands)
{
    configure("complete.calls = 2");
    const auto outcome = beginRead();
    EXPECT_EQ(outcome->completions, 0);
    async(2);
    EXPECT_EQ(outcome->completions, 1);
    EXPECT_FALSE(m_host.list(m_host.source(), kMaidCapAperture).texts().empty());
    ASSERT_TRUE(driver().fault("CapGet at_once"));
    EXPECT_EQ(beginRead()->completions, 1);
}

TEST_F(NikonCompletion, APictureArrivesHoweverCommandsComplete)
{
    for (const char* mode : {"complete.calls = 3", "complete.ms = 5", "complete.thread = 1"}) {
        configure(mode);
        m_host.fetch(picture());
        const int last = driver().pictureCount() - 1;
        EXPECT_EQ(m_host.received.bytes, pictureBytes(last)) << mode;
        configure("complete.calls = 0\ncomplete.ms = 0\ncomplete.thread = 0");
    }
}

TEST_F(NikonCompletion, OfAResetModuleComesAtTheNextOccasion)
{
    ASSERT_TRUE(driver().fault("CapGet never"));
    const auto outcome = beginRead();
    driver().reset();
    async();
    EXPECT_EQ(outcome->completions, 1);
}

}  // namespace
