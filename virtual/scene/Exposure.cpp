#include "scene/Exposure.h"

#include <algorithm>
#include <cmath>

#include "common/Text.h"

namespace scene {

namespace {

constexpr double kLongestSeconds = 24.0 * 3600;

using Clock = Exposure::Clock;

Clock::duration durationOf(double seconds)
{
    const std::chrono::duration<double> bounded(std::min(seconds, kLongestSeconds));
    return std::chrono::duration_cast<Clock::duration>(bounded);
}

// What follows an exposure that took this long: another one of the closed shutter, and the lag.
Clock::duration aftermath(const ShutterOptions& options, Clock::duration exposure)
{
    return (options.noiseReduction != 0 ? exposure : Clock::duration::zero()) +
           std::chrono::milliseconds(options.lagMs);
}

}  // namespace

double numberIn(const std::string& text, double otherwise)
{
    const bool isFraction = text.compare(0, 2, "1/") == 0;
    const bool isAperture = text.compare(0, 2, "f/") == 0;
    const auto value = virtualcamera::number(isFraction || isAperture ? text.substr(2) : text);
    if (!value || *value <= 0) {
        return otherwise;
    }
    return isFraction ? 1 / *value : *value;
}

double stopsOfAperture(double number)
{
    return 2 * std::log2(number);
}

double stopsOfShutter(double seconds)
{
    return -std::log2(seconds);
}

double apertureOfStops(double stops)
{
    return std::exp2(stops / 2);
}

double shutterOfStops(double stops)
{
    return std::exp2(-stops);
}

double Light::wanted() const
{
    return exposureValue + std::log2(iso / 100) - compensation;
}

double Light::stopsOver(double apertureNumber, double shutterSeconds) const
{
    return exposureValue + std::log2(iso / 100) - stopsOfAperture(apertureNumber) -
           stopsOfShutter(shutterSeconds);
}

void meter(double wanted, const Metered& aperture, const Metered& shutter)
{
    if (aperture.choose != nullptr) {
        aperture.choose(shutter.choose != nullptr ? wanted / 2 : wanted - shutter.stops());
    }
    if (shutter.choose != nullptr) {
        shutter.choose(wanted - aperture.stops());
    }
}

void Exposure::begin(const ShutterOptions& options, double seconds, bool isBulb)
{
    start = Clock::now();
    if (options.untilTold == 2 || (options.untilTold == 1 && isBulb)) {
        keepOpen();
        return;
    }
    const Clock::duration exposure = options.exposureMs >= 0
                                         ? std::chrono::milliseconds(options.exposureMs)
                                         : durationOf(seconds * options.exposureScale);
    due = start + exposure + aftermath(options, exposure);
}

bool Exposure::end(const ShutterOptions& options)
{
    if (!isKeptOpen()) {
        return false;
    }
    const Clock::time_point now = Clock::now();
    due = now + aftermath(options, now - start);
    return true;
}

}  // namespace scene
