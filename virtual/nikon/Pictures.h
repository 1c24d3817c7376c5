// The shutter, the pictures it makes, and the items that stand for them.
//
// All functions are called with the world's lock held.
#pragma once

#include <cstdint>
#include <memory>

#include "nikon/Objects.h"
#include "scene/Exposure.h"

namespace virtualnikon {

struct World;

// An exposure that runs.
struct Exposure : scene::Exposure {
    std::shared_ptr<Camera> camera;
    QualityParts quality;
};

// Begins an exposure; null when one runs already.
std::shared_ptr<Exposure> press(World& world, const std::shared_ptr<Camera>& camera,
                                bool isFromBody);

// Ends the camera's exposure if it is kept open; false when there is none.
bool endExposure(World& world, const Camera& camera);

// The host leaves the camera: an exposure that it keeps open ends.
void leaveExposure(World& world, const Camera& camera);

// Makes the pictures of the exposures that are over.
void develop(World& world);

// Puts a picture on a camera and lists it.
std::shared_ptr<Item> store(World& world, Camera& camera, std::uint32_t dataTypes,
                            const std::shared_ptr<Picture>& picture);

// Takes an item off a camera; with `isTold` its source is told.
void removeItem(World& world, Camera& camera, const std::shared_ptr<Item>& item, bool isTold);

}  // namespace virtualnikon
