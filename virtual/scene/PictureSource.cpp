#include "scene/PictureSource.h"

#include <stb_image_write.h>

#include <algorithm>
#include <cstring>

#include "common/Random.h"
#include "scene/Exif.h"
#include "scene/Parallel.h"

namespace scene {

namespace {

constexpr std::size_t kLongestComment = 65533;  // bytes of text in one JPEG comment segment
constexpr int kSmallestWidth = 8;

// From this width on a picture is as a camera's: with a thumbnail, and raw files of its own size.
// Smaller ones are for quick tests.
constexpr int kLargeWidth = 1600;
constexpr int kThumbnailWidth = 160;
constexpr int kPreviewWidth = 1620;

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

// A large picture is made of strips: each is small enough to stay in the processor's memory. Their
// height is a multiple of what the encoder takes together.
constexpr int kStripHeight = 128;

template <typename Work>
void doStrips(int height, Work work)
{
    doAll(static_cast<std::size_t>((height + kStripHeight - 1) / kStripHeight),
          [&](std::size_t strip) {
              const int top = static_cast<int>(strip) * kStripHeight;
              work(strip, top, std::min(height, top + kStripHeight));
          });
}

std::size_t numberAt(const Bytes& jpeg, std::size_t at)
{
    return static_cast<std::size_t>(jpeg[at]) * 256 + jpeg[at + 1];
}

// Where a JPEG's segment with this marker begins.
std::size_t segmentAt(const Bytes& jpeg, std::uint8_t marker)
{
    std::size_t at = 2;
    while (jpeg[at + 1] != marker) {
        at += 2 + numberAt(jpeg, at + 2);
    }
    return at;
}

void append16BigEndian(Bytes& bytes, std::size_t value)
{
    bytes.push_back(static_cast<std::uint8_t>(value >> 8U & 0xFFU));
    bytes.push_back(static_cast<std::uint8_t>(value & 0xFFU));
}

// Joins pictures of the same width, one below the other: the code of each is what lies between two
// restart markers of the whole. Only the last one may be lower than the others.
Bytes joined(const std::vector<Bytes>& strips, int width, int height)
{
    constexpr std::uint8_t kFrame = 0xC0;
    constexpr std::uint8_t kScan = 0xDA;
    constexpr std::uint8_t kInterval = 0xDD;
    const Bytes& first = strips.front();
    const std::size_t frame = segmentAt(first, kFrame);
    const std::size_t scan = segmentAt(first, kScan);
    const std::size_t code = scan + 2 + numberAt(first, scan + 2);
    const int block = first[frame + 11] == 0x22 ? 16 : 8;  // the sampling of the brightness
    const int blocks = (width + block - 1) / block * (kStripHeight / block);

    Bytes whole(first.begin(), first.begin() + static_cast<std::ptrdiff_t>(scan));
    whole[frame + 5] = static_cast<std::uint8_t>(height / 256);
    whole[frame + 6] = static_cast<std::uint8_t>(height % 256);
    whole.insert(whole.end(), {0xFF, kInterval, 0, 4});
    append16BigEndian(whole, static_cast<std::size_t>(blocks));
    whole.insert(whole.end(), first.begin() + static_cast<std::ptrdiff_t>(scan),
                 first.begin() + static_cast<std::ptrdiff_t>(code));
    for (std::size_t strip = 0; strip < strips.size(); ++strip) {
        if (strip > 0) {
            whole.insert(whole.end(), {0xFF, static_cast<std::uint8_t>(0xD0 + (strip - 1) % 8)});
        }
        whole.insert(whole.end(), strips[strip].begin() + static_cast<std::ptrdiff_t>(code),
                     strips[strip].end() - 2);
    }
    whole.insert(whole.end(), {0xFF, 0xD9});
    return whole;
}

Bytes encodedPhotograph(const PictureFacts& facts)
{
    if (facts.width < kLargeWidth) {
        return encode(render(facts), facts.jpegQuality);
    }
    const Photograph photograph(facts);
    std::vector<Bytes> strips(
        static_cast<std::size_t>((facts.height + kStripHeight - 1) / kStripHeight));
    doStrips(facts.height, [&](std::size_t strip, int top, int bottom) {
        strips[strip] = encode(photograph.rows(top, bottom), facts.jpegQuality);
    });
    return joined(strips, facts.width, facts.height);
}

// The same picture without its caption, with another width.
PictureFacts reduced(const PictureFacts& facts, int width)
{
    PictureFacts small = facts;
    small.width = width;
    small.height = std::max(1, facts.height * width / facts.width);
    small.jpegQuality = std::min(85, facts.jpegQuality);
    small.hasCaption = width >= kLargeWidth;
    return small;
}

Bytes thumbnail(const PictureFacts& facts)
{
    if (facts.width < kLargeWidth) {
        return {};
    }
    return encode(render(reduced(facts, kThumbnailWidth)), 80);
}

// A sensor's data does not compress, and neither does this.
void appendNoise(Bytes& bytes, std::size_t count, std::uint64_t seed)
{
    virtualcamera::Random random(seed);
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
        parts.picture = encodedPhotograph(step);
        parts.exif = exifSegment(step, thumbnail(step));
        if (size == 0 || parts.picture.size() + parts.exif.size() <= size) {
            return parts;
        }
    }
    parts.exif = briefExifSegment(facts);
    return parts;
}

// The sensor behind red, green, green and blue filters: 16-bit values, little-endian.
Bytes mosaicOf(const PictureFacts& facts)
{
    const Photograph photograph(facts);
    const auto width = static_cast<std::size_t>(facts.width);
    Bytes mosaic(width * static_cast<std::size_t>(facts.height) * 2);
    doStrips(facts.height, [&](std::size_t /*strip*/, int top, int bottom) {
        const Image image = photograph.rows(top, bottom);
        const std::uint8_t* pixel = image.samples.data();
        std::uint8_t* value = &mosaic[width * static_cast<std::size_t>(top) * 2];
        for (int y = top; y < bottom; ++y) {
            for (int x = 0; x < facts.width; ++x, pixel += 3) {
                const unsigned light = pixel[x % 2 + y % 2] * 64U;
                *value++ = static_cast<std::uint8_t>(light & 0xFFU);
                *value++ = static_cast<std::uint8_t>(light >> 8U);
            }
        }
    });
    return mosaic;
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
    PictureFacts preview = facts.width > kPreviewWidth ? reduced(facts, kPreviewWidth) : facts;
    preview.jpegQuality = std::min(90, facts.jpegQuality);  // above 90 the subsampling changes

    RawParts parts;
    parts.hasExif = !brief;
    parts.main = brief ? TiffDirectory{} : mainDirectory(facts);
    parts.exif = exifDirectory(facts);
    parts.preview = encodedPhotograph(preview);
    if (!brief) {
        parts.main.number(kExifPointer, 0);
        parts.mosaic = mosaicOf(facts);
    }
    describePreview(parts.main, preview.width, preview.height);
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
    // Preview and mosaic of small pictures are half as wide: a small file is a quick test.
    PictureFacts sensor = facts;
    if (facts.width < kLargeWidth) {
        sensor.width = std::max(kSmallestWidth, facts.width / 2);
        sensor.height = std::max(kSmallestWidth, facts.height / 2);
    }

    const auto wanted = static_cast<std::size_t>(size);
    const auto seed = static_cast<std::uint64_t>(facts.shot);
    for (const PictureFacts& step : shrinking(sensor)) {
        RawParts parts = rawParts(step, false);
        const std::size_t made = kRawHeader + parts.directories() + parts.preview.size();
        if (wanted == 0) {
            return assemble(parts, step.width, parts.mosaic.size(), seed, form);
        }
        if (made <= wanted) {
            return assemble(parts, step.width, wanted - made, seed, form);
        }
    }
    PictureFacts smallest = shrinking(sensor).back();
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
    return mosaicOf(facts);
}

Bytes makeFrame(const PictureFacts& facts, Histogram& histogram)
{
    const Image image = render(facts);
    histogram = histogramOf(image);
    return encode(image, facts.jpegQuality);
}

}  // namespace scene
