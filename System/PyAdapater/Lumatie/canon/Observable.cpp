#include "canon/Observable.h"

#include <algorithm>
#include <atomic>

#include "SignsOfLife.h"

namespace canon {

namespace {

std::atomic<bool> g_silent{false};

}  // namespace

void Observable::addObserver(Observer* observer)
{
    if (std::find(m_observers.begin(), m_observers.end(), observer) == m_observers.end()) {
        m_observers.push_back(observer);
    }
}

void Observable::removeObserver(Observer* observer)
{
    m_observers.erase(std::remove(m_observers.begin(), m_observers.end(), observer),
                      m_observers.end());
}

void Observable::notifyObservers(const CameraEvent& event)
{
    giveSignOfLife();
    // By index, and looked at anew in each round: an observer may remove itself meanwhile.
    for (std::size_t i = m_observers.size(); i-- > 0;) {
        if (!g_silent && i < m_observers.size()) {
            m_observers[i]->update(this, event);
        }
    }
}

void Observable::notify(const char* name)
{
    notifyObservers(CameraEvent{name, nullptr});
}

void Observable::notify(const char* name, std::uint32_t argument)
{
    notifyObservers(CameraEvent{name, &argument});
}

void Observable::silenceAll()
{
    g_silent = true;
}

}  // namespace canon
