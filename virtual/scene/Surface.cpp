#include "scene/Surface.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace scene {

namespace {

// Noise that is the same everywhere and always: 0 to 1, smooth, a grain of size 1.
double hash(int x, int y)
{
    std::uint32_t bits =
        static_cast<std::uint32_t>(x) * 0x9E3779B1U ^ static_cast<std::uint32_t>(y) * 0x85EBCA77U;
    bits = (bits ^ (bits >> 15U)) * 0x2C1B3C6DU;
    bits = (bits ^ (bits >> 12U)) * 0x297A2D39U;
    return (bits >> 8U) / 16777216.0;
}

// std::floor is slow where the processor's own way may not be used.
int whole(double value)
{
    const int cut = static_cast<int>(value);
    return cut - (value < cut ? 1 : 0);
}

double noise(double x, double y)
{
    const int column = whole(x);
    const int row = whole(y);
    const double right = x - column;
    const double lower = y - row;
    const double along = right * right * (3 - 2 * right);
    const double down = lower * lower * (3 - 2 * lower);
    const double above = hash(column, row) * (1 - along) + hash(column + 1, row) * along;
    const double below = hash(column, row + 1) * (1 - along) + hash(column + 1, row + 1) * along;
    return above * (1 - down) + below * down;
}

double clouds(double x, double y)
{
    return 0.5 * noise(x, y) + 0.3 * noise(2.1 * x + 7, 2.1 * y) +
           0.2 * noise(4.3 * x, 4.3 * y + 3);
}

// A colour as screens show it, 0 to 255, as a share of reflected light.
constexpr std::array<std::array<int, 3>, 24> kPatches{{
    {115, 82, 68},   {194, 150, 130}, {98, 122, 157}, {87, 108, 67},   {133, 128, 177},
    {103, 189, 170}, {214, 126, 44},  {80, 91, 166},  {193, 90, 99},   {94, 60, 108},
    {157, 188, 64},  {224, 163, 46},  {56, 61, 150},  {70, 148, 73},   {175, 54, 60},
    {231, 199, 31},  {187, 86, 149},  {8, 133, 161},  {243, 243, 243}, {200, 200, 200},
    {160, 160, 160}, {122, 122, 122}, {85, 85, 85},   {52, 52, 52},
}};

std::array<Vector, kPatches.size()> patchLights()
{
    std::array<Vector, kPatches.size()> lights;
    const auto light = [](int value) { return std::pow(value / 255.0, 2.2); };
    std::transform(kPatches.begin(), kPatches.end(), lights.begin(), [&](const auto& patch) {
        return Vector{light(patch[0]), light(patch[1]), light(patch[2])};
    });
    return lights;
}

Vector chartColor(const Hit& hit)
{
    static const auto kLights = patchLights();
    const int patch = patchAt(hit.u, hit.v);
    return patch < 0 ? Vector{0.012, 0.012, 0.013} : kLights[static_cast<std::size_t>(patch)];
}

// Boards that run from left to right.
Vector woodColor(const Vector& point)
{
    const int board = whole(point.z / 0.62);
    const double across = point.z / 0.62 - board;
    const double shift = 37.3 * board;
    const double rings = clouds(point.x * 0.9 + shift, point.z * 7 + shift);
    const double fibre = noise(point.x * 5 + shift, point.z * 90);
    const double grain = 0.5 + 0.5 * std::sin(34 * rings + 3 * point.z);
    const Vector color =
        mix({0.17, 0.085, 0.040}, {0.36, 0.205, 0.105}, 0.25 + 0.4 * grain + 0.35 * fibre * rings);
    const double tone = 0.85 + 0.3 * hash(board, 5);
    const double gap = smooth(0, 0.012, std::min(across, 1 - across));
    return color * (tone * (0.25 + 0.75 * gap));
}

Vector appleColor(const Hit& hit)
{
    const Vector from = hit.point - hit.round->center;
    const double angle = std::atan2(from.z, from.x);
    const double streak = noise(angle * 14, from.y * 3) * 0.6 + noise(angle * 40, from.y * 5) * 0.4;
    const double pale = smooth(0.45, 0.95, streak + 0.5 * from.y);
    const double core = smooth(0.02, 0.14, std::hypot(from.x, from.z));
    const Vector skin = mix({0.42, 0.022, 0.022}, {0.58, 0.20, 0.05}, 0.55 * pale);
    return from.y > 0 ? mix({0.13, 0.11, 0.03}, skin, core) : skin;
}

}  // namespace

int patchAt(double u, double v)
{
    const double x = (u + 1) / 2 * 6.3 - 0.15;
    const double y = (1 - v) / 2 * 4.3 - 0.15;
    const int column = whole(x);
    const int row = whole(y);
    const double beside = std::max(std::abs(x - column - 0.5), std::abs(y - row - 0.5));
    const bool isField = column >= 0 && column < 6 && row >= 0 && row < 4 && beside < 0.43;
    return isField ? row * 6 + column : -1;
}

Vector colorOf(const Hit& hit)
{
    switch (hit.matter) {
        case Matter::kTable:
            return woodColor(hit.point);
        case Matter::kWall:
            return Vector{0.115, 0.150, 0.155} *
                   (0.84 + 0.32 * clouds(hit.point.x * 0.9 + hit.point.y * 0.7,
                                         hit.point.y * 0.9 - hit.point.x * 0.7));
        case Matter::kChart:
            return chartColor(hit);
        case Matter::kCard:
            return {0.82, 0.81, 0.78};
        case Matter::kApple:
            return appleColor(hit);
        case Matter::kOrange:
            return {0.80, 0.26, 0.025};
        case Matter::kLemon:
            return {0.85, 0.62, 0.05};
        case Matter::kCeramic:
            return {0.045, 0.115, 0.27};
        case Matter::kStem:
            return {0.10, 0.06, 0.03};
        case Matter::kGrey:
            return {0.18, 0.18, 0.18};
        default:
            return {};
    }
}

double glossOf(Matter matter)
{
    switch (matter) {
        case Matter::kCeramic:
            return 0.06;
        case Matter::kApple:
            return 0.035;
        case Matter::kOrange:
        case Matter::kLemon:
            return 0.02;
        case Matter::kTable:
            return 0.008;
        default:
            return 0;
    }
}

Vector roughened(const Hit& hit)
{
    // The rind of fruit.
    const bool isOrange = hit.matter == Matter::kOrange;
    if (!isOrange && hit.matter != Matter::kLemon) {
        return hit.normal;
    }
    const Vector from = hit.point - hit.round->center;
    const double size = isOrange ? 46 : 34;
    const double angle = std::atan2(from.z, from.x) * 0.3 * size;
    const double bump = isOrange ? 0.16 : 0.12;
    return unit(hit.normal + Vector{noise(angle, from.y * size) - 0.5,
                                    noise(angle + 50, from.y * size) - 0.5,
                                    noise(angle, from.y * size + 50) - 0.5} *
                                 bump);
}

}  // namespace scene
