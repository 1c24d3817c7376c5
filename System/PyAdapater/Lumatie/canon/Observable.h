// The list of observers of a camera model.
#pragma once

#include <cstdint>
#include <vector>

#include "canon/Observer.h"

namespace canon {

// Observers are not owned. Unless noted, operations belong to one thread at a time: the
// session's start, then its worker.
class Observable
{
public:
    Observable() = default;
    Observable(const Observable&) = delete;
    Observable& operator=(const Observable&) = delete;
    virtual ~Observable() = default;

    // Adds an observer, unless it is there already.
    void addObserver(Observer* observer);

    // Tells every observer, the last registered first.
    void notifyObservers(const CameraEvent& event);

    // Notifies without an argument, or with a 32-bit one. What there is no memory for, here or in
    // an observer, is not told; who notifies goes on.
    void notify(const char* name);
    void notify(const char* name, std::uint32_t argument);

private:
    std::vector<Observer*> m_observers;  // in the order of registration
};

}  // namespace canon
