// The scene that the virtual cameras photograph, drawn as their settings see it.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
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

// The scene as it was photographed once: fruit, a vase and two balls on a table, a chart of
// colours, a card with the number of the shot, and a caption with the settings. Thread-safe.
class Photograph
{
public:
    explicit Photograph(const PictureFacts& facts);
    ~Photograph();
    Photograph(const Photograph&) = delete;
    Photograph& operator=(const Photograph&) = delete;

    // The rows from `top` to `bottom` (not included): a large picture need not be there as a whole.
    Image rows(int top, int bottom) const;

private:
    class Parts;

    std::unique_ptr<const Parts> m_parts;
};

// All of its rows.
Image render(const PictureFacts& facts);

Histogram histogramOf(const Image& image);

}  // namespace scene
