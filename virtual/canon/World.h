// Everything the library knows, behind one lock.
#pragma once

#include <condition_variable>
#include <list>
#include <memory>
#include <thread>
#include <vector>

#include "canon/Body.h"
#include "canon/Events.h"
#include "canon/Faults.h"
#include "canon/LibraryThreads.h"
#include "canon/Objects.h"
#include "canon/Pictures.h"
#include "common/World.h"

namespace virtualcanon {

// What settings lines without a camera set; the defaults are the factory's.
struct Options : virtualcamera::SharedOptions {
    std::int64_t busy = 1;             // shutter.busy: 0 never, 1 the shutter, 2 every setting too
    std::int64_t focusFails = 0;       // shutter.focus_fails
    std::int64_t steps = 20;           // transfer.steps: progress calls after the first
    std::int64_t diskFullAfter = -1;   // transfer.disk_full_after, bytes; -1: never
    std::int64_t frameWidth = 320;     // evf.width
    std::int64_t frameHeight = 240;    // evf.height
    std::int64_t warmUp = 0;           // evf.warm_up: frames that are not ready after the start
    std::int64_t eventThreads = 1;     // events.threads
    std::int64_t eventsInside = 0;     // events.inside_calls
    std::int64_t eventsAtOnce = 0;     // events.at_registration
    std::int64_t eventsAtEnd = 0;      // events.at_terminate
    std::int64_t reopenCode = 0x201E;  // session.reopen_code
    std::int64_t goneCode = 0x80;      // gone.code
    std::int64_t sleepCode = 0x81;     // sleep.code
    std::int64_t patienceMs = 5000;    // terminate.wait_ms
    std::int64_t extraBytes = 0;       // records.extra
    std::int64_t oneThread = 1;        // misuse.one_thread: 0 off, 1 each camera, 2 the library
};

// A camera call that is under way.
struct CallUnderWay {
    std::thread::id thread;
    const Body* body = nullptr;
    const char* function = nullptr;
};

// `work` is notified when there is something to do for the library's own threads.
struct World final : virtualcamera::World {
    World();

    std::condition_variable work;

    Options options;
    FaultTable faults;

    std::vector<std::shared_ptr<Body>> bodies;             // by number; null: removed
    std::vector<std::shared_ptr<Connection>> connections;  // by number; null: not in use
    std::vector<std::shared_ptr<PictureFile>> files;
    ObjectTable objects;

    std::shared_ptr<LibraryThreads> libraryThreads;        // null: not initialised
    std::vector<std::shared_ptr<LibraryThreads>> retired;  // stopped, not joined yet
    std::list<std::shared_ptr<LibraryThreads>> stopping;   // whose handlers are waited for

    unsigned epoch = 0;       // counts resets
    unsigned generation = 0;  // counts initialisations and terminations
    std::list<CallUnderWay> callsUnderWay;

    // The camera of this number, null when there is none.
    std::shared_ptr<Body> body(int number) const { return virtualcamera::atNumber(bodies, number); }

    // The same of a camera that there is.
    const std::shared_ptr<Body>& existing(int number) const
    {
        return bodies[static_cast<std::size_t>(number)];
    }

    // Its connection, null while the application has none.
    std::shared_ptr<Connection> connectionOf(const Body& body) const;

    bool isInitialised() const { return libraryThreads != nullptr; }
    bool hasCameraInUse() const;
    bool isOwnThread(std::thread::id thread) const;

    // Whether the thread is in a handler that the library's termination waits for: it cannot know
    // of it, and may call as before.
    bool isAwaited(std::thread::id thread) const;
};

World& world();

}  // namespace virtualcanon
