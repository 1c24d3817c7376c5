// Settings as text, cameras, reset, counts and the call log, whatever the maker.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "virtualcamera/Application.h"

namespace {

class Steering : public SteeredTest
{};

class SteeringASession : public SteeredSessionTest
{};

// A text file that the library reads or writes.
class File
{
public:
    explicit File(const std::string& content) { std::ofstream(m_path) << content; }
    ~File() { std::remove(m_path.c_str()); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    const std::string& path() const { return m_path; }
    std::string content() const
    {
        std::ostringstream text;
        text << std::ifstream(m_path).rdbuf();
        return text.str();
    }

private:
    // Tests run side by side, and those of the makers have the same names.
    std::string m_path = testing::TempDir() + kTextFileVariable + "-" +
                         testing::UnitTest::GetInstance()->current_test_info()->name() + ".txt";
};

TEST_F(Steering, TellsTheFirstBadLineAndKeepsTheOnesBefore)
{
    for (const char* bad :
         {"nonsense", "no.such = 1", "shutter.lag_ms = much", "shutter.lag_ms = -1", "[camera 5]",
          "[camera", "picture.width = 1", "camera.mode = M",
          "camera.plugged = ", "fault = ", "event = 0x101 lose=1"}) {
        steered().reset();
        EXPECT_EQ(steered().configure(("# nothing\nlog.lines = 5\n" + std::string(bad)).c_str()), 3)
            << bad;
        EXPECT_NE(steeredText(steered().lastError), "");
        EXPECT_NE(settings().find("log.lines = 5\n"), std::string::npos);
    }
}

TEST_F(Steering, WhatItTellsItTakes)
{
    configure("camera.name = Someone's\ncamera.mode = 1\ntransfer.rate = 9\n[camera 1]\n");
    const std::string told = settings();
    EXPECT_NE(told.find("camera.name = Someone's\n"), std::string::npos);
    EXPECT_NE(told.find("camera.mode = 1\n"), std::string::npos);
    steered().reset();
    EXPECT_NE(settings(), told);
    configure(told);
    EXPECT_EQ(settings(), told);
}

TEST_F(Steering, LinesDoWhatTheFunctionsDo)
{
    configure("camera.mode = 0\n[camera 1]\ncamera.plugged = 0\ncamera.name = Second");
    const std::string byLines = settings();
    steered().reset();
    const std::string first = settings();
    configure("[camera 1]");
    ASSERT_EQ(steered().turnDial(0, 0), 1);
    ASSERT_EQ(steered().unplug(1), 1);
    configure("[camera 1]\ncamera.name = Second");
    EXPECT_EQ(settings(), byLines);
    EXPECT_NE(byLines, first);
    ASSERT_EQ(steered().plug(1), 1);
    EXPECT_NE(settings(), byLines);
}

TEST_F(Steering, ResetGivesTheFactoryBack)
{
    const std::string factory = settings();
    configure("picture.size = 5000\ncamera.name = Other\n[camera 1]\n[camera 0]\ncamera.mode = 0");
    ASSERT_EQ(steered().failNext("*", 1, 0), 1);
    ASSERT_EQ(steered().pressShutter(0), 1);
    awaitPictures(1);
    steered().reset();
    EXPECT_EQ(settings(), factory);
    EXPECT_EQ(steered().pictureCount(), 0);
    EXPECT_EQ(steered().count(), 1);
    EXPECT_EQ(steered().callCount("*"), 0);
    m_application->connect();
    EXPECT_EQ(m_application->look(), 0);
}

TEST_F(SteeringASession, IsKeptByAResetAndSoIsItsCamera)
{
    configure("camera.name = Mine\nshutter.lag_ms = 99");
    steered().reset();
    EXPECT_EQ(m_application->look(), 0);
    EXPECT_EQ(steered().sessionOpen(0), 1);
    EXPECT_NE(settings().find("camera.name = Mine\n"), std::string::npos);
    EXPECT_NE(settings().find("shutter.lag_ms = 5\n"), std::string::npos);
}

TEST_F(SteeringASession, EndsWhenTheCableIsPulled)
{
    ASSERT_EQ(steered().sessionOpen(0), 1);
    ASSERT_EQ(steered().fault((std::string(kLook) + " unplug").c_str()), 1);
    EXPECT_NE(m_application->look(), 0);
    EXPECT_NE(settings().find("camera.plugged = 0\n"), std::string::npos);
    configure("gone.code = 77");
    EXPECT_EQ(m_application->look(), 77);
}

TEST_F(Steering, CamerasAreNumberedInTheOrderTheyCome)
{
    EXPECT_EQ(steered().add("Second", 2), 1);
    EXPECT_EQ(steered().remove(0), 1);
    EXPECT_EQ(steered().remove(0), 0);
    EXPECT_EQ(steered().add("Third", 3), 2);
    EXPECT_EQ(steered().count(), 3);
    EXPECT_EQ(settings().find("[camera 0]"), std::string::npos);
    EXPECT_NE(settings().find("[camera 2]\ncamera.name = Third\n"), std::string::npos);
}

TEST_F(Steering, CamerasAndPicturesThatAreNotThereAreRefused)
{
    EXPECT_EQ(steered().pressShutter(3), 0);
    EXPECT_EQ(steeredText(steered().lastError), "no such camera: 3");
    EXPECT_EQ(steered().unplug(7), 0);
    EXPECT_EQ(steered().unplug(-1), 0);
    EXPECT_EQ(steered().turnDial(-1, 0), 0);
    EXPECT_EQ(steered().endExposure(0), 0);
    EXPECT_EQ(steered().waitForExposure(3, 0), 0);
    EXPECT_EQ(steered().pictureValue(0, "size"), -1);
    EXPECT_EQ(steered().pictureBytes(0, nullptr, 0), -1);
}

TEST_F(SteeringASession, CallsAreCountedAndLogged)
{
    const int before = steered().callCount(kLook);
    steered().clearLog();
    EXPECT_EQ(callLog(), "");
    m_application->look();
    EXPECT_EQ(steered().callCount(kLook), before + 1);
    EXPECT_GT(steered().callCount("*"), before + 1);
    EXPECT_EQ(steered().waitForCalls(kLook, before + 1, 0), 1);
    EXPECT_EQ(steered().waitForCalls(kLook, before + 2, 1), 0);
    EXPECT_NE(callLog().find(" T1 " + std::string(kLook) + "("), std::string::npos) << callLog();
    steered().clearLog();
    EXPECT_EQ(steered().callCount(kLook), before + 1);
}

TEST_F(SteeringASession, LogKeepsTheLastLines)
{
    configure("log.lines = 3");
    for (int i = 0; i < 10; ++i) {
        m_application->look();
    }
    const std::string text = callLog();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
}

TEST_F(SteeringASession, TheClockIsTheOneOfTheCallLog)
{
    steered().clearLog();
    const std::int64_t before = steered().clock();
    m_application->look();
    const std::int64_t after = steered().clock();
    unsigned long long number = 0;
    double seconds = 0;
    ASSERT_EQ(std::sscanf(callLog().c_str(), "%llu %lf T", &number, &seconds), 2) << callLog();
    EXPECT_GE(std::llround(seconds * 1e6), before);
    EXPECT_LE(std::llround(seconds * 1e6), after);
}

TEST_F(Steering, TextsAreCutToTheBufferAndTerminated)
{
    std::array<char, 8> buffer{};
    buffer.fill('x');
    EXPECT_GT(steered().settings(buffer.data(), 8), 8);
    EXPECT_EQ(buffer[7], '\0');
}

TEST_F(Steering, TheFileThatTheEnvironmentNamesIsReadAtTheStart)
{
    const File file("camera.name = From a file\n");
    setEnvironment(kTextFileVariable, file.path().c_str());
    m_application->connect();
    setEnvironment(kTextFileVariable, nullptr);
    EXPECT_NE(settings().find("camera.name = From a file\n"), std::string::npos);
}

TEST_F(Steering, TheLogIsAppendedToTheFileThatTheEnvironmentNames)
{
    const File file("");
    setEnvironment("LUMATIE_VIRTUAL_LOG", file.path().c_str());
    m_application->connect();
    m_application->look();
    m_application->leave();
    setEnvironment("LUMATIE_VIRTUAL_LOG", nullptr);
    m_application->connect();
    EXPECT_NE(file.content().find(kLook), std::string::npos) << file.content();
}

TEST_F(SteeringASession, IsIdleWhenNothingIsUnderWay)
{
    configure("shutter.until_told = 2");
    m_application->shoot();
    ASSERT_EQ(steered().waitForExposure(0, kWaitMs), 1);
    EXPECT_EQ(steered().waitUntilIdle(10), 0);
    ASSERT_EQ(steered().endExposure(0), 1);
    awaitPictures(1);
    m_application->work();
    EXPECT_EQ(steered().waitUntilIdle(kWaitMs), 1);
}

}  // namespace
