// A picture's way to the application, in parts.
//
// All functions are called with the world's lock held.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "common/World.h"
#include "nikon/Objects.h"

namespace virtualnikon {

using virtualcamera::Clock;
using virtualcamera::Lock;

struct Options;
struct World;

// One part of a transfer as it is told.
struct Part {
    std::size_t offset = 0;
    std::size_t size = 0;
    std::uint32_t length = 0;  // bytes, or rows
};

struct Pending;

// A picture on its way to the application.
struct Transfer {
    std::shared_ptr<Picture> picture;
    std::shared_ptr<const Bytes> bytes;
    std::vector<Part> parts;
    std::size_t next = 0;
    std::uint32_t total = 0;  // bytes, or rows
    std::uint32_t done = 0;
    std::uint32_t rowBytes = 0;
    std::uint32_t kind = 0;
    std::uint32_t fileType = 0;
    std::uint32_t removeFlag = 0;
    bool isImage = false;   // the picture itself, not its thumbnail
    bool isInside = false;  // in the application's procedure
    Clock::time_point start{};
};

// What is known of a transfer before it begins.
std::shared_ptr<Transfer> planTransfer(const Options& options, const Object& data);

// Delivers the parts that are due; the lock is given up meanwhile. With `isWhole` all of them.
void runTransfer(World& world, Lock& lock, const std::shared_ptr<Pending>& pending, bool isWhole);

// Calls the progress procedure of an object, if it has one; the lock is given up meanwhile.
void showProgress(World& world, Lock& lock, const Object& object, std::uint32_t command,
                  std::uint32_t parameter, std::uint32_t done, std::uint32_t total);

}  // namespace virtualnikon
