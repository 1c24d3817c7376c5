// The scene that the virtual cameras photograph, drawn as their settings see it.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "scene/PictureFacts.h"

namespace scene {

// An image of 8-bit red, green and blue samples, rows from the top.
struct Image {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> samples;
};

// Four histograms of 256 bins: luminance, red, green, blue.
using Histogram = std::array<std::array<std::uint32_t, 256>, 4>;

// Draws the scene: sky, sun (it wanders from shot to shot), hills, a meadow, a card with grey and
// coloured fields, and a caption with the settings. Thread-safe.
Image render(const PictureFacts& facts);

Histogram histogramOf(const Image& image);

}  // namespace scene
