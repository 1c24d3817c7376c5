// What a virtual camera knows about a picture when the shutter opens.
#pragma once

#include <cstdint>
#include <string>

namespace scene {

struct PictureFacts {
    std::string make;
    std::string model;
    std::string fileName;

    int width = 640;
    int height = 480;
    int jpegQuality = 85;  // 1 to 100

    int shot = 1;
    std::int64_t time = 0;  // seconds since 1970, UTC

    // As shown in the picture and in its EXIF.
    std::string mode;          // "M"
    std::string shutter;       // "1/125"
    std::string aperture;      // "5.6"
    std::string sensitivity;   // "400"
    std::string whiteBalance;  // "Daylight"
    std::string quality;       // "JPEG"
    double shutterSeconds = 0.008;
    double apertureNumber = 5.6;
    int iso = 400;
    double compensation = 0;  // stops that the photographer asked for
    int exposureProgram = 1;  // EXIF: 1 manual, 2 normal, 3 aperture priority, 4 shutter priority
    int meteringMode = 5;     // EXIF: 3 spot, 5 pattern, 2 centre-weighted, 6 partial

    // What makes the picture bright, coloured and sharp.
    double stops = 0;      // brighter (+) or darker (-) than a well exposed picture
    double kelvin = 5200;  // the colour of light that the camera takes for white
    double defocus = 0;    // radius of the blur, in thousandths of the width
    bool hasCaption = true;

    // The part of the scene that is shown, in shares of its width and height.
    double viewLeft = 0;
    double viewTop = 0;
    double viewSize = 1;
};

}  // namespace scene
