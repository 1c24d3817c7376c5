// The signal for POSIX.
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/Platform.h"

namespace platform {

struct Signal::State {
    std::mutex guard;
    std::condition_variable changed;
    bool isSet = false;  // guarded by `guard`
};

Signal::Signal() : m_state(std::make_unique<State>()) {}

Signal::~Signal() = default;

void Signal::set()
{
    // Notified with the lock held: whoever waited may destroy the signal as soon as it is given up.
    const std::lock_guard<std::mutex> guard(m_state->guard);
    m_state->isSet = true;
    m_state->changed.notify_all();
}

void Signal::wait()
{
    std::unique_lock<std::mutex> guard(m_state->guard);
    m_state->changed.wait(guard, [&] { return m_state->isSet; });
}

bool Signal::waitFor(unsigned milliseconds)
{
    std::unique_lock<std::mutex> guard(m_state->guard);
    return m_state->changed.wait_for(guard, std::chrono::milliseconds(milliseconds),
                                     [&] { return m_state->isSet; });
}

}  // namespace platform
