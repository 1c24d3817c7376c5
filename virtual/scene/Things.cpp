#include "scene/Things.h"

namespace scene {

constexpr std::array<Ellipsoid, kRoundCount> kRound{{
    {Matter::kCeramic, {0.88, 0.50, -0.45}, {0.44, 0.50, 0.44}},  // a vase: body,
    {Matter::kCeramic, {0.88, 0.99, -0.45}, {0.13, 0.40, 0.13}},  // neck
    {Matter::kCeramic, {0.88, 1.37, -0.45}, {0.17, 0.04, 0.17}},  // and rim
    {Matter::kApple, {0.22, 0.30, 0.42}, {0.33, 0.30, 0.33}},
    {Matter::kStem, {0.24, 0.62, 0.42}, {0.016, 0.09, 0.016}},
    {Matter::kOrange, {0.93, 0.30, 0.50}, {0.30, 0.30, 0.30}},
    {Matter::kLemon, {0.57, 0.19, 0.92}, {0.27, 0.19, 0.19}},
    {Matter::kLemon, {0.80, 0.19, 0.92}, {0.085, 0.060, 0.060}},
    {Matter::kLemon, {0.34, 0.19, 0.92}, {0.085, 0.060, 0.060}},
    {Matter::kGrey, {-0.98, 0.17, 1.05}, {0.17, 0.17, 0.17}},
    {Matter::kChrome, {-0.50, 0.17, 1.15}, {0.17, 0.17, 0.17}},
}};

constexpr std::array<Card, 2> kCards{{
    {Matter::kChart, {-0.80, 0.64, -0.35}, {0.990, 0, 0.139}, {0.019, 0.990, -0.138}, 1.7, 1.17},
    {Matter::kCard, {0.98, 0.12, 1.25}, {1, 0, 0}, {0, 1, 0}, 0.32, 0.24},
}};

namespace {

constexpr double kWallDepth = -2.6;

void meet(const Ray& ray, const Ellipsoid& round, Hit& hit)
{
    const Vector from = (ray.from - round.center) * round.shrink;
    const Vector along = ray.along * round.shrink;
    const double a = dot(along, along);
    const double b = dot(from, along);
    const double root = b * b - a * (dot(from, from) - 1);
    if (root < 0) {
        return;
    }
    const double distance = (-b - std::sqrt(root)) / a;
    if (distance > kNear && distance < hit.distance) {
        hit.distance = distance;
        hit.matter = round.matter;
        hit.round = &round;
    }
}

void meet(const Ray& ray, const Card& card, Hit& hit)
{
    const double distance = dot(card.center - ray.from, card.normal) / dot(ray.along, card.normal);
    if (!(distance > kNear && distance < hit.distance)) {
        return;
    }
    const Vector from = ray.from + ray.along * distance - card.center;
    const double u = dot(from, card.across) / card.halfWidth;
    const double v = dot(from, card.up) / card.halfHeight;
    if (std::abs(u) <= 1 && std::abs(v) <= 1) {
        hit.distance = distance;
        hit.matter = card.matter;
        hit.normal = card.normal;
        hit.u = u;
        hit.v = v;
    }
}

// How much of the lamp is seen past a thing whose edge the way to its middle misses by `gap`, when
// the lamp is as wide as `width` there.
double seenPast(double gap, double width)
{
    return smooth(-width, width, gap);
}

}  // namespace

Hit meet(const Ray& ray)
{
    Hit hit;
    if (ray.along.y < 0) {
        hit.distance = -ray.from.y / ray.along.y;
        hit.matter = Matter::kTable;
        hit.normal = {0, 1, 0};
    }
    const double wall = (kWallDepth - ray.from.z) / ray.along.z;
    if (wall > 0 && wall < hit.distance) {
        hit.distance = wall;
        hit.matter = Matter::kWall;
        hit.normal = {0, 0, 1};
    }
    for (const Card& card : kCards) {
        meet(ray, card, hit);
    }
    for (const Ellipsoid& round : kRound) {
        meet(ray, round, hit);
    }
    hit.point = ray.from + ray.along * hit.distance;
    if (hit.round != nullptr) {
        const Vector& shrink = hit.round->shrink;
        hit.normal = unit((hit.point - hit.round->center) * shrink * shrink);
    }
    return hit;
}

double seenOfLamp(const Vector& toLamp, double distance, const Hit& hit)
{
    const Vector& point = hit.point;
    double seen = 1;
    const double spread = kLampRadius / distance;
    for (const Ellipsoid& round : kRound) {
        const Vector way = round.center - point;
        const double ahead = dot(way, toLamp);
        const double reach = round.farthest + spread * ahead;
        if (&round == hit.round || ahead < 0 || dot(way, way) - ahead * ahead > reach * reach) {
            continue;
        }
        // Where the way comes nearest to the middle, as seen by a ball of radius 1.
        const Vector along = toLamp * round.shrink;
        const double nearest = dot(way * round.shrink, along) / dot(along, along);
        const Vector miss = toLamp * nearest - way;
        const Vector shrunk = miss * round.shrink;
        const double rounds = std::max(1e-6, std::sqrt(dot(shrunk, shrunk)));
        if (nearest > 0) {
            seen *= seenPast(std::sqrt(dot(miss, miss)) * (1 - 1 / rounds),
                             spread * std::max(nearest, 0.01));
        }
    }
    for (const Card& card : kCards) {
        const double way = dot(card.center - point, card.normal) / dot(toLamp, card.normal);
        if (hit.matter == card.matter || way <= 0 || way > distance) {
            continue;
        }
        const Vector from = point + toLamp * way - card.center;
        const double width = spread * way;
        const double beside = seenPast(std::abs(dot(from, card.across)) - card.halfWidth, width);
        const double above = seenPast(std::abs(dot(from, card.up)) - card.halfHeight, width);
        seen *= beside + above - beside * above;
    }
    return seen;
}

double openness(const Hit& hit)
{
    const Vector& point = hit.point;
    double open = 1;
    for (const Ellipsoid& round : kRound) {
        const Vector way = round.center - point;
        const double squared = dot(way, way);
        const double radius = round.meanRadius;
        if (&round == hit.round || squared > 16 * radius * radius) {
            continue;
        }
        const double facing = dot(way, hit.normal);
        if (facing > 0) {
            const double share = facing / std::sqrt(squared) * radius * radius / squared;
            open *= 1 - 0.85 * std::min(1.0, share);
        }
    }
    for (const Card& card : kCards) {
        if (hit.matter == Matter::kTable) {
            const Vector from = point - card.center;
            const double beside = std::max(0.0, std::abs(from.x) - card.halfWidth);
            const double reach = card.halfHeight;
            open *= 1 - 0.45 * std::exp(-(beside * beside + from.z * from.z) / (reach * reach));
        }
    }
    if (hit.round != nullptr) {
        open *= smooth(-0.25, 0.35, point.y);  // the table is near
    }
    return open;
}

}  // namespace scene
