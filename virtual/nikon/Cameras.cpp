#include "nikon/Cameras.h"

#include <list>

#include "nikon/World.h"

namespace virtualnikon {

std::shared_ptr<Camera> addCamera(World& world, const std::string& name, std::uint32_t id)
{
    auto camera = std::make_shared<Camera>();
    camera->body = std::make_shared<Body>(static_cast<int>(world.cameras.size()), id, name);
    camera->body->setLight(world.options.light);
    world.cameras.push_back(camera);
    return camera;
}

void addFactoryCamera(World& world)
{
    addCamera(world, "Virtual NIKON", static_cast<std::uint32_t>(world.cameras.size()) + 1);
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
    endExposure(world, camera);
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

}  // namespace virtualnikon
