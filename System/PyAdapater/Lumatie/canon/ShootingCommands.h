// Commands that release the shutter, and the one that passes a notice through the queue.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "canon/Command.h"

namespace canon {

// Takes a picture: presses the shutter button and lets it go at once. Never tried again.
class TakePictureCommand : public Command
{
public:
    using Command::Command;
    bool execute() override;
};

// Puts the shutter button into a state: 0 off, 1 halfway, 3 completely. Never tried again.
class PressShutterButtonCommand : public Command
{
public:
    PressShutterButtonCommand(CameraModel& model, std::int32_t button)
        : Command(model), m_button(button)
    {}
    bool execute() override;

private:
    std::int32_t m_button;
};

// Tells the observers `name` when its turn comes, after everything that was queued before it.
class NotifyCommand : public Command
{
public:
    NotifyCommand(CameraModel& model, std::string name) : Command(model), m_name(std::move(name)) {}
    bool execute() override;

private:
    std::string m_name;
};

}  // namespace canon
