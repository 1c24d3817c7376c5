// What the steering that all makers' cameras share asks of a maker's library.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <string>

#include "common/CallLog.h"
#include "common/Picture.h"
#include "common/World.h"

namespace virtualcamera {

// All functions are called with the world's lock held, unless noted. Numbers of cameras are those
// of cameras that there are, unless noted.
class Maker
{
public:
    virtual ~Maker() = default;
    Maker(const Maker&) = delete;
    Maker& operator=(const Maker&) = delete;

    // What is true whatever the maker.
    World& world() const { return m_world; }

    // Factory state. Cameras stay when the application holds one.
    virtual void reset() = 0;

    // How many numbers were given out.
    virtual int cameraCount() const = 0;

    // Whether there is a camera of any such number.
    virtual bool hasCamera(int number) const = 0;

    // A new camera as the factory makes them, plugged in.
    virtual void addFactoryCamera() = 0;

    // The same with a name, and what the maker's interface tells cameras apart by. Returns its
    // number.
    virtual int addCamera(const std::string& name, std::uint32_t id) = 0;
    virtual void removeCamera(int number) = 0;

    virtual void nameCamera(int number, const std::string& name) = 0;
    virtual void plugCamera(int number) = 0;
    virtual void unplugCamera(int number) = 0;
    virtual void turnDial(int number, std::uint32_t mode) = 0;
    virtual bool isSessionOpen(int number) const = 0;

    // Presses the button on the body; the lock may be given up meanwhile. Returns why not, empty
    // when it is done.
    virtual std::string pressShutter(Lock& lock, int number) = 0;

    // Ends the exposure that is kept open; false when there is none.
    virtual bool closeShutter(int number) = 0;
    virtual bool isExposing(int number) const = 0;

    virtual int pictureCount() const = 0;

    // The picture of any such number, null when there is none.
    virtual std::shared_ptr<const Picture> picture(int number) const = 0;

    // A rule for calls that misbehave. Returns why not, empty when it was added.
    virtual std::string addFault(const std::string& rule) = 0;
    virtual void clearFaults() = 0;

    // A camera's own settings, a "key = value" line each.
    virtual std::string describeCamera(int number) const = 0;

    // One setting that only this maker has. There may be no camera of this number. Returns why not,
    // empty when it is done.
    virtual std::string configureOwn(const std::string& key, const std::string& value,
                                     int camera) = 0;

    // Does what follows from the values of the settings.
    virtual void applyOptions() = 0;

    virtual bool isIdle() const = 0;

    // Whether threads of the library's own may be running.
    virtual bool hasThreads() const = 0;

    // For a library that works in the application's calls alone: does what is due now, and says
    // when more is due.
    virtual void catchUp() {}
    virtual Clock::time_point nextDue() const { return Clock::time_point::max(); }

    // Ends the library's threads and frees what is left. Takes the lock itself.
    virtual void unload() = 0;

protected:
    explicit Maker(World& world) : m_world(world) {}

private:
    World& m_world;
};

// The maker of this library.
Maker& maker();

// Waits, with the lock given up, until `condition` is true, which is asked with the lock held.
// Answers 1 when it came true, 0 when time ran out. Takes the lock itself.
int waitFor(Maker& maker, int timeoutMs, const std::function<bool()>& condition);

// Has the maker give everything back when the library is unloaded.
class Unloader
{
public:
    Unloader();
    ~Unloader();
    Unloader(const Unloader&) = delete;
    Unloader& operator=(const Unloader&) = delete;

private:
    unsigned long m_process;
};

// The one thing of its kind in a library, made when it is first asked for. It is never destroyed:
// at the end of the process other threads may still be in a call.
template <typename Thing, typename... Arguments>
Thing& onlyOne(Arguments&... arguments)
{
    alignas(Thing) static unsigned char storage[sizeof(Thing)];
    static auto* const only = new (storage) Thing(arguments...);
    return *only;
}

}  // namespace virtualcamera
