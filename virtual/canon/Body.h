// A virtual camera's body: its settings, which of them may be changed, and how they hang together.
//
// Knows nothing of threads, references or files. Not thread-safe: the library guards it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "canon/Tables.h"
#include "scene/Exposure.h"
#include "scene/PictureSource.h"

namespace virtualcanon {

using scene::Bytes;

// A property's value, and the corruption that it can be told to answer with.
struct Property {
    std::uint32_t type = 0;
    Bytes value;

    std::optional<std::int32_t> falseCount;  // in the description
    std::optional<std::uint32_t> falseType;
    std::optional<std::uint32_t> falseSize;
    bool isUnterminated = false;
    bool hasRubbish = false;  // behind a text's terminator
};

// What a change of one setting changed altogether.
struct Changes {
    std::vector<std::uint32_t> values;
    std::vector<std::uint32_t> lists;
};

// The sensor's coordinates, which live view's positions are given in.
constexpr std::int32_t kSensorWidth = 5472;
constexpr std::int32_t kSensorHeight = 3648;
constexpr std::int32_t kZoomPart = 5;  // the zoom frame is a fifth of the sensor

enum class Lens { kZoom, kPrime, kNone };

class Body
{
public:
    Body(int number, Bytes name, std::uint32_t subType);

    int number() const { return m_number; }
    std::uint32_t subType() const { return m_subType; }
    void setSubType(std::uint32_t subType) { m_subType = subType; }

    // As the device information gives it: up to 256 bytes, 256 of them without terminator.
    const Bytes& name() const { return m_name; }
    Changes setName(const Bytes& name);
    std::string printableName() const { return {m_name.begin(), m_name.end()}; }

    // The property, null when the body has none of this id. Valid until the next change.
    Property* find(std::uint32_t id);
    const Property* find(std::uint32_t id) const;

    // The first 32 bits of a property's value, 0 when there is none.
    std::uint32_t value(std::uint32_t id) const;

    // All ids in ascending order.
    std::vector<std::uint32_t> ids() const;

    // True when the body describes allowed values for this property, be it none at all.
    bool hasList(std::uint32_t id) const;
    Values allowed(std::uint32_t id) const;

    // What the host may set: the result code for this value.
    std::uint32_t check(std::uint32_t id, const Bytes& value) const;

    // Changes a setting, whatever is allowed; what depends on it follows.
    Changes set(std::uint32_t id, const Bytes& value,
                std::optional<std::uint32_t> type = std::nullopt);
    Changes set(std::uint32_t id, std::uint32_t value);
    void remove(std::uint32_t id) { m_properties.erase(id); }

    // Gives a list of the test's own, or takes it back.
    Changes setAllowed(std::uint32_t id, const std::optional<Values>& values);

    Changes setLens(Lens lens);
    Changes setDialLocked(bool isLocked);

    // The light of the scene, in exposure values at ISO 100.
    void setLight(double exposureValue) { m_light = exposureValue; }

    // How long the shutter stays open with the settings now, in seconds.
    double exposureSeconds() const;
    bool isBulb() const { return value(0x436) == 4; }

    // What a picture taken now would look like. `time` is in seconds since 1970.
    scene::PictureFacts facts(std::int64_t time) const;

    // Live view: the focus ring, 0 is sharp; the drive codes are 1 to 3 and 0x8001 to 0x8003.
    bool driveLens(std::uint32_t code);
    void focus() { m_defocus = 0; }

    // State that comes and goes with exposures and sessions; the library sets it.
    int shots = 0;
    int files = 0;
    int exposures = 0;        // exposures that run now, 0 or 1
    bool isKeptOpen = false;  // the shutter, until somebody ends the exposure
    bool isAsleep = false;
    bool isPlugged = true;
    int framesToWarmUp = 0;
    Bytes pictureName;
    std::string portName;

private:
    using Snapshot = std::map<std::uint32_t, std::pair<Bytes, Values>>;

    void put(std::uint32_t id, std::uint32_t value);
    void makeFactory();
    bool isMetered(std::uint32_t id) const;
    bool isAutomatic() const;
    scene::Light light() const;
    double isoUsed() const;
    void settle(std::uint32_t except);
    void settleMode();
    void meter(std::uint32_t except);
    void clampZoomPosition();
    Values apertures() const;
    std::optional<Values> ownList(std::uint32_t id) const;
    Snapshot snapshot() const;
    Changes changesSince(const Snapshot& before) const;

    int m_number;
    Bytes m_name;
    std::uint32_t m_subType;
    std::map<std::uint32_t, Property> m_properties;
    std::map<std::uint32_t, Values> m_givenLists;
    Lens m_lens = Lens::kZoom;
    bool m_isDialLocked = false;
    double m_light = 10;
    std::uint32_t m_chosenTv = 0x70;
    std::uint32_t m_chosenAv = 0x30;
    int m_defocus = 0;
};

// A 32-bit value as a property holds it.
Bytes bytesOf(std::uint32_t value);

// A point, size or rectangle as a property holds it.
Bytes bytesOf(const std::vector<std::int32_t>& values);

// The first 32 bits of a value; shorter values count as filled with zeros.
std::uint32_t numberOf(const Bytes& value);

}  // namespace virtualcanon
