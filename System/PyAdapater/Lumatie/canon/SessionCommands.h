// Commands that open and close the session with the camera.
#pragma once

#include "EdSdk.h"
#include "canon/Command.h"

namespace canon {

// Opens the session and has the camera hand every new picture to the host. Tried again until it
// succeeds.
class OpenSessionCommand : public Command
{
public:
    using Command::Command;
    bool execute() override;

private:
    EdsError open();
};

// Closes the session: the last command of every worker. Never tried again.
class CloseSessionCommand : public Command
{
public:
    using Command::Command;
    bool execute() override;
};

}  // namespace canon
