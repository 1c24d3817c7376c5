#include "SessionEnds.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <vector>

#include "OfProcess.h"
#include "ProcessHeartbeat.h"
#include "PyCallback.h"
#include "platform/Platform.h"

namespace {

using namespace std::chrono_literals;

// How long the interpreter's end waits for sessions that give no sign of life.
constexpr auto kExitPatience = 10s;

struct Registry {
    std::mutex lock;  // guards `ends`; held for a moment only
    std::vector<std::weak_ptr<SessionEnd>> ends;
};

Registry& registry()
{
    return ofThisProcess<Registry>();
}

// The first end that `matches`; null when none does. Runs it with the lock held.
template <typename Matches>
std::shared_ptr<SessionEnd> findEnd(Matches matches)
{
    Registry& all = registry();
    const std::lock_guard<std::mutex> guard(all.lock);
    for (const auto& known : all.ends) {
        std::shared_ptr<SessionEnd> end = known.lock();
        if (end && matches(*end)) {
            return end;
        }
    }
    return nullptr;
}

// Whether an end is under way that the calling thread can wait for.
template <typename Matters>
bool isAnyToAwait(Matters matters)
{
    return findEnd([&](const SessionEnd& end) {
               return end.m_begun && !end.m_leftBehind &&
                      end.m_runner != std::this_thread::get_id() && matters(end);
           }) != nullptr;
}

}  // namespace

std::uint64_t SessionEnds::newOwner()
{
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

void SessionEnds::add(const std::shared_ptr<SessionEnd>& end)
{
    Registry& all = registry();
    const std::lock_guard<std::mutex> guard(all.lock);
    all.ends.erase(std::remove_if(all.ends.begin(), all.ends.end(),
                                  [](const auto& known) { return known.expired(); }),
                   all.ends.end());
    all.ends.push_back(end);
}

std::shared_ptr<Tethering> SessionEnds::anyLive()
{
    std::shared_ptr<Tethering> tethering;
    findEnd([&](const SessionEnd& end) {
        tethering = end.m_begun ? nullptr : end.m_tethering.lock();
        return tethering != nullptr;
    });
    return tethering;
}

void SessionEnds::await(std::uint64_t owner)
{
    const bool isInsideCall = PyCallback::isInsideCall();
    while (isAnyToAwait([&](const SessionEnd& end) {
        return end.m_owner == owner && !(isInsideCall && end.m_receiver->isCalling());
    })) {
        platform::sleepFor(1);
    }
}

void SessionEnds::awaitAllPatiently()
{
    unsigned steps = ProcessHeartbeat::count();
    auto lastSign = std::chrono::steady_clock::now();
    while (isAnyToAwait([](const SessionEnd& /*end*/) { return true; })) {
        platform::sleepFor(1);
        const auto now = std::chrono::steady_clock::now();
        if (steps != ProcessHeartbeat::count()) {
            steps = ProcessHeartbeat::count();
            lastSign = now;
        } else if (now - lastSign > kExitPatience) {
            findEnd([](SessionEnd& end) {
                end.m_leftBehind = end.m_begun.load();
                return false;
            });
        }
    }
}
