// Cameras that come and go.
//
// All functions are called with the world's lock held.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "nikon/Objects.h"

namespace virtualnikon {

struct World;

// A new camera, plugged in; the application is not told.
std::shared_ptr<Camera> addCamera(World& world, const std::string& name, std::uint32_t id);

// The same as the factory makes them.
void addFactoryCamera(World& world);

void plug(World& world, Camera& camera);
void unplug(World& world, Camera& camera);

}  // namespace virtualnikon
