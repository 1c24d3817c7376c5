// A look at picture files.
#pragma once

#include <cstdint>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

// Whether a sanitizer makes all of this many times slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

// A decoded picture.
struct Decoded {
    int width = 0;
    int height = 0;
    Bytes samples;

    // Means over the scene, without the caption.
    double mean(int channel) const;
    double brightness() const { return (mean(0) + mean(1) + mean(2)) / 3; }
};

// Decodes a JPEG; a width of 0 when it is none.
Decoded decode(const Bytes& file);
