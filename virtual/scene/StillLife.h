// The still life that the virtual cameras photograph: its light, as the eye of a camera meets it.
#pragma once

#include <array>

#include "scene/Things.h"

namespace scene {

// The light that comes back along a ray which meets `hit`.
Vector lightOf(const Ray& ray, const Hit& hit);

constexpr Vector kEye{0, 1.42, 5.3};
constexpr Vector kLookedAt{0.06, 0.60, 0};
constexpr double kHalfView = 0.335;  // half of the picture's width, at a distance of 1

// The way from the eye through a place of the picture, in shares of its width and height.
class Eye
{
public:
    explicit Eye(double heightToWidth)
        : m_along(unit(kLookedAt - kEye)),
          m_right(unit(cross(m_along, {0, 1, 0}))),
          m_up(cross(m_right, m_along)),
          m_halfHeight(kHalfView * heightToWidth)
    {}

    Ray through(double x, double y) const
    {
        return {kEye, unit(m_along + m_right * ((2 * x - 1) * kHalfView) +
                           m_up * ((1 - 2 * y) * m_halfHeight))};
    }

    // Where a point is seen.
    std::array<double, 2> placeOf(const Vector& point) const
    {
        const Vector way = point - kEye;
        const double depth = dot(way, m_along);
        return {(dot(way, m_right) / depth / kHalfView + 1) / 2,
                (1 - dot(way, m_up) / depth / m_halfHeight) / 2};
    }

private:
    Vector m_along;
    Vector m_right;
    Vector m_up;
    double m_halfHeight;
};

}  // namespace scene
