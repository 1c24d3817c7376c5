#include "canon/Cameras.h"

#include <string_view>

#include "canon/Codes.h"
#include "canon/World.h"

namespace virtualcanon {

std::shared_ptr<Body> addBody(World& world, const Bytes& name, std::uint32_t subType)
{
    const auto number = static_cast<int>(world.bodies.size());
    world.bodies.push_back(std::make_shared<Body>(number, name, subType));
    world.bodies.back()->setLight(world.options.light);
    world.connections.emplace_back();
    return world.bodies.back();
}

void addFactoryBody(World& world)
{
    const std::string_view name = "Virtual EOS";
    addBody(world, Bytes(name.begin(), name.end()), 1);
}

void unplug(World& world, Body& body)
{
    body.isPlugged = false;
    endExposure(world, body);
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

}  // namespace virtualcanon
