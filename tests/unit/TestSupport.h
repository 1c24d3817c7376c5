// What the tests share: a fresh virtual camera for each test, an observer that writes down what it
// is told, and waiting with a deadline.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "EdSdk.h"
#include "VirtualCanon.h"
#include "canon/Observable.h"

// Waits until `condition` is true; returns whether it became true in time.
template <typename Condition>
bool waitFor(Condition condition, std::chrono::milliseconds deadline = std::chrono::seconds(10))
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Returns when a second has just begun, so that what follows falls into one.
inline void awaitNextSecond()
{
    const std::time_t now = std::time(nullptr);
    ASSERT_TRUE(waitFor([&] { return std::time(nullptr) != now; }));
}

// The virtual camera in its factory state, the library not initialised. A test fails when the
// code under test misused the library.
class VirtualCameraTest : public testing::Test
{
protected:
    void SetUp() override { VirtualCameraReset(); }

    void TearDown() override
    {
        char misuse[4096];
        VirtualCameraMisuse(misuse, sizeof misuse);
        EXPECT_EQ(VirtualCameraMisuseCount(), 0) << misuse;
        VirtualCameraReset();
    }
};

// A camera of the virtual library, listed and, when asked for, with an open session.
class OpenCameraTest : public VirtualCameraTest
{
protected:
    void SetUp() override
    {
        VirtualCameraTest::SetUp();
        ASSERT_EQ(EdsInitializeSDK(), 0U);
        EdsCameraListRef list = nullptr;
        ASSERT_EQ(EdsGetCameraList(&list), 0U);
        ASSERT_EQ(EdsGetChildAtIndex(list, 0, &m_camera), 0U);
        EdsRelease(list);
    }

    void TearDown() override
    {
        EdsRelease(m_camera);
        EdsTerminateSDK();
        VirtualCameraTest::TearDown();
    }

    EdsCameraRef m_camera = nullptr;
};

// Writes down every notification as "name" or "name argument", the argument in hexadecimal.
class RecordingObserver final : public canon::Observer
{
public:
    void update(canon::Observable* /*from*/, const canon::CameraEvent& event) override
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_events.push_back(describe(event));
    }

    std::vector<std::string> events() const
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_events;
    }

private:
    static std::string describe(const canon::CameraEvent& event)
    {
        // The argument of a frame is a record, not a number.
        if (event.arg == nullptr || event.name == "EvfDataChanged") {
            return event.name;
        }
        char number[16];
        std::snprintf(number, sizeof number, " %x", *static_cast<const std::uint32_t*>(event.arg));
        return event.name + number;
    }

    mutable std::mutex m_lock;
    std::vector<std::string> m_events;
};
