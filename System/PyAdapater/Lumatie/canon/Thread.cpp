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

bool Thread::start()
{
    try {
        m_handle = std::thread([this] { enter(); });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

void Thread::join()
{
    if (m_handle.joinable() && !runsOn(std::this_thread::get_id())) {
        m_handle.join();
    }
}

void Thread::endWith(std::function<void()> farewell)
{
    m_handle.detach();
    m_farewell = std::move(farewell);
}

void Thread::enter()
{
    m_id = std::this_thread::get_id();
    m_alive = true;
    run();
    m_alive = false;
    m_id = std::thread::id();

    const std::function<void()> farewell = std::move(m_farewell);
    if (farewell) {
        farewell();
    }
}

}  // namespace canon
