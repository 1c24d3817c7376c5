// The band at the foot of a picture that tells how it was taken.
#pragma once

#include <string>

#include "scene/PictureFacts.h"

namespace scene {

struct Image;

// Draws the band and its text into the picture.
void drawCaption(Image& image, const PictureFacts& facts);

// "2026-11-21 12:05:50" with separators as asked for, UTC.
std::string timeText(std::int64_t time, char dateSeparator, char middle);

}  // namespace scene
