#include "scene/StillLife.h"

#include <algorithm>
#include <cmath>

#include "scene/Surface.h"

namespace scene {

namespace {

constexpr double kKey = 1.05;
constexpr Vector kFill{0.19, 0.20, 0.22};

// The softbox as a mirror shows it: a bright square in a dark room.
double lampIn(const Ray& ray, double softness)
{
    static const Vector kNormal = unit(kLamp * -1);
    static const Vector kAcross = unit(cross({0, 1, 0}, kNormal));
    static const Vector kUp = cross(kNormal, kAcross);
    const double facing = dot(ray.along, kNormal);
    if (facing >= 0) {
        return 0;
    }
    const double way = dot(kLamp - ray.from, kNormal) / facing;
    const Vector from = ray.from + ray.along * way - kLamp;
    const double beside = std::max(std::abs(dot(from, kAcross)), std::abs(dot(from, kUp)));
    return way > 0 ? 1 - smooth(kLampRadius - softness, kLampRadius + softness, beside) : 0;
}

// What a polished thing shows of the lamp.
Vector lampOn(const Ray& way, double softness)
{
    return Vector{7, 6.9, 6.7} * lampIn(way, softness);
}

Ray mirrored(const Ray& ray, const Hit& hit, const Vector& normal)
{
    return {hit.point + normal * kNear, ray.along - normal * (2 * dot(ray.along, normal))};
}

// A surface in the light, before it mirrors anything.
struct Lit {
    Vector normal;
    Vector color;
    double seen = 0;  // of the lamp, 0 to 1
};

Lit lit(const Hit& hit)
{
    Lit surface;
    surface.normal = roughened(hit);
    const Vector way = kLamp - hit.point;
    const double distance = std::sqrt(dot(way, way));
    const Vector toLamp = way * (1 / distance);
    const double facing = std::max(0.0, (dot(surface.normal, toLamp) + 0.06) / 1.06);
    const double key = facing > 0 ? kKey * facing * 30 / (distance * distance) : 0;
    surface.seen = key > 0 ? seenOfLamp(toLamp, distance, hit) : 0;
    surface.color = colorOf(hit) * (Vector{key, key * 0.985, key * 0.96} * surface.seen +
                                    kFill * (openness(hit) * (0.75 + 0.25 * surface.normal.y)));
    return surface;
}

// What a polished ball shows: everything.
Vector chrome(const Ray& way)
{
    const Hit seen = meet(way);
    const Vector room = Vector{0.05, 0.055, 0.06} * (1 + 2 * smooth(0, 1, way.along.y));
    return (seen.matter == Matter::kNothing ? room : lit(seen).color) * 0.8 + lampOn(way, 0.05);
}

}  // namespace

Vector lightOf(const Ray& ray, const Hit& hit)
{
    if (hit.matter == Matter::kChrome) {
        return chrome(mirrored(ray, hit, hit.normal));
    }
    const Lit surface = lit(hit);
    const double gloss = glossOf(hit.matter);
    if (gloss <= 0) {
        return surface.color;
    }
    // A glazed thing shows the lamp sharply and the room dimly; more of both at its edges.
    const Ray way = mirrored(ray, hit, surface.normal);
    const bool isPolished = hit.matter == Matter::kCeramic || hit.matter == Matter::kApple;
    const Vector room = Vector{0.10, 0.11, 0.12} * smooth(-0.2, 0.9, way.along.y);
    const double grazing = std::max(0.0, 1 + dot(ray.along, surface.normal));
    const double squared = grazing * grazing;
    const double share = gloss + (1 - gloss) * 0.35 * squared * squared * grazing;
    return surface.color +
           (lampOn(way, isPolished ? 0.12 : 0.9) + room) * (share * (0.3 + 0.7 * surface.seen));
}

}  // namespace scene
