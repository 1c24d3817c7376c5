// Everything the library knows, behind one lock.
#pragma once

#include <condition_variable>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "canon/Body.h"
#include "canon/Objects.h"
#include "common/World.h"

namespace virtualcanon {

using steering::Clock;
using steering::Lock;

// What settings lines without a camera set; the defaults are the factory's.
struct Options : steering::SharedOptions {
    std::int64_t busy = 1;             // shutter.busy: 0 never, 1 the shutter, 2 every setting too
    std::int64_t focusFails = 0;       // shutter.focus_fails
    double rate = 0;                   // download.rate in MB/s; 0: as fast as it goes
    std::int64_t steps = 20;           // download.steps: progress calls after the first
    std::int64_t diskFullAfter = -1;   // download.disk_full_after, bytes; -1: never
    std::int64_t frameWidth = 320;     // evf.width
    std::int64_t frameHeight = 240;    // evf.height
    std::int64_t warmUp = 0;           // evf.warm_up: frames that are not ready after the start
    std::int64_t eventThreads = 1;     // events.threads
    std::int64_t eventsInside = 0;     // events.inside_calls
    std::int64_t eventsAtOnce = 0;     // events.at_registration
    std::int64_t eventsAtEnd = 0;      // events.at_terminate
    std::int64_t reopenCode = 0x201E;  // session.reopen_code
    std::int64_t unplugCode = 0x80;    // unplug.code
    std::int64_t sleepCode = 0x81;     // sleep.code
    std::int64_t patienceMs = 5000;    // terminate.wait_ms
    std::int64_t oneThread = 1;        // misuse.one_thread: 0 off, 1 each camera, 2 the library
};

enum class EventClass : std::uint8_t { kProperty, kObject, kState };

struct Event {
    EventClass eventClass = EventClass::kProperty;
    std::uint32_t code = 0;
    std::uint32_t property = 0;
    std::uint32_t parameter = 0;
    EdsBaseRef reference = nullptr;     // of a steered object event
    std::shared_ptr<PictureFile> file;  // of the camera's own: gets a fresh reference
    std::shared_ptr<const Bytes> bytes;
    std::shared_ptr<Connection> connection;
    Clock::time_point due{};
    bool isInside = false;  // for the calling thread, before its call returns
};

// An exposure that runs.
struct Exposure {
    std::shared_ptr<Body> body;
    std::shared_ptr<Connection> connection;  // null when the application does not use the camera
    bool isFromBody = false;
    bool isBulb = false;
    std::uint32_t quality = 0;
    scene::PictureFacts facts;
    Clock::time_point due{};
};

// The library's own threads between initialise and terminate, and what they have to do. Each
// generation has a crew of its own, so that one that was left behind cannot serve the next.
struct Crew {
    steering::LoadedWhile loaded;  // first, so that it goes last
    bool isStopping = false;
    int running = 0;                      // threads that have not ended
    int developing = 0;                   // pictures in the making
    std::list<std::thread::id> handling;  // threads that are in a handler now
    std::list<Event> events;
    std::list<Exposure> exposures;
    std::vector<std::thread> threads;
    std::vector<std::thread::id> ids;
};

// A camera call that is under way.
struct Inside {
    std::thread::id thread;
    const Body* body = nullptr;
    const char* function = nullptr;
};

// `work` is notified when there is something to do for the library's own threads.
struct World final : steering::World {
    World();

    std::condition_variable work;

    Options options;
    steering::FaultTable faults;

    std::vector<std::shared_ptr<Body>> bodies;             // by number; null: removed
    std::vector<std::shared_ptr<Connection>> connections;  // by number; null: not in use
    std::vector<std::shared_ptr<PictureFile>> files;
    ObjectTable objects;

    std::shared_ptr<Crew> crew;                  // null: not initialised
    std::vector<std::shared_ptr<Crew>> retired;  // stopped, not joined yet
    std::list<std::shared_ptr<Crew>> stopping;   // whose handlers are waited for

    unsigned epoch = 0;       // counts resets
    unsigned generation = 0;  // counts initialisations and terminations
    std::list<Inside> inside;

    // The camera of this number, null when there is none.
    std::shared_ptr<Body> body(int number) const { return steering::atNumber(bodies, number); }

    // Its connection, null while the application has none.
    std::shared_ptr<Connection> connectionOf(const Body& body) const;

    bool isInitialised() const { return crew != nullptr; }
    bool hasCameraInUse() const;
    bool isOwnThread(std::thread::id thread) const;

    // Whether the thread is in a handler that the library's termination waits for: it cannot know
    // of it, and may call as before.
    bool isAwaited(std::thread::id thread) const;

    int cameraCount() const override { return static_cast<int>(bodies.size()); }
    bool hasCamera(int number) const override { return body(number) != nullptr; }
    void addFactoryCamera() override;
    std::string describeCamera(int number) const override;
    std::string configureOwn(const std::string& key, const std::string& value, int camera) override;
    void applyOptions() override;
    bool isIdle() const override;
    bool hasThreads() const override { return crew != nullptr || !retired.empty(); }
    void unload() override;
};

World& world();

// Factory state. Cameras stay when the application holds one.
void reset(World& world);

// A new camera, plugged in.
std::shared_ptr<Body> addBody(World& world, const Bytes& name, std::uint32_t subType);

// The cable of a camera is pulled: its connection dies and the application is told.
void unplug(World& world, Body& body);

// Starts the library's threads; stops them. Stopping waits, with the lock given up, until no
// handler runs, unless it is called by a handler.
void startCrew(World& world, Lock& lock);
void stopCrew(World& world, Lock& lock);

// An event on its way to the application, subject to the event rules.
void raise(World& world, Event event);
void raiseChanges(World& world, const std::shared_ptr<Connection>& connection,
                  const Changes& changes);

// Delivers what was raised for the calling thread itself. The lock is given up meanwhile.
void deliverInside(World& world, Lock& lock);

// Begins an exposure. Returns a result code. Without the library's threads, before the application
// has initialised it, the picture is made at once, with the lock given up.
std::uint32_t press(World& world, Lock& lock, const std::shared_ptr<Body>& body, bool isFromBody);

// Ends an exposure in bulb mode.
void releaseButton(World& world, const Body& body);

// Makes the files of a picture on the calling thread; the lock is given up meanwhile. `crew` is the
// one whose thread it is, null for none.
void developPicture(World& world, Lock& lock, const Exposure& exposure, const Crew* crew);

}  // namespace virtualcanon
