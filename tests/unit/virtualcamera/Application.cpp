#include "virtualcamera/Application.h"

#include <chrono>

void SteeredTest::SetUp()
{
    ASSERT_TRUE(steered().isLoaded());
    steered().reset();
}

void SteeredTest::TearDown()
{
    m_application->leave();
    EXPECT_EQ(misuses(), "");
    steered().reset();
}

void SteeredTest::awaitPictures(int count)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (steered().waitForPictures(count, 5) == 0) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        m_application->work();
    }
}

void SteeredTest::awaitEvents(int count)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (steered().waitForEvents(-1, count, 5) == 0) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        m_application->work();
    }
}

void SteeredTest::awaitIdle()
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (steered().waitUntilIdle(5) == 0) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        m_application->work();
    }
}

void SteeredSessionTest::SetUp()
{
    SteeredTest::SetUp();
    m_application->connect();
    ASSERT_EQ(steered().waitUntilIdle(kWaitMs), 1);
}
