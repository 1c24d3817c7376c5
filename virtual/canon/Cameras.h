// Cameras that come and go.
//
// All functions are called with the world's lock held.
#pragma once

#include <cstdint>
#include <memory>

#include "canon/Body.h"

namespace virtualcanon {

struct World;

// A new camera, plugged in.
std::shared_ptr<Body> addBody(World& world, const Bytes& name, std::uint32_t subType);

// The same as the factory makes them.
void addFactoryBody(World& world);

// The cable of a camera is pulled: its connection dies and the application is told.
void unplug(World& world, Body& body);

}  // namespace virtualcanon
