// Commands for live view, the camera's electronic viewfinder, and for the lens.
#pragma once

#include <cstdint>

#include "EdSdk.h"
#include "canon/Command.h"

namespace canon {

// One live-view frame: the argument of "EvfDataChanged".
struct EvfFrame {
    EdsStreamRef stream;  // the image data; borrowed, valid during the notification only
    std::uint32_t zoom;
    EdsRect zoomRect;
    EdsPoint position;
    std::uint32_t histogram[1024];  // brightness, red, green, blue: 256 counts each
    EdsSize coordinateSystem;
};

// Switches live view on. A busy camera is asked again.
class StartEvfCommand : public Command
{
public:
    using Command::Command;
    bool execute() override;
};

// Switches live view off. Unlike the start it is tried again after every error.
class EndEvfCommand : public Command
{
public:
    using Command::Command;
    bool execute() override;

private:
    EdsError end();
};

// Fetches one frame, stores where it lies in the model and announces "EvfDataChanged". Does
// nothing while live view is off; tried again when the camera is busy or has no frame yet.
class DownloadEvfCommand : public Command
{
public:
    using Command::Command;
    bool execute() override;

private:
    void readFrame(EdsStreamRef stream, EdsEvfImageRef image);
};

// Moves the focus: 1 to 3 nearer, 0x8001 to 0x8003 farther. Never tried again.
class DriveLensCommand : public Command
{
public:
    DriveLensCommand(CameraModel& model, std::int32_t drive) : Command(model), m_drive(drive) {}
    bool execute() override;

private:
    std::int32_t m_drive;
};

// Switches the live-view autofocus: 1 on, 0 off. Never tried again.
class DoEvfAFCommand : public Command
{
public:
    DoEvfAFCommand(CameraModel& model, std::int32_t on) : Command(model), m_on(on) {}
    bool execute() override;

private:
    std::int32_t m_on;
};

}  // namespace canon
