// A virtual Nikon camera's body: its settings, which of them may be changed, how they hang
// together.
//
// Knows nothing of threads, objects or files. Not thread-safe: the library guards it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "nikon/Capability.h"
#include "scene/Exposure.h"
#include "scene/PictureFacts.h"

namespace virtualnikon {

// What a change of one setting changed altogether.
struct Changes {
    std::vector<std::uint32_t> values;  // capabilities with another value or list
    bool descriptors = false;           // what may be done with some capability is different
};

// What files an image quality asks for.
struct QualityParts {
    bool hasRaw = false;
    bool hasJpeg = false;
    int jpegQuality = 85;
};

class Body
{
public:
    Body(int number, std::uint32_t id, std::string name);

    int number() const { return m_number; }

    // The id of its source object.
    std::uint32_t id() const { return m_id; }
    void setId(std::uint32_t id) { m_id = id; }

    const std::string& name() const { return m_name; }
    void setName(const std::string& name) { m_name = name; }

    // Null when the body has no such capability. Valid until the next change.
    const Capability* find(std::uint32_t id) const;

    // All of them in ascending order.
    std::vector<Capability> capabilities() const;

    // Moves an enumeration to a position or gives a number a value; what depends on it follows.
    // Refused, with nothing, when there is no such position or capability.
    std::optional<Changes> set(std::uint32_t id, std::uint32_t value);

    // Turns the mode dial; a mode that the dial does not have is added to it.
    Changes turnDial(std::uint32_t mode);

    // Gives an enumeration a list of the test's own, or takes it back.
    std::optional<Changes> setTexts(std::uint32_t id,
                                    const std::optional<std::vector<std::string>>& texts);

    // The exposure mode's number.
    std::uint32_t mode() const;

    // The light of the scene, in exposure values at ISO 100.
    void setLight(double exposureValue) { m_light = exposureValue; }

    // How long the shutter stays open with the settings now, in seconds.
    double exposureSeconds() const;
    bool isBulb() const;

    QualityParts quality() const;

    // What a picture taken now would look like. `time` is in seconds since 1970.
    scene::PictureFacts facts(std::int64_t time) const;

    // State that comes and goes; the library sets it.
    bool isPlugged = true;
    bool isExposing = false;
    int shots = 0;
    int files = 0;
    std::uint32_t nextItem = 1;

private:
    using Table = std::map<std::uint32_t, Capability>;

    void makeFactory();
    void settle();
    void meter();
    void choose(std::uint32_t id, const std::string& text);
    void chooseNearest(std::uint32_t id, double wanted);
    void relist(std::uint32_t id, const std::vector<std::string>& texts);
    void allow(std::uint32_t id, bool isSettable);
    bool isAutomatic() const;
    std::string textOf(std::uint32_t id) const;
    double isoUsed() const;
    scene::Light light() const;
    double apertureNumber() const;
    Changes changesSince(const Table& before) const;

    int m_number;
    std::uint32_t m_id;
    std::string m_name;
    Table m_table;
    std::map<std::uint32_t, std::vector<std::string>> m_givenLists;
    double m_light = 10;
    std::string m_chosenShutter = "1/125";
    std::string m_chosenAperture = "f/5.6";
};

}  // namespace virtualnikon
