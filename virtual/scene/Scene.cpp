#include "scene/Scene.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "common/Random.h"
#include "scene/Caption.h"
#include "scene/Plate.h"

namespace scene {

namespace {

// The light of the scene, as a camera in it would take it for white.
constexpr double kSceneKelvin = 5200;

// What a camera makes of light: a sample for each level of a colour, as exposure and white balance
// want it.
class Developer
{
public:
    explicit Developer(const PictureFacts& facts)
    {
        const double exposure = std::exp2(facts.stops);
        const double warmth = std::pow(facts.kelvin / kSceneKelvin, 0.75);
        fill(m_curves[0], exposure * warmth);
        fill(m_curves[1], exposure);
        fill(m_curves[2], exposure / warmth);
    }

    std::uint8_t operator()(std::size_t channel, int level) const
    {
        return m_curves[channel][static_cast<std::size_t>(std::clamp(level, 0, kPlateLevels - 1))];
    }

private:
    using Curve = std::array<std::uint8_t, kPlateLevels>;

    static void fill(Curve& curve, double gain)
    {
        for (std::size_t level = 0; level < curve.size(); ++level) {
            const double root = static_cast<double>(level) / (kPlateLevels - 1);
            curve[level] = sample(root * root * kBrightest * gain);
        }
    }

    // A soft shoulder instead of a hard clip, more light is brighter all the way up; and a gentle
    // foot, as in prints.
    static std::uint8_t sample(double light)
    {
        const double toned = std::pow(1 - std::exp(-1.45 * light), 1 / 2.2);
        const double steep = toned * toned * (3 - 2 * toned);
        return static_cast<std::uint8_t>(std::lround((0.65 * toned + 0.35 * steep) * 255));
    }

    std::array<Curve, 3> m_curves{};
};

// Grain like a sensor's, in a plate's levels: the more, the higher the sensitivity and the less
// light there is. Most of it is in brightness, some in colour.
class Grain
{
public:
    explicit Grain(const PictureFacts& facts)
        : m_noise(keptNoise()), m_shot(static_cast<std::uint64_t>(facts.shot))
    {
        const double sensitivity = std::max(facts.iso, 1) / 100.0;
        const double deviation = 4 * std::sqrt(sensitivity) * std::exp2(-facts.stops / 2);
        m_strength = static_cast<int>(std::lround(std::clamp(deviation, 0.1, 400.0) * kUnit));
    }

    int operator[](std::size_t place) const
    {
        return m_noise[place % m_noise.size()] * m_strength / (kDeviation * kUnit);
    }

    // Each row begins at another place of the same noise.
    std::size_t startOf(int row) const
    {
        const std::uint64_t seed = m_shot << 16U ^ static_cast<std::uint64_t>(row);
        return static_cast<std::size_t>(virtualcamera::Random(seed).next() >> 32U);
    }

private:
    static constexpr int kUnit = 16;
    static constexpr int kDeviation = 32;  // of the noise

    using Noise = std::array<std::int8_t, 65536>;

    // Sums of several throws are distributed nearly as grain is.
    static Noise makeNoise()
    {
        Noise noise{};
        virtualcamera::Random random(1);
        for (std::int8_t& value : noise) {
            const std::uint64_t bits = random.next();
            int sum = -6 * 127;
            for (unsigned part = 0; part < 6; ++part) {
                sum += static_cast<int>(bits >> (part * 8U) & 0xFFU);
            }
            value = static_cast<std::int8_t>(std::clamp(sum * kDeviation / 181, -127, 127));
        }
        return noise;
    }

    static const Noise& keptNoise()
    {
        static const Noise kNoise = makeNoise();
        return kNoise;
    }

    const Noise& m_noise;
    std::uint64_t m_shot;
    int m_strength;
};

// Where samples of the picture lie in the plate, along one of its sides: between which neighbours,
// and how near to the second, in shares of 256.
struct Place {
    std::size_t first;
    std::size_t second;
    unsigned share;
};

std::vector<Place> placesOf(int count, double start, double length, int size)
{
    std::vector<Place> places;
    places.reserve(static_cast<std::size_t>(count));
    const auto last = static_cast<std::size_t>(size - 1);
    for (int i = 0; i < count; ++i) {
        const double at = std::clamp((start + length * (i + 0.5) / count) * size - 0.5, 0.0,
                                     static_cast<double>(last));
        const auto first = static_cast<std::size_t>(at);
        const auto share = static_cast<unsigned>((at - static_cast<double>(first)) * 256);
        places.push_back({first, std::min(first + 1, last), share});
    }
    return places;
}

unsigned blended(unsigned from, unsigned to, unsigned share)
{
    return (from * (256 - share) + to * share) >> 8U;
}

// What of the plate is shown: its middle, as large as the picture's shape allows, or a part of it.
Area shownOf(const Plate& plate, const PictureFacts& facts)
{
    const double shape = static_cast<double>(facts.width) / facts.height;
    const double own = static_cast<double>(plate.width) / plate.height;
    const double width = std::min(1.0, shape / own);
    const double height = std::min(1.0, own / shape);
    const double left = (1 - width) / 2 + facts.viewLeft * width;
    const double top = (1 - height) / 2 + facts.viewTop * height;
    return {left, top, left + facts.viewSize * width, top + facts.viewSize * height};
}

// Writes the shot's number on its card.
void drawNumber(Plate& plate, int shot)
{
    const Area card = numberCard();
    const TextBlock text = textBlock(std::to_string(shot));
    const double width = (card.right - card.left) * plate.width;
    const double height = (card.bottom - card.top) * plate.height;
    const double scale = 0.7 * std::min(width / text.width, height / text.height);
    const double left = card.left * plate.width + (width - text.width * scale) / 2;
    const double top = card.top * plate.height + (height - text.height * scale) / 2;
    for (const Box& box : text.boxes) {
        for (int y = static_cast<int>(top + box.top * scale); y < top + box.bottom * scale; ++y) {
            for (int x = static_cast<int>(left + box.left * scale); x < left + box.right * scale;
                 ++x) {
                std::uint16_t* const code =
                    &plate.codes[static_cast<std::size_t>(y * plate.width + x) * 3];
                std::for_each(code, code + 3, [](std::uint16_t& level) { level /= 5; });
            }
        }
    }
}

// One pass of a box blur over `count` pixels that lie `stride` levels apart.
void blurLine(const std::vector<std::uint16_t>& from, std::vector<std::uint16_t>& to,
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
            to[at(i)] = static_cast<std::uint16_t>(sum / (2 * radius + 1));
            sum += from[at(i + radius + 1)] - from[at(i - radius)];
        }
    }
}

void blur(Plate& plate, double defocus)
{
    const int radius =
        std::min(static_cast<int>(std::lround(defocus * plate.width / 1000)), plate.width / 4);
    if (radius < 1) {
        return;
    }
    const std::size_t row = static_cast<std::size_t>(plate.width) * 3;
    std::vector<std::uint16_t> across(plate.codes.size());
    for (int y = 0; y < plate.height; ++y) {
        blurLine(plate.codes, across, static_cast<std::size_t>(y) * row, 3, plate.width, radius);
    }
    for (int x = 0; x < plate.width; ++x) {
        blurLine(across, plate.codes, static_cast<std::size_t>(x) * 3, row, plate.height, radius);
    }
}

Plate plateOf(const PictureFacts& facts)
{
    Plate plate = *plateFor(facts.width);
    drawNumber(plate, facts.shot);
    blur(plate, facts.defocus);
    return plate;
}

}  // namespace

class Photograph::Parts
{
public:
    explicit Parts(const PictureFacts& facts)
        : m_facts(facts), m_plate(plateOf(facts)), m_developer(facts), m_grain(facts)
    {
        const Area shown = shownOf(m_plate, facts);
        m_across = placesOf(facts.width, shown.left, shown.right - shown.left, m_plate.width);
        m_down = placesOf(facts.height, shown.top, shown.bottom - shown.top, m_plate.height);
    }

    Image rows(int top, int bottom) const
    {
        Image image{m_facts.width, bottom - top, {}};
        const std::size_t length = m_across.size() * 3;
        image.samples.resize(length * static_cast<std::size_t>(image.height));
        std::vector<std::uint16_t> light;
        for (int y = top; y < bottom; ++y) {
            lightAt(m_down[static_cast<std::size_t>(y)], light);
            develop(y, light, &image.samples[length * static_cast<std::size_t>(y - top)]);
        }
        if (m_facts.hasCaption) {
            drawCaption(image, m_facts, top);
        }
        return image;
    }

private:
    // A row between two of the plate's.
    void lightAt(const Place& place, std::vector<std::uint16_t>& light) const
    {
        const std::size_t length = static_cast<std::size_t>(m_plate.width) * 3;
        light.resize(length);
        const std::uint16_t* const upper = &m_plate.codes[place.first * length];
        const std::uint16_t* const lower = &m_plate.codes[place.second * length];
        for (std::size_t i = 0; i < length; ++i) {
            light[i] = static_cast<std::uint16_t>(blended(upper[i], lower[i], place.share));
        }
    }

    void develop(int y, const std::vector<std::uint16_t>& light, std::uint8_t* sample) const
    {
        std::size_t place = m_grain.startOf(y);
        for (const Place& column : m_across) {
            const std::uint16_t* const left = &light[column.first * 3];
            const std::uint16_t* const right = &light[column.second * 3];
            const int brightness = m_grain[place];
            for (std::size_t channel = 0; channel < 3; ++channel) {
                const unsigned level = blended(left[channel], right[channel], column.share);
                const int color = m_grain[place + 1 + channel] / 2;
                *sample++ = m_developer(channel, static_cast<int>(level) + brightness + color);
            }
            place += 4;
        }
    }

    const PictureFacts m_facts;
    const Plate m_plate;
    const Developer m_developer;
    const Grain m_grain;
    std::vector<Place> m_across;
    std::vector<Place> m_down;
};

Photograph::Photograph(const PictureFacts& facts) : m_parts(std::make_unique<const Parts>(facts)) {}

Photograph::~Photograph() = default;

Image Photograph::rows(int top, int bottom) const
{
    return m_parts->rows(top, bottom);
}

Image render(const PictureFacts& facts)
{
    return Photograph(facts).rows(0, facts.height);
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
