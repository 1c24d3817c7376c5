#include "scene/Plate.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <mutex>
#include <utility>

#include "scene/Parallel.h"
#include "scene/StillLife.h"
#include "scene/Surface.h"

namespace scene {

namespace {

std::uint16_t codeOf(double light)
{
    const double share = std::sqrt(std::clamp(light / kBrightest, 0.0, 1.0));
    return static_cast<std::uint16_t>(std::lround(share * (kPlateLevels - 1)));
}

class Drawing
{
public:
    Drawing(int width, int height)
        : m_eye(static_cast<double>(height) / width),
          m_things(static_cast<std::size_t>(width) * static_cast<std::size_t>(height))
    {
        m_plate.width = width;
        m_plate.height = height;
        m_plate.codes.resize(m_things.size() * 3);
    }

    Plate run()
    {
        // Small ones are done before another thread could help.
        const int band = m_plate.width < 1000 ? m_plate.height : 40;
        const auto doRows = [&](auto work) {
            doAll(static_cast<std::size_t>((m_plate.height + band - 1) / band),
                  [&](std::size_t number) {
                      const int top = static_cast<int>(number) * band;
                      for (int y = top; y < std::min(m_plate.height, top + band); ++y) {
                          work(y);
                      }
                  });
        };
        doRows([&](int y) { draw(y); });
        doRows([&](int y) { soften(y); });
        return std::move(m_plate);
    }

private:
    void draw(int y)
    {
        for (int x = 0; x < m_plate.width; ++x) {
            const Ray ray = rayAt(x, y, 0.5, 0.5);
            const Hit hit = meet(ray);
            m_things[at(x, y)] = thing(hit);
            put(x, y, lightOf(ray, hit));
        }
    }

    // Edges have no steps.
    void soften(int y)
    {
        for (int x = 1; x + 1 < m_plate.width && y > 0 && y + 1 < m_plate.height; ++x) {
            if (isEdge(x, y)) {
                put(x, y, softened(x, y));
            }
        }
    }

    std::size_t at(int x, int y) const
    {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(m_plate.width) +
               static_cast<std::size_t>(x);
    }

    Ray rayAt(int x, int y, double along, double down) const
    {
        return m_eye.through((x + along) / m_plate.width, (y + down) / m_plate.height);
    }

    static int thing(const Hit& hit)
    {
        const int part = hit.matter == Matter::kChart ? patchAt(hit.u, hit.v) + 1 : 0;
        const auto number =
            hit.round == nullptr ? 0 : static_cast<int>(hit.round - kRound.data()) + 1;
        return (static_cast<int>(hit.matter) * 32 + number) * 32 + part;
    }

    bool isEdge(int x, int y) const
    {
        const int own = m_things[at(x, y)];
        return m_things[at(x - 1, y)] != own || m_things[at(x + 1, y)] != own ||
               m_things[at(x, y - 1)] != own || m_things[at(x, y + 1)] != own;
    }

    // The mean of some places in a pixel, none of which is above or beside another.
    Vector softened(int x, int y) const
    {
        constexpr std::array<std::array<double, 2>, 5> kPlaces{
            {{0.1, 0.3}, {0.3, 0.9}, {0.5, 0.5}, {0.7, 0.1}, {0.9, 0.7}}};
        Vector sum;
        for (const auto& [along, down] : kPlaces) {
            const Ray ray = rayAt(x, y, along, down);
            sum = sum + lightOf(ray, meet(ray));
        }
        return sum * (1.0 / kPlaces.size());
    }

    void put(int x, int y, const Vector& light)
    {
        std::uint16_t* const code = &m_plate.codes[at(x, y) * 3];
        code[0] = codeOf(light.x);
        code[1] = codeOf(light.y);
        code[2] = codeOf(light.z);
    }

    Eye m_eye;
    Plate m_plate;
    std::vector<int> m_things;  // what each pixel shows
};

struct PlateSize {
    int width;
    int height;
    int widest;  // of the pictures that it is for
};

constexpr std::array<PlateSize, 3> kSizes{
    {{180, 120, 160}, {420, 280, 800}, {1800, 1200, 1000000}}};

std::mutex g_mutex;
std::array<std::shared_ptr<const Plate>, kSizes.size()> g_plates;  // guarded by it

}  // namespace

Area numberCard()
{
    const Eye eye(2.0 / 3);
    const Card& card = kCards[1];
    const Vector corner = card.across * card.halfWidth - card.up * card.halfHeight;
    const auto topLeft = eye.placeOf(card.center - corner);
    const auto bottomRight = eye.placeOf(card.center + corner);
    return {topLeft[0], topLeft[1], bottomRight[0], bottomRight[1]};
}

std::shared_ptr<const Plate> plateFor(int width)
{
    const auto* const size = std::find_if(kSizes.begin(), kSizes.end(),
                                          [&](const PlateSize& it) { return width <= it.widest; });
    const std::lock_guard<std::mutex> lock(g_mutex);
    std::shared_ptr<const Plate>& plate = g_plates[static_cast<std::size_t>(size - kSizes.begin())];
    if (plate == nullptr) {
        plate = std::make_shared<const Plate>(Drawing(size->width, size->height).run());
    }
    return plate;
}

}  // namespace scene
