// Commands that complete later.
//
// All functions are called with the world's lock held.
#pragma once

#include <functional>
#include <memory>

#include "common/World.h"
#include "nikon/Arguments.h"
#include "nikon/CallRules.h"
#include "nikon/Objects.h"
#include "nikon/Pictures.h"
#include "nikon/Transfer.h"

namespace virtualnikon {

using virtualcamera::Clock;
using virtualcamera::Lock;

struct World;

// A command that has not completed.
struct Pending : Arguments {
    explicit Pending(const Arguments& arguments) : Arguments(arguments) {}

    ObjectRef object;
    Completion how;
    MaidResult result = 0;
    bool isReady = true;   // the work is done, the completion is due as `how` says
    bool wasLeft = false;  // the command returned before it completed
    bool isLast = false;   // the object is being closed: whatever `how` says
    Clock::time_point due{};
    std::function<MaidResult()> lateWork;
    std::shared_ptr<Exposure> exposure;  // of a capture
    std::shared_ptr<Transfer> transfer;  // of an acquisition
};

using PendingRef = std::shared_ptr<Pending>;

// Hands a command over to be completed as `pending->how` says.
void addPending(World& world, const PendingRef& pending);

// The work of a pending command is done.
void finishPending(World& world, const PendingRef& pending, MaidResult result);

// Counts a call that runs pending work, and completes what is due; the lock is given up meanwhile.
void runPending(World& world, Lock& lock);

// Completes one command now, which must not be in the list any more.
void complete(World& world, Lock& lock, const PendingRef& pending);

// Ends what is pending on an object that goes; it completes before this returns.
void abortPending(World& world, Lock& lock, const ObjectRef& object);

// Ends the library's own thread.
void stopThread(World& world, Lock& lock);

}  // namespace virtualnikon
