// How a camera model tells what changed: events by name.
#pragma once

#include <string>

namespace canon {

class Observable;

// One notification. Lives during the `update` calls only.
struct CameraEvent {
    std::string name;           // e.g. "PropertyChanged"
    const void* arg = nullptr;  // the event's argument or null; valid during `update` only
};

// Somebody who is told. `update` runs on the thread that notifies.
class Observer
{
public:
    Observer() = default;
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;
    virtual void update(Observable* from, const CameraEvent& event) = 0;
    virtual ~Observer() = default;
};

}  // namespace canon
