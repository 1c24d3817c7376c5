// A mutex with the vocabulary of wait and notify. There is no condition behind it: to notify is
// to release, and to wait is to sleep and then let the others in for an instant.
#pragma once

#include <cstdint>

#include "platform/Platform.h"

namespace canon {

// Recursive and fair, as platform::Mutex is. Thread-safe.
class Synchronized
{
public:
    Synchronized() = default;
    Synchronized(const Synchronized&) = delete;
    Synchronized& operator=(const Synchronized&) = delete;
    virtual ~Synchronized();

    // Waits for the mutex without limit; returns isLocked().
    virtual bool lock();

    // Releases the mutex; on a thread that does not own it nothing happens.
    virtual void unlock();

    // Sleeps `milliseconds` first, still holding the mutex, then releases it and takes it again.
    // A thread that waits thus keeps the others out for the whole pause. Returns as lock().
    virtual bool wait(unsigned milliseconds);

    // Releases the mutex.
    virtual void notify();

    // Whether the mutex was ever taken; unlock() does not reset this. Owner of the mutex only.
    virtual bool isLocked();

private:
    platform::Mutex m_mutex;
    std::uint8_t m_locked = 0;
};

}  // namespace canon
