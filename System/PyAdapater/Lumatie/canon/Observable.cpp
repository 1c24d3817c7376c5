#include "canon/Observable.h"

#include <algorithm>

#include "Memory.h"
#include "ProcessHeartbeat.h"

namespace canon {

void Observable::addObserver(Observer* observer)
{
    if (std::find(m_observers.begin(), m_observers.end(), observer) == m_observers.end()) {
        m_observers.push_back(observer);
    }
}

void Observable::notifyObservers(const CameraEvent& event)
{
    ProcessHeartbeat::note();
    std::for_each(m_observers.rbegin(), m_observers.rend(),
                  [&](Observer* observer) { observer->update(this, event); });
}

void Observable::notify(const char* name)
{
    doOrGiveUp(name, [&] { notifyObservers(CameraEvent{name, nullptr}); });
}

void Observable::notify(const char* name, std::uint32_t argument)
{
    doOrGiveUp(name, [&] { notifyObservers(CameraEvent{name, &argument}); });
}

}  // namespace canon
