// What a picture file tells about how it was taken.
#pragma once

#include "scene/PictureFacts.h"
#include "scene/Tiff.h"

namespace scene {

// The directory of camera, time and orientation, without the pointer to the EXIF directory.
TiffDirectory mainDirectory(const PictureFacts& facts);

// The EXIF directory: exposure, white balance, shot number.
TiffDirectory exifDirectory(const PictureFacts& facts);

// The tag in the main directory that points to the EXIF directory.
constexpr std::uint16_t kExifPointer = 0x8769;

// A JPEG APP1 segment, marker included. The thumbnail is a JPEG of some kilobytes, or empty: none.
Bytes exifSegment(const PictureFacts& facts, const Bytes& thumbnail);

// One that says camera, time and shot only.
Bytes briefExifSegment(const PictureFacts& facts);

}  // namespace scene
