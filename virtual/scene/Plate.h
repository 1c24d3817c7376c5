// The still life as it lies before a camera, whatever that is set to.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace scene {

// Light of three colours for each pixel, rows from the top. What is stored is its square root, so
// that shadows keep their steps, and grain is the same at every brightness, as with photons.
struct Plate {
    int width = 0;
    int height = 0;
    std::vector<std::uint16_t> codes;
};

constexpr int kPlateLevels = 4096;
constexpr double kBrightest = 8;  // the light of the highest level; a white card has about 1

// A part of the plate, in shares of its width and height.
struct Area {
    double left;
    double top;
    double right;
    double bottom;
};

// The little card in the scene that has room for the number of the shot.
Area numberCard();

// The plate for pictures of this width, 3 to 2: there are three of them, which are drawn when they
// are needed first, and kept. Thread-safe.
std::shared_ptr<const Plate> plateFor(int width);

}  // namespace scene
