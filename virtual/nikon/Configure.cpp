// A camera's own settings as text.
#include <optional>
#include <sstream>

#include "common/Text.h"
#include "nikon/Codes.h"
#include "nikon/Maker.h"

namespace virtualnikon {

namespace {

using virtualcamera::integer;

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream stream(text);
    std::string part;
    while (std::getline(stream, part, separator)) {
        parts.emplace_back(virtualcamera::trimmed(part));
    }
    return parts;
}

std::optional<std::uint32_t> code(const std::string& text)
{
    const auto number = integer(text);
    if (!number || *number < 0 || *number > 0xFFFFFFFFLL) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(*number);
}

// "corrupt.source.0x8112.count"
std::string corrupt(World& world, const std::vector<std::string>& key, const std::string& value)
{
    const auto level = key.size() == 4 ? levelNamed(key[1]) : std::nullopt;
    const auto id = key.size() != 4   ? std::nullopt
                    : key[2] == "all" ? std::optional(kAllCapabilities)
                                      : code(key[2]);
    if (!level || !id) {
        return "a corruption is corrupt.LEVEL.CAPABILITY.WHAT";
    }
    std::string problem = world.corruptions[{*level, *id}].set(key[3], value);
    const bool isOfAll = *id == kAllCapabilities && key[3] == "count";
    if (problem.empty() && (isOfAll || Corruption::isOfDescriptor(key[3]))) {
        raiseDescriptorChange(world, *level);
    }
    return problem;
}

std::string setValue(World& world, const Camera& camera, std::uint32_t id, const std::string& value)
{
    const auto number = code(value);
    const auto changes = number ? camera.body->set(id, *number) : std::nullopt;
    if (!changes) {
        return "no such capability or position";
    }
    raiseChanges(world, camera, *changes);
    return {};
}

std::string setTexts(World& world, const Camera& camera, std::uint32_t id, const std::string& value)
{
    std::optional<std::vector<std::string>> texts;
    if (value != "own") {
        texts = split(value, '|');
    }
    const auto changes = camera.body->setTexts(id, texts);
    if (!changes) {
        return "no such list of texts";
    }
    raiseChanges(world, camera, *changes);
    return {};
}

std::string configureCamera(const Camera& camera, const std::string& key, const std::string& value)
{
    const auto number = code(value);
    if (key != "camera.id" || !number) {
        return "no such setting, or no number: " + key;
    }
    camera.body->setId(*number);
    return {};
}

}  // namespace

std::string Maker::configureOwn(const std::string& key, const std::string& value, int camera)
{
    const std::vector<std::string> parts = split(key, '.');
    if (!parts.empty() && parts[0] == "corrupt") {
        return corrupt(m_world, parts, value);
    }
    const std::shared_ptr<Camera> found = m_world.camera(camera);
    if (found == nullptr) {
        return "no such camera";
    }
    const auto id = parts.size() == 2 ? code(parts[1]) : std::nullopt;
    if (id && parts[0] == "value") {
        return setValue(m_world, *found, *id, value);
    }
    if (id && parts[0] == "list") {
        return setTexts(m_world, *found, *id, value);
    }
    return configureCamera(*found, key, value);
}

std::string Maker::describeCamera(int number) const
{
    const Body& body = *m_world.existing(number)->body;
    std::string text;
    text += "camera.name = " + body.name() + "\n";
    text += "camera.id = " + std::to_string(body.id()) + "\n";
    text += "camera.plugged = " + std::string(body.isPlugged ? "1" : "0") + "\n";
    text += "camera.mode = " + std::to_string(body.mode()) + "\n";
    for (const Capability& capability : body.capabilities()) {
        const std::uint32_t value =
            capability.elementType == 0 ? capability.number : capability.current;
        text += "value." + virtualcamera::hexadecimal(capability.id) + " = " +
                std::to_string(value) + "\n";
    }
    return text;
}

}  // namespace virtualnikon
