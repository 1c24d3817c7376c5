// The entrance to everything that is done with a Canon camera.
#pragma once

#include <memory>
#include <string>

#include "canon/ActionEvent.h"
#include "canon/CameraModel.h"
#include "canon/Processor.h"

namespace canon {

// Turns named actions into commands and posts them to its processor; never calls the library
// itself. The action names and what they do are the table in CameraController.cpp.
class CameraController : public ActionListener
{
public:
    // `model` is borrowed; it must outlive the controller's worker.
    explicit CameraController(CameraModel& model);

    // Carries out one action; an unknown name does nothing. Any thread. Returns as soon as the
    // command is posted, except for "closing", which returns when the worker has ended. Throws
    // std::bad_alloc when there is no memory for the command; a picture is given back then.
    void actionPerformed(const ActionEvent& event) override;

    // The first half of "closing": has the worker close the session and end, and does not wait.
    // Takes no memory.
    void requestClose();

    // The queue and its worker, which the session's start starts.
    Processor& processor() { return m_processor; }

private:
    CameraModel& m_model;
    Processor m_processor;
    std::unique_ptr<Command> m_closeCommand;  // until the first end; made when there was memory
};

}  // namespace canon
