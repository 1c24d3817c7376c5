// Points, directions and colours of light.
#pragma once

#include <algorithm>
#include <cmath>

namespace scene {

struct Vector {
    double x = 0;
    double y = 0;
    double z = 0;
};

constexpr Vector operator+(const Vector& a, const Vector& b)
{
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}

constexpr Vector operator-(const Vector& a, const Vector& b)
{
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}

constexpr Vector operator*(const Vector& a, double factor)
{
    return {a.x * factor, a.y * factor, a.z * factor};
}

// Each part by itself, as light is filtered by a colour.
constexpr Vector operator*(const Vector& a, const Vector& b)
{
    return {a.x * b.x, a.y * b.y, a.z * b.z};
}

constexpr double dot(const Vector& a, const Vector& b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

constexpr Vector cross(const Vector& a, const Vector& b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

inline Vector unit(const Vector& a)
{
    return a * (1 / std::sqrt(dot(a, a)));
}

inline Vector mix(const Vector& from, const Vector& to, double share)
{
    return from + (to - from) * share;
}

inline double smooth(double from, double to, double value)
{
    const double share = std::clamp((value - from) / (to - from), 0.0, 1.0);
    return share * share * (3 - 2 * share);
}

}  // namespace scene
