#include "EndsUnderWay.h"

#include <algorithm>

void EndsUnderWay::begin(std::thread::id thread)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    m_threads.push_back(thread);
}

void EndsUnderWay::finish(std::thread::id thread)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    const auto found = std::find(m_threads.begin(), m_threads.end(), thread);
    if (found != m_threads.end()) {
        m_threads.erase(found);
    }
}

bool EndsUnderWay::isAny(std::thread::id but) const
{
    const std::lock_guard<std::mutex> guard(m_lock);
    return std::any_of(m_threads.begin(), m_threads.end(),
                       [but](std::thread::id thread) { return thread != but; });
}
