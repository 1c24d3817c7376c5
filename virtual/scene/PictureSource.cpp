#include "scene/PictureSource.h"

#include <stb_image_write.h>

#include <algorithm>
#include <cstring>

#include "common/Random.h"
#include "scene/Exif.h"

namespace scene {

namespace {

constexpr std::size_t kLongestComment = 65533;  // bytes of text in one JPEG comment segment
constexpr int kSmallestWidth = 8;

void collect(void* context, void* data, int size)
{
    auto* bytes = static_cast<Bytes*>(context);
    const auto* start = static_cast<const std::uint8_t*>(data);
    bytes->insert(bytes->end(), start, start + size);
}

Bytes encode(const Image& image, int quality)
{
    Bytes bytes;
    bytes.reserve(image.samples.size() / 8 + 1024);
    stbi_write_jpg_to_func(collect, &bytes, image.width, image.height, 3, image.samples.data(),
                           quality);
    return bytes;
}

// A sensor's data does not compress, and neither does this.
void appendNoise(Bytes& bytes, std::size_t count, std::uint64_t seed)
{
    steering::Random random(seed);
    std::size_t at = bytes.size();
    bytes.resize(at + count);
    for (const std::size_t end = bytes.size(); at < end; at += 8) {
        const std::uint64_t bits = random.next();
        std::memcpy(&bytes[at], &bits, std::min<std::size_t>(8, end - at));
    }
}

// Comment segments of `size` bytes altogether. Less than a segment's head is filled with 0xFF,
// which may stand before any marker.
Bytes filling(std::size_t size, std::uint64_t seed)
{
    Bytes bytes;
    bytes.reserve(size);
    while (size >= 4) {
        std::size_t text = std::min(size - 4, kLongestComment);
        const std::size_t rest = size - 4 - text;
        if (rest > 0 && rest < 4) {
            text -= 4;
        }
        bytes.push_back(0xFF);
        bytes.push_back(0xFE);
        bytes.push_back(static_cast<std::uint8_t>((text + 2) >> 8U));
        bytes.push_back(static_cast<std::uint8_t>((text + 2) & 0xFFU));
        appendNoise(bytes, text, seed++);
        size -= 4 + text;
    }
    bytes.insert(bytes.end(), size, 0xFF);
    return bytes;
}

// Ever smaller pictures, until one fits.
std::vector<PictureFacts> shrinking(const PictureFacts& facts)
{
    std::vector<PictureFacts> steps{facts};
    while (steps.back().width > kSmallestWidth) {
        PictureFacts smaller = steps.back();
        smaller.width = std::max(kSmallestWidth, smaller.width / 2);
        smaller.height = std::max(kSmallestWidth, smaller.height / 2);
        smaller.hasCaption = smaller.width >= 160;
        steps.push_back(smaller);
    }
    return steps;
}

struct JpegParts {
    Bytes picture;
    Bytes exif;
};

JpegParts fittingJpeg(const PictureFacts& facts, std::size_t size)
{
    JpegParts parts;
    for (const PictureFacts& step : shrinking(facts)) {
        parts.picture = encode(render(step), step.jpegQuality);
        parts.exif = exifSegment(step, false);
        if (size == 0 || parts.picture.size() + parts.exif.size() <= size) {
            return parts;
        }
    }
    parts.exif = exifSegment(facts, true);
    return parts;
}

// The sensor behind red, green, green and blue filters.
void appendMosaic(Bytes& bytes, const Image& image)
{
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            const auto channel = static_cast<std::size_t>(x % 2 + y % 2);
            const auto pixel = static_cast<std::size_t>(y) * static_cast<std::size_t>(image.width) +
                               static_cast<std::size_t>(x);
            append16(bytes, static_cast<std::uint16_t>(image.samples[pixel * 3 + channel] << 6U));
        }
    }
}

struct RawParts {
    TiffDirectory main;
    TiffDirectory exif;
    TiffDirectory sensor;
    Bytes preview;
    Bytes mosaic;
    bool hasExif = true;

    std::size_t directories() const
    {
        return main.size() + sensor.size() + (hasExif ? exif.size() : 0);
    }
};

constexpr std::size_t kRawHeader = 16;

enum class RawForm { kMarked, kPlain };

void describePreview(TiffDirectory& directory, int width, int height)
{
    directory.number(0x0100, static_cast<std::uint32_t>(width));
    directory.number(0x0101, static_cast<std::uint32_t>(height));
    directory.shorts(0x0102, {8, 8, 8});
    directory.shorts(0x0103, {7});  // JPEG
    directory.shorts(0x0106, {6});  // YCbCr
    directory.number(0x0111, 0);
    directory.shorts(0x0115, {3});
    directory.number(0x0117, 0);
    directory.shorts(0x0212, {2, 2});
}

void describeSensor(TiffDirectory& directory, int width)
{
    directory.number(0x0100, static_cast<std::uint32_t>(width));
    directory.number(0x0101, 0);
    directory.shorts(0x0102, {16});
    directory.shorts(0x0103, {1});      // not compressed
    directory.shorts(0x0106, {32803});  // colour filter array
    directory.number(0x0111, 0);
    directory.shorts(0x0115, {1});
    directory.number(0x0117, 0);
}

RawParts rawParts(const PictureFacts& facts, bool brief)
{
    PictureFacts preview = facts;
    preview.jpegQuality = std::min(90, facts.jpegQuality);  // above 90 the subsampling changes
    const Image image = render(preview);

    RawParts parts;
    parts.hasExif = !brief;
    parts.main = brief ? TiffDirectory{} : mainDirectory(facts);
    parts.exif = exifDirectory(facts);
    parts.preview = encode(image, preview.jpegQuality);
    if (!brief) {
        parts.main.number(kExifPointer, 0);
        appendMosaic(parts.mosaic, image);
    }
    describePreview(parts.main, facts.width, facts.height);
    describeSensor(parts.sensor, facts.width);
    return parts;
}

void appendHeader(Bytes& file, RawForm form, std::size_t sensorAt)
{
    file = {'I', 'I', 42, 0, kRawHeader, 0, 0, 0};
    if (form == RawForm::kMarked) {
        file.insert(file.end(), {'C', 'R', 2, 0});
        append32(file, static_cast<std::uint32_t>(sensorAt));
    }
    file.resize(kRawHeader);
}

Bytes assemble(RawParts& parts, int width, std::size_t strip, std::uint64_t seed, RawForm form)
{
    const std::size_t exifAt = kRawHeader + parts.main.size();
    const std::size_t sensorAt = exifAt + (parts.hasExif ? parts.exif.size() : 0);
    const std::size_t previewAt = sensorAt + parts.sensor.size();
    const std::size_t stripAt = previewAt + parts.preview.size();
    if (parts.hasExif) {
        parts.main.number(kExifPointer, static_cast<std::uint32_t>(exifAt));
    }
    parts.main.number(0x0111, static_cast<std::uint32_t>(previewAt));
    parts.main.number(0x0117, static_cast<std::uint32_t>(parts.preview.size()));
    const std::size_t row = static_cast<std::size_t>(width) * 2;
    parts.sensor.number(0x0101, static_cast<std::uint32_t>(std::max<std::size_t>(1, strip / row)));
    parts.sensor.number(0x0111, static_cast<std::uint32_t>(stripAt));
    parts.sensor.number(0x0117, static_cast<std::uint32_t>(strip));

    Bytes file;
    file.reserve(stripAt + strip);
    appendHeader(file, form, sensorAt);
    parts.main.append(file, static_cast<std::uint32_t>(sensorAt));
    if (parts.hasExif) {
        parts.exif.append(file, 0);
    }
    parts.sensor.append(file, 0);
    file.insert(file.end(), parts.preview.begin(), parts.preview.end());
    const std::size_t sensed = std::min(strip, parts.mosaic.size());
    file.insert(file.end(), parts.mosaic.begin(),
                parts.mosaic.begin() + static_cast<std::ptrdiff_t>(sensed));
    appendNoise(file, strip - sensed, seed);
    return file;
}

Bytes makeRawOf(const PictureFacts& facts, std::int64_t size, RawForm form)
{
    // The preview and the mosaic are half as wide as the pictures: a small file is a quick test.
    PictureFacts half = facts;
    half.width = std::max(kSmallestWidth, facts.width / 2);
    half.height = std::max(kSmallestWidth, facts.height / 2);

    const auto wanted = static_cast<std::size_t>(size);
    const auto seed = static_cast<std::uint64_t>(facts.shot);
    for (const PictureFacts& step : shrinking(half)) {
        RawParts parts = rawParts(step, false);
        const std::size_t made = kRawHeader + parts.directories() + parts.preview.size();
        if (wanted == 0) {
            return assemble(parts, step.width, parts.mosaic.size(), seed, form);
        }
        if (made <= wanted) {
            return assemble(parts, step.width, wanted - made, seed, form);
        }
    }
    PictureFacts smallest = shrinking(half).back();
    RawParts parts = rawParts(smallest, true);
    const std::size_t made = kRawHeader + parts.directories() + parts.preview.size();
    return assemble(parts, smallest.width, wanted > made ? wanted - made : 0, seed, form);
}

}  // namespace

Bytes makeJpeg(const PictureFacts& facts, std::int64_t size)
{
    const auto wanted = static_cast<std::size_t>(size);
    JpegParts parts = fittingJpeg(facts, wanted);
    const std::size_t made = parts.picture.size() + parts.exif.size();

    Bytes file;
    file.reserve(std::max(made, wanted));
    const auto afterStart = parts.picture.begin() + 2;
    file.insert(file.end(), parts.picture.begin(), afterStart);
    file.insert(file.end(), parts.exif.begin(), parts.exif.end());
    if (wanted > made) {
        const Bytes fill = filling(wanted - made, static_cast<std::uint64_t>(facts.shot));
        file.insert(file.end(), fill.begin(), fill.end());
    }
    file.insert(file.end(), afterStart, parts.picture.end());
    return file;
}

Bytes makeRaw(const PictureFacts& facts, std::int64_t size)
{
    return makeRawOf(facts, size, RawForm::kMarked);
}

Bytes makePlainRaw(const PictureFacts& facts, std::int64_t size)
{
    return makeRawOf(facts, size, RawForm::kPlain);
}

Bytes makeSensorRows(const PictureFacts& facts)
{
    Bytes rows;
    appendMosaic(rows, render(facts));
    return rows;
}

Bytes makeFrame(const PictureFacts& facts, Histogram& histogram)
{
    const Image image = render(facts);
    histogram = histogramOf(image);
    return encode(image, facts.jpegQuality);
}

}  // namespace scene
