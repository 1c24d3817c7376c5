#include "canon/World.h"

#include <algorithm>
#include <chrono>
#include <new>

#include "canon/Codes.h"
#include "common/Platform.h"

namespace virtualcanon {

namespace {

constexpr char kFactoryName[] = "Virtual EOS";

// The world is never destroyed: at the end of the process other threads may still be in a call.
alignas(World) unsigned char g_storage[sizeof(World)];

World* g_world = nullptr;

// Ends the threads and frees what they and the application left when the library is unloaded.
struct Unloader {
    Unloader() { g_world = new (g_storage) World; }
    ~Unloader()
    {
        if (steering::kJoinsWhileUnloading) {
            unload(*g_world);
        }
    }
    Unloader(const Unloader&) = delete;
    Unloader& operator=(const Unloader&) = delete;
};

void addSettings(steering::Settings& settings, Options& options)
{
    constexpr std::int64_t kHour = 3600000;
    constexpr std::int64_t kCode = 0xFFFFFFFF;
    settings.add("shutter.lag_ms", options.lagMs, 0, kHour);
    settings.add("shutter.scale", options.exposureScale, 0.0, 1000.0);
    settings.add("shutter.busy", options.busy, 0, 2);
    settings.add("shutter.focus_fails", options.focusFails, 0, 1);
    settings.add("picture.width", options.width, 16, 6000);
    settings.add("picture.height", options.height, 16, 6000);
    settings.add("picture.size", options.jpegSize, 0, 100000000);
    settings.add("picture.raw_size", options.rawSize, 0, 100000000);
    settings.add("picture.keep", options.keptFiles, 0, 1000000);
    settings.add("picture.clock", options.clock, 0, 253402300799);
    settings.add("scene.light", options.light, -10.0, 30.0);
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
    settings.add("log.lines", options.logLines, 0, 1000000);
}

Bytes factoryName()
{
    return {std::begin(kFactoryName), std::end(kFactoryName) - 1};
}

void makeFactoryCamera(World& world)
{
    world.bodies.clear();
    world.connections.clear();
    addBody(world, factoryName(), 1);
}

// Empties a container and gives its memory back, which clear() keeps.
template <typename Container>
void freed(Container& container)
{
    Container empty;
    std::swap(container, empty);
}

}  // namespace

World::World()
{
    addSettings(settings, options);
    bodies.push_back(std::make_shared<Body>(0, factoryName(), 1));
    connections.emplace_back();
}

World& world()
{
    static const Unloader unloader;
    return *g_world;
}

std::shared_ptr<Body> World::body(int number) const
{
    const auto index = static_cast<std::size_t>(number);
    return number < 0 || index >= bodies.size() ? nullptr : bodies[index];
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
    ++world.hangEpoch;
    world.options = Options{};
    world.faults.clear();
    world.eventRules.clear();
    world.log.clear();
    world.log.keep(static_cast<std::size_t>(world.options.logLines));
    world.lastError.clear();
    world.files.clear();
    world.deliveries.clear();
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
            body->setLight(world.options.light);
        }
    }
    if (!world.hasCameraInUse()) {
        makeFactoryCamera(world);
    }
    world.changed.notify_all();
}

std::int64_t pictureTime(const World& world)
{
    if (world.options.clock != 0) {
        return world.options.clock;
    }
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

void unload(World& world)
{
    std::vector<std::shared_ptr<Crew>> crews;
    {
        Lock lock(world.mutex);
        if (world.crew != nullptr) {
            stopCrew(world, lock);
        }
        crews.swap(world.retired);
        const auto deadline = Clock::now() + std::chrono::seconds(1);
        for (const auto& crew : crews) {
            world.changed.wait_until(lock, deadline, [&] { return crew->running == 0; });
        }
        for (const auto& crew : crews) {
            for (std::thread& thread : crew->threads) {
                // A handler that never returns must not keep the process from ending.
                if (crew->running != 0) {
                    thread.detach();
                }
            }
        }
    }
    for (const auto& crew : crews) {
        for (std::thread& thread : crew->threads) {
            if (thread.joinable()) {
                thread.join();
            }
        }
    }

    const Lock lock(world.mutex);
    world.log.appendTo("");
    world.log.clear();
    world.log.forgetThreads();
    world.objects.clear();
    freed(world.files);
    freed(world.bodies);
    freed(world.connections);
    freed(world.deliveries);
    freed(world.settings);
    freed(world.faults);
    freed(world.eventRules);
    freed(world.lastError);
    freed(world.readConfiguration);
}

}  // namespace virtualcanon
