// What the tests that any maker's camera has to pass are written with. Each maker's test program
// says once what it is for him.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "virtualcamera/Steered.h"

// The call that Application::look makes, and the variable that names the library's text file.
extern const char* const kLook;
extern const char* const kTextFileVariable;

// An application of the first camera.
class Application
{
public:
    Application() = default;
    virtual ~Application() = default;
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    // Opens a session.
    virtual void connect() = 0;

    // Gives everything back; does nothing when that was done.
    virtual void leave() = 0;

    // Makes one harmless call. Returns its result, 0 when it is good.
    virtual std::int64_t look() = 0;

    // Asks for a picture, and does not wait for it.
    virtual void shoot() = 0;

    // What an application does all the time, so that the library can do its work.
    virtual void work() {}
};

std::unique_ptr<Application> makeApplication();

// A large picture takes long on a machine that is busy with others.
constexpr int kWaitMs = 60000;

// Factory state before each test, and no misuse after it.
class SteeredTest : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    static std::string settings() { return steeredText(steered().settings); }

    // Has the application work until there are as many pictures.
    void awaitPictures(int count);

    // The same until as many events were delivered.
    void awaitEvents(int count);

    // The same until nothing is under way.
    void awaitIdle();

    std::unique_ptr<Application> m_application = makeApplication();
};

// With a session open, whose first events are over.
class SteeredSessionTest : public SteeredTest
{
protected:
    void SetUp() override;
};
