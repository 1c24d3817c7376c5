// Calls and events that misbehave on request, whatever the maker.
#include <chrono>
#include <thread>

#include "virtualcamera/Application.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class SteeredFault : public SteeredSessionTest
{
protected:
    // A rule for the call that the application makes.
    static int fault(const std::string& rule)
    {
        return steered().fault((std::string(kLook) + " " + rule).c_str());
    }
};

TEST_F(SteeredFault, NextCallsAnswerTheCode)
{
    ASSERT_EQ(steered().failNext(kLook, 0x81, 2), 1);
    EXPECT_EQ(m_application->look(), 0x81);
    EXPECT_EQ(m_application->look(), 0x81);
    EXPECT_EQ(m_application->look(), 0);
}

TEST_F(SteeredFault, RulesCountSkipAndAreForgotten)
{
    ASSERT_EQ(fault("code=5 skip=1"), 1);
    ASSERT_EQ(fault("code=6 skip=2 calls=0"), 1);
    EXPECT_EQ(m_application->look(), 0);
    EXPECT_EQ(m_application->look(), 5);
    EXPECT_EQ(m_application->look(), 0);
    EXPECT_EQ(m_application->look(), 6);
    EXPECT_EQ(m_application->look(), 6);
    steered().clearFaults();
    EXPECT_EQ(m_application->look(), 0);
}

TEST_F(SteeredFault, ACallTakesAsLongAsTold)
{
    ASSERT_EQ(fault("delay_ms=60"), 1);
    const auto start = steady_clock::now();
    EXPECT_EQ(m_application->look(), 0);
    EXPECT_GE(steady_clock::now() - start, milliseconds(60));
}

TEST_F(SteeredFault, ACallHangsUntilItIsReleased)
{
    ASSERT_EQ(fault("hang"), 1);
    EXPECT_EQ(steered().waitForHang(kLook, 0), 0);
    std::int64_t result = -1;
    std::thread caller([&] { result = m_application->look(); });
    EXPECT_EQ(steered().waitForHang(kLook, kWaitMs), 1);
    EXPECT_EQ(steered().waitForHang("NoSuchCall", 0), 0);
    EXPECT_EQ(steered().waitUntilIdle(0), 0);
    EXPECT_EQ(steered().releaseHangs(), 1);
    caller.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(steered().waitForHang("*", 0), 0);
}

TEST_F(SteeredFault, ResetLetsAHangingCallGo)
{
    ASSERT_EQ(fault("hang"), 1);
    std::int64_t result = -1;
    std::thread caller([&] { result = m_application->look(); });
    EXPECT_EQ(steered().waitForHang("*", kWaitMs), 1);
    steered().reset();
    caller.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(steered().sessionOpen(0), 1);
}

TEST_F(SteeredFault, RulesWithMistakesAreRefusedWithAReason)
{
    for (const char* rule : {"code=", "code=x", "code", "nonsense", "nonsense=1", "delay_ms=-1",
                             "calls=-1", "code=99999999999"}) {
        EXPECT_EQ(fault(rule), 0) << rule;
    }
    EXPECT_EQ(steered().fault(""), 0);
    for (const char* rule : {"", "nonsense lose", "0x101 lose=1", "0x101 hang"}) {
        EXPECT_EQ(steered().eventRule(rule), 0) << rule;
    }
    EXPECT_NE(steeredText(steered().lastError), "");
}

}  // namespace
