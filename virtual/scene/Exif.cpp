#include "scene/Exif.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <utility>

#include "common/Text.h"
#include "scene/Caption.h"

namespace scene {

namespace {

void addShutter(TiffDirectory& directory, double seconds)
{
    if (seconds >= 0.3) {
        directory.ratio(0x829A, static_cast<std::uint32_t>(std::lround(seconds * 10)), 10);
    } else {
        const double parts = std::min(1e6, std::max(1.0, 1 / std::max(seconds, 1e-6)));
        directory.ratio(0x829A, 1, static_cast<std::uint32_t>(std::lround(parts)));
    }
}

Bytes comment(const PictureFacts& facts)
{
    const std::string text = "ASCII" + std::string(3, '\0') + "shot " + std::to_string(facts.shot) +
                             ", mode " + facts.mode + ", " + facts.whiteBalance + " " +
                             std::to_string(std::lround(facts.kelvin)) + " K, " + facts.quality;
    return {text.begin(), text.end()};
}

// What EXIF calls the light of a white balance; 0: not known.
std::uint16_t lightSource(const std::string& whiteBalance)
{
    constexpr std::array<std::pair<const char*, std::uint16_t>, 8> kSources{{{"Daylight", 1},
                                                                             {"sunlight", 1},
                                                                             {"Fluorescent", 2},
                                                                             {"Tungsten", 3},
                                                                             {"Incandescent", 3},
                                                                             {"Flash", 4},
                                                                             {"Cloudy", 10},
                                                                             {"Shade", 11}}};
    for (const auto& [text, source] : kSources) {
        if (whiteBalance.find(text) != std::string::npos) {
            return source;
        }
    }
    return 0;
}

// What is the same in every picture.
void addCamera(TiffDirectory& directory)
{
    directory.opaque(0x9101, {1, 2, 3, 0});  // brightness, blue, red
    directory.shorts(0x9209, {0});           // no flash
    directory.ratio(0x920A, 50, 1);          // focal length
    directory.text(0x9290, "00");            // parts of the second
    directory.opaque(0xA000, {'0', '1', '0', '0'});
    directory.shorts(0xA001, {1});      // sRGB
    directory.shorts(0xA217, {2});      // a sensor of one chip
    directory.opaque(0xA300, {3});      // a camera's picture
    directory.opaque(0xA301, {1});      // of something
    directory.shorts(0xA401, {0});      // developed as usual
    directory.shorts(0xA405, {50});     // focal length on film
    directory.shorts(0xA406, {0});      // no scene programme
    directory.text(0xA431, "0000001");  // serial number
    directory.text(0xA434, "Virtual 50 mm");
}

// A directory that describes the thumbnail, which lies at `offset`.
TiffDirectory thumbnailDirectory(std::size_t offset, const Bytes& thumbnail)
{
    TiffDirectory directory;
    directory.shorts(0x0103, {6});  // JPEG
    directory.ratio(0x011A, 72, 1);
    directory.ratio(0x011B, 72, 1);
    directory.shorts(0x0128, {2});
    directory.number(0x0201, static_cast<std::uint32_t>(offset));
    directory.number(0x0202, static_cast<std::uint32_t>(thumbnail.size()));
    return directory;
}

Bytes segment(TiffDirectory main, const TiffDirectory& exif, const Bytes& thumbnail)
{
    main.number(kExifPointer, 0);
    const std::size_t exifAt = 8 + main.size();
    const std::size_t nextAt = exifAt + exif.size();
    main.number(kExifPointer, static_cast<std::uint32_t>(exifAt));

    Bytes tiff{'I', 'I', 42, 0, 8, 0, 0, 0};
    main.append(tiff, thumbnail.empty() ? 0 : static_cast<std::uint32_t>(nextAt));
    exif.append(tiff, 0);
    if (!thumbnail.empty()) {
        const std::size_t behind = nextAt + thumbnailDirectory(0, thumbnail).size();
        thumbnailDirectory(behind, thumbnail).append(tiff, 0);
        tiff.insert(tiff.end(), thumbnail.begin(), thumbnail.end());
    }

    const std::size_t length = 2 + 6 + tiff.size();
    Bytes segment(2 + length);
    segment[0] = 0xFF;
    segment[1] = 0xE1;
    segment[2] = static_cast<std::uint8_t>(length >> 8U);
    segment[3] = static_cast<std::uint8_t>(length & 0xFFU);
    std::memcpy(&segment[4], "Exif", 4);
    std::copy(tiff.begin(), tiff.end(), segment.begin() + 10);
    return segment;
}

}  // namespace

TiffDirectory mainDirectory(const PictureFacts& facts)
{
    TiffDirectory directory;
    directory.text(0x010F, facts.make);
    directory.text(0x0110, facts.model);
    directory.shorts(0x0112, {1});
    directory.ratio(0x011A, 300, 1);
    directory.ratio(0x011B, 300, 1);
    directory.shorts(0x0128, {2});  // pixels an inch
    directory.text(0x0131, "Virtual camera");
    directory.text(0x0132, timeText(facts.time, ':', ' '));
    return directory;
}

TiffDirectory exifDirectory(const PictureFacts& facts)
{
    const std::string time = timeText(facts.time, ':', ' ');
    // As the makers of these tags count: in stops.
    const auto thousandths = [](double stops) {
        return static_cast<std::int32_t>(std::lround(std::clamp(stops, -30.0, 30.0) * 1000));
    };
    const auto aperture =
        static_cast<std::uint32_t>(thousandths(2 * std::log2(std::max(1.0, facts.apertureNumber))));
    TiffDirectory directory;
    addCamera(directory);
    addShutter(directory, facts.shutterSeconds);
    directory.ratio(0x829D, static_cast<std::uint32_t>(std::lround(facts.apertureNumber * 10)), 10);
    directory.shorts(0x8822, {static_cast<std::uint16_t>(facts.exposureProgram)});
    directory.shorts(0x8827, {static_cast<std::uint16_t>(std::min(facts.iso, 65535))});
    directory.shorts(0x8830, {2});  // what follows is the recommended exposure index
    directory.number(0x8832, static_cast<std::uint32_t>(facts.iso));
    directory.opaque(0x9000, {'0', '2', '3', '1'});
    directory.text(0x9003, time);
    directory.text(0x9004, time);
    directory.text(0x9010, "+00:00");
    directory.signedRatio(0x9204, static_cast<std::int32_t>(std::lround(facts.compensation * 3)),
                          3);
    directory.signedRatio(0x9201, thousandths(-std::log2(facts.shutterSeconds)), 1000);
    directory.ratio(0x9202, aperture, 1000);
    directory.shorts(0x9208, {lightSource(facts.whiteBalance)});
    directory.shorts(0x9207, {static_cast<std::uint16_t>(facts.meteringMode)});
    directory.number(0x9211, static_cast<std::uint32_t>(facts.shot));
    directory.opaque(0x9286, comment(facts));
    directory.number(0xA002, static_cast<std::uint32_t>(facts.width));
    directory.number(0xA003, static_cast<std::uint32_t>(facts.height));
    const bool isManual = facts.exposureProgram == 1;
    directory.shorts(0xA402, {static_cast<std::uint16_t>(isManual ? 1 : 0)});
    directory.shorts(0xA403, {static_cast<std::uint16_t>(facts.whiteBalance == "Auto" ? 0 : 1)});
    return directory;
}

Bytes exifSegment(const PictureFacts& facts, const Bytes& thumbnail)
{
    return segment(mainDirectory(facts), exifDirectory(facts), thumbnail);
}

Bytes briefExifSegment(const PictureFacts& facts)
{
    TiffDirectory main;
    TiffDirectory exif;
    main.text(0x0110, facts.model.substr(0, 24));
    exif.text(0x9003, timeText(facts.time, ':', ' '));
    exif.number(0x9211, static_cast<std::uint32_t>(facts.shot));
    return segment(main, exif, {});
}

}  // namespace scene
