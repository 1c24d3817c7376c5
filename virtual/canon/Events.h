// Events: how they come to be, and how they reach the application.
//
// All functions are called with the world's lock held.
#pragma once

#include <cstdint>
#include <list>
#include <memory>

#include "canon/Objects.h"
#include "common/World.h"

namespace virtualcanon {

using virtualcamera::Clock;
using virtualcamera::Lock;

struct World;

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

struct LibraryThreads;

// An event on its way to the application, subject to the event rules.
void raise(World& world, Event event);
void raiseChanges(World& world, const std::shared_ptr<Connection>& connection,
                  const Changes& changes);

// Delivers what was raised for the calling thread itself. The lock is given up meanwhile.
void deliverInside(World& world, Lock& lock);

// The first event that is due, for the calling thread itself or for the library's.
std::list<Event>::iterator nextEvent(LibraryThreads& libraryThreads, bool isInside);

// Calls the handler on this thread, with the lock given up.
void deliver(World& world, Lock& lock, LibraryThreads& libraryThreads, const Event& event);

}  // namespace virtualcanon
