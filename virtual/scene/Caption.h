// Texts in pictures, above all the band at the foot that tells how it was taken.
#pragma once

#include <string>
#include <vector>

#include "scene/PictureFacts.h"

namespace scene {

struct Image;

// Draws the band and its text into a part of the picture, whose first row is the picture's `top`.
void drawCaption(Image& image, const PictureFacts& facts, int top);

// A rectangle of a letter, in the units of the font.
struct Box {
    int left;
    int top;
    int right;
    int bottom;
};

// A line of text as rectangles, and the space that it takes.
struct TextBlock {
    std::vector<Box> boxes;
    int width = 0;
    int height = 0;
};

TextBlock textBlock(const std::string& text);

// "2026-11-21 12:05:50" with separators as asked for, UTC.
std::string timeText(std::int64_t time, char dateSeparator, char middle);

}  // namespace scene
