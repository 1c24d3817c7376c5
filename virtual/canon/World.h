// Everything the library knows, behind one lock.
#pragma once

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "canon/Body.h"
#include "canon/Objects.h"
#include "common/CallLog.h"
#include "common/Rules.h"
#include "common/Settings.h"

namespace virtualcanon {

using steering::Clock;
using Lock = std::unique_lock<std::mutex>;

// What settings lines without a camera set; the defaults are the factory's.
struct Options {
    std::int64_t lagMs = 5;            // shutter.lag_ms
    double exposureScale = 0;          // shutter.scale
    std::int64_t busy = 1;             // shutter.busy: 0 never, 1 the shutter, 2 every setting too
    std::int64_t focusFails = 0;       // shutter.focus_fails
    std::int64_t width = 640;          // picture.width
    std::int64_t height = 480;         // picture.height
    std::int64_t jpegSize = 0;         // picture.size, 0: as it comes
    std::int64_t rawSize = 0;          // picture.raw_size, 0: as it comes
    std::int64_t keptFiles = 64;       // picture.keep
    std::int64_t clock = 0;            // picture.clock, seconds since 1970; 0: the real time
    double light = 10;                 // scene.light
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
    std::int64_t logLines = 10000;     // log.lines
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

// All members are guarded by `mutex`. `changed` is notified after every change that a test or a
// call may wait for, `work` when there is something to do for the library's own threads. No handler
// and no callback is called with the lock held.
struct World {
    World();

    std::mutex mutex;
    std::condition_variable changed;
    std::condition_variable work;

    Options options;
    steering::Settings settings;
    steering::FaultTable faults;
    steering::EventTable eventRules;
    steering::CallLog log;
    std::string lastError;
    std::string readConfiguration;  // the text file that was read last

    std::vector<std::shared_ptr<Body>> bodies;             // by number; null: removed
    std::vector<std::shared_ptr<Connection>> connections;  // by number; null: not in use
    std::vector<std::shared_ptr<PictureFile>> files;
    ObjectTable objects;

    std::shared_ptr<Crew> crew;                  // null: not initialised
    std::vector<std::shared_ptr<Crew>> retired;  // stopped, not joined yet

    unsigned epoch = 0;       // counts resets
    unsigned hangEpoch = 0;   // counts releases of hanging calls
    unsigned generation = 0;  // counts initialisations and terminations
    int underWay = 0;         // calls that have not returned
    std::list<Inside> inside;
    std::list<std::string> hanging;           // functions
    std::map<std::uint32_t, int> deliveries;  // by event code

    // The camera of this number, null when there is none.
    std::shared_ptr<Body> body(int number) const;

    // Its connection, null while the application has none.
    std::shared_ptr<Connection> connectionOf(const Body& body) const;

    bool isInitialised() const { return crew != nullptr; }
    bool hasCameraInUse() const;
    bool isIdle() const;
    bool isOwnThread(std::thread::id thread) const;
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

// Ends what is left when the library is unloaded.
void unload(World& world);

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

// One setting, or one line of a settings text for a camera. Returns why not, empty when it is done.
std::string configure(World& world, const std::string& key, const std::string& value,
                      const std::shared_ptr<Body>& body);

// A whole settings text. Returns 0, or the number of the first bad line.
int configure(World& world, const std::string& text);

// All settings as text.
std::string describeSettings(const World& world);

// Reads the text file and opens the log file that the environment names, if they are others than
// before.
void readEnvironment(World& world);

// The time that pictures carry, in seconds since 1970.
std::int64_t pictureTime(const World& world);

}  // namespace virtualcanon
