#include "canon/Synchronized.h"

namespace canon {

Synchronized::~Synchronized()
{
    m_mutex.unlock();
}

bool Synchronized::lock()
{
    if (m_mutex.lock()) {
        m_locked = 1;
    }
    return m_locked != 0;
}

void Synchronized::unlock()
{
    m_mutex.unlock();
}

bool Synchronized::wait(unsigned milliseconds)
{
    platform::sleepFor(milliseconds);
    if (isLocked()) {
        unlock();
    }
    return lock();
}

void Synchronized::notify()
{
    if (isLocked()) {
        unlock();
    }
}

bool Synchronized::isLocked()
{
    return m_locked != 0;
}

}  // namespace canon
