// Turns what a camera model announces into the host's events.
#pragma once

#include <memory>

#include "canon/Observer.h"

class EventReceiver;
class PyCallback;

namespace canon {

class CameraModel;

// The observer through which a session's model reaches the host, as long as the host is served by
// Canon. On the worker.
class HostReporter final : public Observer
{
public:
    explicit HostReporter(std::shared_ptr<EventReceiver> receiver);

    void update(Observable* from, const CameraEvent& event) override;

private:
    const std::shared_ptr<EventReceiver> m_receiver;
};

// Sends the callback event, if any, that belongs to `event` of `model`, after a line in the debug
// log. Called on the thread that notifies, which is the session's worker.
void reportToHost(PyCallback& callback, const CameraModel& model, const CameraEvent& event);

}  // namespace canon
