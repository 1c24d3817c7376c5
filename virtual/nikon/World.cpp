#include "nikon/World.h"

#include <algorithm>
#include <cstdio>
#include <new>

#include "nikon/Codes.h"

namespace virtualnikon {

namespace {

void noteOpenObjects(World& world)
{
    std::string names;
    for (const ObjectRef& object : world.objects.all()) {
        names += " " + object->name();
    }
    if (!names.empty()) {
        world.log.misuse("unloaded with open objects:" + names);
        std::fprintf(stderr, "virtual camera: unloaded with open objects:%s\n", names.c_str());
    }
}

void addShootingSettings(steering::Settings& settings, Options& options)
{
    options.addTo(settings);
    settings.add("shutter.pending", options.capturePending, 0, 1);
    settings.add("picture.file_type", options.fileType, kRows, 65535);
    settings.add("items.remove", options.remove, 0, 2);
    settings.add("items.newest_first", options.newestFirst, 0, 1);
    settings.add("items.thumbnails", options.thumbnails, 0, 1);
}

void addModuleSettings(steering::Settings& settings, Options& options)
{
    constexpr std::int64_t kHour = 3600000;
    settings.add("transfer.chunk", options.chunk, 1, 100000000);
    settings.add("transfer.per_call", options.chunksPerCall, 0, 1000000);
    settings.add("transfer.rate", options.rate, 0.0, 1e6);
    settings.add("progress.calls", options.progress, 0, 2);
    settings.add("progress.total", options.data.progressTotal, -1, 0xFFFFFFFF);
    settings.add("complete.calls", options.completeCalls, 0, 1000000);
    settings.add("complete.ms", options.completeMs, 0, kHour);
    settings.add("complete.thread", options.completeThread, 0, 1);
    settings.add("complete.at_close", options.closeAborts, 0, 1);
    settings.add("events.in_all", options.eventsInAll, 0, 1);
    settings.add("events.on_set", options.eventsOnSet, 0, 1);
    settings.add("gone.code", options.goneCode, -0x80000000LL, 0x7FFFFFFF);
    settings.add("misuse.one_thread", options.oneThread, 0, 1);
    settings.add("misuse.data_procedure", options.dataProcedure, 0, 1);
}

void addUntruthSettings(steering::Settings& settings, Options& options)
{
    constexpr std::int64_t kMost = 0xFFFFFFFF;
    settings.add("data.total", options.data.total, -1, kMost);
    settings.add("data.total_delta", options.data.totalDelta, -kMost, kMost);
    settings.add("data.length_delta", options.data.lengthDelta, -kMost, kMost);
    settings.add("data.row_bytes", options.data.rowBytes, -1, kMost);
    settings.add("data.kind", options.data.kind, -1, kMost);
    settings.add("data.file_type", options.data.fileType, -1, kMost);
    settings.add("data.repeat", options.data.repeat, 0, 1000);
    settings.add("data.missing", options.data.missing, 0, kMost);
    settings.add("data.extra", options.data.extra, 0, 1000);
    settings.add("data.empty", options.data.empty, 0, 1000);
    settings.add("data.null", options.data.null, 0, 1);
    settings.add("data.remove_flag", options.data.remove, -1, 0xFFFF);
    settings.add("data.go_on", options.data.goOn, 0, 1);
}

}  // namespace

World::World()
{
    addShootingSettings(settings, options);
    addModuleSettings(settings, options);
    addUntruthSettings(settings, options);
    addFactoryCamera();
}

World& world()
{
    alignas(World) static unsigned char storage[sizeof(World)];
    static auto* const world = new (storage) World;
    static const steering::Unloader unloader(*world);
    return *world;
}

bool World::isIdle() const
{
    const bool isPending = std::any_of(pending.begin(), pending.end(), [](const auto& command) {
        return !command->isReady || !command->how.isNever;
    });
    return underWay == 0 && delivering == 0 && !isPending && exposures.empty() && events.empty();
}

void World::catchUp()
{
    develop(*this);
}

Clock::time_point World::nextDue() const
{
    Clock::time_point due = Clock::time_point::max();
    for (const auto& exposure : exposures) {
        due = std::min(due, exposure->due);
    }
    return due;
}

void World::addFactoryCamera()
{
    addCamera(*this, "Virtual NIKON", static_cast<std::uint32_t>(cameras.size()) + 1);
}

void World::applyOptions()
{
    log.keep(static_cast<std::size_t>(options.logLines));
    for (const auto& camera : cameras) {
        if (camera != nullptr) {
            camera->body->setLight(options.light);
        }
    }
}

void World::unload()
{
    Lock lock(mutex);
    stopThread(*this, lock);
    noteOpenObjects(*this);
    forgetShared();
    objects.clear();
    static_cast<State&>(*this) = State{};
}

std::shared_ptr<Camera> addCamera(World& world, const std::string& name, std::uint32_t id)
{
    auto camera = std::make_shared<Camera>();
    camera->body = std::make_shared<Body>(static_cast<int>(world.cameras.size()), id, name);
    camera->body->setLight(world.options.light);
    world.cameras.push_back(camera);
    return camera;
}

void plug(World& world, Camera& camera)
{
    if (camera.body->isPlugged) {
        return;
    }
    camera.body->isPlugged = true;
    ++camera.connections;
    raiseChild(world, kMaidEventAddChild, world.objects.find(kMaidLevelModule, 0),
               camera.body->id());
    world.changed.notify_all();
}

void unplug(World& world, Camera& camera)
{
    if (!camera.body->isPlugged) {
        return;
    }
    camera.body->isPlugged = false;
    for (const PendingRef& pending : std::list<PendingRef>(world.pending)) {
        const bool concerns = pending->object->camera.get() == &camera;
        if (concerns && !pending->isReady && pending->transfer == nullptr) {
            finishPending(world, pending, static_cast<MaidResult>(world.options.goneCode));
        }
    }
    raiseChild(world, kMaidEventRemoveChild, world.objects.find(kMaidLevelModule, 0),
               camera.body->id());
    world.changed.notify_all();
}

void reset(World& world)
{
    world.resetShared();
    world.options = Options{};
    world.applyOptions();
    world.untruths.clear();
    world.rules.clear();
    world.pictures.clear();
    world.untrueChildren.clear();
    world.objects.forgetClosed();
    for (const PendingRef& pending : std::list<PendingRef>(world.pending)) {
        pending->how = Completion{};
        if (pending->exposure != nullptr && !pending->isReady) {
            finishPending(world, pending, result::kAborted);
        }
    }
    world.exposures.clear();
    if (world.objects.find(kMaidLevelSource, 0) == nullptr) {
        world.cameras.clear();
        world.addFactoryCamera();
    }
    for (const auto& camera : world.cameras) {
        if (camera == nullptr) {
            continue;
        }
        camera->body->isExposing = false;
        camera->body->shots = 0;
        camera->body->files = 0;
        for (const auto& item : std::vector<std::shared_ptr<Item>>(camera->items)) {
            removeItem(world, *camera, item, false);
        }
        camera->items.clear();
    }
    world.changed.notify_all();
}

}  // namespace virtualnikon
