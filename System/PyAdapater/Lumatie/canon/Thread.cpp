#include "canon/Thread.h"

#include <system_error>
#include <utility>

namespace canon {

Thread::~Thread()
{
    if (m_handle.joinable()) {
        m_handle.detach();
    }
}

bool Thread::start(std::shared_ptr<void> keep)
{
    try {
        m_handle = std::thread([this, keep = std::move(keep)] { enter(); });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

void Thread::join()
{
    if (runsOn(std::this_thread::get_id()) || !m_handle.joinable()) {
        return;
    }
    m_left.wait();
    if (m_forGood) {
        m_handle.detach();
    } else {
        m_handle.join();
    }
}

bool Thread::endWith(std::function<void()> farewell)
{
    if (!m_handle.joinable()) {
        return false;
    }
    m_handle.detach();
    m_farewell = std::move(farewell);
    return true;
}

void Thread::leaveForGood()
{
    m_forGood = true;
    sayFarewell();
    const std::shared_ptr<void> last = std::move(m_last);
    m_left.set();
}

void Thread::enter()
{
    std::shared_ptr<void> last;
    {
        const platform::ComApartment apartment;
        m_id = std::this_thread::get_id();
        m_alive = true;
        run();
        sayFarewell();
        last = std::move(m_last);
    }
    m_left.set();
}

void Thread::sayFarewell()
{
    m_alive = false;
    m_id = std::thread::id();
    const std::function<void()> farewell = std::exchange(m_farewell, nullptr);
    if (farewell) {
        farewell();
    }
}

}  // namespace canon
