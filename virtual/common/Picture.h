// A picture that a camera made, as the steering interface tells of it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace virtualcamera {

// Who wanted the picture.
enum class Origin : std::uint8_t { kHost, kBody, kTest };

// Not thread-safe: the world guards it.
struct Picture {
    using Fields = std::vector<std::pair<const char*, std::int64_t>>;

    Picture() = default;
    virtual ~Picture() = default;
    Picture(const Picture&) = delete;
    Picture& operator=(const Picture&) = delete;

    int shot = 0;  // counted from 1 for each camera
    int camera = 0;
    Origin origin = Origin::kHost;
    std::string name;  // on the camera; any bytes
    std::int64_t size = 0;
    std::shared_ptr<const std::vector<std::uint8_t>> bytes;  // null: not kept any more
    int announced = 0;                                       // events that told of it

    // What only this maker's pictures have, or is counted of them alone.
    virtual Fields ownFields() const = 0;
};

}  // namespace virtualcamera
