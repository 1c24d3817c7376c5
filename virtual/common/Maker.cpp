#include "common/Maker.h"

#include <algorithm>
#include <chrono>
#include <mutex>

#include "common/Platform.h"

namespace virtualcamera {

namespace {

// Whether nothing waits or could be waited for.
bool isAtRest(const Maker& maker)
{
    const Lock lock(maker.world().mutex, std::try_to_lock);
    return lock && !maker.hasThreads();
}

}  // namespace

int waitFor(Maker& maker, int timeoutMs, const std::function<bool()>& condition)
{
    Lock lock(maker.world().mutex);
    const auto deadline = Clock::now() + std::chrono::milliseconds(std::max(0, timeoutMs));
    while (true) {
        maker.catchUp();
        if (condition()) {
            return 1;
        }
        if (Clock::now() >= deadline) {
            return 0;
        }
        maker.world().changed.wait_until(lock, std::min(deadline, maker.nextDue()));
    }
}

Unloader::Unloader() : m_process(processNumber()) {}

Unloader::~Unloader()
{
    // A forked process has a copy of the world, and none of its threads to wait for.
    const bool isCopy = m_process != processNumber();
    if (!isCopy && (kJoinsWhileUnloading || isAtRest(maker()))) {
        maker().unload();
    }
}

}  // namespace virtualcamera
