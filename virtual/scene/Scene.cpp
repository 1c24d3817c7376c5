#include "scene/Scene.h"

#include <algorithm>
#include <cmath>

#include "common/Random.h"
#include "scene/Caption.h"

namespace scene {

namespace {

// The light of the scene, as a camera in it would take it for white.
constexpr double kSceneKelvin = 5200;

struct Light {
    double red;
    double green;
    double blue;
};

constexpr Light kZenith{0.10, 0.19, 0.42};
constexpr Light kHorizon{0.38, 0.44, 0.52};
constexpr Light kSun{6.0, 5.6, 4.6};
constexpr Light kFarHill{0.10, 0.14, 0.17};
constexpr Light kNearHill{0.05, 0.10, 0.045};
constexpr Light kMeadow{0.09, 0.16, 0.05};
constexpr Light kCardFrame{0.02, 0.02, 0.02};
constexpr std::array<Light, 12> kCardFields{{
    {0.90, 0.90, 0.90},
    {0.58, 0.58, 0.58},
    {0.36, 0.36, 0.36},
    {0.18, 0.18, 0.18},
    {0.09, 0.09, 0.09},
    {0.03, 0.03, 0.03},
    {0.43, 0.03, 0.04},
    {0.07, 0.29, 0.06},
    {0.03, 0.05, 0.29},
    {0.60, 0.50, 0.02},
    {0.50, 0.09, 0.30},
    {0.02, 0.24, 0.38},
}};

struct Pixel {
    std::uint8_t red;
    std::uint8_t green;
    std::uint8_t blue;
};

Light mix(const Light& from, const Light& to, double share)
{
    return {from.red + (to.red - from.red) * share, from.green + (to.green - from.green) * share,
            from.blue + (to.blue - from.blue) * share};
}

// Turns light into samples, as exposure and white balance want it.
class Developer
{
public:
    explicit Developer(const PictureFacts& facts)
    {
        const double exposure = std::exp2(facts.stops);
        const double warmth = std::pow(facts.kelvin / kSceneKelvin, 0.75);
        m_gain = {exposure * warmth, exposure, exposure / warmth};
    }

    Pixel operator()(const Light& light) const
    {
        return {sample(light.red * m_gain.red), sample(light.green * m_gain.green),
                sample(light.blue * m_gain.blue)};
    }

private:
    // A soft shoulder instead of a hard clip: more light is brighter all the way up.
    static std::uint8_t sample(double light)
    {
        const double toned = 1 - std::exp(-1.2 * light);
        return static_cast<std::uint8_t>(std::lround(std::pow(toned, 1 / 2.2) * 255));
    }

    Light m_gain{};
};

class Canvas
{
public:
    Canvas(int width, int height) : m_image{width, height, {}}
    {
        m_image.samples.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) *
                               3);
    }

    int width() const { return m_image.width; }
    int height() const { return m_image.height; }
    Image& image() { return m_image; }

    // Fills columns `left` to `right` (not included) of a row, cut to the image.
    void fillRow(int y, int left, int right, Pixel pixel)
    {
        left = std::clamp(left, 0, m_image.width);
        right = std::clamp(right, left, m_image.width);
        if (y < 0 || y >= m_image.height) {
            return;
        }
        std::uint8_t* sample = m_image.samples.data() + offset(left, y);
        for (int x = left; x < right; ++x) {
            *sample++ = pixel.red;
            *sample++ = pixel.green;
            *sample++ = pixel.blue;
        }
    }

    void fill(int left, int top, int right, int bottom, Pixel pixel)
    {
        for (int y = top; y < bottom; ++y) {
            fillRow(y, left, right, pixel);
        }
    }

private:
    std::size_t offset(int x, int y) const
    {
        return (static_cast<std::size_t>(y) * static_cast<std::size_t>(m_image.width) +
                static_cast<std::size_t>(x)) *
               3;
    }

    Image m_image;
};

void drawSky(Canvas& canvas, const Developer& develop)
{
    for (int y = 0; y < canvas.height(); ++y) {
        const double share = std::min(1.0, 1.6 * y / canvas.height());
        canvas.fillRow(y, 0, canvas.width(), develop(mix(kZenith, kHorizon, share)));
    }
}

void drawSun(Canvas& canvas, const Developer& develop, int shot)
{
    const int radius = std::max(1, canvas.width() / 22);
    const int x = canvas.width() * (10 + (shot * 7) % 80) / 100;
    const int y = canvas.height() * (12 + (shot * 3) % 12) / 100;
    const Pixel pixel = develop(kSun);
    for (int row = -radius; row <= radius; ++row) {
        const int half = static_cast<int>(std::sqrt(radius * radius - row * row));
        canvas.fillRow(y + row, x - half, x + half + 1, pixel);
    }
}

void drawHills(Canvas& canvas, const Developer& develop)
{
    const Pixel farHill = develop(kFarHill);
    const Pixel nearHill = develop(kNearHill);
    for (int x = 0; x < canvas.width(); ++x) {
        const double at = static_cast<double>(x) / canvas.width();
        const int far = static_cast<int>(
            (0.46 + 0.05 * std::sin(at * 9.0) + 0.02 * std::sin(at * 23.0)) * canvas.height());
        const int near =
            static_cast<int>((0.56 + 0.06 * std::sin(at * 5.0 + 2.0)) * canvas.height());
        canvas.fill(x, far, x + 1, canvas.height(), farHill);
        canvas.fill(x, near, x + 1, canvas.height(), nearHill);
    }
}

void drawMeadow(Canvas& canvas, const Developer& develop)
{
    const int top = canvas.height() * 66 / 100;
    for (int y = top; y < canvas.height(); ++y) {
        const double share = static_cast<double>(y - top) / (canvas.height() - top);
        canvas.fillRow(y, 0, canvas.width(), develop(mix(kNearHill, kMeadow, share)));
    }
}

void drawCard(Canvas& canvas, const Developer& develop)
{
    const int field = std::max(1, canvas.width() / 16);
    const int gap = std::max(1, field / 8);
    const int left = canvas.width() / 2 - 3 * field;
    const int top = canvas.height() * 47 / 100;
    canvas.fill(left - gap, top - gap, left + 6 * field, top + 2 * field, develop(kCardFrame));
    for (int i = 0; i < 12; ++i) {
        const int x = left + (i % 6) * field;
        const int y = top + (i / 6) * field;
        canvas.fill(x, y, x + field - gap, y + field - gap,
                    develop(kCardFields[static_cast<std::size_t>(i)]));
    }
}

// Grain like a sensor's: the more, the higher the sensitivity.
void addGrain(Image& image, const PictureFacts& facts)
{
    const int amplitude = std::clamp(static_cast<int>(std::log2(facts.iso / 50.0 + 1)), 1, 12);
    const auto range = static_cast<unsigned>(2 * amplitude + 1);
    steering::Random random(static_cast<std::uint64_t>(facts.shot));
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < image.samples.size(); ++i) {
        bits = i % 8 == 0 ? random.next() : bits >> 8U;
        const int grain = static_cast<int>((bits & 0xFFU) * range >> 8U) - amplitude;
        image.samples[i] = static_cast<std::uint8_t>(std::clamp(image.samples[i] + grain, 0, 255));
    }
}

// One pass of a box blur over `count` pixels that lie `stride` samples apart.
void blurLine(const std::vector<std::uint8_t>& from, std::vector<std::uint8_t>& to,
              std::size_t start, std::size_t stride, int count, int radius)
{
    for (std::size_t channel = 0; channel < 3; ++channel) {
        const auto at = [&](int i) -> std::size_t {
            const auto inside = static_cast<std::size_t>(std::clamp(i, 0, count - 1));
            return start + inside * stride + channel;
        };
        int sum = 0;
        for (int i = -radius; i <= radius; ++i) {
            sum += from[at(i)];
        }
        for (int i = 0; i < count; ++i) {
            to[at(i)] = static_cast<std::uint8_t>(sum / (2 * radius + 1));
            sum += from[at(i + radius + 1)] - from[at(i - radius)];
        }
    }
}

void blur(Image& image, double defocus)
{
    const int radius =
        std::min(static_cast<int>(std::lround(defocus * image.width / 1000)), image.width / 4);
    if (radius < 1) {
        return;
    }
    const std::size_t row = static_cast<std::size_t>(image.width) * 3;
    std::vector<std::uint8_t> across(image.samples.size());
    for (int y = 0; y < image.height; ++y) {
        blurLine(image.samples, across, static_cast<std::size_t>(y) * row, 3, image.width, radius);
    }
    for (int x = 0; x < image.width; ++x) {
        blurLine(across, image.samples, static_cast<std::size_t>(x) * 3, row, image.height, radius);
    }
}

// Enlarges the part of the image that the facts ask for.
Image enlarged(const Image& image, const PictureFacts& facts)
{
    Image part{image.width, image.height, {}};
    part.samples.reserve(image.samples.size());
    const auto inside = [](double share, int size) {
        return static_cast<std::size_t>(std::clamp(static_cast<int>(share * size), 0, size - 1));
    };
    for (int y = 0; y < image.height; ++y) {
        const double down = facts.viewTop + facts.viewSize * y / image.height;
        const std::size_t row = inside(down, image.height) * static_cast<std::size_t>(image.width);
        for (int x = 0; x < image.width; ++x) {
            const double along = facts.viewLeft + facts.viewSize * x / image.width;
            const auto pixel = static_cast<std::ptrdiff_t>((row + inside(along, image.width)) * 3);
            const auto sample = image.samples.begin() + pixel;
            part.samples.insert(part.samples.end(), sample, sample + 3);
        }
    }
    return part;
}

}  // namespace

Image render(const PictureFacts& facts)
{
    Canvas canvas(facts.width, facts.height);
    const Developer develop(facts);
    drawSky(canvas, develop);
    drawSun(canvas, develop, facts.shot);
    drawHills(canvas, develop);
    drawMeadow(canvas, develop);
    drawCard(canvas, develop);
    if (facts.viewSize < 1) {
        canvas.image() = enlarged(canvas.image(), facts);
    }
    blur(canvas.image(), facts.defocus);
    addGrain(canvas.image(), facts);
    if (facts.hasCaption) {
        drawCaption(canvas.image(), facts);
    }
    return std::move(canvas.image());
}

Histogram histogramOf(const Image& image)
{
    Histogram histogram{};
    for (std::size_t i = 0; i + 2 < image.samples.size(); i += 3) {
        const unsigned red = image.samples[i];
        const unsigned green = image.samples[i + 1];
        const unsigned blue = image.samples[i + 2];
        ++histogram[0][(red * 77 + green * 150 + blue * 29) >> 8U];
        ++histogram[1][red];
        ++histogram[2][green];
        ++histogram[3][blue];
    }
    return histogram;
}

}  // namespace scene
