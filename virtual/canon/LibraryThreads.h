// The library's own threads.
//
// All functions are called with the world's lock held.
#pragma once

#include <list>
#include <thread>
#include <vector>

#include "canon/Events.h"
#include "canon/Pictures.h"
#include "common/Platform.h"

namespace virtualcanon {

struct World;

// The library's own threads between initialise and terminate, and what they have to do. Each
// generation has threads of its own, so that one that was left behind cannot serve the next.
struct LibraryThreads {
    virtualcamera::LoadedWhile loaded;  // first, so that it goes last
    bool isStopping = false;
    int running = 0;                      // threads that have not ended
    int developing = 0;                   // pictures in the making
    std::list<std::thread::id> handling;  // threads that are in a handler now
    std::list<Event> events;
    std::list<Exposure> exposures;
    std::vector<std::thread> all;
    std::vector<std::thread::id> ids;
};

// Starts the library's threads; stops them. Stopping waits, with the lock given up, until no
// handler runs, unless it is called by a handler.
void startThreads(World& world, Lock& lock);
void stopThreads(World& world, Lock& lock);

}  // namespace virtualcanon
