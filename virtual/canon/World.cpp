#include "canon/World.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <string_view>

#include "canon/Codes.h"

namespace virtualcanon {

namespace {

void addSettings(steering::Settings& settings, Options& options)
{
    constexpr std::int64_t kHour = 3600000;
    constexpr std::int64_t kCode = 0xFFFFFFFF;
    options.addTo(settings);
    settings.add("shutter.busy", options.busy, 0, 2);
    settings.add("shutter.focus_fails", options.focusFails, 0, 1);
    settings.add("download.rate", options.rate, 0.0, 1e6);
    settings.add("download.steps", options.steps, 1, 100);
    settings.add("download.disk_full_after", options.diskFullAfter, -1, 1000000000);
    settings.add("evf.width", options.frameWidth, 16, 2000);
    settings.add("evf.height", options.frameHeight, 16, 2000);
    settings.add("evf.warm_up", options.warmUp, 0, 1000);
    settings.add("events.threads", options.eventThreads, 1, 16);
    settings.add("events.inside_calls", options.eventsInside, 0, 1);
    settings.add("events.at_registration", options.eventsAtOnce, 0, 1);
    settings.add("events.at_terminate", options.eventsAtEnd, 0, 1);
    settings.add("session.reopen_code", options.reopenCode, 0, kCode);
    settings.add("unplug.code", options.unplugCode, 1, kCode);
    settings.add("sleep.code", options.sleepCode, 1, kCode);
    settings.add("terminate.wait_ms", options.patienceMs, 0, kHour);
    settings.add("misuse.one_thread", options.oneThread, 0, 2);
}

}  // namespace

World::World()
{
    addSettings(settings, options);
    addFactoryCamera();
}

World& world()
{
    alignas(World) static unsigned char storage[sizeof(World)];
    static auto* const world = new (storage) World;
    static const steering::Unloader unloader(*world);
    return *world;
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

bool World::isIdle() const
{
    if (underWay != 0) {
        return false;
    }
    return crew == nullptr || (crew->events.empty() && crew->exposures.empty() &&
                               crew->handling.empty() && crew->developing == 0);
}

bool World::isOwnThread(std::thread::id thread) const
{
    return crew != nullptr &&
           std::find(crew->ids.begin(), crew->ids.end(), thread) != crew->ids.end();
}

bool World::isAwaited(std::thread::id thread) const
{
    return std::any_of(stopping.begin(), stopping.end(), [&](const auto& ending) {
        const auto& handling = ending->handling;
        return std::find(handling.begin(), handling.end(), thread) != handling.end();
    });
}

void World::addFactoryCamera()
{
    const std::string_view name = "Virtual EOS";
    addBody(*this, Bytes(name.begin(), name.end()), 1);
}

void World::applyOptions()
{
    log.keep(static_cast<std::size_t>(options.logLines));
    for (const auto& body : bodies) {
        if (body != nullptr) {
            body->setLight(options.light);
        }
    }
}

std::shared_ptr<Body> addBody(World& world, const Bytes& name, std::uint32_t subType)
{
    const auto number = static_cast<int>(world.bodies.size());
    world.bodies.push_back(std::make_shared<Body>(number, name, subType));
    world.bodies.back()->setLight(world.options.light);
    world.connections.emplace_back();
    return world.bodies.back();
}

void unplug(World& world, Body& body)
{
    body.isPlugged = false;
    const std::shared_ptr<Connection> connection = world.connectionOf(body);
    if (connection == nullptr) {
        return;
    }
    Event event;
    event.eventClass = EventClass::kState;
    event.code = event::kShutdown;
    event.connection = connection;
    raise(world, event);
    connection->isAlive = false;
    connection->isOpen = false;
    world.connections[static_cast<std::size_t>(body.number())] = nullptr;
    world.changed.notify_all();
}

void reset(World& world)
{
    ++world.epoch;
    world.resetShared();
    world.options = Options{};
    world.applyOptions();
    world.faults.clear();
    world.files.clear();
    if (world.crew != nullptr) {
        world.crew->exposures.clear();
    }
    for (const auto& body : world.bodies) {
        if (body != nullptr) {
            body->exposures = 0;
            body->isBulbOpen = false;
            body->isAsleep = false;
            body->shots = 0;
            body->files = 0;
            body->pictureName.clear();
        }
    }
    if (!world.hasCameraInUse()) {
        world.bodies.clear();
        world.connections.clear();
        world.addFactoryCamera();
    }
    world.changed.notify_all();
}

void World::unload()
{
    std::vector<std::shared_ptr<Crew>> crews;
    {
        Lock lock(mutex);
        if (crew != nullptr) {
            stopCrew(*this, lock);
        }
        crews.swap(retired);
        const auto deadline = Clock::now() + std::chrono::seconds(1);
        for (const auto& old : crews) {
            changed.wait_until(lock, deadline, [&] { return old->running == 0; });
        }
        for (const auto& old : crews) {
            for (std::thread& thread : old->threads) {
                // A handler that never returns must not keep the process from ending.
                if (old->running != 0) {
                    thread.detach();
                }
            }
        }
    }
    for (const auto& old : crews) {
        for (std::thread& thread : old->threads) {
            if (thread.joinable()) {
                thread.join();
            }
        }
    }

    const Lock lock(mutex);
    forgetShared();
    objects.clear();
    steering::forget(files);
    steering::forget(bodies);
    steering::forget(connections);
    steering::forget(faults);
}

}  // namespace virtualcanon
