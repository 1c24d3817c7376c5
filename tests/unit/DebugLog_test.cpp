// The debug log, with its real sink, which shows on standard error. The switch is one for the
// process, so each test tries it in a process of its own.
#include "DebugLog.h"

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <thread>
#include <vector>

#include "Lumatie.h"
#include "MachineSettings.h"
#include "PyCallback.h"
#include "TestSupport.h"

namespace {

class DebugLogTest : public testing::Test
{
protected:
    MachineSettings m_settings;
};

// Whether `action`, in a process of its own, writes exactly `text` on standard error.
#define EXPECT_WRITES(action, text) \
    EXPECT_EXIT(                    \
        {                           \
            action();               \
            std::_Exit(0);          \
        },                          \
        testing::ExitedWithCode(0), testing::Eq(text))

TEST_F(DebugLogTest, IsOffAtFirst)
{
    m_settings.setDumpMessage(1);
    const auto act = [] { DebugLog("message"); };
    EXPECT_WRITES(act, "");
}

TEST_F(DebugLogTest, StaysOffWithoutSettings)
{
    const auto act = [] {
        readDebugLogSwitch();
        DebugLog("message");
    };
    EXPECT_WRITES(act, "");
}

TEST_F(DebugLogTest, WritesThePrefixTheTextAndANewline)
{
    m_settings.setDumpMessage(1);
    const auto act = [] {
        readDebugLogSwitch();
        DebugLog("CANON TETHER_SHUTTERSPEED key=%d, value=%s", -1, "unknown");
    };
    EXPECT_WRITES(act, "[Lumatie]CANON TETHER_SHUTTERSPEED key=-1, value=unknown\n");
}

TEST_F(DebugLogTest, WritesAnEmptyText)
{
    m_settings.setDumpMessage(1);
    const auto act = [] {
        readDebugLogSwitch();
        DebugLog("%s", "");
    };
    EXPECT_WRITES(act, "[Lumatie]\n");
}

TEST_F(DebugLogTest, TakesAPercentSignInAValueAsItStands)
{
    m_settings.setDumpMessage(1);
    const auto act = [] {
        readDebugLogSwitch();
        DebugLog("%s", "100%s%n");
    };
    EXPECT_WRITES(act, "[Lumatie]100%s%n\n");
}

TEST_F(DebugLogTest, IsSwitchedOnByANewTetherObject)
{
    m_settings.setDumpMessage(1);
    const auto act = [] {
        const Lumatie tether;
        DebugLog("message");
    };
    EXPECT_WRITES(act, "[Lumatie]message\n");
}

TEST_F(DebugLogTest, IsOnForAllOnes)
{
    m_settings.setDumpMessage(0xFFFFFFFF);
    const auto act = [] {
        readDebugLogSwitch();
        DebugLog("message");
    };
    EXPECT_WRITES(act, "[Lumatie]message\n");
}

TEST_F(DebugLogTest, IsSwitchedOffByZero)
{
    const auto act = [this] {
        m_settings.setDumpMessage(1);
        readDebugLogSwitch();
        DebugLog("first");
        m_settings.setDumpMessage(0);
        readDebugLogSwitch();
        DebugLog("second");
    };
    EXPECT_WRITES(act, "[Lumatie]first\n");
}

TEST_F(DebugLogTest, IsSwitchedOffBySettingsThatDoNotNameIt)
{
    const auto act = [this] {
        m_settings.setDumpMessage(1);
        readDebugLogSwitch();
        m_settings.removeDumpMessage();
        readDebugLogSwitch();
        DebugLog("message");
    };
    EXPECT_WRITES(act, "");
}

TEST_F(DebugLogTest, KeepsSwitchAndPrefixWhenTheSettingsAreGone)
{
    const auto act = [this] {
        m_settings.setDumpMessage(1);
        readDebugLogSwitch();
        m_settings.remove();
        readDebugLogSwitch();
        DebugLog("message");
    };
    EXPECT_WRITES(act, "[Lumatie]message\n");
}

TEST_F(DebugLogTest, DoesNotEvenFormatWhenItIsOff)
{
    const auto act = [] {
        // Formatting this would read an address that is nobody's.
        DebugLog("%s", reinterpret_cast<const char*>(std::uintptr_t{1}));
    };
    EXPECT_WRITES(act, "");
}

TEST_F(DebugLogTest, Keeps1023Characters)
{
    m_settings.setDumpMessage(1);
    const auto act = [] {
        readDebugLogSwitch();
        DebugLog("%s", std::string(1023, 'x').c_str());
    };
    EXPECT_WRITES(act, "[Lumatie]" + std::string(1023, 'x') + "\n");
}

TEST_F(DebugLogTest, CutsTheCharactersAfterThat)
{
    m_settings.setDumpMessage(1);
    const auto act = [] {
        readDebugLogSwitch();
        DebugLog("%s", (std::string(1023, 'x') + "y").c_str());
        DebugLog("%s", std::string(2000, 'z').c_str());
    };
    EXPECT_WRITES(act, "[Lumatie]" + std::string(1023, 'x') + "\n" +  //
                           "[Lumatie]" + std::string(1023, 'z') + "\n");
}

// Whether every one of `count` lines is whole.
bool areWholeLines(const std::string& text, std::size_t count)
{
    const std::string whole = "[Lumatie]" + std::string(300, 'x');
    std::istringstream lines(text);
    std::string line;
    std::size_t found = 0;
    while (std::getline(lines, line)) {
        if (line != whole) {
            return false;
        }
        ++found;
    }
    return found == count;
}

TEST_F(DebugLogTest, KeepsTheLinesOfSeveralThreadsApart)
{
    m_settings.setDumpMessage(1);
    const auto act = [] {
        readDebugLogSwitch();
        testing::internal::CaptureStderr();
        std::vector<std::thread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([] {
                for (int i = 0; i < 100; ++i) {
                    DebugLog("%s", std::string(300, 'x').c_str());
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        std::_Exit(areWholeLines(testing::internal::GetCapturedStderr(), 400) ? 0 : 1);
    };
    EXPECT_EXIT(act(), testing::ExitedWithCode(0), "");
}

TEST_F(DebugLogTest, MayBeSwitchedWhileAnotherThreadWrites)
{
    const auto act = [this] {
        m_settings.setDumpMessage(0);
        std::thread writer([] {
            for (int i = 0; i < 1000; ++i) {
                DebugLog("message");
            }
        });
        for (int i = 0; i < 20; ++i) {
            readDebugLogSwitch();
        }
        writer.join();
    };
    EXPECT_WRITES(act, "");
}

}  // namespace
