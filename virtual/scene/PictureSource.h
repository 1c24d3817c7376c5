// Picture files as a camera would write them. Thread-safe; knows of no maker.
#pragma once

#include <cstdint>

#include "scene/PictureFacts.h"
#include "scene/Scene.h"
#include "scene/Tiff.h"

namespace scene {

// Sizes from here on can be met to the byte; smaller ones give the smallest file possible.
constexpr std::int64_t kSmallestFile = 1000;

// A JPEG file with EXIF. `size` is its length in bytes, 0 for whatever comes out: larger ones are
// filled up inside the file, for smaller ones the picture shrinks.
Bytes makeJpeg(const PictureFacts& facts, std::int64_t size = 0);

// A raw file: a TIFF with an embedded JPEG preview and a mosaic of 14-bit sensor values. The first
// has marks of its own behind the TIFF header, the second begins like any other TIFF.
Bytes makeRaw(const PictureFacts& facts, std::int64_t size = 0);
Bytes makePlainRaw(const PictureFacts& facts, std::int64_t size = 0);

// The sensor's values alone, `height` rows of `width` 16-bit values.
Bytes makeSensorRows(const PictureFacts& facts);

// A live-view frame: a JPEG without caption fill-up, and the histogram of what it shows.
Bytes makeFrame(const PictureFacts& facts, Histogram& histogram);

}  // namespace scene
