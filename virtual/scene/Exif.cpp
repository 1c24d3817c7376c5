#include "scene/Exif.h"

#include <algorithm>
#include <cmath>
#include <cstring>

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

}  // namespace

TiffDirectory mainDirectory(const PictureFacts& facts)
{
    TiffDirectory directory;
    directory.text(0x010F, facts.make);
    directory.text(0x0110, facts.model);
    directory.shorts(0x0112, {1});
    directory.text(0x0131, "Virtual camera");
    directory.text(0x0132, timeText(facts.time, ':', ' '));
    return directory;
}

TiffDirectory exifDirectory(const PictureFacts& facts)
{
    const std::string time = timeText(facts.time, ':', ' ');
    TiffDirectory directory;
    addShutter(directory, facts.shutterSeconds);
    directory.ratio(0x829D, static_cast<std::uint32_t>(std::lround(facts.apertureNumber * 10)), 10);
    directory.shorts(0x8822, {static_cast<std::uint16_t>(facts.exposureProgram)});
    directory.shorts(0x8827, {static_cast<std::uint16_t>(std::min(facts.iso, 65535))});
    directory.opaque(0x9000, {'0', '2', '3', '1'});
    directory.text(0x9003, time);
    directory.text(0x9004, time);
    directory.text(0x9010, "+00:00");
    directory.signedRatio(0x9204, static_cast<std::int32_t>(std::lround(facts.compensation * 3)),
                          3);
    directory.shorts(0x9207, {static_cast<std::uint16_t>(facts.meteringMode)});
    directory.number(0x9211, static_cast<std::uint32_t>(facts.shot));
    directory.opaque(0x9286, comment(facts));
    directory.number(0xA002, static_cast<std::uint32_t>(facts.width));
    directory.number(0xA003, static_cast<std::uint32_t>(facts.height));
    directory.shorts(0xA403, {static_cast<std::uint16_t>(facts.whiteBalance == "Auto" ? 0 : 1)});
    return directory;
}

Bytes exifSegment(const PictureFacts& facts, bool brief)
{
    TiffDirectory main;
    TiffDirectory exif;
    if (brief) {
        main.text(0x0110, facts.model.substr(0, 24));
        exif.text(0x9003, timeText(facts.time, ':', ' '));
        exif.number(0x9211, static_cast<std::uint32_t>(facts.shot));
    } else {
        main = mainDirectory(facts);
        exif = exifDirectory(facts);
    }
    main.number(kExifPointer, 0);
    main.number(kExifPointer, static_cast<std::uint32_t>(8 + main.size()));

    Bytes tiff{'I', 'I', 42, 0, 8, 0, 0, 0};
    main.append(tiff, 0);
    exif.append(tiff, 0);

    const std::size_t length = 2 + 6 + tiff.size();
    Bytes segment(4 + 6);
    segment[0] = 0xFF;
    segment[1] = 0xE1;
    segment[2] = static_cast<std::uint8_t>(length >> 8U);
    segment[3] = static_cast<std::uint8_t>(length & 0xFFU);
    std::memcpy(&segment[4], "Exif", 4);
    segment.resize(2 + length);
    std::memcpy(&segment[10], tiff.data(), tiff.size());
    return segment;
}

}  // namespace scene
