// The fair recursive mutex for POSIX: ownership is handed to the longest waiter on release.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/Platform.h"

namespace platform {

namespace {

struct Waiter {
    std::thread::id thread;
    std::condition_variable granted;
    Waiter* next = nullptr;  // has waited less long
};

// The longest waiter comes first. A chain, because waiting must take no memory.
class Waiters
{
public:
    bool empty() const { return m_first == nullptr; }

    void append(Waiter& waiter)
    {
        Waiter** end = &m_first;
        while (*end != nullptr) {
            end = &(*end)->next;
        }
        *end = &waiter;
    }

    // Takes out a waiter that is there.
    void remove(const Waiter& waiter)
    {
        Waiter** place = &m_first;
        while (*place != &waiter) {
            place = &(*place)->next;
        }
        *place = waiter.next;
    }

    Waiter& takeFirst()
    {
        Waiter& first = *m_first;
        m_first = first.next;
        return first;
    }

private:
    Waiter* m_first = nullptr;
};

}  // namespace

struct Mutex::State {
    std::mutex guard;  // guards the fields below; held for a few instructions only
    std::thread::id owner;
    unsigned depth = 0;
    Waiters waiters;  // each lives on its thread's stack
};

Mutex::Mutex() : m_state(std::make_unique<State>()) {}

Mutex::~Mutex() = default;

bool Mutex::lock()
{
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> guard(m_state->guard);

    if (m_state->depth == 0) {
        m_state->owner = self;
    } else if (m_state->owner != self) {
        Waiter waiter{self, {}};
        m_state->waiters.append(waiter);
        waiter.granted.wait(guard, [&] { return m_state->owner == self; });
        return true;
    }
    ++m_state->depth;
    return true;
}

bool Mutex::lockFor(unsigned milliseconds)
{
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> guard(m_state->guard);

    if (m_state->depth == 0) {
        m_state->owner = self;
    } else if (m_state->owner != self) {
        Waiter waiter{self, {}};
        m_state->waiters.append(waiter);
        const bool granted = waiter.granted.wait_for(guard, std::chrono::milliseconds(milliseconds),
                                                     [&] { return m_state->owner == self; });
        if (!granted) {
            m_state->waiters.remove(waiter);
        }
        return granted;
    }
    ++m_state->depth;
    return true;
}

bool Mutex::unlock()
{
    const std::lock_guard<std::mutex> guard(m_state->guard);
    if (m_state->depth == 0 || m_state->owner != std::this_thread::get_id()) {
        return false;
    }
    if (--m_state->depth > 0) {
        return true;
    }
    if (m_state->waiters.empty()) {
        m_state->owner = {};
        return true;
    }

    // The next owner is named before anybody else can come in: that is what makes it fair.
    Waiter& next = m_state->waiters.takeFirst();
    m_state->owner = next.thread;
    m_state->depth = 1;
    next.granted.notify_one();
    return true;
}

}  // namespace platform
