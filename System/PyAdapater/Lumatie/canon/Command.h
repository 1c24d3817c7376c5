// The unit of work for the camera.
#pragma once

#include <optional>

#include "EdSdk.h"

namespace canon {

class CameraModel;

// One request to the camera. Owned by the processor's queue; executed on its worker thread.
class Command
{
public:
    // `model` is borrowed; the session keeps it until its last command is gone.
    explicit Command(CameraModel& model) : m_model(model) {}
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;
    virtual ~Command() = default;

    // Does the work and reports to the model's observers. Returns true when the command is
    // finished, false when it is to be tried again later.
    virtual bool execute() = 0;

    // The property that this command does nothing but set; nothing for any other command.
    virtual std::optional<EdsPropertyID> settingOf() const { return std::nullopt; }

protected:
    CameraModel& model() const { return m_model; }

    // Tells the observers what the library answered: nothing for success, "DeviceBusy" for a busy
    // camera, "error" with the code for everything else.
    void reportFailure(EdsError error) const;

private:
    CameraModel& m_model;
};

}  // namespace canon
