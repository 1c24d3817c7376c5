// What the codes of exposure settings stand for, and which of them a camera offers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace virtualcanon {

using Values = std::vector<std::int32_t>;

// Shutter speeds, apertures and sensitivities are steps of an eighth of a stop.
double shutterSeconds(std::uint32_t code);
double apertureNumber(std::uint32_t code);
double isoSpeed(std::uint32_t code);

// Stops of exposure compensation; its code is a signed byte.
double compensationStops(std::uint32_t code);

// The light that a white balance takes for white, in kelvin.
double kelvinOf(std::uint32_t whiteBalance, std::uint32_t colorTemperature);

// As a camera's display shows them.
std::string shutterText(std::uint32_t code);
std::string apertureText(std::uint32_t code);
std::string isoText(std::uint32_t code);
std::string whiteBalanceText(std::uint32_t code);
std::string modeText(std::uint32_t code);

// Every third of a stop from `first` to `last`, both included if they are such codes.
Values thirds(std::int32_t first, std::int32_t last);

Values allShutterSpeeds();  // 30 s to 1/8000 s
Values allSensitivities();  // automatic, 100 to 25600
Values allCompensations();  // -3 to +3
Values allWhiteBalances();
Values allColorTemperatures();  // 2500 to 10000 K in hundreds
Values allQualities(bool olderBody);

// The value of a list that lies nearest to `wanted` counted in stops. The list is not empty.
std::uint32_t nearest(const Values& list, double wanted);

// What files an image quality asks for.
struct QualityParts {
    bool hasRaw = false;
    bool hasJpeg = false;
    double jpegScale = 1;  // of the full width
    int jpegQuality = 85;
    std::string text;
};

QualityParts qualityParts(std::uint32_t code);

}  // namespace virtualcanon
