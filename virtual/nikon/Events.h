// Events: how they come to be, and how they reach the application.
//
// All functions are called with the world's lock held.
#pragma once

#include <cstdint>
#include <memory>

#include "common/World.h"
#include "nikon/Objects.h"

namespace virtualnikon {

using virtualcamera::Clock;
using virtualcamera::Lock;

struct World;

// An event on its way to the application.
struct Event {
    std::weak_ptr<Object> object;
    std::uint32_t code = 0;
    std::uint64_t parameter = 0;
    Clock::time_point due{};
    std::shared_ptr<Item> item;  // whose appearance it tells of
    bool isForced = false;       // a test wants it whatever is open already
    bool hasReference = false;   // `reference` in place of the procedure's own
    MaidReference reference = nullptr;
};

// An event for an open object, subject to the event rules.
void raise(World& world, Event event);

// The application may open the child that this event tells of, even if there is none.
void noteInventedChild(World& world, const Event& event);

// What a change on a camera's body means for the application.
void raiseChanges(World& world, const Camera& camera, const Changes& changes);

// The descriptors of a level are told differently from now on.
void raiseDescriptorChange(World& world, std::uint32_t level);

// Tells the parent of a child that came or went, if it is open.
void raiseChild(World& world, std::uint32_t code, const ObjectRef& parent, std::uint32_t id,
                const std::shared_ptr<Item>& item = nullptr);

// Calls the event procedures of what is due, on this thread; the lock is given up meanwhile.
void deliverEvents(World& world, Lock& lock);

}  // namespace virtualnikon
