// Exposures, and the files that come of them.
//
// All functions are called with the world's lock held.
#pragma once

#include <cstdint>
#include <memory>

#include "canon/Objects.h"
#include "common/World.h"
#include "scene/Exposure.h"

namespace virtualcanon {

using virtualcamera::Lock;

struct World;

// An exposure that runs.
struct Exposure : scene::Exposure {
    std::shared_ptr<Body> body;
    std::shared_ptr<Connection> connection;  // null when the application does not use the camera
    bool endsWithButton = false;             // bulb: when the host lets the button go
    std::uint32_t quality = 0;
};

struct LibraryThreads;

// Begins an exposure. Returns a result code. Without the library's threads, before the application
// has initialised it, the picture is made at once, with the lock given up.
std::uint32_t press(World& world, Lock& lock, const std::shared_ptr<Body>& body, bool isFromBody);

// The host lets the button go: an exposure in bulb mode ends.
void releaseButton(World& world, const Body& body);

// Ends the exposure that is kept open; false when there is none.
bool endExposure(World& world, const Body& body);

// The host leaves the camera: an exposure that it keeps open ends.
void leaveExposure(World& world, const Body& body);

// Makes the files of a picture on the calling thread; the lock is given up meanwhile.
// `libraryThreads` is the one whose thread it is, null for none.
void developPicture(World& world, Lock& lock, const Exposure& exposure,
                    const LibraryThreads* libraryThreads);

}  // namespace virtualcanon
