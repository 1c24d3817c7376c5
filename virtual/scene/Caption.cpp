#include "scene/Caption.h"

#include <stb_easy_font.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "common/Text.h"
#include "scene/Scene.h"

namespace scene {

namespace {

constexpr int kLineHeight = 12;  // of the font, in its own units
constexpr int kWidthForTwoLines = 480;

void fillRectangle(Image& image, int left, int top, int right, int bottom, std::uint8_t level)
{
    left = std::clamp(left, 0, image.width);
    right = std::clamp(right, left, image.width);
    top = std::clamp(top, 0, image.height);
    bottom = std::clamp(bottom, top, image.height);
    for (int y = top; y < bottom; ++y) {
        const std::size_t start =
            (static_cast<std::size_t>(y) * static_cast<std::size_t>(image.width) +
             static_cast<std::size_t>(left)) *
            3;
        const auto length = static_cast<std::ptrdiff_t>(right - left) * 3;
        const auto row = image.samples.begin() + static_cast<std::ptrdiff_t>(start);
        std::fill(row, row + length, level);
    }
}

void darken(Image& image, int top)
{
    const auto start =
        static_cast<std::size_t>(std::max(0, top)) * static_cast<std::size_t>(image.width) * 3;
    for (std::size_t i = start; i < image.samples.size(); ++i) {
        image.samples[i] = static_cast<std::uint8_t>(image.samples[i] / 5);
    }
}

// The font has printable ASCII only.
std::string printable(std::string text)
{
    for (char& letter : text) {
        if (letter < ' ' || letter > '~') {
            letter = '?';
        }
    }
    return text;
}

void drawText(Image& image, int x, int y, int scale, const std::string& text)
{
    for (const Box& box : textBlock(text).boxes) {
        fillRectangle(image, x + box.left * scale, y + box.top * scale, x + box.right * scale,
                      y + box.bottom * scale, 240);
    }
}

std::string padded(int value)
{
    const std::string digits = std::to_string(value);
    return digits.size() < 2 ? "0" + digits : digits;
}

}  // namespace

std::string timeText(std::int64_t time, char dateSeparator, char middle)
{
    // Howard Hinnant's way from days to a date: std::gmtime is not safe with several threads.
    const std::int64_t days = time / 86400;
    const auto second = static_cast<int>(time % 86400);
    const std::int64_t shifted = days + 719468;
    const std::int64_t era = shifted / 146097;
    const std::int64_t dayOfEra = shifted % 146097;
    const std::int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const std::int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    const auto day = static_cast<int>(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1);
    const auto month =
        static_cast<int>(monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9);
    const std::int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
    return std::to_string(year) + dateSeparator + padded(month) + dateSeparator + padded(day) +
           middle + padded(second / 3600) + ":" + padded(second / 60 % 60) + ":" +
           padded(second % 60);
}

TextBlock textBlock(const std::string& text)
{
    // The font comes as rectangles: four corners each, a corner is x, y, z and a colour.
    struct Corner {
        float x;
        float y;
        float z;
        std::uint32_t color;
    };
    static_assert(sizeof(Corner) == 16);

    std::string letters = printable(text).substr(0, 160);
    std::vector<Corner> corners(letters.size() * 40 + 40);
    const int rectangles = stb_easy_font_print(0, 0, letters.data(), nullptr, corners.data(),
                                               static_cast<int>(corners.size() * sizeof(Corner)));
    TextBlock block;
    for (int i = 0; i < rectangles; ++i) {
        const Corner& first = corners[static_cast<std::size_t>(i) * 4];
        const Corner& last = corners[static_cast<std::size_t>(i) * 4 + 2];
        block.boxes.push_back({static_cast<int>(first.x), static_cast<int>(first.y),
                               static_cast<int>(last.x), static_cast<int>(last.y)});
        block.width = std::max(block.width, block.boxes.back().right);
        block.height = std::max(block.height, block.boxes.back().bottom);
    }
    return block;
}

void drawCaption(Image& image, const PictureFacts& facts, int top)
{
    const std::string sign = facts.compensation < 0 ? "" : "+";
    const std::string shot = "Shot " + std::to_string(facts.shot) + "   " + facts.model;
    const std::string exposure = facts.mode + "   " + facts.shutter + " s   f/" + facts.aperture +
                                 "   ISO " + facts.sensitivity + "   " + sign +
                                 virtualcamera::fixedPoint(facts.compensation, 1) + " EV";
    const std::string color = facts.whiteBalance + " " + std::to_string(std::lround(facts.kelvin)) +
                              " K   " + facts.quality;
    const std::string name = timeText(facts.time, '-', ' ') + " UTC   " + facts.fileName;

    // Two long lines where they have room, so that the band takes little of the picture.
    std::vector<std::string> lines{exposure + "   " + color, shot + "   " + name};
    if (image.width < kWidthForTwoLines) {
        lines = {shot, exposure, color, name};
    }
    const int scale = std::max(1, image.width / kWidthForTwoLines);
    const int margin = 4 * scale;
    const int band = static_cast<int>(lines.size()) * kLineHeight * scale + margin;
    const int bandTop = facts.height - band - top;
    if (bandTop >= image.height) {
        return;
    }
    darken(image, bandTop);
    int y = bandTop + margin;
    for (const std::string& line : lines) {
        drawText(image, margin, y, scale, line);
        y += kLineHeight * scale;
    }
}

}  // namespace scene
