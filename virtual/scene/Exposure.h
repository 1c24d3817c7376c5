// An exposure: what its settings say, what a camera chooses for itself, and how long it takes.
//
// Sums are in stops: the aperture's are 2 log2(N), the shutter's -log2(t), and both together are
// the exposure value.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "scene/PictureFacts.h"

namespace scene {

// The number that a camera's text says, "1/125", "5.6", "f/5.6" or "400"; `otherwise` for other
// texts.
double numberIn(const std::string& text, double otherwise);

double stopsOfAperture(double number);
double stopsOfShutter(double seconds);
double apertureOfStops(double stops);
double shutterOfStops(double stops);

// The light that is there and what the photographer wants of it.
struct Light {
    double exposureValue = 10;  // of the scene, at ISO 100
    double iso = 100;
    double compensation = 0;  // stops that he wants it brighter

    // The exposure value that gives a picture as bright as he wants it.
    double wanted() const;

    // How much brighter than a well exposed picture one with these settings is, in stops.
    double stopsOver(double apertureNumber, double shutterSeconds) const;
};

// One of aperture and shutter: what it is set to, and how the camera sets it. Whoever is set by the
// photographer has no `choose`.
struct Metered {
    std::function<double()> stops;
    std::function<void(double stops)> choose;
};

// The camera chooses what the photographer does not, so that the exposure value is `wanted`.
void meter(double wanted, const Metered& aperture, const Metered& shutter);

// How the shutter behaves; the defaults are the factory's.
struct ShutterOptions {
    std::int64_t lagMs = 5;           // shutter.lag_ms
    double exposureScale = 0;         // shutter.scale
    std::int64_t exposureMs = -1;     // shutter.exposure_ms; -1: as set on the camera, scaled
    std::int64_t untilTold = 0;       // shutter.until_told: exposures that a test ends
    std::int64_t noiseReduction = 0;  // shutter.noise_reduction: 1 takes as long again
};

// An exposure that runs: for a time that is known when it begins, or until somebody ends it.
//
// Not thread-safe: the world guards it.
struct Exposure {
    using Clock = std::chrono::steady_clock;

    Clock::time_point start{};
    Clock::time_point due{};  // of the picture; the latest time there is while nobody has ended it
    bool isFromBody = false;  // the button on the body began it, not the host
    PictureFacts facts;

    // It begins. `seconds` is what the camera is set to, `isBulb` whether that is bulb.
    void begin(const ShutterOptions& options, double seconds, bool isBulb);

    // Nothing but `end` ends it.
    void keepOpen() { due = Clock::time_point::max(); }
    bool isKeptOpen() const { return due == Clock::time_point::max(); }

    // Closes a shutter that is kept open; what comes after it takes its time yet. False when it is
    // not kept open.
    bool end(const ShutterOptions& options);
};

}  // namespace scene
