// One command of the application, from its entry to its answer.
#pragma once

#include <optional>
#include <string>

#include "nikon/Arguments.h"
#include "nikon/World.h"

namespace virtualnikon {

// The entry point's arguments, and what becomes of them.
struct Command : Arguments {
    explicit Command(const Arguments& arguments) : Arguments(arguments) {}

    ObjectRef object;
    CommandFault fault;
    Completion how;
    bool isHandedOver = false;  // it will complete with the work it began

    // "CapGet", "source#1, 0x8112"
    const char* name() const { return commandName(command); }
    bool isOfCapability() const;
    bool needsCompletion() const;
};

// Does the command's work; the answer for the application.
MaidResult perform(World& world, Lock& lock, Command& command);

// The command as it waits for its completion.
PendingRef pendingOf(const Command& command, MaidResult result);

// Notes a misuse by this command.
void misuse(virtualcamera::CallLog& log, const Command& command, const std::string& text);

}  // namespace virtualnikon
