// What the tests of the Canon side share: the virtual camera's log in a form to compare with, a
// camera with an open session and a model, and folders and pictures to work with.
#pragma once

#include "TestSupport.h"

#include <algorithm>
#include <memory>
#include <sstream>

#include "TemporaryFolder.h"
#include "canon/CameraModel.h"
#include "canon/Processor.h"
#include "canon/ShootingCommands.h"

using Lines = std::vector<std::string>;

// The whole text of a function of the virtual camera that takes a buffer and its capacity.
template <typename TextOut>
std::string textOf(TextOut textOut)
{
    std::vector<char> buffer(static_cast<std::size_t>(textOut(nullptr, 0)) + 1);
    textOut(buffer.data(), static_cast<int>(buffer.size()));
    return buffer.data();
}

// A text without the numbers of references: "camera#2" becomes "camera".
inline std::string withoutNumbers(std::string text)
{
    for (std::size_t sign = text.find('#'); sign != std::string::npos; sign = text.find('#')) {
        text.erase(sign,
                   std::min(text.find_first_not_of("0123456789", sign + 1), text.size()) - sign);
    }
    return text;
}

// The calls in the virtual camera's log whose text starts with `start`, oldest first, without
// running number, times, thread and the numbers of references, and with their results:
// "EdsSendCommand(camera, 0x4, 0x3) = 0x0".
inline Lines callsAndResults(const std::string& start = "Eds")
{
    std::istringstream log(textOf(VirtualCameraLog));
    Lines calls;
    std::string number;
    std::string time;
    std::string thread;
    std::string rest;
    while (log >> number >> time >> thread && std::getline(log >> std::ws, rest)) {
        // The end of the line is how long it took, e.g. " 0.003 ms".
        const std::size_t unit = rest.rfind(' ');
        const std::string call = withoutNumbers(rest.substr(0, rest.rfind(' ', unit - 1)));
        if (call.compare(0, start.size(), start) == 0) {
            calls.push_back(call);
        }
    }
    return calls;
}

// The same without the results.
inline Lines calls(const std::string& start = "Eds")
{
    Lines without;
    for (const std::string& call : callsAndResults(start)) {
        without.push_back(call.substr(0, call.rfind(" = ")));
    }
    return without;
}

// Has the virtual camera misbehave; see VirtualCameraFault.
inline void fault(const std::string& rule)
{
    ASSERT_EQ(VirtualCameraFault(rule.c_str()), 1) << textOf(VirtualCameraLastError);
}

// Changes settings of the virtual camera; see VirtualCameraConfigure.
inline void configure(const std::string& text)
{
    ASSERT_EQ(VirtualCameraConfigure(text.c_str()), 0) << textOf(VirtualCameraLastError);
}

// Whether nothing is under way on the virtual camera: no exposure, no picture, no event.
inline bool isIdle()
{
    return VirtualCameraWaitUntilIdle(0) == 1;
}

// A camera with an open session, and a model of it that an observer listens to. The log starts
// empty.
class OpenSessionTest : public OpenCameraTest
{
protected:
    void SetUp() override
    {
        OpenCameraTest::SetUp();
        ASSERT_EQ(EdsOpenSession(m_camera), 0U);
        m_model = std::make_unique<canon::CameraModel>(m_camera);
        m_model->addObserver(&m_observer);
        ASSERT_TRUE(waitFor(isIdle));
        VirtualCameraClearLog();
    }

    void TearDown() override
    {
        VirtualCameraClearFaults();
        if (VirtualCameraSessionOpen(0) == 1) {
            EdsCloseSession(m_camera);
        }
        m_model.reset();
        OpenCameraTest::TearDown();
    }

    canon::CameraModel& model() { return *m_model; }
    Lines events() const { return m_observer.events(); }

    RecordingObserver m_observer;
    std::unique_ptr<canon::CameraModel> m_model;
};

// Waits until the worker has executed everything that was posted before; the observer is told
// "done" then.
inline void finishQueue(canon::Processor& processor, canon::CameraModel& model,
                        const RecordingObserver& observer)
{
    const auto told = [&] {
        const Lines events = observer.events();
        return std::count(events.begin(), events.end(), "done");
    };
    const auto before = told();
    processor.enqueue(std::make_unique<canon::NotifyCommand>(model, "done"));
    ASSERT_TRUE(waitFor([&] { return told() > before; }));
}

// The bytes of picture file `file` on the virtual camera.
inline std::string pictureBytes(int file)
{
    const auto size = VirtualCameraPictureBytes(file, nullptr, 0);
    std::string bytes(static_cast<std::size_t>(size), '\0');
    VirtualCameraPictureBytes(file, bytes.data(), size);
    return bytes;
}
