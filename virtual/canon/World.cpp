#include "canon/World.h"

#include <algorithm>

#include "canon/Cameras.h"
#include "common/Maker.h"

namespace virtualcanon {

namespace {

void addSettings(virtualcamera::Settings& settings, Options& options)
{
    constexpr std::int64_t kHour = 3600000;
    constexpr std::int64_t kCode = 0xFFFFFFFF;
    options.addTo(settings);
    settings.add("shutter.busy", options.busy, 0, 2);
    settings.add("shutter.focus_fails", options.focusFails, 0, 1);
    settings.add("transfer.steps", options.steps, 1, 100);
    settings.add("transfer.disk_full_after", options.diskFullAfter, -1, 1000000000);
    settings.add("evf.width", options.frameWidth, 16, 2000);
    settings.add("evf.height", options.frameHeight, 16, 2000);
    settings.add("evf.warm_up", options.warmUp, 0, 1000);
    settings.add("events.threads", options.eventThreads, 1, 16);
    settings.add("events.inside_calls", options.eventsInside, 0, 1);
    settings.add("events.at_registration", options.eventsAtOnce, 0, 1);
    settings.add("events.at_terminate", options.eventsAtEnd, 0, 1);
    settings.add("session.reopen_code", options.reopenCode, 0, kCode);
    settings.add("gone.code", options.goneCode, 1, kCode);
    settings.add("sleep.code", options.sleepCode, 1, kCode);
    settings.add("terminate.wait_ms", options.patienceMs, 0, kHour);
    settings.add("records.extra", options.extraBytes, 0, 256);
    settings.add("misuse.one_thread", options.oneThread, 0, 2);
}

}  // namespace

World::World()
{
    addSettings(settings, options);
    addFactoryBody(*this);
}

World& world()
{
    auto& world = virtualcamera::onlyOne<World>();
    static const virtualcamera::Unloader unloader;
    return world;
}

std::shared_ptr<Connection> World::connectionOf(const Body& body) const
{
    const auto index = static_cast<std::size_t>(body.number());
    // A body of before a reset has a number that may be another's now.
    if (index >= bodies.size() || bodies[index].get() != &body) {
        return nullptr;
    }
    return connections[index];
}

bool World::hasCameraInUse() const
{
    return std::any_of(connections.begin(), connections.end(),
                       [](const auto& connection) { return connection != nullptr; });
}

bool World::isOwnThread(std::thread::id thread) const
{
    return libraryThreads != nullptr &&
           std::find(libraryThreads->ids.begin(), libraryThreads->ids.end(), thread) !=
               libraryThreads->ids.end();
}

bool World::isAwaited(std::thread::id thread) const
{
    return std::any_of(stopping.begin(), stopping.end(), [&](const auto& ending) {
        const auto& handling = ending->handling;
        return std::find(handling.begin(), handling.end(), thread) != handling.end();
    });
}

}  // namespace virtualcanon
