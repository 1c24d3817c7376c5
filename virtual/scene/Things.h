// What stands on the table, and what is in the way of its light.
#pragma once

#include <array>
#include <cstdint>

#include "scene/Vector.h"

namespace scene {

enum class Matter : std::uint8_t {
    kNothing,
    kTable,
    kWall,
    kChart,
    kCard,
    kApple,
    kOrange,
    kLemon,
    kCeramic,
    kStem,
    kGrey,
    kChrome
};

// Everything round is made of these.
struct Ellipsoid {
    constexpr Ellipsoid(Matter itsMatter, const Vector& itsCenter, const Vector& itsRadius)
        : matter(itsMatter),
          center(itsCenter),
          shrink{1 / itsRadius.x, 1 / itsRadius.y, 1 / itsRadius.z},
          meanRadius((itsRadius.x + itsRadius.y + itsRadius.z) / 3),
          farthest(std::max({itsRadius.x, itsRadius.y, itsRadius.z}))
    {}

    Matter matter;
    Vector center;
    Vector shrink;  // makes it a ball of radius 1
    double meanRadius;
    double farthest;  // of its points from the center
};

// A card that stands or leans. Its sides have length 1.
struct Card {
    constexpr Card(Matter itsMatter, const Vector& itsCenter, const Vector& itsAcross,
                   const Vector& itsUp, double width, double height)
        : matter(itsMatter),
          center(itsCenter),
          across(itsAcross),
          up(itsUp),
          normal(cross(itsAcross, itsUp)),
          halfWidth(width / 2),
          halfHeight(height / 2)
    {}

    Matter matter;
    Vector center;
    Vector across;
    Vector up;
    Vector normal;
    double halfWidth;
    double halfHeight;
};

constexpr std::size_t kRoundCount = 11;
extern const std::array<Ellipsoid, kRoundCount> kRound;

// The chart of colours, and the card for the number of the shot.
extern const std::array<Card, 2> kCards;

// A softbox to the left, above, and in front of everything.
constexpr Vector kLamp{-3.0, 4.0, 3.2};
constexpr double kLampRadius = 1.0;

constexpr double kFar = 1e9;
constexpr double kNear = 1e-4;

struct Ray {
    Vector from;
    Vector along;
};

struct Hit {
    double distance = kFar;
    Vector point;
    Vector normal;
    Matter matter = Matter::kNothing;
    const Ellipsoid* round = nullptr;
    double u = 0;  // on a card, -1 to 1
    double v = 0;
};

// The first thing that a ray meets.
Hit meet(const Ray& ray);

// How much of the lamp is seen from a point of `hit`, 0 to 1.
double seenOfLamp(const Vector& toLamp, double distance, const Hit& hit);

// How much of the room's own light reaches it: less beside things and under them.
double openness(const Hit& hit);

}  // namespace scene
